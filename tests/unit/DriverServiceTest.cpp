// Driver service installation: the tag order after the TCP/IP driver, the install and removal
// sequences of both families, and the texts they leave in the driver error text.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "core/DiagLog.h"
#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "driver/DriverErrors.h"
#include "driver/DriverService.h"
#include "platform/Device.h"
#include "platform/Kernel.h"
#include "platform/Platform.h"
#include "platform/Services.h"
#include "platform/SystemFiles.h"
#include "support/TempPlatform.h"

namespace qbrix::driver {
namespace {

using platform::DWORD;

constexpr char kOrderPath[] = "SYSTEM\\CurrentControlSet\\Control\\GroupOrderList";

class DriverServiceTest : public ::testing::Test {
  protected:
    DriverServiceTest() {
        std::filesystem::create_directories(m_platform.ProgramDirectory() + "quarantine");
        core::RegistryKey(core::kAvSuffix, core::kLspRootPath).SetDword(core::kDiagLogValue, 1);
        m_platform.SetUser(0, {"root"});
        ResetDriverErrors();
        m_manager = platform::OpenSCManager(nullptr, nullptr, platform::SC_MANAGER_ALL_ACCESS);
    }
    ~DriverServiceTest() override {
        platform::CloseServiceHandle(m_manager);
        ResetDriverErrors();
    }

    std::string DiagText() {
        return test::ReadFile(m_platform.ProgramDirectory() + "quarantine/gui.log." +
                              std::to_string(platform::GetCurrentProcessId()) + ".BRIX");
    }
    void SetOrder(const std::vector<DWORD>& words) {
        platform::HKEY key = nullptr;
        platform::Current().Reg().CreateKeyEx(platform::HKEY_LOCAL_MACHINE, kOrderPath, 0,
                                              platform::KEY_ALL_ACCESS, &key, nullptr);
        platform::Current().Reg().SetValueEx(key, "PNP_TDI", platform::REG_BINARY,
                                             reinterpret_cast<const platform::BYTE*>(words.data()),
                                             static_cast<DWORD>(words.size() * 4));
        platform::Current().Reg().CloseKey(key);
    }
    std::vector<DWORD> Order() {
        platform::HKEY key = nullptr;
        std::vector<DWORD> words(101);
        DWORD size = 404;
        DWORD type = 0;
        platform::Current().Reg().OpenKeyEx(platform::HKEY_LOCAL_MACHINE, kOrderPath,
                                            platform::KEY_READ, &key);
        platform::Current().Reg().QueryValueEx(
            key, "PNP_TDI", &type, reinterpret_cast<platform::BYTE*>(words.data()), &size);
        platform::Current().Reg().CloseKey(key);
        words.resize(size / 4);
        return words;
    }
    void SetTag(const char* service, DWORD tag) {
        std::string path = std::string("SYSTEM\\CurrentControlSet\\Services\\") + service;
        platform::HKEY key = nullptr;
        platform::Current().Reg().CreateKeyEx(platform::HKEY_LOCAL_MACHINE, path, 0,
                                              platform::KEY_ALL_ACCESS, &key, nullptr);
        platform::Current().Reg().SetValueEx(key, "Tag", platform::REG_DWORD,
                                             reinterpret_cast<const platform::BYTE*>(&tag), 4);
        platform::Current().Reg().CloseKey(key);
    }
    // A service's start type, or -1 when it does not exist.
    int StartType(const char* name) {
        platform::SC_HANDLE service =
            platform::OpenService(m_manager, name, platform::SERVICE_QUERY_CONFIG);
        if (service == nullptr) {
            return -1;
        }
        alignas(platform::QUERY_SERVICE_CONFIGA) char buffer[4096];
        auto* config = reinterpret_cast<platform::QUERY_SERVICE_CONFIGA*>(buffer);
        DWORD needed = 0;
        platform::QueryServiceConfig(service, config, sizeof(buffer), &needed);
        m_path = config->lpBinaryPathName;
        platform::CloseServiceHandle(service);
        return static_cast<int>(config->dwStartType);
    }
    bool DeviceServed() {
        platform::HANDLE device =
            platform::CreateFile("\\\\.\\q-Brix", platform::GENERIC_READ, 0, nullptr,
                                 platform::OPEN_EXISTING, 0, nullptr);
        if (device == platform::INVALID_HANDLE_VALUE) {
            return false;
        }
        platform::CloseHandle(device);
        return true;
    }
    void PlaceDriverFile() {
        std::filesystem::create_symlink(QBRIX_DRIVER_BINARY,
                                        m_platform.ProgramDirectory() + "q-Brix.sys");
    }

    test::TempPlatform m_platform;
    test::ScriptedMessages m_messages;
    platform::SC_HANDLE m_manager = nullptr;
    std::string m_path;
};

TEST_F(DriverServiceTest, NewTagGoesRightAfterTheTcpipTag) {
    SetTag("Tcpip", 20);
    SetOrder({5, 10, 20, 30, 40, 50});
    InsertTagAfterTcpip(m_manager, 7);
    EXPECT_EQ(Order(), (std::vector<DWORD>{5, 10, 20, 7, 30, 40, 50}));
    EXPECT_NE(
        DiagText().find("\n TCP  tag 20\n before 5 10 20 30 40 50\n after  5 10 20 7 30 40 50"),
        std::string::npos);

    SetTag("Probe", 7);
    RemoveServiceTag(m_manager, "Probe");
    EXPECT_EQ(Order(), (std::vector<DWORD>{5, 10, 20, 30, 40, 50}));
    EXPECT_NE(
        DiagText().find("\n Remove tag 7\n before 5 10 20 7 30 40 50\n after  5 10 20 30 40 50"),
        std::string::npos);
}

TEST_F(DriverServiceTest, ACountWordEqualToTheTcpipTagIsTheMatch) {
    SetTag("Tcpip", 3);
    SetOrder({3, 1, 3, 2});
    InsertTagAfterTcpip(m_manager, 9);
    EXPECT_EQ(Order(), (std::vector<DWORD>{3, 9, 1, 3, 2}));
    SetTag("Probe", 9);
    RemoveServiceTag(m_manager, "Probe");
    EXPECT_EQ(Order(), (std::vector<DWORD>{3, 1, 3, 2}));
    // Removing tag 3 takes the count word, the first match.
    SetTag("Probe", 3);
    RemoveServiceTag(m_manager, "Probe");
    EXPECT_EQ(Order(), (std::vector<DWORD>{1, 3, 2}));
}

TEST_F(DriverServiceTest, TagStepIsSkippedWithItsLogLine) {
    SetTag("Tcpip", 77);
    InsertTagAfterTcpip(m_manager, 9);
    EXPECT_NE(DiagText().find("\n TCP not in order group"), std::string::npos);
    EXPECT_EQ(Order(), (std::vector<DWORD>{2, 1, 2}));

    platform::Current().Reg().DeleteKey(platform::HKEY_LOCAL_MACHINE,
                                        "SYSTEM\\CurrentControlSet\\Services\\Tcpip");
    InsertTagAfterTcpip(m_manager, 9);
    EXPECT_NE(DiagText().find("\n TCP tag not found"), std::string::npos);

    RemoveServiceTag(m_manager, "absent");
    EXPECT_NE(DiagText().find("\n tag for (absent) not found"), std::string::npos);
    SetTag("Probe", 99);
    RemoveServiceTag(m_manager, "Probe");
    EXPECT_NE(DiagText().find("\n not in order group"), std::string::npos);
}

TEST_F(DriverServiceTest, OrderValueOfTheWrongTypeIsNotFound) {
    SetTag("Tcpip", 1);
    platform::HKEY key = nullptr;
    platform::Current().Reg().OpenKeyEx(platform::HKEY_LOCAL_MACHINE, kOrderPath,
                                        platform::KEY_ALL_ACCESS, &key);
    DWORD word = 1;
    platform::Current().Reg().SetValueEx(key, "PNP_TDI", platform::REG_DWORD,
                                         reinterpret_cast<const platform::BYTE*>(&word), 4);
    platform::Current().Reg().CloseKey(key);
    InsertTagAfterTcpip(m_manager, 9);
    EXPECT_NE(DiagText().find("\n Order group not found"), std::string::npos);
}

TEST_F(DriverServiceTest, PermanentInstallAndRemovalOnNt) {
    EXPECT_EQ(InstallDriver(1), 0);
    EXPECT_EQ(StartType("q-Brix"), static_cast<int>(platform::SERVICE_SYSTEM_START));
    EXPECT_EQ(m_path, platform::GetSystemDirectory() + "/q-Brix.sys");
    EXPECT_EQ(Order(), (std::vector<DWORD>{2, 1, 3, 2}));
    EXPECT_NE(DiagText().find("\n serice tag (3)\n TCP  tag 1"), std::string::npos);
    EXPECT_FALSE(DeviceServed());  // nothing is started before the next system start
    EXPECT_TRUE(DriverErrorText().empty());

    EXPECT_EQ(InstallDriver(1), 0);
    EXPECT_EQ(DriverErrorText(), "create service:The specified service already exists.\r\n");

    RemoveDriver(1);
    EXPECT_EQ(StartType("q-Brix"), -1);
    EXPECT_EQ(Order(), (std::vector<DWORD>{2, 1, 2}));
    EXPECT_EQ(DriverErrorText(), "create service:The specified service already exists.\r\n");
}

TEST_F(DriverServiceTest, TemporaryInstallStartsTheDriverAndRemovalStopsIt) {
    PlaceDriverFile();
    EXPECT_EQ(InstallDriver(0), 0);
    EXPECT_EQ(StartType("q-Brix"), static_cast<int>(platform::SERVICE_DEMAND_START));
    EXPECT_EQ(m_path, m_platform.ProgramDirectory() + "q-Brix.sys");
    EXPECT_TRUE(DeviceServed());
    EXPECT_EQ(Order(), (std::vector<DWORD>{2, 1, 2}));  // no tag step when temporary

    // A service left over from an earlier run is replaced without complaint.
    EXPECT_EQ(InstallDriver(0), 0);
    EXPECT_TRUE(DeviceServed());
    EXPECT_TRUE(DriverErrorText().empty()) << DriverErrorText();

    RemoveDriver(0);
    EXPECT_EQ(StartType("q-Brix"), -1);
    EXPECT_FALSE(DeviceServed());
    EXPECT_TRUE(DriverErrorText().empty()) << DriverErrorText();
}

TEST_F(DriverServiceTest, TemporaryInstallWithoutTheDriverFileLeavesTheStartError) {
    EXPECT_EQ(InstallDriver(0), 0);
    EXPECT_EQ(DriverErrorText(), "start:The system cannot find the file specified.\r\n");
    RemoveDriver(0);
    EXPECT_EQ(DriverErrorText(),
              "start:The system cannot find the file specified.\r\n"
              "stop:The service has not been started.\r\n");
}

TEST_F(DriverServiceTest, WithoutRightsEveryStepLeavesItsText) {
    m_platform.SetUser(1000, {"users"});
    EXPECT_EQ(InstallDriver(0), 0);
    EXPECT_EQ(DriverErrorText(),
              "create service:The handle is invalid.\r\nopen:The handle is invalid.\r\n");
}

class DriverService9xTest : public DriverServiceTest {
  protected:
    DriverService9xTest() { platform::Current().MutableInfo().family = platform::Family::Win9x; }
    std::string SystemIni() {
        return test::ReadFile(platform::GetWindowsDirectory() + "/system.ini");
    }
    void WriteSystemIni(const std::string& text) {
        std::ofstream(platform::GetWindowsDirectory() + "/system.ini", std::ios::binary) << text;
    }
};

TEST_F(DriverService9xTest, PermanentInstallReplacesTheFirstDeviceLine) {
    WriteSystemIni("[boot]\r\nshell=x\r\n[386Enh]\r\ndevice=a.vxd\r\nDevice=b.vxd\r\n[other]\r\n");
    EXPECT_EQ(InstallDriver(1), 0);
    EXPECT_EQ(SystemIni(),
              "[boot]\r\nshell=x\r\n[386Enh]\r\ndevice=q-Brix.VXD\r\nDevice=b.vxd\r\n[other]\r\n");
    EXPECT_EQ(StartType("q-Brix"), -1);  // no service on this family
}

TEST_F(DriverService9xTest, InstallIntoAFreshSystemIniAddsTheSection) {
    EXPECT_EQ(InstallDriver(1), 0);
    EXPECT_EQ(platform::GetPrivateProfileString("386enh", "DEVICE", "", "system.ini"),
              "q-Brix.VXD");
}

TEST_F(DriverService9xTest, TemporaryInstallWritesNothingButRemovalTakesTheFirstDevice) {
    WriteSystemIni("[386Enh]\r\ndevice=a.vxd\r\ndevice=b.vxd\r\n");
    EXPECT_EQ(InstallDriver(0), 0);
    EXPECT_EQ(SystemIni(), "[386Enh]\r\ndevice=a.vxd\r\ndevice=b.vxd\r\n");
    RemoveDriver(0);
    EXPECT_EQ(SystemIni(), "[386Enh]\r\ndevice=b.vxd\r\n");
    RemoveDriver(1);
    RemoveDriver(1);  // nothing left to remove: no change, no error
    EXPECT_EQ(SystemIni(), "[386Enh]\r\n");
    EXPECT_TRUE(DriverErrorText().empty());
}

}  // namespace
}  // namespace qbrix::driver
