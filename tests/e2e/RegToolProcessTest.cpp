// The built q-brix-reg program run as a real process on a temporary data root: exit statuses,
// no waiting for an answer without a terminal, an export-delete-import round trip, and an import
// killed half way. Also the usage of every tool: asked for, it goes to the output with status 0;
// after an unknown command, to the error stream with status 2.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <fstream>
#include <string>
#include <thread>

#include "support/Process.h"
#include "support/TempPlatform.h"

namespace qbrix::test {
namespace {

class RegToolProcessTest : public ::testing::Test {
  protected:
    struct Outcome {
        int status = -1;
        std::string out;
        std::string err;
    };

    // Runs the tool with standard input from /dev/null, as under CI.
    Outcome Run(const std::string& arguments) {
        std::string command = std::string("'") + QBRIX_REG_TOOL + "' --root '" +
                              m_dir.File("root") + "' " + arguments + " </dev/null >'" +
                              m_dir.File("out") + "' 2>'" + m_dir.File("err") + "'";
        int raw = std::system(command.c_str());
        Outcome outcome;
        outcome.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
        outcome.out = ReadFile(m_dir.File("out"));
        outcome.err = ReadFile(m_dir.File("err"));
        return outcome;
    }

    TempDirectory m_dir;
};

TEST_F(RegToolProcessTest, ExitStatusesAndARoundTrip) {
    Outcome missing = Run("query 'HKLM\\SOFTWARE\\korvel-soft'");
    EXPECT_EQ(1, missing.status);
    EXPECT_EQ("ERROR: The system was unable to find the specified registry key or value.\n",
              missing.err);

    Outcome usage = Run("add 'HKLM\\SOFTWARE\\korvel-soft' /t REG_DWORD /d nine");
    EXPECT_EQ(2, usage.status);
    EXPECT_NE(std::string::npos, usage.err.find("Usage: q-brix-reg"));

    const std::string key = "'HKLM\\SOFTWARE\\korvel-soft\\q-Brix\\GUI\\3.1'";
    EXPECT_EQ(0, Run("add " + key + " /v DefZone /t REG_DWORD /d 3").status);
    EXPECT_EQ(0, Run("add " + key + "'\\FWLog' /v FileName /d 'C:\\logs\\fw.log'").status);
    EXPECT_EQ(0, Run("add " + key + " /v Blob /t REG_BINARY /d 00FF").status);
    // Without a terminal and without /f the tool refuses at once rather than wait.
    Outcome refused = Run("add " + key + " /v DefZone /t REG_DWORD /d 4");
    EXPECT_EQ(1, refused.status);
    EXPECT_NE(std::string::npos, refused.err.find("/f"));

    Outcome query = Run("query " + key);
    EXPECT_EQ(0, query.status);
    EXPECT_NE(std::string::npos, query.out.find("\n    DefZone    REG_DWORD    0x3\n"));

    const std::string file = m_dir.File("tree.reg");
    EXPECT_EQ(0, Run("export 'HKLM\\SOFTWARE\\korvel-soft' '" + file + "'").status);
    EXPECT_EQ(0, Run("delete 'HKLM\\SOFTWARE\\korvel-soft' /f").status);
    EXPECT_EQ(1, Run("query " + key).status);
    EXPECT_EQ(0, Run("import '" + file + "'").status);
    Outcome restored = Run("query 'HKLM\\SOFTWARE\\korvel-soft' /s");
    EXPECT_EQ(0, restored.status);
    EXPECT_NE(std::string::npos, restored.out.find("    Blob    REG_BINARY    00FF\n"));
    EXPECT_NE(std::string::npos, restored.out.find("    FileName    REG_SZ    C:\\logs\\fw.log\n"));
    const std::string again = m_dir.File("again.reg");
    EXPECT_EQ(0, Run("export 'HKLM\\SOFTWARE\\korvel-soft' '" + again + "'").status);
    EXPECT_EQ(ReadFile(file), ReadFile(again));
}

class ToolUsageTest : public ::testing::TestWithParam<const char*> {};

TEST_P(ToolUsageTest, HelpIsAnAnswerAndAnUnknownCommandAUsageError) {
    TempDirectory dir;
    const std::map<std::string, std::string> env = {{"QBRIX_ROOT", dir.File("root")}};
    const std::string name = std::filesystem::path(GetParam()).filename().string();
    for (const char* help : {"--help", "-h"}) {
        ProcessResult asked = RunProcess({GetParam(), help}, env);
        EXPECT_EQ(0, asked.exitCode) << help << asked.err;
        EXPECT_NE(std::string::npos, asked.out.find("sage: " + name)) << help << asked.out;
        EXPECT_EQ("", asked.err) << help;
    }
    ProcessResult unknown = RunProcess({GetParam(), "frobnicate"}, env);
    EXPECT_EQ(2, unknown.exitCode) << unknown.err;
    EXPECT_NE(std::string::npos, unknown.err.find("sage: " + name)) << unknown.err;
    EXPECT_EQ("", unknown.out);
}

INSTANTIATE_TEST_SUITE_P(EveryTool, ToolUsageTest,
                         ::testing::Values(QBRIX_REG_TOOL, QBRIX_CTL, QBRIX_EVENT, QBRIX_DRIVER));

// An import that replaces a tree ([-KEY] and then the new keys), killed at points spread over
// its run, leaves the old tree or the whole new one, never the old one deleted and part of the
// new one written.
TEST_F(RegToolProcessTest, KilledImportLeavesTheOldTreeOrTheNewOne) {
    constexpr int kKeys = 1500;
    std::string file = m_dir.File("restore.reg");
    {
        std::ofstream reg(file, std::ios::binary);
        reg << "Windows Registry Editor Version 5.00\r\n\r\n[-HKEY_LOCAL_MACHINE\\SOFTWARE\\T]\r\n";
        for (int i = 0; i < kKeys; ++i) {
            reg << "\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\T\\N" << i
                << "]\r\n\"v\"=dword:00000001\r\n";
        }
    }
    auto keysBelowT = [this] {
        Outcome query = Run("query 'HKLM\\SOFTWARE\\T' /s");
        int keys = 0;
        for (std::size_t at = query.out.find("\nHKEY_LOCAL_MACHINE\\SOFTWARE\\T\\");
             at != std::string::npos;
             at = query.out.find("\nHKEY_LOCAL_MACHINE\\SOFTWARE\\T\\", at + 1)) {
            ++keys;
        }
        return keys;
    };
    auto oldTree = [this] {
        Run("delete 'HKLM\\SOFTWARE\\T' /f");  // absent the first time
        EXPECT_EQ(0, Run("add 'HKLM\\SOFTWARE\\T\\Old' /v v /t REG_DWORD /d 1").status);
    };
    // One whole run tells how long an import takes here.
    oldTree();
    auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(0, Run("import '" + file + "'").status);
    auto whole = std::chrono::steady_clock::now() - start;
    ASSERT_EQ(kKeys, keysBelowT());

    const std::vector<std::string> argv = {QBRIX_REG_TOOL, "--root", m_dir.File("root"), "import",
                                           file};
    for (int tenth = 1; tenth <= 9; tenth += 2) {
        oldTree();
        {
            BackgroundProcess import(argv);
            std::this_thread::sleep_for(whole * tenth / 10);
            import.Stop(SIGKILL);
        }
        int keys = keysBelowT();
        EXPECT_TRUE(keys == 1 || keys == kKeys)
            << keys << " keys after a kill at " << tenth << "/10 of the import";
    }
}

}  // namespace
}  // namespace qbrix::test
