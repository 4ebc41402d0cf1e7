#include "content/RuleXml.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "content/RuleEngine.h"
#include "support/TempPlatform.h"

namespace qbrix::content {
namespace {

using platform::DWORD;

RegRule Stored(std::string find, std::string comment, std::string compare = "",
               std::string replace = "") {
    RegRule stored;
    stored.find = std::move(find);
    stored.findFlag = 1;
    stored.comment = std::move(comment);
    stored.compare = compare;
    stored.compareFlag = compare.empty() ? 0 : 1;
    stored.replace = replace;
    stored.replaceFlag = replace.empty() ? 0 : 1;
    return stored;
}

void WriteFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

class RuleXmlTest : public ::testing::Test {
  protected:
    std::string Path(const std::string& name = "rule.xml") { return m_dir.File(name); }
    test::TempDirectory m_dir;
};

TEST_F(RuleXmlTest, ExportWritesTheExactLayout) {
    RegRule replaceRule = Stored("x", "", "", "<&>");
    replaceRule.enable = 0;
    ContentRule rule(1, 1, "Ads \"1\"", Stored("a(b)", "m", "b"), 65537, replaceRule, {}, 1, 1,
                     "grp");
    ExportContentRule(rule, Path());
    EXPECT_EQ(test::ReadFile(Path()),
              "<?xml version='1.0'?><!--q-Brix Content Rule-->"
              "<MASTER_RULE NAME=\"Ads &quot;1&quot;\" RECURSE=\"1\" ENABLE=\"1\" DIRECTION=\"1\" "
              "LOG=\"1\"><MAIN ENABLE=\"1\"><FIND ENABLE=\"1\">a(b)</FIND><COMPARE ENABLE=\"1\">b"
              "</COMPARE><REPLACE ENABLE=\"0\"/><COMMENT>m</COMMENT></MAIN>"
              "<REPLACE ENABLE=\"0\"><FIND ENABLE=\"1\">x</FIND><COMPARE ENABLE=\"0\"/>"
              "<REPLACE ENABLE=\"1\">&lt;&amp;&gt;</REPLACE><COMMENT/></REPLACE></MASTER_RULE>");
}

TEST_F(RuleXmlTest, RoundTripKeepsRuleButNotGroupOrPopUp) {
    RegRule replaceRule = Stored("end", "r", "", "E");
    replaceRule.enable = 0;
    RegRule sub = Stored("href", "s\r\n<x>", "h", "\\n");
    sub.enable = 0;
    ContentRule rule(1, 1, "name with spaces", Stored("a [^>]*", "m\tt", "a", "b\\tc"), 1,
                     replaceRule, {sub, Stored("", "  "), Stored(" ", "\xE9\x81")}, 0, 1, "grp");
    ExportContentRule(rule, Path());

    ContentRule loaded;
    ASSERT_EQ(ImportContentRule(loaded, Path()), 0);
    EXPECT_EQ(loaded.name, "name with spaces");
    EXPECT_EQ(loaded.enable, 1u);
    EXPECT_EQ(loaded.direction, 1u);
    EXPECT_EQ(loaded.recurse, 1u);
    EXPECT_EQ(loaded.log, 0u);
    EXPECT_EQ(loaded.group, "");
    EXPECT_EQ(loaded.popUp, 0u);
    EXPECT_EQ(loaded.main.findText, "a [^>]*");
    EXPECT_EQ(loaded.main.compareText, "a");
    EXPECT_EQ(loaded.main.rawReplacement, "b\\tc");
    EXPECT_EQ(loaded.main.replacement, "b\tc");
    EXPECT_EQ(loaded.main.comment, "m\tt");
    ASSERT_EQ(loaded.subRules.size(), 3u);
    EXPECT_EQ(loaded.subRules[0]->comment, "s\r\n<x>");
    EXPECT_EQ(loaded.subRules[0]->enable, 0u);
    EXPECT_EQ(loaded.subRules[1]->findText, "");
    EXPECT_EQ(loaded.subRules[1]->comment, "  ");  // texts of blanks survive
    EXPECT_EQ(loaded.subRules[2]->findText, " ");
    EXPECT_EQ(loaded.subRules[2]->comment, "\xE9\x81");
    // The replace unit comes back switched on.
    EXPECT_EQ(loaded.replace.enable, 1u);
    EXPECT_EQ(loaded.replace.rawReplacement, "E");

    // Exporting the imported rule gives the same file but for the replace unit's enable.
    ExportContentRule(loaded, Path("again.xml"));
    std::string first = test::ReadFile(Path());
    std::string second = test::ReadFile(Path("again.xml"));
    EXPECT_EQ(first.replace(first.find("<REPLACE ENABLE=\"0\"><FIND"), 19, "<REPLACE ENABLE=\"1\""),
              second);
}

TEST_F(RuleXmlTest, SubstOnlyWithSubRulesAndEmptySubstImportsNone) {
    ContentRule rule;
    ExportContentRule(rule, Path());
    EXPECT_EQ(test::ReadFile(Path()).find("SUBST"), std::string::npos);
    WriteFile(Path(),
              "<MASTER_RULE NAME='n' ENABLE='1'><MAIN ENABLE='1'><FIND ENABLE='1'>x"
              "</FIND></MAIN><SUBST/></MASTER_RULE>");
    ContentRule loaded;
    ASSERT_EQ(ImportContentRule(loaded, Path()), 0);
    EXPECT_TRUE(loaded.subRules.empty());
    // Missing COMPARE and REPLACE children leave those parts off and empty.
    EXPECT_EQ(loaded.main.findText, "x");
    EXPECT_EQ(loaded.main.compareSwitch, 0u);
    EXPECT_EQ(loaded.main.compareText, "");
    EXPECT_EQ(loaded.main.comment, "");
}

TEST_F(RuleXmlTest, AttributesAreLenientNumbers) {
    WriteFile(Path(),
              "<MASTER_RULE RECURSE=' 1x' ENABLE='abc' DIRECTION='-1' LOG='99999999999'>"
              "<MAIN ENABLE='1'><COMMENT ENABLE='7'>c</COMMENT>"
              "<FIND ENABLE='0'>never</FIND><FIND ENABLE='1'>later</FIND></MAIN>"
              "<MAIN ENABLE='0'/><OTHER/></MASTER_RULE>");
    // Read as far as the file goes, then refused (no name, Direction -1) with its values read.
    ContentRule loaded;
    ASSERT_EQ(ImportContentRule(loaded, Path()), 2);
    EXPECT_EQ(loaded.recurse, 1u);
    EXPECT_EQ(loaded.enable, 0u);
    EXPECT_EQ(loaded.direction, 0xFFFFFFFFu);
    EXPECT_EQ(loaded.log, 0x7FFFFFFFu);
    EXPECT_EQ(loaded.name, "");
    // The second MAIN overwrote the first.
    EXPECT_EQ(loaded.main.enable, 0u);
    EXPECT_EQ(loaded.main.findText, "");
}

TEST_F(RuleXmlTest, FindSwitchedOffInFileNeverMatches) {
    WriteFile(Path(),
              "<MASTER_RULE NAME='n'><MAIN ENABLE='1'><FIND ENABLE='0'>x</FIND></MAIN>"
              "</MASTER_RULE>");
    ContentRule loaded;
    ASSERT_EQ(ImportContentRule(loaded, Path()), 0);
    EXPECT_FALSE(loaded.main.findPattern.IsCompiled());
}

TEST_F(RuleXmlTest, BadFilesAreRefused) {
    const std::string valid = "<MASTER_RULE NAME='n'/>";
    ContentRule loaded;
    EXPECT_EQ(ImportContentRule(loaded, Path("missing.xml")), 1);
    const char* const bad[] = {
        "",
        "<MASTER_RULE NAME='n'>",
        "<master_rule NAME='n'/>",
        "<OTHER/>",
        "<MASTER_RULE NAME='n'/><!-- trailing -->",
        "<MASTER_RULE NAME='n'/><?pi data?>",
        "<MASTER_RULE NAME='n'/><SECOND/>",
        "not xml at all",
    };
    for (const char* content : bad) {
        WriteFile(Path(), content);
        ContentRule rule;
        EXPECT_EQ(ImportContentRule(rule, Path()), 1) << content;
        EXPECT_EQ(rule.name, "") << content;
    }
    WriteFile(Path(), "<?xml version='1.0'?><!--c-->" + valid + "\n  ");
    EXPECT_EQ(ImportContentRule(loaded, Path()), 0);
    EXPECT_EQ(loaded.name, "n");
}

TEST_F(RuleXmlTest, HostileFilesEndWithoutCrash) {
    std::string deep = "<MASTER_RULE>";
    for (int i = 0; i < 200000; ++i)
        deep += "<SUBST>";
    WriteFile(Path(), deep);
    ContentRule rule;
    EXPECT_EQ(ImportContentRule(rule, Path()), 1);

    std::string closed = "<MASTER_RULE NAME='n'><SUBST>";
    for (int i = 0; i < 100000; ++i)
        closed += "<REGRULE>";
    for (int i = 0; i < 100000; ++i)
        closed += "</REGRULE>";
    closed += "</SUBST></MASTER_RULE>";
    WriteFile(Path(), closed);
    ContentRule nested;
    EXPECT_EQ(ImportContentRule(nested, Path()), 1);
    EXPECT_TRUE(nested.subRules.empty());

    WriteFile(Path(), "<MASTER_RULE NAME='" + std::string(1 << 20, 'x') + "'/>");
    ContentRule huge;
    EXPECT_EQ(ImportContentRule(huge, Path()), 0);
    EXPECT_EQ(huge.name.size(), 1u << 20);

    WriteFile(Path(), std::string(kMaxRuleFileBytes + 1, ' '));
    EXPECT_EQ(ImportContentRule(huge, Path()), 1);
}

TEST_F(RuleXmlTest, ExportToUnwritablePathWritesNothing) {
    ContentRule rule;
    ExportContentRule(rule, m_dir.File("no/such/dir/rule.xml"));
    EXPECT_FALSE(test::FileExists(m_dir.File("no/such/dir/rule.xml")));
}

TEST(RuleXmlNameTest, ProposedFileName) {
    EXPECT_EQ(ProposeExportFileName("a b:c/d"), "a_b.c-d");
    EXPECT_EQ(ProposeExportFileName("x\\y"), "x-y");
}

TEST_F(RuleXmlTest, ImportIntoListAsksBeforeOverwritingSameNameAnyCase) {
    test::ScriptedMessages messages;
    ContentRule exported(1, 0, "Rule", Stored("x", "c"), 0, Stored("", ""), {}, 1, 0, "");
    ExportContentRule(exported, Path());

    RuleList list;
    list.Append(std::make_unique<ContentRule>());
    list.At(0).name = "RULE";
    list.Append(std::make_unique<ContentRule>());
    list.At(1).name = "other";

    messages.QueueBoxAnswer(core::IDNO);
    EXPECT_EQ(ImportRuleIntoList(list, Path()), kImportDeclined);
    ASSERT_EQ(messages.shown.size(), 1u);
    EXPECT_EQ(messages.shown[0].text, "Overwrite existing Rule?");
    EXPECT_EQ(messages.shown[0].caption, "q-Brix");
    EXPECT_EQ(messages.shown[0].style, core::MB_YESNO | core::MB_ICONQUESTION);
    EXPECT_EQ(list.Size(), 2u);

    messages.QueueBoxAnswer(core::IDYES);
    ContentRule* added = nullptr;
    EXPECT_EQ(ImportRuleIntoList(list, Path(), &added), kImportAdded);
    ASSERT_EQ(list.Size(), 2u);
    EXPECT_EQ(list.At(0).name, "other");
    EXPECT_EQ(&list.At(1), added);
    EXPECT_EQ(added->name, "Rule");

    EXPECT_EQ(ImportRuleIntoList(list, Path("missing.xml")), kImportFailed);
    EXPECT_EQ(list.Size(), 2u);
    EXPECT_EQ(messages.shown.size(), 2u);

    // A rule that could not be stored as itself says why.
    WriteFile(Path(), "<MASTER_RULE NAME='Up' DIRECTION='2'/>");
    EXPECT_EQ(ImportRuleIntoList(list, Path()), kImportFailed);
    EXPECT_EQ(list.Size(), 2u);
    ASSERT_EQ(messages.shown.size(), 3u);
    EXPECT_EQ(messages.shown[2].text,
              "Rule not imported: the rule's DIRECTION is 2; it must be 0 (incoming) or 1 "
              "(outgoing).");
    EXPECT_EQ(messages.shown[2].style, core::MB_OK | core::MB_ICONWARNING);
}

}  // namespace
}  // namespace qbrix::content
