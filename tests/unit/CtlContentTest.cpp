#include "ContentCommand.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "content/LspSettings.h"
#include "support/TempPlatform.h"

namespace qbrix::tools {
namespace {

class CtlContentTest : public ::testing::Test {
  protected:
    void SetUp() override { content::g_lspSettings.Reset(); }
    void TearDown() override { content::g_lspSettings.Reset(); }

    int Rule(std::vector<std::string> args) { return Run(RunRuleCommand, std::move(args)); }
    int Unit(std::vector<std::string> args) { return Run(RunUnitCommand, std::move(args)); }
    int Options(std::vector<std::string> args) { return Run(RunOptionsCommand, std::move(args)); }
    std::string Write(const std::string& name, const std::string& content) {
        std::string path = m_dir.File(name);
        std::ofstream(path, std::ios::binary) << content;
        return path;
    }

    std::ostringstream m_out;
    std::ostringstream m_err;
    test::TempPlatform m_platform;
    test::TempDirectory m_dir;

  private:
    using Command = int (*)(const std::vector<std::string>&, std::ostream&, std::ostream&);
    int Run(Command command, std::vector<std::string> args) {
        m_out.str("");
        m_err.str("");
        return command(args, m_out, m_err);
    }
};

const char kRuleFile[] =
    "<MASTER_RULE NAME='Zeros' RECURSE='1' ENABLE='1' DIRECTION='0' LOG='1'>"
    "<MAIN ENABLE='1'><FIND ENABLE='1'>o</FIND><REPLACE ENABLE='1'>0</REPLACE>"
    "<COMMENT>c</COMMENT></MAIN><REPLACE ENABLE='0'/></MASTER_RULE>";

TEST_F(CtlContentTest, ImportListTestExportDelete) {
    std::string file = Write("rule.xml", kRuleFile);
    std::string input = Write("page.html", "foo");
    ASSERT_EQ(Rule({"import", file, "--protocol", "pop3"}), 0) << m_err.str();
    EXPECT_EQ(Rule({"list"}), 0);
    EXPECT_EQ(m_out.str(), "");
    ASSERT_EQ(Rule({"list", "--protocol", "pop3"}), 0);
    EXPECT_EQ(m_out.str(), "Zeros\t1\t0\t\n");
    EXPECT_EQ(Rule({"import", file, "--protocol", "pop3"}), 1);
    EXPECT_EQ(Rule({"import", file, "--protocol", "pop3", "--overwrite"}), 0);

    std::string trace = m_dir.File("trace.txt");
    std::string output = m_dir.File("out.html");
    ASSERT_EQ(Rule({"test", "--name", "Zeros", "--protocol", "pop3", input, "--trace", trace,
                    "--output", output}),
              0)
        << m_err.str();
    // Stored once, the replace unit's blank Find is saved as searching and matches the whole
    // text; the import had switched the unit on.
    EXPECT_EQ(m_out.str(), "verdict 4\n");
    EXPECT_EQ(test::ReadFile(output), "f00");
    EXPECT_EQ(test::ReadFile(trace),
              "Main Rule:\r\n  found -modified  :c\r\n\r\nMain Rule:\r\n  found -modified  :c"
              "\r\nReplace Rule :\r\n  found  :\r\n\r\n -- processed :Zeros");
    // Straight from the file the replace unit has no Find at all and never matches.
    ASSERT_EQ(Rule({"test", "--file", file, input}), 0);
    EXPECT_EQ(m_out.str(), "verdict 3\n");

    std::string exported = m_dir.File("exported.xml");
    ASSERT_EQ(Rule({"export", "Zeros", exported, "--protocol", "pop3"}), 0);
    EXPECT_NE(test::ReadFile(exported).find("<MASTER_RULE NAME=\"Zeros\""), std::string::npos);
    EXPECT_EQ(Rule({"delete", "Zeros", "--protocol", "pop3"}), 0);
    EXPECT_EQ(Rule({"delete", "Zeros", "--protocol", "pop3"}), 1);
    EXPECT_EQ(Rule({"list", "--protocol", "pop3"}), 0);
    EXPECT_EQ(m_out.str(), "");
}

// A rule that would never end is stopped: the verdict is 5, the text is written unchanged and the
// command says why and fails.
TEST_F(CtlContentTest, AStoppedRuleTestSaysWhyAndFails) {
    std::string file =
        Write("loop.xml",
              "<MASTER_RULE NAME='Loop' RECURSE='1' ENABLE='1' DIRECTION='0' LOG='1'>"
              "<MAIN ENABLE='1'><FIND ENABLE='1'>x*</FIND><REPLACE ENABLE='1'>X"
              "</REPLACE><COMMENT>c</COMMENT></MAIN><REPLACE ENABLE='0'/>"
              "</MASTER_RULE>");
    std::string output = m_dir.File("out.txt");
    EXPECT_EQ(Rule({"test", "--file", file, Write("in.txt", "abc"), "--output", output}), 1);
    EXPECT_EQ(m_out.str(), "verdict 5\n");
    EXPECT_EQ(m_err.str(),
              "q-brixctl: the rule was stopped: full content would repeat forever: the Find "
              "matches an empty stretch at offset 0; the text is left unchanged\n");
    EXPECT_EQ(test::ReadFile(output), "abc");
}

TEST_F(CtlContentTest, UsageAndBadInput) {
    EXPECT_EQ(Rule({}), 2);
    EXPECT_EQ(Rule({"list", "--protocol", "ftp"}), 2);
    EXPECT_EQ(Rule({"export", "x"}), 2);
    EXPECT_EQ(Rule({"test", "in"}), 2);
    EXPECT_EQ(Rule({"import", Write("bad.xml", "<MASTER_RULE>")}), 1);
    EXPECT_EQ(Rule({"test", "--name", "none", Write("in", "x")}), 1);
    EXPECT_EQ(Unit({"test", "in"}), 2);
    EXPECT_EQ(Options({"set", "Nothing", "1"}), 2);
    EXPECT_EQ(Options({"set", "MaxSize", "12x"}), 2);
}

// A rule whose name or texts the store could not read back is refused before the store is
// touched, with the reason.
TEST_F(CtlContentTest, ImportRefusesWhatTheStoreCannotReadBack) {
    const std::string longName(120, 'L');
    const std::string longText(1000, 't');
    const std::string files[] = {
        "<MASTER_RULE NAME='" + longName +
            "' ENABLE='1' DIRECTION='0'><MAIN ENABLE='1'>"
            "<FIND ENABLE='1'>o</FIND></MAIN></MASTER_RULE>",
        "<MASTER_RULE NAME='Texts' ENABLE='1' DIRECTION='0'><MAIN ENABLE='1'>"
        "<FIND ENABLE='1'>o</FIND><COMMENT>" +
            longText + "</COMMENT></MAIN></MASTER_RULE>"};
    ASSERT_EQ(Rule({"import", Write("kept.xml", kRuleFile)}), 0) << m_err.str();
    for (const std::string& content : files) {
        EXPECT_EQ(Rule({"import", Write("long.xml", content)}), 1);
        EXPECT_NE(m_err.str().find("at most"), std::string::npos) << m_err.str();
    }
    ASSERT_EQ(Rule({"list"}), 0);
    EXPECT_EQ(m_out.str(), "Zeros\t1\t0\t\n");
}

TEST_F(CtlContentTest, RulesThatCannotBeStoredAsThemselvesAreRefusedAtImport) {
    ASSERT_EQ(Rule({"import", Write("keep.xml", kRuleFile)}), 0);
    const std::pair<std::string, std::string> cases[] = {
        {"NAME='a\\Main' DIRECTION='0'",
         "the rule's NAME \"a\\Main\" holds a backslash (\"\\\" separates keys)"},
        {"NAME='' DIRECTION='1'", "the rule has no NAME"},
        {"DIRECTION='1'", "the rule has no NAME"},
        {"NAME='n' DIRECTION='2'",
         "the rule's DIRECTION is 2; it must be 0 (incoming) or 1 (outgoing)"},
        {"NAME='n' DIRECTION='-1'", "the rule's DIRECTION is -1"},
    };
    for (const auto& [attributes, message] : cases) {
        std::string file = Write("bad.xml", "<MASTER_RULE " + attributes + "/>");
        EXPECT_EQ(Rule({"import", file}), 1) << attributes;
        EXPECT_EQ(m_err.str().rfind("q-brixctl: cannot import " + file + ": " + message, 0), 0u)
            << m_err.str();
    }
    ASSERT_EQ(Rule({"list"}), 0);
    EXPECT_EQ(m_out.str(), "Zeros\t1\t0\t\n");
}

TEST_F(CtlContentTest, UnitTestPrintsResults) {
    std::string input = Write("in.txt", "xabbcx");
    ASSERT_EQ(Unit({"test", "--find", "a(b+)c", input}), 0);
    EXPECT_EQ(m_out.str(), "Found from 2 to 4 (bb)\n");
    std::string output = m_dir.File("out.txt");
    ASSERT_EQ(Unit({"test", "--find", "b+", "--replace", "Y", input, "--output", output}), 0);
    EXPECT_EQ(m_out.str(), "Changed from 2 to 3 (bb)\n");
    EXPECT_EQ(test::ReadFile(output), "xaYcx");
    test::ScriptedMessages messages;
    EXPECT_EQ(Unit({"test", "--find", "(", input}), 1);
    ASSERT_EQ(messages.shown.size(), 1u);
    EXPECT_EQ(messages.shown[0].text, "Compile Find Error");
}

TEST_F(CtlContentTest, OptionsShowAndSet) {
    ASSERT_EQ(Options({"set", "EnableREG", "0", "--protocol", "pop3"}), 0);
    content::g_lspSettings.Reset();
    ASSERT_EQ(Options({"show", "--protocol", "pop3"}), 0);
    EXPECT_EQ(m_out.str(),
              "MaxSize\t100000\nEnableAV\t1\nBlockAV\t1\nEnableAVLOG\t1\nMaxAvTimeout\t5000\n"
              "EnableREG\t0\n");
    ASSERT_EQ(Options({"show"}), 0);
    EXPECT_NE(m_out.str().find("EnableREG\t1\n"), std::string::npos);
}

}  // namespace
}  // namespace qbrix::tools
