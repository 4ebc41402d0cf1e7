// Profile strings on ini files of the emulated Windows directory; the choice of the data root and
// the machine's root that the install command shares.
#include <gtest/gtest.h>

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include "platform/Platform.h"
#include "platform/SystemFiles.h"
#include "platform/posix/PosixPlatform.h"
#include "support/TempPlatform.h"

namespace qbrix::platform {
namespace {

class SystemFilesTest : public ::testing::Test {
  protected:
    std::string Path() { return GetWindowsDirectory() + "/test.ini"; }
    void Write(const std::string& text) { std::ofstream(Path(), std::ios::binary) << text; }
    std::string Read() { return test::ReadFile(Path()); }

    test::TempPlatform m_platform;
};

TEST_F(SystemFilesTest, DirectoriesLieInTheDataRoot) {
    EXPECT_EQ(GetWindowsDirectory(), m_platform.DataRoot() + "/windows");
    EXPECT_EQ(GetSystemDirectory(), m_platform.DataRoot() + "/windows/system32");
    EXPECT_TRUE(test::FileExists(GetSystemDirectory()));
}

TEST_F(SystemFilesTest, ReadsLenientlyAndFallsBackToTheDefault) {
    EXPECT_EQ(GetPrivateProfileString("s", "k", "none", "test.ini"), "none");
    Write("; comment\n[ Sec ]\n  Key = value one \n;key=hidden\n[next]\nkey=2\n");
    EXPECT_EQ(GetPrivateProfileString("sec", "KEY", "none", "test.ini"), "value one");
    EXPECT_EQ(GetPrivateProfileString("next", "key", "none", "test.ini"), "2");
    EXPECT_EQ(GetPrivateProfileString("sec", "other", "none", "test.ini"), "none");
}

TEST_F(SystemFilesTest, WriteAppendsAMissingKeyBeforeTheSectionsBlankLines) {
    Write("[a]\r\nx=1\r\n\r\n[b]\r\n");
    ASSERT_EQ(WritePrivateProfileString("a", "y", "2", "test.ini"), 1);
    ASSERT_EQ(WritePrivateProfileString("c", "z", "3", "test.ini"), 1);
    EXPECT_EQ(Read(), "[a]\r\nx=1\r\ny=2\r\n\r\n[b]\r\n[c]\r\nz=3\r\n");
}

TEST_F(SystemFilesTest, NullKeyRemovesTheSectionAndNullValueTheFirstKeyLine) {
    Write("[a]\r\nk=1\r\nk=2\r\n[b]\r\nk=3\r\n");
    ASSERT_EQ(WritePrivateProfileString("a", "K", nullptr, "test.ini"), 1);
    EXPECT_EQ(Read(), "[a]\r\nk=2\r\n[b]\r\nk=3\r\n");
    ASSERT_EQ(WritePrivateProfileString("A", nullptr, nullptr, "test.ini"), 1);
    EXPECT_EQ(Read(), "[b]\r\nk=3\r\n");
    // Removing what is not there leaves the file as it is.
    ASSERT_EQ(WritePrivateProfileString("zz", "k", nullptr, "test.ini"), 1);
    EXPECT_EQ(Read(), "[b]\r\nk=3\r\n");
}

TEST_F(SystemFilesTest, AnUnwritableFileFails) {
    EXPECT_EQ(WritePrivateProfileString("a", "k", "v", m_platform.DataRoot() + "/no/such/x.ini"),
              0);
}

struct DataRootCase {
    const char* name;
    const char* qbrixRoot;
    bool superUser;
    bool installed;
    const char* stateHome;
    const char* expected;  // "MACHINE" for the machine's root
};

class DataRootTest : public ::testing::TestWithParam<DataRootCase> {
  protected:
    test::TempDirectory m_machine;
};

TEST_P(DataRootTest, PicksTheRootOfTheMachineOnceInstalled) {
    const DataRootCase& c = GetParam();
    if (c.installed) {
        std::ofstream(m_machine.File(kInstalledMarker)) << "";
    }
    DataRootFacts facts{c.qbrixRoot, c.superUser, m_machine.Path(), c.stateHome, "/home/ann"};
    std::string expected = c.expected == std::string("MACHINE") ? m_machine.Path() : c.expected;
    EXPECT_EQ(ChooseDataRoot(facts), expected);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, DataRootTest,
    ::testing::Values(DataRootCase{"OverrideWins", "/tmp/mine", true, true, "", "/tmp/mine"},
                      DataRootCase{"RootAlways", "", true, false, "/s", "MACHINE"},
                      DataRootCase{"AdministratorOnceInstalled", "", false, true, "/s", "MACHINE"},
                      DataRootCase{"UninstalledStateHome", "", false, false, "/s", "/s/q-brix"},
                      DataRootCase{"UninstalledHome", "", false, false, "",
                                   "/home/ann/.local/state/q-brix"}),
    [](const ::testing::TestParamInfo<DataRootCase>& info) { return info.param.name; });

TEST(MachineDataRootTest, InstallSharesItWithTheAdministratorsOnlyAndDeinstallUnmarksIt) {
    const group* sudo = ::getgrnam("sudo");
    if (::geteuid() != 0 || sudo == nullptr) {
        GTEST_SKIP() << "needs root and the group sudo";
    }
    const gid_t administrators = sudo->gr_gid;
    test::TempDirectory dir;
    const std::string root = dir.File("machine");
    std::filesystem::create_directories(root + "/run/mailslot");
    std::filesystem::create_directories(root + "/run/mutex");
    std::ofstream(root + "/registry.db") << "";
    ::chmod((root + "/registry.db").c_str(), 0606);
    ASSERT_EQ(ShareMachineDataRoot(root), 0);
    EXPECT_TRUE(IsInstalledDataRoot(root));
    // Group and others' bits: others only pass through to the mailslot.
    const std::pair<const char*, unsigned> kModes[] = {
        {"", 0071},           {"/run", 0071},         {"/run/mailslot", 0071},
        {"/run/mutex", 0070}, {"/registry.db", 0060}, {"/installed", 0040}};
    for (const auto& [path, mode] : kModes) {
        struct stat info {};
        ASSERT_EQ(::stat((root + path).c_str(), &info), 0) << path;
        EXPECT_EQ(info.st_uid, 0u) << path;
        EXPECT_EQ(info.st_gid, administrators) << path;
        EXPECT_EQ(info.st_mode & 0077, mode) << path;
    }
    // Another user may pass through the root but does not take it for the installed one.
    if (const passwd* nobody = ::getpwnam("nobody"); nobody != nullptr) {
        ::chmod(dir.Path().c_str(), 0711);
        pid_t child = ::fork();
        if (child == 0) {
            bool sawIt = ::setgroups(0, nullptr) != 0 || ::setgid(nobody->pw_gid) != 0 ||
                         ::setuid(nobody->pw_uid) != 0 || IsInstalledDataRoot(root);
            ::_exit(sawIt ? 1 : 0);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    UnshareMachineDataRoot(root);
    EXPECT_FALSE(IsInstalledDataRoot(root));
}

}  // namespace
}  // namespace qbrix::platform
