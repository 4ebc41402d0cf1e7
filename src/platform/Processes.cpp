#include "platform/Processes.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>

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

// The table in use while a snapshot lives: each answer of the underlying table is kept, with
// its error, for the rest of the snapshot.
class SnapshotTable : public ProcessTable {
  public:
    // Drops every kept answer; `source` is the table asked from now on.
    void Reset(ProcessTable* source) {
        std::lock_guard guard(m_lock);
        m_source = source;
        m_list.reset();
        m_executables.clear();
        m_modules.clear();
    }
    ProcessTable* Source() {
        std::lock_guard guard(m_lock);
        return m_source;
    }

    std::vector<ProcessEntry> List() override {
        std::lock_guard guard(m_lock);
        if (!m_list) {
            m_list = m_source->List();
        }
        return *m_list;
    }
    DWORD ExecutablePath(DWORD processId, std::string& path) override {
        std::lock_guard guard(m_lock);
        auto it = m_executables.find(processId);
        if (it == m_executables.end()) {
            Kept<std::string> kept;
            kept.error = m_source->ExecutablePath(processId, kept.value);
            it = m_executables.emplace(processId, std::move(kept)).first;
        }
        path = it->second.value;
        return it->second.error;
    }
    DWORD Modules(DWORD processId, std::vector<std::string>& files) override {
        std::lock_guard guard(m_lock);
        auto it = m_modules.find(processId);
        if (it == m_modules.end()) {
            Kept<std::vector<std::string>> kept;
            kept.error = m_source->Modules(processId, kept.value);
            it = m_modules.emplace(processId, std::move(kept)).first;
        }
        files = it->second.value;
        return it->second.error;
    }

  private:
    template <typename T>
    struct Kept {
        T value;
        DWORD error = ERROR_SUCCESS;
    };
    std::mutex m_lock;
    ProcessTable* m_source = nullptr;
    std::optional<std::vector<ProcessEntry>> m_list;
    std::map<DWORD, Kept<std::string>> m_executables;
    std::map<DWORD, Kept<std::vector<std::string>>> m_modules;
};

SnapshotTable g_snapshot;
std::atomic<int> g_snapshotDepth{0};

ProcessTable& UnderlyingTable() {
    ProcessTable* table = g_installedTable.load();
    return table != nullptr ? *table : DefaultTable();
}

}  // namespace

ProcessTable& CurrentProcessTable() {
    if (g_snapshotDepth.load() > 0) {
        // A table installed while the snapshot lives replaces what it kept.
        if (g_snapshot.Source() != &UnderlyingTable()) {
            g_snapshot.Reset(&UnderlyingTable());
        }
        return g_snapshot;
    }
    return UnderlyingTable();
}

ProcessSnapshot::ProcessSnapshot() {
    g_snapshot.Reset(&UnderlyingTable());
    ++g_snapshotDepth;
}

ProcessSnapshot::~ProcessSnapshot() {
    if (--g_snapshotDepth == 0) {
        g_snapshot.Reset(&UnderlyingTable());  // drops what was kept; never left without a source
    }
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
    std::uintptr_t value = reinterpret_cast<std::uintptr_t>(module);
    std::size_t index = value == 0 ? 0 : value / kModuleHandleStep - 1;
    if (value % kModuleHandleStep != 0) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    // The executable comes from its link alone; only another module needs the mapped files.
    std::vector<std::string> files;
    DWORD error =
        index == 0 ? CurrentProcessTable().ExecutablePath(object->processId, files.emplace_back())
                   : CurrentProcessTable().Modules(object->processId, files);
    if (error != ERROR_SUCCESS) {
        SetLastError(error);
        return 0;
    }
    if (index >= files.size()) {
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
