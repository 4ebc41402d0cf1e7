// The service control manager: the seeded system, tags per group, the error codes of create,
// open, delete, start and stop, and drivers run as background processes.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "platform/Device.h"
#include "platform/Kernel.h"
#include "platform/Platform.h"
#include "platform/Registry.h"
#include "platform/Services.h"
#include "support/TempPlatform.h"

namespace qbrix::platform {
namespace {

constexpr char kDeps[] = "Tcpip\0";

class ServiceManagerTest : public ::testing::Test {
  protected:
    ServiceManagerTest() {
        m_platform.SetUser(0, {"root"});
        m_manager = OpenSCManager(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    }
    ~ServiceManagerTest() override { CloseServiceHandle(m_manager); }

    SC_HANDLE Create(const char* name, const std::string& path, DWORD* tag) {
        return CreateService(m_manager, name, name, SERVICE_ALL_ACCESS, SERVICE_KERNEL_DRIVER,
                             SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL, path.c_str(), "PNP_TDI",
                             tag, kDeps, nullptr, nullptr);
    }
    std::string Order() {
        HKEY key = nullptr;
        std::string data(400, '\0');
        DWORD size = 400;
        DWORD type = 0;
        if (Current().Reg().OpenKeyEx(HKEY_LOCAL_MACHINE,
                                      "SYSTEM\\CurrentControlSet\\Control\\GroupOrderList",
                                      KEY_READ, &key) != ERROR_SUCCESS) {
            return "missing";
        }
        Current().Reg().QueryValueEx(key, "PNP_TDI", &type, reinterpret_cast<BYTE*>(data.data()),
                                     &size);
        Current().Reg().CloseKey(key);
        std::string words;
        for (DWORD at = 0; at + 4 <= size; at += 4) {
            DWORD word = 0;
            std::memcpy(&word, data.data() + at, 4);
            words += (words.empty() ? "" : " ") + std::to_string(word);
        }
        return words;
    }
    // The reference driver as the image of a service.
    std::string DriverImage() {
        std::string image = m_platform.ProgramDirectory() + "q-Brix.sys";
        std::filesystem::create_symlink(QBRIX_DRIVER_BINARY, image);
        return image;
    }

    test::TempPlatform m_platform;
    SC_HANDLE m_manager = nullptr;
};

TEST_F(ServiceManagerTest, ChangesNeedAnAdministrator) {
    m_platform.SetUser(1000, {"users"});
    EXPECT_EQ(OpenSCManager(nullptr, nullptr, SC_MANAGER_ALL_ACCESS), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    SC_HANDLE reader = OpenSCManager(nullptr, nullptr, SC_MANAGER_CONNECT);
    ASSERT_NE(reader, nullptr);
    DWORD tag = 0;
    EXPECT_EQ(CreateService(reader, "x", "x", SERVICE_ALL_ACCESS, SERVICE_KERNEL_DRIVER,
                            SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL, "x.sys", "PNP_TDI", &tag,
                            nullptr, nullptr, nullptr),
              nullptr);
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    CloseServiceHandle(reader);
}

TEST_F(ServiceManagerTest, TheFirstOpenSeedsTcpipAndTheGroupOrder) {
    EXPECT_EQ(Order(), "2 1 2");
    SC_HANDLE tcpip = OpenService(m_manager, "tcpip", SERVICE_QUERY_CONFIG);
    ASSERT_NE(tcpip, nullptr);
    alignas(QUERY_SERVICE_CONFIGA) char buffer[4096];
    auto* config = reinterpret_cast<QUERY_SERVICE_CONFIGA*>(buffer);
    DWORD needed = 0;
    ASSERT_EQ(QueryServiceConfig(tcpip, config, sizeof(buffer), &needed), 1);
    EXPECT_EQ(config->dwTagId, 1u);
    EXPECT_STREQ(config->lpLoadOrderGroup, "PNP_TDI");
    CloseServiceHandle(tcpip);
}

TEST_F(ServiceManagerTest, CreateStoresTheServiceWithTheNextTagOfItsGroup) {
    DWORD tag = 0;
    SC_HANDLE service = Create("q-Brix", "C:\\drivers\\q-Brix.sys", &tag);
    ASSERT_NE(service, nullptr);
    EXPECT_EQ(tag, 3u);
    alignas(QUERY_SERVICE_CONFIGA) char buffer[4096];
    auto* config = reinterpret_cast<QUERY_SERVICE_CONFIGA*>(buffer);
    DWORD needed = 0;
    EXPECT_EQ(QueryServiceConfig(service, config, 40, &needed), 0);
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_GT(needed, 40u);
    ASSERT_EQ(QueryServiceConfig(service, config, sizeof(buffer), &needed), 1);
    EXPECT_EQ(config->dwServiceType, SERVICE_KERNEL_DRIVER);
    EXPECT_EQ(config->dwStartType, SERVICE_DEMAND_START);
    EXPECT_EQ(config->dwErrorControl, SERVICE_ERROR_NORMAL);
    EXPECT_EQ(config->dwTagId, 3u);
    EXPECT_STREQ(config->lpBinaryPathName, "C:\\drivers\\q-Brix.sys");
    EXPECT_STREQ(config->lpDependencies, "Tcpip");
    EXPECT_EQ(config->lpDependencies[6], '\0');
    EXPECT_STREQ(config->lpDisplayName, "q-Brix");
    // Creation alone leaves the tag order alone.
    EXPECT_EQ(Order(), "2 1 2");
    CloseServiceHandle(service);
}

TEST_F(ServiceManagerTest, CreateOpenAndDeleteGiveTheWindowsErrors) {
    DWORD tag = 0;
    SC_HANDLE service = Create("q-Brix", "q.sys", &tag);
    ASSERT_NE(service, nullptr);
    EXPECT_EQ(Create("Q-BRIX", "q.sys", &tag), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_SERVICE_EXISTS);
    EXPECT_EQ(OpenService(m_manager, "absent", SERVICE_ALL_ACCESS), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_SERVICE_DOES_NOT_EXIST);
    EXPECT_EQ(DeleteService(service), 1);
    EXPECT_EQ(DeleteService(service), 0);
    EXPECT_EQ(GetLastError(), ERROR_SERVICE_MARKED_FOR_DELETE);
    EXPECT_EQ(OpenService(m_manager, "q-Brix", SERVICE_ALL_ACCESS), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_SERVICE_DOES_NOT_EXIST);
    CloseServiceHandle(service);
    // Gone for good: the name can be created again.
    SC_HANDLE again = Create("q-Brix", "q.sys", &tag);
    EXPECT_NE(again, nullptr);
    CloseServiceHandle(again);
}

TEST_F(ServiceManagerTest, StartingWithoutTheImageFileFails) {
    DWORD tag = 0;
    SC_HANDLE service = Create("q-Brix", m_platform.ProgramDirectory() + "q-Brix.sys", &tag);
    EXPECT_EQ(StartService(service, 0, nullptr), 0);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    SERVICE_STATUS status{};
    EXPECT_EQ(ControlService(service, SERVICE_CONTROL_STOP, &status), 0);
    EXPECT_EQ(GetLastError(), ERROR_SERVICE_NOT_ACTIVE);
    CloseServiceHandle(service);
}

TEST_F(ServiceManagerTest, AStartedDriverServesTheDeviceUntilStopped) {
    DWORD tag = 0;
    SC_HANDLE service = Create("q-Brix", DriverImage(), &tag);
    ASSERT_EQ(StartService(service, 0, nullptr), 1);
    HANDLE device =
        CreateFile("\\\\.\\q-Brix", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(device, INVALID_HANDLE_VALUE);
    char version[10] = {};
    DWORD bytes = 0;
    EXPECT_EQ(DeviceIoControl(device, 0x220000, nullptr, 0, version, 10, &bytes, nullptr), 1);
    EXPECT_STREQ(version, "\\3.0");
    CloseHandle(device);

    EXPECT_EQ(StartService(service, 0, nullptr), 0);
    EXPECT_EQ(GetLastError(), ERROR_SERVICE_ALREADY_RUNNING);
    SERVICE_STATUS status{};
    EXPECT_EQ(QueryServiceStatus(service, &status), 1);
    EXPECT_EQ(status.dwCurrentState, SERVICE_RUNNING);
    EXPECT_EQ(ControlService(service, SERVICE_CONTROL_STOP, &status), 1);
    EXPECT_EQ(status.dwCurrentState, SERVICE_STOPPED);
    EXPECT_FALSE(std::filesystem::exists(DeviceSocketPath()));
    EXPECT_EQ(ControlService(service, SERVICE_CONTROL_STOP, &status), 0);
    EXPECT_EQ(GetLastError(), ERROR_SERVICE_NOT_ACTIVE);
    DeleteService(service);
    CloseServiceHandle(service);
}

TEST_F(ServiceManagerTest, AStateIsSharedByEveryManagerOfTheDataRoot) {
    DWORD tag = 0;
    SC_HANDLE service = Create("q-Brix", DriverImage(), &tag);
    ASSERT_EQ(StartService(service, 0, nullptr), 1);
    CloseServiceHandle(service);
    // Another program's view: a fresh platform on the same root.
    m_platform.SetUser(0, {"root"});
    SC_HANDLE manager = OpenSCManager(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    SC_HANDLE again = OpenService(manager, "q-Brix", SERVICE_ALL_ACCESS);
    SERVICE_STATUS status{};
    EXPECT_EQ(ControlService(again, SERVICE_CONTROL_STOP, &status), 1);
    CloseServiceHandle(again);
    CloseServiceHandle(manager);
}

}  // namespace
}  // namespace qbrix::platform
