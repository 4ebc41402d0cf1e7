// The program as scripts/run starts it, unattended and offscreen: temporary mode on a fresh data
// root with the reference driver playing its demo, ended through the tray's Exit.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "platform/SocketCatalog.h"
#include "platform/Utf16.h"
#include "support/Process.h"
#include "support/TempPlatform.h"

namespace qbrix::test {
namespace {

TEST(SmokeRunTest, TemporaryRunInstallsRunsAndRemovesEverything) {
    TempPlatform platform;
    ProcessResult run = RunProcess({QBRIX_PROGRAM, "T"},
                                   {{"QBRIX_ROOT", platform.DataRoot()},
                                    {"QT_QPA_PLATFORM", "offscreen"},
                                    {"QBRIX_SMOKE_SECONDS", "4"},
                                    {"QBRIX_DRIVER_SCENARIO", "demo"}},
                                   60000);
    ASSERT_FALSE(run.timedOut);
    EXPECT_EQ(0, run.exitCode) << run.err;
    // Ended through Exit: its warning was put and answered.
    EXPECT_NE(std::string::npos, run.err.find("ALL internet access will be enabled"));

    // The first run created the zones.
    core::RegistryKey zones(core::kZoneListSuffix, core::kGuiRootPath);
    std::vector<std::string> names;
    zones.ListValueNames(names);
    EXPECT_FALSE(names.empty());

    // Temporary mode took the provider entries and the driver service out again.
    std::vector<platform::WSAPROTOCOL_INFOW> entries(32);
    platform::DWORD size = static_cast<platform::DWORD>(entries.size() * sizeof(entries[0]));
    int error = 0;
    int count = platform::WSCEnumProtocols(nullptr, entries.data(), &size, &error);
    ASSERT_GT(count, 0);
    for (int i = 0; i < count; ++i) {
        std::string name = platform::Utf16ToUtf8(entries[static_cast<std::size_t>(i)].szProtocol);
        EXPECT_EQ(std::string::npos, name.find("KORVEL")) << name;
    }
    platform::HKEY service = nullptr;
    EXPECT_EQ(static_cast<platform::LONG>(platform::ERROR_FILE_NOT_FOUND),
              platform::Current().Reg().OpenKeyEx(platform::HKEY_LOCAL_MACHINE,
                                                  "SYSTEM\\CurrentControlSet\\Services\\q-Brix",
                                                  platform::KEY_READ, &service));
}

}  // namespace
}  // namespace qbrix::test
