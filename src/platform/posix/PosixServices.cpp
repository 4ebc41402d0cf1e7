// The service control manager over the emulated registry. A service is its key under
// "SYSTEM\CurrentControlSet\Services"; a started driver is a background process whose id is
// kept in "<run>/services/<NAME>.pid", so every program on the data root sees the same state.
#include <sys/types.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/Device.h"
#include "platform/Platform.h"
#include "platform/Security.h"
#include "platform/Services.h"
#include "platform/SystemFiles.h"
#include "platform/Text.h"
#include "platform/posix/DriverProcess.h"
#include "platform/posix/PosixPlatform.h"

namespace qbrix::platform {

namespace {

constexpr char kServicesPath[] = "SYSTEM\\CurrentControlSet\\Services";
constexpr char kGroupOrderPath[] = "SYSTEM\\CurrentControlSet\\Control\\GroupOrderList";

class ServiceManager : public KernelObject {
  public:
    explicit ServiceManager(DWORD access) : m_access(access) {}
    DWORD m_access;
};

class Service : public KernelObject {
  public:
    Service(std::string name, DWORD access) : m_name(std::move(name)), m_access(access) {}
    std::string m_name;
    DWORD m_access;
    bool m_deleted = false;
};

BOOL Fail(DWORD error) {
    SetLastError(error);
    return 0;
}

// A registry key opened for one operation.
class Key {
  public:
    Key() = default;
    ~Key() {
        if (m_key != nullptr) {
            Current().Reg().CloseKey(m_key);
        }
    }
    Key(const Key&) = delete;
    Key& operator=(const Key&) = delete;

    LONG Open(std::string_view path, REGSAM access) {
        return Current().Reg().OpenKeyEx(HKEY_LOCAL_MACHINE, path, access, &m_key);
    }
    LONG Create(std::string_view path) {
        return Current().Reg().CreateKeyEx(HKEY_LOCAL_MACHINE, path, REG_OPTION_NON_VOLATILE,
                                           KEY_ALL_ACCESS, &m_key, nullptr);
    }
    bool Dword(std::string_view name, DWORD* value) {
        DWORD type = 0;
        DWORD size = sizeof(*value);
        return Current().Reg().QueryValueEx(m_key, name, &type, reinterpret_cast<BYTE*>(value),
                                            &size) == ERROR_SUCCESS &&
               type == REG_DWORD && size == sizeof(*value);
    }
    std::string Bytes(std::string_view name, DWORD* type = nullptr) {
        DWORD size = 0;
        DWORD found = 0;
        if (Current().Reg().QueryValueEx(m_key, name, &found, nullptr, &size) != ERROR_SUCCESS) {
            return std::string();
        }
        std::string data(size, '\0');
        if (Current().Reg().QueryValueEx(m_key, name, &found, reinterpret_cast<BYTE*>(data.data()),
                                         &size) != ERROR_SUCCESS) {
            return std::string();
        }
        data.resize(size);
        if (type != nullptr) {
            *type = found;
        }
        return data;
    }
    // A REG_SZ or REG_EXPAND_SZ text without its terminator.
    std::string Text(std::string_view name) {
        std::string data = Bytes(name);
        return data.substr(0, data.find('\0'));
    }
    void SetDword(std::string_view name, DWORD value) {
        Current().Reg().SetValueEx(m_key, name, REG_DWORD, reinterpret_cast<const BYTE*>(&value),
                                   sizeof(value));
    }
    void Set(std::string_view name, DWORD type, const std::string& data) {
        Current().Reg().SetValueEx(m_key, name, type, reinterpret_cast<const BYTE*>(data.data()),
                                   static_cast<DWORD>(data.size()));
    }
    void SetText(std::string_view name, DWORD type, std::string_view text) {
        Set(name, type, std::string(text) + '\0');
    }
    HKEY Get() const { return m_key; }

  private:
    HKEY m_key = nullptr;
};

std::string ServicePath(std::string_view name) {
    return std::string(kServicesPath) + "\\" + std::string(name);
}

std::string Words(const std::vector<DWORD>& words) {
    std::string data(words.size() * 4, '\0');
    std::memcpy(data.data(), words.data(), data.size());
    return data;
}

void SeedService(const char* name, DWORD tag, const char* image, std::string_view dependencies) {
    Key key;
    if (key.Create(ServicePath(name)) != ERROR_SUCCESS) {
        return;
    }
    key.SetDword("Type", SERVICE_KERNEL_DRIVER);
    key.SetDword("Start", SERVICE_SYSTEM_START);
    key.SetDword("ErrorControl", SERVICE_ERROR_NORMAL);
    key.SetText("Group", REG_SZ, "PNP_TDI");
    key.SetDword("Tag", tag);
    key.SetText("ImagePath", REG_EXPAND_SZ, image);
    key.SetText("DisplayName", REG_SZ, name);
    if (!dependencies.empty()) {
        key.Set("DependOnService", REG_MULTI_SZ, std::string(dependencies));
    }
}

// The system as it is when first initialised: the TCP/IP driver and one more member of the
// transport group, with the group's tag order listing both.
void SeedSystem() {
    Key control;
    if (control.Open(kGroupOrderPath, KEY_READ) == ERROR_SUCCESS) {
        return;
    }
    SeedService("Tcpip", 1, "System32\\DRIVERS\\tcpip.sys", "");
    SeedService("NetBT", 2, "System32\\DRIVERS\\netbt.sys", std::string("Tcpip\0\0", 7));
    Key order;
    if (order.Create(kGroupOrderPath) == ERROR_SUCCESS) {
        order.Set("PNP_TDI", REG_BINARY, Words({2, 1, 2}));
    }
}

std::string PidFile(std::string_view name) {
    std::string dir = JoinPath(Current().RunDirectory(), "services");
    MakeDataDirectory(Current().Info().dataRoot, dir);
    return JoinPath(dir, ToUpperAscii(name) + ".pid");
}

pid_t RunningPid(std::string_view name) {
    std::ifstream in(PidFile(name));
    long pid = -1;
    if (!(in >> pid) || pid <= 0 || !ProcessAlive(static_cast<pid_t>(pid))) {
        return -1;
    }
    return static_cast<pid_t>(pid);
}

// The image path as a file of the emulated machine: "\SystemRoot\" and relative paths lie in
// the Windows directory, "%SystemRoot%" is expanded, backslashes become '/'.
std::string ImageFile(std::string image) {
    const std::string windows = GetWindowsDirectory();
    for (const char* prefix : {"\\SystemRoot\\", "%SystemRoot%\\"}) {
        if (image.size() >= std::strlen(prefix) &&
            EqualsIgnoreCase(std::string_view(image).substr(0, std::strlen(prefix)), prefix)) {
            return JoinPath(windows, image.substr(std::strlen(prefix)));
        }
    }
    if (!image.empty() && (image.front() == '/' || image.front() == '\\')) {
        return JoinPath("", image);
    }
    return JoinPath(windows, image);
}

std::vector<DWORD> GroupTags(std::string_view group) {
    std::vector<DWORD> tags;
    Key services;
    if (services.Open(kServicesPath, KEY_READ) == ERROR_SUCCESS) {
        char name[kMaxKeyNameLength + 1];
        for (DWORD index = 0;; ++index) {
            DWORD size = sizeof(name);
            if (Current().Reg().EnumKeyEx(services.Get(), index, name, &size) != ERROR_SUCCESS) {
                break;
            }
            Key service;
            DWORD tag = 0;
            if (service.Open(ServicePath(std::string_view(name, size)), KEY_READ) ==
                    ERROR_SUCCESS &&
                EqualsIgnoreCase(service.Text("Group"), group) && service.Dword("Tag", &tag)) {
                tags.push_back(tag);
            }
        }
    }
    Key order;
    if (order.Open(kGroupOrderPath, KEY_READ) == ERROR_SUCCESS) {
        std::string data = order.Bytes(group);
        for (std::size_t at = 4; at + 4 <= data.size(); at += 4) {
            DWORD tag = 0;
            std::memcpy(&tag, data.data() + at, 4);
            tags.push_back(tag);
        }
    }
    return tags;
}

std::shared_ptr<Service> FindService(SC_HANDLE handle) {
    return Current().Handles().FindAs<Service>(handle);
}

// The live service behind a handle: ERROR_INVALID_HANDLE, ERROR_ACCESS_DENIED for a missing
// right, ERROR_SERVICE_MARKED_FOR_DELETE once deleted.
std::shared_ptr<Service> UsableService(SC_HANDLE handle, DWORD right) {
    std::shared_ptr<Service> service = FindService(handle);
    if (service == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    if ((service->m_access & right) != right) {
        SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    Key key;
    if (service->m_deleted || key.Open(ServicePath(service->m_name), KEY_READ) != ERROR_SUCCESS) {
        SetLastError(ERROR_SERVICE_MARKED_FOR_DELETE);
        return nullptr;
    }
    return service;
}

}  // namespace

SC_HANDLE OpenSCManager(const char*, const char*, DWORD access) {
    if ((access & ~SC_MANAGER_CONNECT) != 0 && !IsLinuxAdministrator(Current().Info().user)) {
        SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    SeedSystem();
    SetLastError(ERROR_SUCCESS);
    return Current().Handles().Add(std::make_shared<ServiceManager>(access));
}

SC_HANDLE CreateService(SC_HANDLE manager, const char* name, const char* displayName, DWORD access,
                        DWORD serviceType, DWORD startType, DWORD errorControl,
                        const char* binaryPath, const char* loadOrderGroup, DWORD* tagId,
                        const char* dependencies, const char*, const char*) {
    auto scm = Current().Handles().FindAs<ServiceManager>(manager);
    if (scm == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    if ((scm->m_access & SC_MANAGER_CREATE_SERVICE) == 0) {
        SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    if (name == nullptr || *name == '\0' || std::strlen(name) > 256 ||
        std::strpbrk(name, "/\\") != nullptr || binaryPath == nullptr || *binaryPath == '\0' ||
        startType > SERVICE_DISABLED ||
        (tagId != nullptr && (loadOrderGroup == nullptr || *loadOrderGroup == '\0'))) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    Key existing;
    if (existing.Open(ServicePath(name), KEY_READ) == ERROR_SUCCESS) {
        SetLastError(ERROR_SERVICE_EXISTS);
        return nullptr;
    }
    DWORD tag = 0;
    if (tagId != nullptr) {
        for (DWORD used : GroupTags(loadOrderGroup)) {
            tag = used > tag ? used : tag;
        }
        ++tag;
    }
    Key key;
    if (key.Create(ServicePath(name)) != ERROR_SUCCESS) {
        SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    key.SetDword("Type", serviceType);
    key.SetDword("Start", startType);
    key.SetDword("ErrorControl", errorControl);
    key.SetText("ImagePath", REG_EXPAND_SZ, binaryPath);
    key.SetText("DisplayName", REG_SZ, displayName != nullptr ? displayName : name);
    if (loadOrderGroup != nullptr && *loadOrderGroup != '\0') {
        key.SetText("Group", REG_SZ, loadOrderGroup);
    }
    if (tagId != nullptr) {
        key.SetDword("Tag", tag);
        *tagId = tag;
    }
    if (dependencies != nullptr && *dependencies != '\0') {
        std::size_t size = 0;
        while (dependencies[size] != '\0') {
            size += std::strlen(dependencies + size) + 1;
        }
        key.Set("DependOnService", REG_MULTI_SZ, std::string(dependencies, size + 1));
    }
    SetLastError(ERROR_SUCCESS);
    return Current().Handles().Add(std::make_shared<Service>(name, access));
}

SC_HANDLE OpenService(SC_HANDLE manager, const char* name, DWORD access) {
    if (Current().Handles().FindAs<ServiceManager>(manager) == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    Key key;
    if (name == nullptr || *name == '\0' || std::strpbrk(name, "/\\") != nullptr ||
        key.Open(ServicePath(name), KEY_READ) != ERROR_SUCCESS) {
        SetLastError(ERROR_SERVICE_DOES_NOT_EXIST);
        return nullptr;
    }
    SetLastError(ERROR_SUCCESS);
    return Current().Handles().Add(std::make_shared<Service>(name, access));
}

BOOL StartService(SC_HANDLE handle, DWORD, const char**) {
    std::shared_ptr<Service> service = UsableService(handle, SERVICE_START);
    if (service == nullptr) {
        return 0;
    }
    Key key;
    key.Open(ServicePath(service->m_name), KEY_READ);
    DWORD type = 0;
    DWORD start = 0;
    key.Dword("Type", &type);
    key.Dword("Start", &start);
    if (start == SERVICE_DISABLED) {
        return Fail(ERROR_SERVICE_DISABLED);
    }
    if (RunningPid(service->m_name) > 0) {
        return Fail(ERROR_SERVICE_ALREADY_RUNNING);
    }
    if ((type & (SERVICE_KERNEL_DRIVER | SERVICE_FILE_SYSTEM_DRIVER)) == 0) {
        return Fail(ERROR_NOT_SUPPORTED);  // only drivers run on the emulated machine
    }
    DWORD error = 0;
    pid_t pid = LaunchDriverProcess(ImageFile(key.Text("ImagePath")), Current().Info().dataRoot,
                                    kDriverStartTimeoutMs, &error);
    if (pid < 0) {
        return Fail(error);
    }
    WriteDataFile(Current().Info().dataRoot, PidFile(service->m_name), std::to_string(pid) + "\n");
    SetLastError(ERROR_SUCCESS);
    return 1;
}

BOOL ControlService(SC_HANDLE handle, DWORD control, SERVICE_STATUS* status) {
    std::shared_ptr<Service> service = FindService(handle);
    if (service == nullptr) {
        return Fail(ERROR_INVALID_HANDLE);
    }
    if (control != SERVICE_CONTROL_STOP) {
        return Fail(ERROR_INVALID_SERVICE_CONTROL);
    }
    if ((service->m_access & SERVICE_STOP) == 0) {
        return Fail(ERROR_ACCESS_DENIED);
    }
    // A deleted service that still runs can be stopped, as on Windows.
    pid_t pid = RunningPid(service->m_name);
    if (status != nullptr) {
        *status = SERVICE_STATUS{SERVICE_KERNEL_DRIVER, SERVICE_STOPPED, 0, 0, 0, 0, 0};
    }
    if (pid < 0) {
        return Fail(ERROR_SERVICE_NOT_ACTIVE);
    }
    EndDriverProcess(pid, DeviceReplyTimeoutMs());
    std::error_code ignored;
    std::filesystem::remove(PidFile(service->m_name), ignored);
    SetLastError(ERROR_SUCCESS);
    return 1;
}

BOOL DeleteService(SC_HANDLE handle) {
    std::shared_ptr<Service> service = UsableService(handle, DELETE);
    if (service == nullptr) {
        return 0;
    }
    LONG result = Current().Reg().DeleteKey(HKEY_LOCAL_MACHINE, ServicePath(service->m_name));
    if (result != ERROR_SUCCESS) {
        return Fail(static_cast<DWORD>(result));
    }
    service->m_deleted = true;
    SetLastError(ERROR_SUCCESS);
    return 1;
}

BOOL QueryServiceConfig(SC_HANDLE handle, QUERY_SERVICE_CONFIGA* config, DWORD bufferSize,
                        DWORD* bytesNeeded) {
    std::shared_ptr<Service> service = UsableService(handle, SERVICE_QUERY_CONFIG);
    if (service == nullptr) {
        return 0;
    }
    Key key;
    key.Open(ServicePath(service->m_name), KEY_READ);
    QUERY_SERVICE_CONFIGA fields{};
    key.Dword("Type", &fields.dwServiceType);
    key.Dword("Start", &fields.dwStartType);
    key.Dword("ErrorControl", &fields.dwErrorControl);
    key.Dword("Tag", &fields.dwTagId);
    std::string dependencies = key.Bytes("DependOnService");
    while (dependencies.size() < 2 ||
           dependencies.compare(dependencies.size() - 2, 2, std::string(2, '\0')) != 0) {
        dependencies.push_back('\0');
    }
    const std::string texts[] = {key.Text("ImagePath") + '\0', key.Text("Group") + '\0',
                                 dependencies, std::string(1, '\0'),
                                 key.Text("DisplayName") + '\0'};
    DWORD needed = sizeof(QUERY_SERVICE_CONFIGA);
    for (const std::string& text : texts) {
        needed += static_cast<DWORD>(text.size());
    }
    if (bytesNeeded != nullptr) {
        *bytesNeeded = needed;
    }
    if (config == nullptr || bufferSize < needed) {
        return Fail(ERROR_INSUFFICIENT_BUFFER);
    }
    char* at = reinterpret_cast<char*>(config) + sizeof(QUERY_SERVICE_CONFIGA);
    char* pointers[5] = {};
    for (int i = 0; i < 5; ++i) {
        pointers[i] = at;
        std::memcpy(at, texts[i].data(), texts[i].size());
        at += texts[i].size();
    }
    fields.lpBinaryPathName = pointers[0];
    fields.lpLoadOrderGroup = pointers[1];
    fields.lpDependencies = pointers[2];
    fields.lpServiceStartName = pointers[3];
    fields.lpDisplayName = pointers[4];
    *config = fields;
    SetLastError(ERROR_SUCCESS);
    return 1;
}

BOOL QueryServiceStatus(SC_HANDLE handle, SERVICE_STATUS* status) {
    std::shared_ptr<Service> service = FindService(handle);
    if (service == nullptr || status == nullptr) {
        return Fail(service == nullptr ? ERROR_INVALID_HANDLE : ERROR_INVALID_PARAMETER);
    }
    *status = SERVICE_STATUS{SERVICE_KERNEL_DRIVER,
                             RunningPid(service->m_name) > 0 ? SERVICE_RUNNING : SERVICE_STOPPED,
                             0,
                             0,
                             0,
                             0,
                             0};
    return 1;
}

BOOL CloseServiceHandle(SC_HANDLE handle) {
    if (Current().Handles().FindAs<ServiceManager>(handle) == nullptr &&
        FindService(handle) == nullptr) {
        return Fail(ERROR_INVALID_HANDLE);
    }
    Current().Handles().Remove(handle);
    return 1;
}

}  // namespace qbrix::platform
