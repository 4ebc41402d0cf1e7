#include "platform/Processes.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "platform/Platform.h"

namespace qbrix::platform {

namespace {

std::atomic<ProcessTable*> g_installedTable{nullptr};

ProcessTable& DefaultTable() {
    static std::unique_ptr<ProcessTable> table = MakeProcfsProcessTable();
    return *table;
}

struct ProcessObject : KernelObject {
    explicit ProcessObject(DWORD id) : processId(id) {}
    DWORD processId;
};

struct SnapshotObject : KernelObject {
    std::vector<PROCESSENTRY32> processes;
    std::vector<MODULEENTRY32> modules;
    std::size_t nextProcess = 0;
    std::size_t nextModule = 0;
};

// Module handles are distinct non-null values per position in the process's module list.
constexpr std::uintptr_t kModuleHandleStep = 0x10000;

HMODULE ModuleHandleAt(std::size_t index) {
    return reinterpret_cast<HMODULE>((index + 1) * kModuleHandleStep);
}

template <std::size_t N>
void CopyText(char (&field)[N], const std::string& text) {
    std::size_t length = std::min(text.size(), N - 1);
    std::memset(field, 0, N);
    std::memcpy(field, text.data(), length);
}

std::string BaseName(const std::string& path) {
    std::size_t slash = path.find_last_of("/\\");
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

ProcessTable& CurrentProcessTable() {
    ProcessTable* table = g_installedTable.load();
    return table != nullptr ? *table : DefaultTable();
}

ScopedProcessTable::ScopedProcessTable(ProcessTable& table)
    : m_previous(g_installedTable.exchange(&table)) {}

ScopedProcessTable::~ScopedProcessTable() {
    g_installedTable.store(m_previous);
}

BOOL EnumProcesses(DWORD* processIds, DWORD bytes, DWORD* bytesReturned) {
    if (processIds == nullptr || bytesReturned == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    std::vector<ProcessEntry> processes = CurrentProcessTable().List();
    std::size_t room = bytes / sizeof(DWORD);
    std::size_t count = std::min(room, processes.size());
    for (std::size_t i = 0; i < count; ++i) {
        processIds[i] = processes[i].processId;
    }
    *bytesReturned = static_cast<DWORD>(count * sizeof(DWORD));
    return 1;
}

HANDLE OpenProcess(DWORD, BOOL, DWORD processId) {
    std::string path;
    DWORD error = CurrentProcessTable().ExecutablePath(processId, path);
    if (error != ERROR_SUCCESS) {
        SetLastError(error);
        return nullptr;
    }
    return Current().Handles().Add(std::make_shared<ProcessObject>(processId));
}

BOOL EnumProcessModules(HANDLE process, HMODULE* modules, DWORD bytes, DWORD* bytesNeeded) {
    auto object = Current().Handles().FindAs<ProcessObject>(process);
    if (object == nullptr || bytesNeeded == nullptr) {
        SetLastError(object == nullptr ? ERROR_INVALID_HANDLE : ERROR_INVALID_PARAMETER);
        return 0;
    }
    std::vector<std::string> files;
    if (DWORD error = CurrentProcessTable().Modules(object->processId, files);
        error != ERROR_SUCCESS) {
        SetLastError(error);
        return 0;
    }
    std::size_t room = modules == nullptr ? 0 : bytes / sizeof(HMODULE);
    for (std::size_t i = 0; i < files.size() && i < room; ++i) {
        modules[i] = ModuleHandleAt(i);
    }
    *bytesNeeded = static_cast<DWORD>(files.size() * sizeof(HMODULE));
    return 1;
}

DWORD GetModuleFileNameExA(HANDLE process, HMODULE module, char* fileName, DWORD size) {
    auto object = Current().Handles().FindAs<ProcessObject>(process);
    if (object == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    std::vector<std::string> files;
    if (DWORD error = CurrentProcessTable().Modules(object->processId, files);
        error != ERROR_SUCCESS) {
        SetLastError(error);
        return 0;
    }
    std::uintptr_t value = reinterpret_cast<std::uintptr_t>(module);
    std::size_t index = value == 0 ? 0 : value / kModuleHandleStep - 1;
    if ((value != 0 && value % kModuleHandleStep != 0) || index >= files.size()) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    if (fileName == nullptr || size == 0) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return 0;
    }
    const std::string& file = files[index];
    std::size_t length = std::min<std::size_t>(file.size(), size - 1);
    std::memcpy(fileName, file.data(), length);
    fileName[length] = '\0';
    return static_cast<DWORD>(length);
}

HANDLE CreateToolhelp32Snapshot(DWORD flags, DWORD processId) {
    auto snapshot = std::make_shared<SnapshotObject>();
    ProcessTable& table = CurrentProcessTable();
    if ((flags & TH32CS_SNAPPROCESS) != 0) {
        for (const ProcessEntry& process : table.List()) {
            PROCESSENTRY32 entry{};
            entry.dwSize = sizeof(PROCESSENTRY32);
            entry.th32ProcessID = process.processId;
            entry.th32ModuleID = 1;
            entry.cntThreads = process.threads;
            entry.th32ParentProcessID = process.parentProcessId;
            CopyText(entry.szExeFile, process.executable);
            snapshot->processes.push_back(entry);
        }
    }
    if ((flags & TH32CS_SNAPMODULE) != 0) {
        std::vector<std::string> files;
        if (DWORD error = table.Modules(processId, files); error != ERROR_SUCCESS) {
            SetLastError(error);
            return INVALID_HANDLE_VALUE;
        }
        for (std::size_t i = 0; i < files.size(); ++i) {
            MODULEENTRY32 entry{};
            entry.dwSize = sizeof(MODULEENTRY32);
            entry.th32ModuleID = static_cast<DWORD>(i + 1);
            entry.th32ProcessID = processId;
            entry.GlblcntUsage = 1;
            entry.ProccntUsage = 1;
            entry.hModule = static_cast<DWORD>((i + 1) * kModuleHandleStep);
            CopyText(entry.szModule, BaseName(files[i]));
            CopyText(entry.szExePath, files[i]);
            snapshot->modules.push_back(entry);
        }
    }
    return Current().Handles().Add(snapshot);
}

namespace {

template <typename Entry>
BOOL NextEntry(HANDLE handle, Entry* entry, bool first, std::vector<Entry> SnapshotObject::*entries,
               std::size_t SnapshotObject::*next) {
    auto snapshot = Current().Handles().FindAs<SnapshotObject>(handle);
    if (snapshot == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    if (entry == nullptr || entry->dwSize < sizeof(Entry)) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return 0;
    }
    if (first) {
        (*snapshot).*next = 0;
    }
    std::size_t& position = (*snapshot).*next;
    const std::vector<Entry>& list = (*snapshot).*entries;
    if (position >= list.size()) {
        SetLastError(ERROR_NO_MORE_FILES);
        return 0;
    }
    *entry = list[position++];
    return 1;
}

}  // namespace

BOOL Process32First(HANDLE snapshot, PROCESSENTRY32* entry) {
    return NextEntry(snapshot, entry, true, &SnapshotObject::processes,
                     &SnapshotObject::nextProcess);
}
BOOL Process32Next(HANDLE snapshot, PROCESSENTRY32* entry) {
    return NextEntry(snapshot, entry, false, &SnapshotObject::processes,
                     &SnapshotObject::nextProcess);
}
BOOL Module32First(HANDLE snapshot, MODULEENTRY32* entry) {
    return NextEntry(snapshot, entry, true, &SnapshotObject::modules, &SnapshotObject::nextModule);
}
BOOL Module32Next(HANDLE snapshot, MODULEENTRY32* entry) {
    return NextEntry(snapshot, entry, false, &SnapshotObject::modules, &SnapshotObject::nextModule);
}

void RegisterProcessModules(Libraries& libraries) {
    libraries.RegisterBuiltin(
        "PSAPI.DLL", {{"EnumProcesses", reinterpret_cast<void*>(&EnumProcesses)},
                      {"EnumProcessModules", reinterpret_cast<void*>(&EnumProcessModules)},
                      {"GetModuleFileNameExA", reinterpret_cast<void*>(&GetModuleFileNameExA)}});
    libraries.RegisterBuiltin(
        "KERNEL32.DLL",
        {{"CreateToolhelp32Snapshot", reinterpret_cast<void*>(&CreateToolhelp32Snapshot)},
         {"Process32First", reinterpret_cast<void*>(&Process32First)},
         {"Process32Next", reinterpret_cast<void*>(&Process32Next)},
         {"Module32First", reinterpret_cast<void*>(&Module32First)},
         {"Module32Next", reinterpret_cast<void*>(&Module32Next)}});
}

}  // namespace qbrix::platform
