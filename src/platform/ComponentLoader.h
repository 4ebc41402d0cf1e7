// A minimal in-process component loader: the part of the component object model that creates
// objects of a registered class from their server library. A class is registered below
// HKEY_CLASSES_ROOT as "CLSID\{class id}\InprocServer32", whose default value names the library;
// the library exports "DllGetClassObject" (and optionally "DllCanUnloadNow"). Objects are reached
// through interface tables: operation 0 queries for another interface, 1 adds a reference,
// 2 releases one. The tables hold plain functions that take the object first, which is also how
// a C++ class of virtual operations (with no virtual destructor) lays out its table here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/Libraries.h"
#include "platform/Uuid.h"
#include "platform/WinTypes.h"

namespace qbrix::platform {

using HRESULT = std::int32_t;
using ULONG = std::uint32_t;

inline constexpr HRESULT S_OK = 0;
inline constexpr HRESULT S_FALSE = 1;
inline constexpr HRESULT E_NOTIMPL = static_cast<HRESULT>(0x80004001u);
inline constexpr HRESULT E_NOINTERFACE = static_cast<HRESULT>(0x80004002u);
inline constexpr HRESULT E_POINTER = static_cast<HRESULT>(0x80004003u);
inline constexpr HRESULT E_FAIL = static_cast<HRESULT>(0x80004005u);
inline constexpr HRESULT CLASS_E_NOAGGREGATION = static_cast<HRESULT>(0x80040110u);
inline constexpr HRESULT CLASS_E_CLASSNOTAVAILABLE = static_cast<HRESULT>(0x80040111u);
inline constexpr HRESULT REGDB_E_CLASSNOTREG = static_cast<HRESULT>(0x80040154u);
inline constexpr HRESULT CO_E_NOTINITIALIZED = static_cast<HRESULT>(0x800401F0u);
inline constexpr HRESULT CO_E_DLLNOTFOUND = static_cast<HRESULT>(0x800401F8u);
inline constexpr HRESULT CO_E_ERRORINDLL = static_cast<HRESULT>(0x800401F9u);
inline constexpr HRESULT E_OUTOFMEMORY = static_cast<HRESULT>(0x8007000Eu);

constexpr bool FAILED(HRESULT status) {
    return status < 0;
}

// Execution contexts of a class; only in-process servers exist here.
inline constexpr DWORD CLSCTX_INPROC_SERVER = 0x1;
inline constexpr DWORD CLSCTX_INPROC_HANDLER = 0x2;
inline constexpr DWORD CLSCTX_LOCAL_SERVER = 0x4;

inline constexpr GUID IID_IUnknown = {
    0x00000000, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr GUID IID_IClassFactory = {
    0x00000001, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};

// The exports of a server library and the class factory's operations.
using DllGetClassObjectFn = HRESULT (*)(const GUID* classId, const GUID* interfaceId, void** out);
using DllCanUnloadNowFn = HRESULT (*)();
inline constexpr std::size_t kClassFactoryCreateInstance = 3;  // (outer, interface id, out)

// Calls operation `position` of an interface's table with the object as first argument.
template <typename Result, typename... Args>
Result CallInterface(void* object, std::size_t position, Args... args) {
    using Operation = Result (*)(void*, Args...);
    void* const* table = *static_cast<void* const* const*>(object);
    return reinterpret_cast<Operation>(table[position])(object, args...);
}

inline HRESULT QueryInterface(void* object, const GUID* interfaceId, void** out) {
    return CallInterface<HRESULT>(object, 0, interfaceId, out);
}
inline ULONG AddRef(void* object) {
    return CallInterface<ULONG>(object, 1);
}
inline ULONG Release(void* object) {
    return CallInterface<ULONG>(object, 2);
}

// The braced text form of a class id, "{91C4C540-9FDD-11D2-AFAA-00105A305A2B}".
std::u16string StringFromGUID(const GUID& id);
// As the platform call: writes the braced form with its terminator into `buffer` and returns
// the characters written including the terminator, or 0 when `size` (characters) is too small.
int StringFromGUID2(const GUID& id, char16_t* buffer, int size);

class ComponentLoader {
  public:
    explicit ComponentLoader(Libraries& libraries);
    ~ComponentLoader();
    ComponentLoader(const ComponentLoader&) = delete;
    ComponentLoader& operator=(const ComponentLoader&) = delete;

    // Counted per thread: S_OK for the first initialisation of the calling thread, S_FALSE for
    // every further one. Each initialisation wants one Uninitialize.
    HRESULT Initialize();
    void Uninitialize();
    bool IsInitialized() const;

    // Looks the class up below HKEY_CLASSES_ROOT, loads its server library (once; it stays
    // loaded until FreeUnusedLibraries finds it unused or the loader goes), asks the library's
    // class factory for an instance and releases the factory.
    HRESULT CreateInstance(const GUID& classId, void* outer, DWORD context, const GUID& interfaceId,
                           void** out);
    // Loads a server library by path. With `autoFree` the library is freed by
    // FreeUnusedLibraries once its "DllCanUnloadNow" says so; otherwise when the loader goes.
    HMODULE LoadLibrary(std::u16string_view path, bool autoFree);
    // Frees every freeable server library whose "DllCanUnloadNow" answers S_OK.
    void FreeUnusedLibraries();
    std::size_t LoadedServerCount() const;

  private:
    struct Server {
        std::string path;
        HMODULE module;
        bool autoFree;
    };
    HMODULE ServerFor(const std::string& path, HRESULT* status);

    Libraries& m_libraries;
    mutable std::mutex m_lock;
    std::map<std::thread::id, int> m_initialised;
    std::vector<Server> m_servers;
};

// The platform calls, on the installed platform's loader.
HRESULT CoInitialize(void* reserved);
void CoUninitialize();
HRESULT CoCreateInstance(const GUID& classId, void* outer, DWORD context, const GUID& interfaceId,
                         void** out);
HMODULE CoLoadLibrary(const char16_t* path, BOOL autoFree);
void CoFreeUnusedLibraries();

}  // namespace qbrix::platform
