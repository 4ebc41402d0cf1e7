// The platform: every operating-system service the system uses, installed once by main (or by a
// test fixture) and reached through Current(). The core never calls the OS directly.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Handles.h"
#include "platform/Libraries.h"
#include "platform/Registry.h"
#include "platform/WinTypes.h"

namespace qbrix::platform {

// The Windows family the system believes it runs on. NT unless switched (tests, or
// QBRIX_PLATFORM_FAMILY=9x) so that the 9x paths can be exercised too.
enum class Family { Nt, Win9x };

struct UserIdentity {
    std::uint32_t uid = 0;
    std::vector<std::string> groups;  // names of the groups the user belongs to
};

struct SystemInfo {
    Family family = Family::Nt;
    std::string programDirectory;  // the running executable's directory, ending in '/'
    std::string dataRoot;          // registry store, system.ini and run sockets live here
    UserIdentity user;
};

class ComponentLoader;

class Platform {
  public:
    Platform(SystemInfo info, std::unique_ptr<Registry> registry);
    ~Platform();

    const SystemInfo& Info() const { return m_info; }
    SystemInfo& MutableInfo() { return m_info; }
    Registry& Reg() { return *m_registry; }
    HandleTable& Handles() { return m_handles; }
    Libraries& Libs() { return m_libraries; }
    ComponentLoader& Components() { return *m_components; }

    // The directory for sockets and lock files, created on demand.
    std::string RunDirectory() const;

  private:
    SystemInfo m_info;
    std::unique_ptr<Registry> m_registry;
    HandleTable m_handles;
    Libraries m_libraries;
    std::unique_ptr<ComponentLoader> m_components;  // frees its servers through m_libraries
};

// The installed platform. Calling it before anything is installed is a programming error and
// ends the process with a message.
Platform& Current();
bool IsInstalled();

// Installs a platform for the lifetime of the guard and restores the previous one afterwards.
class ScopedPlatform {
  public:
    explicit ScopedPlatform(std::unique_ptr<Platform> platform);
    ~ScopedPlatform();
    ScopedPlatform(const ScopedPlatform&) = delete;
    ScopedPlatform& operator=(const ScopedPlatform&) = delete;
    Platform& Get() { return *m_platform; }

  private:
    std::unique_ptr<Platform> m_platform;
    Platform* m_previous;
};

// The calling thread's last error code, as the Windows calls leave it.
DWORD GetLastError();
void SetLastError(DWORD code);

// The platform's message text for an error code: the system message table's wording, ending in
// "\r\n" as it does there. Unknown codes give an empty text.
std::string GetErrorMessageText(DWORD code);

std::uint32_t GetCurrentProcessId();
// Whether a stream is connected to a terminal (someone can answer a question on it).
bool IsTerminal(std::FILE* stream);

// The family test used throughout: 1 on the NT family, 0 on the 9x family.
int IsNtPlatform();

// A file in the program's own directory. Backslashes in `name` are the system's path separators
// and become '/' here.
std::string ProgramFile(std::string_view name);

// Joins a directory and a relative name with one separator, turning backslashes into '/'.
std::string JoinPath(std::string_view directory, std::string_view name);

// Keeps buffers up to tens of megabytes (pages, mails, rewritten texts) in the process's heap
// once freed, instead of handing each back to the system and faulting fresh pages in for the
// next one. Every program of the product makes this setting when it installs its platform.
void KeepLargeBuffersInHeap();

}  // namespace qbrix::platform
