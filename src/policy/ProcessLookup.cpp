#include "policy/ProcessLookup.h"

#include <cstring>

#include "core/DiagLog.h"
#include "platform/Kernel.h"
#include "platform/PathNames.h"
#include "platform/Platform.h"
#include "platform/Processes.h"
#include "platform/Text.h"
#include "policy/VersionDetails.h"

namespace qbrix::policy {

namespace {

constexpr std::size_t kMaxImageName = 260;

// A library looked up at run time, freed when done.
class RuntimeLibrary {
  public:
    explicit RuntimeLibrary(const char* name) : m_module(platform::Current().Libs().Load(name)) {}
    ~RuntimeLibrary() {
        if (m_module != nullptr) {
            platform::Current().Libs().Free(m_module);
        }
    }
    RuntimeLibrary(const RuntimeLibrary&) = delete;
    RuntimeLibrary& operator=(const RuntimeLibrary&) = delete;

    template <typename Fn>
    Fn Find(const char* symbol) {
        if (m_module == nullptr) {
            return nullptr;
        }
        return reinterpret_cast<Fn>(platform::Current().Libs().GetProcAddress(m_module, symbol));
    }

  private:
    platform::HMODULE m_module;
};

}  // namespace

bool MatchImageName(std::string_view candidatePath, std::string_view wantedName) {
    platform::PathParts candidate = platform::SplitPath(candidatePath);
    platform::PathParts wanted = platform::SplitPath(wantedName);
    // strncmp over the whole wanted length: the wanted base name's end acts as its terminator.
    std::size_t n = wantedName.size();
    const std::string& a = candidate.baseName;
    const std::string& b = wanted.baseName;
    for (std::size_t i = 0; i < n; ++i) {
        char left = i < a.size() ? a[i] : '\0';
        char right = i < b.size() ? b[i] : '\0';
        if (left != right) {
            return false;
        }
        if (left == '\0') {
            return true;
        }
    }
    return true;
}

int FindProcessPathNt(std::string_view imageName, std::string& path) {
    RuntimeLibrary psapi("psapi.dll");
    auto enumProcesses = psapi.Find<platform::EnumProcessesFn>("EnumProcesses");
    auto enumModules = psapi.Find<platform::EnumProcessModulesFn>("EnumProcessModules");
    auto moduleFileName = psapi.Find<platform::GetModuleFileNameExAFn>("GetModuleFileNameExA");
    if (enumProcesses == nullptr || enumModules == nullptr || moduleFileName == nullptr) {
        return 1;
    }
    platform::DWORD ids[kMaxProcesses] = {};
    platform::DWORD returned = 0;
    if (!enumProcesses(ids, sizeof ids, &returned)) {
        return 1;
    }
    int count = static_cast<int>(returned / sizeof(platform::DWORD));
    for (int i = 0; i < count; ++i) {
        core::DiagLog("\n process NT count %d PID %d", i, static_cast<int>(ids[i]));
        platform::HANDLE process = platform::OpenProcess(
            platform::PROCESS_QUERY_INFORMATION | platform::PROCESS_VM_READ, 0, ids[i]);
        if (process == nullptr) {
            core::DiagLog("\n open process err(%X)", platform::GetLastError());
            continue;
        }
        // Only the executable's module is wanted: the null module names it without listing
        // every file mapped into the process.
        char fileName[260] = {};
        if (moduleFileName(process, nullptr, fileName, sizeof fileName) == 0) {
            core::DiagLog("\n enum modules err(%X)", platform::GetLastError());
            platform::CloseHandle(process);
            continue;
        }
        core::DiagLog("\n     modules count %d ", i);
        core::DiagLog("\n           module[%d]= '%.*s' '%s'", i, static_cast<int>(imageName.size()),
                      imageName.data(), fileName);
        std::string upper = platform::ToUpperAscii(fileName);
        platform::CloseHandle(process);
        if (MatchImageName(upper, imageName)) {
            path = upper;
            return 0;
        }
    }
    return 1;
}

int FindModulePath9x(platform::DWORD processId, platform::DWORD moduleId, std::string& path) {
    RuntimeLibrary kernel("kernel32.dll");
    auto snapshotFn = kernel.Find<platform::CreateToolhelp32SnapshotFn>("CreateToolhelp32Snapshot");
    auto first = kernel.Find<platform::Module32Fn>("Module32First");
    auto next = kernel.Find<platform::Module32Fn>("Module32Next");
    if (snapshotFn == nullptr || first == nullptr || next == nullptr) {
        return 1;
    }
    platform::HANDLE snapshot = snapshotFn(platform::TH32CS_SNAPMODULE, processId);
    if (snapshot == platform::INVALID_HANDLE_VALUE || snapshot == nullptr) {
        core::DiagLog("\n process module err(%X)", platform::GetLastError());
        return 1;
    }
    platform::MODULEENTRY32 entry;
    std::memset(&entry, 0, sizeof entry);
    entry.dwSize = sizeof entry;
    int result = 1;
    for (bool more = first(snapshot, &entry); more; more = next(snapshot, &entry)) {
        if (entry.th32ModuleID == moduleId) {
            path.assign(entry.szExePath, strnlen(entry.szExePath, sizeof entry.szExePath));
            result = 0;
            break;
        }
    }
    platform::CloseHandle(snapshot);
    return result;
}

int FindProcessPath9x(std::string_view imageName, std::string& path) {
    RuntimeLibrary kernel("kernel32.dll");
    auto snapshotFn = kernel.Find<platform::CreateToolhelp32SnapshotFn>("CreateToolhelp32Snapshot");
    auto first = kernel.Find<platform::Process32Fn>("Process32First");
    auto next = kernel.Find<platform::Process32Fn>("Process32Next");
    auto moduleFirst = kernel.Find<platform::Module32Fn>("Module32First");
    auto moduleNext = kernel.Find<platform::Module32Fn>("Module32Next");
    if (snapshotFn == nullptr || first == nullptr || next == nullptr || moduleFirst == nullptr ||
        moduleNext == nullptr) {
        return 1;
    }
    platform::HANDLE snapshot = snapshotFn(platform::TH32CS_SNAPPROCESS, 0);
    if (snapshot == platform::INVALID_HANDLE_VALUE || snapshot == nullptr) {
        return 1;
    }
    platform::PROCESSENTRY32 entry;
    std::memset(&entry, 0, sizeof entry);
    entry.dwSize = sizeof entry;
    int result = 1;
    for (bool more = first(snapshot, &entry); more; more = next(snapshot, &entry)) {
        std::string upper = platform::ToUpperAscii(
            std::string_view(entry.szExeFile, strnlen(entry.szExeFile, sizeof entry.szExeFile)));
        if (MatchImageName(upper, imageName) &&
            FindModulePath9x(entry.th32ProcessID, entry.th32ModuleID, path) == 0) {
            result = 0;
            break;
        }
    }
    platform::CloseHandle(snapshot);
    return result;
}

int GetProcessName(std::string_view imageName, std::string& path, std::string& description) {
    path = "?";
    description = std::string(imageName);
    std::string wanted = platform::ToUpperAscii(imageName.substr(0, kMaxImageName));
    std::string found;
    int result = platform::IsNtPlatform() ? FindProcessPathNt(wanted, found)
                                          : FindProcessPath9x(wanted, found);
    std::string name(imageName);
    core::DiagLog("\n GetProcessName %s -> %d %s", name.c_str(), result, found.c_str());
    if (result != 0) {
        return 1;
    }
    path = found;
    std::string fileDescription;
    std::string details;
    if (GetVersionDetails(path, fileDescription, details, false) == 0) {
        description = fileDescription;
    }
    core::DiagLog("\n GetProcessName result %s ", description.c_str());
    return 0;
}

}  // namespace qbrix::policy
