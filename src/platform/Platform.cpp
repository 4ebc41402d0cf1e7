#include "platform/Platform.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "platform/ComponentLoader.h"
#include "platform/Security.h"
#include "platform/posix/PosixPlatform.h"

namespace qbrix::platform {

namespace {
std::atomic<Platform*> g_current{nullptr};
thread_local DWORD t_lastError = 0;
}  // namespace

Platform::Platform(SystemInfo info, std::unique_ptr<Registry> registry)
    : m_info(std::move(info)),
      m_registry(std::move(registry)),
      m_components(std::make_unique<ComponentLoader>(m_libraries)) {
    RegisterSystemModules(m_libraries);
}

Platform::~Platform() = default;

std::string Platform::RunDirectory() const {
    return MakeRunDirectory(m_info.dataRoot);
}

LONG DeleteRegistryTree(Registry& registry, HKEY parent, std::string_view name) {
    constexpr REGSAM kAccess =
        KEY_QUERY_VALUE | KEY_SET_VALUE | KEY_CREATE_SUB_KEY | KEY_ENUMERATE_SUB_KEYS;
    struct Level {
        HKEY key;
        std::string name;  // below the previous level's key (or `parent`)
    };
    std::vector<Level> levels;
    auto closeAll = [&] {
        for (const Level& level : levels) {
            registry.CloseKey(level.key);
        }
    };
    HKEY top = nullptr;
    if (LONG rc = registry.OpenKeyEx(parent, name, kAccess, &top); rc != ERROR_SUCCESS) {
        return rc;
    }
    levels.push_back({top, std::string(name)});
    while (!levels.empty()) {
        char child[kMaxKeyNameLength + 1];
        DWORD childSize = sizeof(child);
        // Index 0 every time: each deletion renumbers the remaining sub-keys.
        if (registry.EnumKeyEx(levels.back().key, 0, child, &childSize) == ERROR_SUCCESS) {
            HKEY next = nullptr;
            std::string childName(child, childSize);
            if (LONG rc = registry.OpenKeyEx(levels.back().key, childName, kAccess, &next);
                rc != ERROR_SUCCESS) {
                closeAll();
                return rc;
            }
            levels.push_back({next, std::move(childName)});
            continue;
        }
        Level done = std::move(levels.back());
        levels.pop_back();
        registry.CloseKey(done.key);
        HKEY above = levels.empty() ? parent : levels.back().key;
        if (LONG rc = registry.DeleteKey(above, done.name); rc != ERROR_SUCCESS) {
            closeAll();
            return rc;
        }
    }
    return ERROR_SUCCESS;
}

RegistryTransaction::RegistryTransaction()
    : m_beginResult(Current().Reg().BeginTransaction()), m_active(m_beginResult == ERROR_SUCCESS) {}

RegistryTransaction::~RegistryTransaction() {
    if (m_active) {
        Current().Reg().EndTransaction(false);
    }
}

LONG RegistryTransaction::Commit() {
    if (!m_active) {
        return ERROR_SUCCESS;
    }
    m_active = false;
    return Current().Reg().EndTransaction(true);
}

Platform& Current() {
    Platform* platform = g_current.load();
    if (platform == nullptr) {
        std::fputs("q-Brix: no platform installed\n", stderr);
        std::abort();
    }
    return *platform;
}

bool IsInstalled() { return g_current.load() != nullptr; }

ScopedPlatform::ScopedPlatform(std::unique_ptr<Platform> platform)
    : m_platform(std::move(platform)), m_previous(g_current.exchange(m_platform.get())) {}

ScopedPlatform::~ScopedPlatform() { g_current.store(m_previous); }

DWORD GetLastError() { return t_lastError; }
void SetLastError(DWORD code) { t_lastError = code; }

std::string GetErrorMessageText(DWORD code) {
    // The system message table's wording for the codes the system meets.
    static const std::map<DWORD, const char*> kMessages = {
        {0, "The operation completed successfully."},
        {1, "Incorrect function."},
        {2, "The system cannot find the file specified."},
        {3, "The system cannot find the path specified."},
        {5, "Access is denied."},
        {6, "The handle is invalid."},
        {8, "Not enough storage is available to process this command."},
        {13, "The data is invalid."},
        {31, "A device attached to the system is not functioning."},
        {32, "The process cannot access the file because it is being used by another process."},
        {50, "The request is not supported."},
        {80, "The file exists."},
        {87, "The parameter is incorrect."},
        {112, "There is not enough space on the disk."},
        {121, "The semaphore timeout period has expired."},
        {122, "The data area passed to a system call is too small."},
        {126, "The specified module could not be found."},
        {127, "The specified procedure could not be found."},
        {161, "The specified path is invalid."},
        {170, "The requested resource is in use."},
        {183, "Cannot create a file when that file already exists."},
        {234, "More data is available."},
        {259, "No more data is available."},
        {1009, "The configuration registry database is corrupt."},
        {1018, "Illegal operation attempted on a registry key that has been marked for deletion."},
        {1051, "A stop control has been sent to a service that other running services are "
               "dependent on."},
        {1052, "The requested control is not valid for this service."},
        {1053, "The service did not respond to the start or control request in a timely "
               "fashion."},
        {1056, "An instance of the service is already running."},
        {1058, "The service cannot be started, either because it is disabled or because it has "
               "no enabled devices associated with it."},
        {1060, "The specified service does not exist as an installed service."},
        {1062, "The service has not been started."},
        {1072, "The specified service has been marked for deletion."},
        {1073, "The specified service already exists."},
        {1275, "This driver has been blocked from loading"},
    };
    auto it = kMessages.find(code);
    return it == kMessages.end() ? std::string() : std::string(it->second) + "\r\n";
}

int IsNtPlatform() { return Current().Info().family == Family::Nt ? 1 : 0; }

std::string JoinPath(std::string_view directory, std::string_view name) {
    std::string result(directory);
    if (!result.empty() && result.back() != '/') {
        result.push_back('/');
    }
    for (char c : name) {
        result.push_back(c == '\\' ? '/' : c);
    }
    return result;
}

std::string ProgramFile(std::string_view name) {
    return JoinPath(Current().Info().programDirectory, name);
}

}  // namespace qbrix::platform
