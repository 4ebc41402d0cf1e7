// The diagnostic log: its switch, its cache and its per-process file.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "core/DiagLog.h"
#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "platform/Platform.h"
#include "support/TempPlatform.h"

namespace qbrix::core {
namespace {

using namespace qbrix::platform;

class DiagLogTest : public ::testing::Test {
protected:
    std::string LogFile() const {
        return m_platform.ProgramDirectory() + "quarantine/gui.log." +
               std::to_string(GetCurrentProcessId()) + ".BRIX";
    }
    void MakeQuarantine() {
        std::filesystem::create_directories(m_platform.ProgramDirectory() + "quarantine");
    }
    void SetSwitch(DWORD value) { RegistryKey(kAvSuffix, kLspRootPath).SetDword(kDiagLogValue, value); }

    test::TempPlatform m_platform;
};

TEST_F(DiagLogTest, AbsentSwitchIsCreatedAsZeroAndNothingIsWritten) {
    MakeQuarantine();
    DiagLog("\n initinstance");
    EXPECT_FALSE(test::FileExists(LogFile()));
    RegistryKey key(kAvSuffix, kLspRootPath);
    DWORD type = 0;
    DWORD value = 7;
    DWORD size = 4;
    ASSERT_EQ(0, Current().Reg().QueryValueEx(key.Handle(), kDiagLogValue, &type,
                                              reinterpret_cast<BYTE*>(&value), &size));
    EXPECT_EQ(REG_DWORD, type);
    EXPECT_EQ(0u, value);
}

TEST_F(DiagLogTest, WritesLinesUnchangedWhenOnAndTheFolderExists) {
    SetSwitch(1);
    MakeQuarantine();
    DiagLog("\n close res %d %s", 5, "text");
    DiagLog(" OK");
    EXPECT_EQ("\n close res 5 text OK", test::ReadFile(LogFile()));
}

TEST_F(DiagLogTest, MissingFolderSwallowsTheLine) {
    SetSwitch(1);
    DiagLog("\n lost");
    EXPECT_FALSE(test::FileExists(m_platform.ProgramDirectory() + "quarantine"));
}

TEST_F(DiagLogTest, SwitchIsCachedUnlessStoredAsAllOnes) {
    MakeQuarantine();
    SetSwitch(0);
    EXPECT_EQ(0u, IsDiagLogOn());
    SetSwitch(1);
    EXPECT_EQ(0u, IsDiagLogOn());  // cached until the next start
    ResetDiagLogCache();
    SetSwitch(0xFFFFFFFF);
    EXPECT_EQ(0xFFFFFFFFu, IsDiagLogOn());
    SetSwitch(0);
    EXPECT_EQ(0u, IsDiagLogOn());  // all ones is "not read yet": read again
}

TEST_F(DiagLogTest, LastErrorTextIsBoundedAndEndsLikeTheSystemMessage) {
    SetLastError(ERROR_FILE_NOT_FOUND);
    char text[256];
    GetLastErrorText(text, sizeof(text));
    EXPECT_STREQ("The system cannot find the file specified.\r\n", text);
    char small[8];
    GetLastErrorText(small, sizeof(small));
    EXPECT_STREQ("The sys", small);
}

}  // namespace
}  // namespace qbrix::core
