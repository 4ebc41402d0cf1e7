// The process listing services: the process-status calls (EnumProcesses, OpenProcess,
// EnumProcessModules, GetModuleFileNameExA) that the NT family offers in the library
// "psapi.dll", and the tool-help snapshot calls (CreateToolhelp32Snapshot, Process32First/Next,
// Module32First/Next) that the 9x family offers in "kernel32.dll". Both libraries are built-in
// modules of the platform, so callers look the functions up at run time as they would there.
//
// Behind both sits one process table: per running process its identifier and the full path of
// its main executable. The Linux backend reads /proc; tests may install their own table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/Handles.h"
#include "platform/Libraries.h"
#include "platform/WinTypes.h"

namespace qbrix::platform {

// One process as the table yields it. `executable` is empty when the path cannot be read
// (another user's process, or one that has just exited).
struct ProcessEntry {
    DWORD processId = 0;
    DWORD parentProcessId = 0;
    DWORD threads = 0;
    std::string executable;
};

class ProcessTable {
  public:
    virtual ~ProcessTable() = default;
    // Every running process, in ascending identifier order.
    virtual std::vector<ProcessEntry> List() = 0;
    // The process's executable path. ERROR_INVALID_PARAMETER when no such process runs,
    // ERROR_ACCESS_DENIED when its executable cannot be read.
    virtual DWORD ExecutablePath(DWORD processId, std::string& path) = 0;
    // The files mapped into the process, its executable first. Same errors as above.
    virtual DWORD Modules(DWORD processId, std::vector<std::string>& files) = 0;
};

// The /proc backend.
std::unique_ptr<ProcessTable> MakeProcfsProcessTable();

// The table in use: /proc unless a test installed another one.
ProcessTable& CurrentProcessTable();

// Installs a table for the guard's lifetime.
class ScopedProcessTable {
  public:
    explicit ScopedProcessTable(ProcessTable& table);
    ~ScopedProcessTable();
    ScopedProcessTable(const ScopedProcessTable&) = delete;
    ScopedProcessTable& operator=(const ScopedProcessTable&) = delete;

  private:
    ProcessTable* m_previous;
};

// One view of the processes for a stretch of work (a main-loop tick, the filling of the
// programs page): while a snapshot lives, the table in use answers each question (the list, a
// process's executable, its modules) once, from its first asking, and repeats that answer to
// every later lookup. Snapshots nest; a new one, even inside another, starts from a fresh view,
// so a tick run inside a dialog opened by an earlier tick sees the processes as they are. With
// none alive, every call reads the processes anew.
class ProcessSnapshot {
  public:
    ProcessSnapshot();
    ~ProcessSnapshot();
    ProcessSnapshot(const ProcessSnapshot&) = delete;
    ProcessSnapshot& operator=(const ProcessSnapshot&) = delete;
};

inline constexpr DWORD ERROR_NO_MORE_FILES = 18;  // a snapshot walked to its end

// Process access rights.
inline constexpr DWORD PROCESS_VM_READ = 0x0010;
inline constexpr DWORD PROCESS_QUERY_INFORMATION = 0x0400;

// Snapshot kinds.
inline constexpr DWORD TH32CS_SNAPPROCESS = 0x2;
inline constexpr DWORD TH32CS_SNAPMODULE = 0x8;

// The 9x records are those of the 32-bit system: pointer-sized fields are 32 bits wide, which
// gives the 296-byte process entry and the 548-byte module entry the callers size.
struct PROCESSENTRY32 {
    DWORD dwSize;
    DWORD cntUsage;
    DWORD th32ProcessID;
    DWORD th32DefaultHeapID;
    DWORD th32ModuleID;
    DWORD cntThreads;
    DWORD th32ParentProcessID;
    std::int32_t pcPriClassBase;
    DWORD dwFlags;
    char szExeFile[260];
};
static_assert(sizeof(PROCESSENTRY32) == 296);
static_assert(offsetof(PROCESSENTRY32, th32ModuleID) == 16);
static_assert(offsetof(PROCESSENTRY32, szExeFile) == 36);

struct MODULEENTRY32 {
    DWORD dwSize;
    DWORD th32ModuleID;
    DWORD th32ProcessID;
    DWORD GlblcntUsage;
    DWORD ProccntUsage;
    DWORD modBaseAddr;
    DWORD modBaseSize;
    DWORD hModule;
    char szModule[256];
    char szExePath[260];
};
static_assert(sizeof(MODULEENTRY32) == 548);
static_assert(offsetof(MODULEENTRY32, szModule) == 32);
static_assert(offsetof(MODULEENTRY32, szExePath) == 288);

// Process-status calls. A process module handle is an opaque value; the first one a process
// yields is its executable. GetModuleFileNameExA with a null module names the executable too;
// naming it reads only the executable's link, never the list of the other mapped files.
BOOL EnumProcesses(DWORD* processIds, DWORD bytes, DWORD* bytesReturned);
HANDLE OpenProcess(DWORD access, BOOL inheritHandle, DWORD processId);
BOOL EnumProcessModules(HANDLE process, HMODULE* modules, DWORD bytes, DWORD* bytesNeeded);
// The module's file name, at most size - 1 characters and a terminator; the length copied, 0 on
// failure.
DWORD GetModuleFileNameExA(HANDLE process, HMODULE module, char* fileName, DWORD size);

// Tool-help calls. A snapshot is a handle closed with CloseHandle; entries must carry their
// dwSize. The module id of a process entry is that of its executable module; on this platform
// module ids are 1 for the executable and count up for the further mapped files.
HANDLE CreateToolhelp32Snapshot(DWORD flags, DWORD processId);
BOOL Process32First(HANDLE snapshot, PROCESSENTRY32* entry);
BOOL Process32Next(HANDLE snapshot, PROCESSENTRY32* entry);
BOOL Module32First(HANDLE snapshot, MODULEENTRY32* entry);
BOOL Module32Next(HANDLE snapshot, MODULEENTRY32* entry);

using EnumProcessesFn = BOOL (*)(DWORD*, DWORD, DWORD*);
using EnumProcessModulesFn = BOOL (*)(HANDLE, HMODULE*, DWORD, DWORD*);
using GetModuleFileNameExAFn = DWORD (*)(HANDLE, HMODULE, char*, DWORD);
using CreateToolhelp32SnapshotFn = HANDLE (*)(DWORD, DWORD);
using Process32Fn = BOOL (*)(HANDLE, PROCESSENTRY32*);
using Module32Fn = BOOL (*)(HANDLE, MODULEENTRY32*);

// Registers "PSAPI.DLL" and "KERNEL32.DLL" with a platform's libraries.
void RegisterProcessModules(Libraries& libraries);

}  // namespace qbrix::platform
