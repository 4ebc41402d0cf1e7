// Profile strings on ini files of the emulated Windows directory.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "platform/Platform.h"
#include "platform/SystemFiles.h"
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

}  // namespace
}  // namespace qbrix::platform
