#include "driver/DriverService.h"

#include <cstring>
#include <vector>

#include "core/DiagLog.h"
#include "driver/DriverErrors.h"
#include "platform/Platform.h"
#include "platform/SystemFiles.h"

namespace qbrix::driver {

using platform::DWORD;
using platform::SC_HANDLE;

namespace {

constexpr char kGroupOrderPath[] = "SYSTEM\\CurrentControlSet\\Control\\GroupOrderList";
constexpr char kTcpipService[] = "Tcpip";
constexpr char kSystemIni[] = "system.ini";
constexpr char k386EnhSection[] = "386Enh";
constexpr char kDeviceKey[] = "device";
// A list of names ending with an empty name.
constexpr char kDependencies[] = "Tcpip\0";
constexpr DWORD kOrderWords = 100;
constexpr DWORD kNoTag = 0xFFFFFFFFu;

void LogWords(const char* heading, const DWORD* words, DWORD byteSize) {
    core::DiagLog("%s", heading);
    for (DWORD i = 0; i < byteSize / 4; ++i) {
        core::DiagLog(" %d", static_cast<int>(words[i]));
    }
}

// The group's tag order, opened for reading and writing: 0 on success with the key open.
int ReadGroupOrder(platform::HKEY* key, DWORD* words, DWORD* byteSize) {
    auto& registry = platform::Current().Reg();
    std::memset(words, 0, kOrderWords * 4);
    *byteSize = kOrderWords * 4;
    DWORD type = 0;
    *key = nullptr;
    if (registry.OpenKeyEx(platform::HKEY_LOCAL_MACHINE, kGroupOrderPath,
                           platform::KEY_QUERY_VALUE | platform::KEY_SET_VALUE,
                           key) != platform::ERROR_SUCCESS ||
        registry.QueryValueEx(*key, kDriverGroup, &type, reinterpret_cast<platform::BYTE*>(words),
                              byteSize) != platform::ERROR_SUCCESS ||
        type != platform::REG_BINARY) {
        core::DiagLog("\n Order group not found");
        if (*key != nullptr) {
            registry.CloseKey(*key);
        }
        return 1;
    }
    return 0;
}

void StoreGroupOrder(platform::HKEY key, const DWORD* words, DWORD byteSize) {
    auto& registry = platform::Current().Reg();
    registry.SetValueEx(key, kDriverGroup, platform::REG_BINARY,
                        reinterpret_cast<const platform::BYTE*>(words), byteSize);
    registry.CloseKey(key);
}

}  // namespace

std::string DriverPath(int permanent) {
    if (permanent != 0) {
        return platform::JoinPath(platform::GetSystemDirectory(), kDriverFileName);
    }
    return platform::ProgramFile(kDriverFileName);
}

int InstallDriver(int permanent) {
    if (platform::IsNtPlatform() == 0) {
        // A temporary run loads the VxD dynamically when it opens the device.
        if (permanent != 0) {
            platform::WritePrivateProfileString(k386EnhSection, kDeviceKey, kVxdName, kSystemIni);
        }
        return 0;
    }
    std::string path = DriverPath(permanent);
    if (permanent == 0) {
        // A service left over from an earlier run would make the creation fail.
        RemoveDriverService(kDriverServiceName, 0);
    }
    DWORD status = 0;
    InstallDriverService(kDriverServiceName, path.c_str(), &status, permanent);
    return 0;
}

int RemoveDriver(int permanent) {
    if (platform::IsNtPlatform() == 0) {
        // Removes the first "device" entry of the section, whichever driver it names.
        return platform::WritePrivateProfileString(k386EnhSection, kDeviceKey, nullptr, kSystemIni);
    }
    return RemoveDriverService(kDriverServiceName, permanent);
}

int InstallDriverService(const char* name, const char* path, DWORD* status, int permanent) {
    // The open is not checked: without rights every later call fails and leaves its text.
    SC_HANDLE manager = platform::OpenSCManager(nullptr, nullptr, platform::SC_MANAGER_ALL_ACCESS);
    CreateDriverService(manager, name, path, permanent);
    if (permanent == 0) {
        StartDriverService(manager, name);
    }
    *status = platform::GetLastError();
    platform::CloseServiceHandle(manager);
    return 1;
}

int CreateDriverService(SC_HANDLE manager, const char* name, const char* path, int permanent) {
    DWORD tag = 0;
    SC_HANDLE service = platform::CreateService(
        manager, name, name, platform::SERVICE_ALL_ACCESS, platform::SERVICE_KERNEL_DRIVER,
        permanent != 0 ? platform::SERVICE_SYSTEM_START : platform::SERVICE_DEMAND_START,
        platform::SERVICE_ERROR_NORMAL, path, kDriverGroup, &tag, kDependencies, nullptr, nullptr);
    if (service == nullptr) {
        ReportLastError("create service", 1);
        return 0;
    }
    if (permanent != 0) {
        core::DiagLog("\n serice tag (%d)", static_cast<int>(tag));
        InsertTagAfterTcpip(manager, tag);
    }
    platform::CloseServiceHandle(service);
    return 1;
}

int StartDriverService(SC_HANDLE manager, const char* name) {
    SC_HANDLE service = platform::OpenService(manager, name, platform::SERVICE_ALL_ACCESS);
    if (service == nullptr) {
        ReportLastError("open", 1);
        return 0;
    }
    int started = platform::StartService(service, 0, nullptr);
    if (started == 0) {
        ReportLastError("start", 1);
    }
    platform::CloseServiceHandle(service);
    return started;
}

void StopDriverService(SC_HANDLE manager, const char* name) {
    SC_HANDLE service = platform::OpenService(manager, name, platform::SERVICE_ALL_ACCESS);
    if (service == nullptr) {
        return;
    }
    platform::SERVICE_STATUS status{};
    if (platform::ControlService(service, platform::SERVICE_CONTROL_STOP, &status) == 0) {
        ReportLastError("stop", 1);
    }
    platform::CloseServiceHandle(service);
}

int RemoveDriverService(const char* name, int permanent) {
    SC_HANDLE manager = platform::OpenSCManager(nullptr, nullptr, platform::SC_MANAGER_ALL_ACCESS);
    if (permanent == 0) {
        StopDriverService(manager, name);
    }
    DeleteDriverService(manager, name, permanent);
    platform::CloseServiceHandle(manager);
    return 1;
}

void DeleteDriverService(SC_HANDLE manager, const char* name, int permanent) {
    if (permanent != 0) {
        // The tag can only be read while the service still exists.
        RemoveServiceTag(manager, name);
    }
    SC_HANDLE service = platform::OpenService(manager, name, platform::SERVICE_ALL_ACCESS);
    if (service == nullptr) {
        return;
    }
    if (platform::DeleteService(service) == 0) {
        ReportLastError("delete", 1);
    }
    platform::CloseServiceHandle(service);
}

DWORD QueryServiceTag(SC_HANDLE manager, const char* name) {
    SC_HANDLE service = platform::OpenService(manager, name, platform::SERVICE_QUERY_CONFIG);
    if (service == nullptr) {
        return kNoTag;
    }
    alignas(platform::QUERY_SERVICE_CONFIGA) char buffer[4096] = {};
    auto* config = reinterpret_cast<platform::QUERY_SERVICE_CONFIGA*>(buffer);
    DWORD needed = 0;
    DWORD tag = 0;
    if (platform::QueryServiceConfig(service, config, sizeof(buffer), &needed) != 0) {
        tag = config->dwTagId;
    }
    platform::CloseServiceHandle(service);
    return tag;
}

void InsertTagAfterTcpip(SC_HANDLE manager, DWORD newTag) {
    DWORD tcpipTag = QueryServiceTag(manager, kTcpipService);
    if (tcpipTag == kNoTag) {
        core::DiagLog("\n TCP tag not found");
        return;
    }
    core::DiagLog("\n TCP  tag %d", static_cast<int>(tcpipTag));
    platform::HKEY key = nullptr;
    // One word more than is read, so the insertion has room when the value fills all 100.
    DWORD words[kOrderWords + 1] = {};
    DWORD byteSize = 0;
    if (ReadGroupOrder(&key, words, &byteSize) != 0) {
        return;
    }
    LogWords("\n before", words, byteSize);
    // The search starts at the count word on purpose: a count equal to the tag matches there.
    DWORD found = 0;
    while (found < kOrderWords && words[found] != tcpipTag) {
        ++found;
    }
    if (found == kOrderWords) {
        core::DiagLog("\n TCP not in order group");
        platform::Current().Reg().CloseKey(key);
        return;
    }
    std::memmove(&words[found + 2], &words[found + 1], (kOrderWords - found - 1) * 4);
    words[found + 1] = newTag;
    byteSize += 4;
    LogWords("\n after ", words, byteSize);
    StoreGroupOrder(key, words, byteSize);
}

void RemoveServiceTag(SC_HANDLE manager, const char* name) {
    DWORD tag = QueryServiceTag(manager, name);
    if (tag == kNoTag) {
        core::DiagLog("\n tag for (%s) not found", name);
        return;
    }
    core::DiagLog("\n Remove tag %d", static_cast<int>(tag));
    platform::HKEY key = nullptr;
    DWORD words[kOrderWords] = {};
    DWORD byteSize = 0;
    if (ReadGroupOrder(&key, words, &byteSize) != 0) {
        return;
    }
    LogWords("\n before", words, byteSize);
    DWORD found = 0;
    while (found < kOrderWords && words[found] != tag) {
        ++found;
    }
    if (found == kOrderWords) {
        core::DiagLog("\n not in order group");
        platform::Current().Reg().CloseKey(key);
        return;
    }
    std::memmove(&words[found], &words[found + 1], (kOrderWords - found - 1) * 4);
    words[kOrderWords - 1] = 0;
    byteSize = byteSize >= 4 ? byteSize - 4 : 0;
    LogWords("\n after ", words, byteSize);
    StoreGroupOrder(key, words, byteSize);
}

}  // namespace qbrix::driver
