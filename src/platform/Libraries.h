// Run-time library loading: LoadLibrary / GetProcAddress / FreeLibrary. Names of the system's
// own Windows libraries (ADVAPI32.DLL, ...) resolve to built-in modules whose exports the
// platform supplies; any other name is a shared library loaded with dlopen.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace qbrix::platform {

struct LoadedModule;
using HMODULE = LoadedModule*;

class Libraries {
public:
    using Exports = std::map<std::string, void*>;

    Libraries();
    ~Libraries();

    // Null with the last error set (126) when the library cannot be loaded. Loads are counted.
    HMODULE Load(std::string_view name);
    void* GetProcAddress(HMODULE module, std::string_view symbol);  // null, last error 127
    bool Free(HMODULE module);

    // Built-in modules are matched case-insensitively by their file name. Registering a name
    // again replaces its exports (tests use this to take a function away).
    void RegisterBuiltin(std::string_view name, Exports exports);
    void UnregisterBuiltin(std::string_view name);

    // Keeps the shared library that holds `code` mapped while the result lives, whatever Free
    // and the loader's own end do meanwhile: a thread still running in a library that its
    // caller has given up on must not have the code unmapped under it. Null when `code` lies in
    // no loaded shared library.
    static std::shared_ptr<void> HoldLibraryOf(const void* code);
    // Keeps the shared library that holds `code` mapped until the process ends, whatever Free
    // and the loader's end do: for a library whose initialisation sets up process-wide state
    // that must outlive every handle to it. False when `code` lies in no loaded shared library.
    static bool KeepLibraryOf(const void* code);

private:
    std::mutex m_lock;
    std::map<std::string, Exports> m_builtins;  // upper-cased name -> exports
    std::map<HMODULE, int> m_loadCounts;
};

}  // namespace qbrix::platform
