// q-brixctl run as a process on a fresh data root: every preset exported and imported back over
// itself dumps the same 704 bytes; imports running at once lose nothing; a locked, corrupt or
// read-only store makes every command fail with a message.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include "support/Process.h"
#include "support/TempPlatform.h"

namespace qbrix {
namespace {

class CtlZoneE2eTest : public ::testing::Test {
  protected:
    test::ProcessResult Ctl(std::vector<std::string> args, int timeoutMs = 20000) {
        args.insert(args.begin(), {QBRIX_CTL, "--root", m_dir.File("root")});
        return test::RunProcess(args, {}, timeoutMs);
    }
    // A zone file and a rule file named after `name`.
    std::string ZoneFile(const std::string& name) {
        std::string file = m_dir.File(name + ".zone.xml");
        std::ofstream(file) << "<MASTER_ZONE NAME='" << name << "' RESULT='1'/>";
        return file;
    }
    std::string RuleFile(const std::string& name) {
        std::string file = m_dir.File(name + ".rule.xml");
        std::ofstream(file) << "<MASTER_RULE NAME='" << name << "' ENABLE='1' DIRECTION='0'>"
                            << "<MAIN ENABLE='1'><FIND ENABLE='1'>x</FIND></MAIN></MASTER_RULE>";
        return file;
    }
    // Each command of the list on the store as it is: all fail with exit status 1 and a
    // message holding `says`.
    void ExpectEveryCommandFails(const std::string& says) {
        const std::vector<std::vector<std::string>> commands = {{"zone", "list"},
                                                                {"zone", "import", ZoneFile("Z")},
                                                                {"rule", "list"},
                                                                {"rule", "import", RuleFile("R")}};
        for (const auto& command : commands) {
            test::ProcessResult result = Ctl(command);
            EXPECT_EQ(1, result.exitCode) << command[0] << " " << command[1] << ": " << result.err;
            EXPECT_NE(std::string::npos, result.err.find(says)) << result.err;
            EXPECT_EQ(std::string::npos, result.err.find("Zone Wizard")) << result.err;
        }
    }
    test::TempDirectory m_dir;
};

TEST_F(CtlZoneE2eTest, EveryPresetSurvivesExportAndImportOverwrite) {
    const char* presets[] = {"EnableAll",        "Internet Download", "DisableAll",
                             "Disable External", "Internet Client",   "OnlyIncoming",
                             "OnlyOutgoing"};
    test::ProcessResult list = Ctl({"zone", "list"});
    ASSERT_EQ(list.exitCode, 0) << list.err;
    for (const char* preset : presets) {
        EXPECT_NE(list.out.find(std::string(preset) + "\n"), std::string::npos) << preset;
        test::ProcessResult before = Ctl({"zone", "dump", preset});
        ASSERT_EQ(before.exitCode, 0) << before.err;
        ASSERT_EQ(before.out.size(), 704u);
        std::string file = m_dir.File("zone.xml");
        ASSERT_EQ(Ctl({"zone", "export", preset, file}).exitCode, 0);
        ASSERT_EQ(Ctl({"zone", "import", file, "--overwrite"}).exitCode, 0);
        EXPECT_EQ(Ctl({"zone", "dump", preset}).out, before.out) << preset;
    }
}

// Four processes importing at once, a few rounds: every zone and every rule arrives, as each
// command loads, changes and saves its list in one change of the store.
TEST_F(CtlZoneE2eTest, ConcurrentImportsLoseNothing) {
    constexpr int kProcesses = 4;
    constexpr int kRounds = 3;
    ASSERT_EQ(0, Ctl({"zone", "list"}).exitCode);
    std::vector<std::string> names;
    for (int round = 0; round < kRounds; ++round) {
        for (const char* kind : {"zone", "rule"}) {
            std::vector<std::unique_ptr<test::BackgroundProcess>> running;
            for (int p = 0; p < kProcesses; ++p) {
                std::string name = "C" + std::to_string(round) + "_" + std::to_string(p);
                std::string file = kind[0] == 'z' ? ZoneFile(name) : RuleFile(name);
                running.push_back(
                    std::make_unique<test::BackgroundProcess>(std::vector<std::string>{
                        QBRIX_CTL, "--root", m_dir.File("root"), kind, "import", file}));
                if (kind[0] == 'z') {
                    names.push_back(name);
                }
            }
            for (auto& process : running) {
                EXPECT_EQ(0, process->Wait(20000)) << kind << " import, round " << round;
            }
        }
    }
    test::ProcessResult zones = Ctl({"zone", "list"});
    test::ProcessResult rules = Ctl({"rule", "list"});
    for (const std::string& name : names) {
        EXPECT_NE(std::string::npos, zones.out.find(name + "\n")) << "zone " << name;
        EXPECT_NE(std::string::npos, rules.out.find(name + "\t")) << "rule " << name;
    }
}

// A store another process keeps locked: the command gives up after the busy time with the
// store's error 170, rather than wait as long as the lock is held.
TEST_F(CtlZoneE2eTest, ALockedStoreFailsAfterTheBusyTime) {
    ASSERT_EQ(0, Ctl({"zone", "list"}).exitCode);
    std::string flag = m_dir.File("held");
    test::BackgroundProcess holder({QBRIX_STORE_WRITER, m_dir.File("root"), "hold", "40000", flag});
    ASSERT_TRUE(test::WaitFor([&] { return std::filesystem::exists(flag); }));
    test::ProcessResult result = Ctl({"zone", "import", ZoneFile("Late")}, 30000);
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(1, result.exitCode);
    EXPECT_NE(std::string::npos, result.err.find("locked by another process (error 170)"))
        << result.err;
}

TEST_F(CtlZoneE2eTest, ACorruptStoreMakesEveryCommandFail) {
    std::filesystem::create_directories(m_dir.File("root"));
    const std::string garbage(8192, 'Z');
    std::ofstream(m_dir.File("root/registry.db"), std::ios::binary) << garbage;
    ExpectEveryCommandFails("unreadable (not a valid database)");
    EXPECT_EQ(garbage, test::ReadFile(m_dir.File("root/registry.db")));
}

TEST_F(CtlZoneE2eTest, AReadOnlyStoreMakesEveryChangeFail) {
    if (::geteuid() != 0 || !std::filesystem::exists("/usr/bin/setpriv")) {
        GTEST_SKIP() << "needs root to run the tool as another user";
    }
    ASSERT_EQ(0, Ctl({"zone", "list"}).exitCode);
    std::filesystem::permissions(m_dir.Path(), std::filesystem::perms(0755));
    for (const auto& entry : std::filesystem::recursive_directory_iterator(m_dir.Path())) {
        std::filesystem::permissions(entry.path(), entry.is_directory()
                                                       ? std::filesystem::perms(0755)
                                                       : std::filesystem::perms(0644));
    }
    for (const char* kind : {"zone", "rule"}) {
        std::string file = kind[0] == 'z' ? ZoneFile("RO") : RuleFile("RO");
        std::filesystem::permissions(file, std::filesystem::perms(0644));
        test::ProcessResult result = test::RunProcess(
            {"/usr/bin/setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups",
             QBRIX_CTL, "--root", m_dir.File("root"), kind, "import", file});
        EXPECT_EQ(1, result.exitCode) << kind << ": " << result.err;
        EXPECT_NE(std::string::npos, result.err.find("read-only")) << result.err;
    }
}

}  // namespace
}  // namespace qbrix
