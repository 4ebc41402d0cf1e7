// The component loader on Linux: class registrations live in the emulated HKEY_CLASSES_ROOT and
// server libraries are shared objects loaded through the platform's library loader (dlopen).
#include <algorithm>
#include <cstdio>

#include "platform/ComponentLoader.h"
#include "platform/Platform.h"
#include "platform/Utf16.h"

namespace qbrix::platform {

namespace {

constexpr DWORD kMaxServerPathBytes = 260;

// The registry and the library names use the system's backslash separators.
std::string NativePath(std::string_view path) {
    std::string result(path);
    std::replace(result.begin(), result.end(), '\\', '/');
    return result;
}

// The default value of the class's InprocServer32 key, or empty when it cannot be read.
std::string RegisteredServerPath(const GUID& classId) {
    std::string keyName = "CLSID\\" + Utf16ToUtf8(StringFromGUID(classId)) + "\\InprocServer32";
    Registry& registry = Current().Reg();
    HKEY key = nullptr;
    if (registry.OpenKeyEx(HKEY_CLASSES_ROOT, keyName, KEY_QUERY_VALUE, &key) != 0) {
        return std::string();
    }
    BYTE data[kMaxServerPathBytes + 1] = {};
    DWORD size = kMaxServerPathBytes;
    DWORD type = 0;
    LONG status = registry.QueryValueEx(key, "", &type, data, &size);
    registry.CloseKey(key);
    if (status != 0 || (type != REG_SZ && type != REG_EXPAND_SZ)) {
        return std::string();
    }
    std::string path(reinterpret_cast<const char*>(data),
                     std::min<DWORD>(size, kMaxServerPathBytes));
    return path.substr(0, path.find('\0'));
}

}  // namespace

std::u16string StringFromGUID(const GUID& id) {
    char text[40];
    std::snprintf(text, sizeof(text), "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                  static_cast<unsigned>(id.Data1), id.Data2, id.Data3, id.Data4[0], id.Data4[1],
                  id.Data4[2], id.Data4[3], id.Data4[4], id.Data4[5], id.Data4[6], id.Data4[7]);
    return Utf8ToUtf16(text);
}

int StringFromGUID2(const GUID& id, char16_t* buffer, int size) {
    std::u16string text = StringFromGUID(id);
    if (buffer == nullptr || size < static_cast<int>(text.size()) + 1) {
        return 0;
    }
    std::copy(text.begin(), text.end(), buffer);
    buffer[text.size()] = u'\0';
    return static_cast<int>(text.size()) + 1;
}

ComponentLoader::ComponentLoader(Libraries& libraries) : m_libraries(libraries) {}

ComponentLoader::~ComponentLoader() {
    for (const Server& server : m_servers) {
        m_libraries.Free(server.module);
    }
}

HRESULT ComponentLoader::Initialize() {
    std::lock_guard guard(m_lock);
    return m_initialised[std::this_thread::get_id()]++ == 0 ? S_OK : S_FALSE;
}

void ComponentLoader::Uninitialize() {
    std::lock_guard guard(m_lock);
    auto it = m_initialised.find(std::this_thread::get_id());
    if (it != m_initialised.end() && --it->second == 0) {
        m_initialised.erase(it);
    }
}

bool ComponentLoader::IsInitialized() const {
    std::lock_guard guard(m_lock);
    return m_initialised.count(std::this_thread::get_id()) != 0;
}

HMODULE ComponentLoader::ServerFor(const std::string& path, HRESULT* status) {
    {
        std::lock_guard guard(m_lock);
        for (const Server& server : m_servers) {
            if (server.path == path) {
                return server.module;
            }
        }
    }
    HMODULE module = m_libraries.Load(path);
    if (module == nullptr) {
        *status = CO_E_DLLNOTFOUND;
        return nullptr;
    }
    std::lock_guard guard(m_lock);
    m_servers.push_back(Server{path, module, true});
    return module;
}

HRESULT ComponentLoader::CreateInstance(const GUID& classId, void* outer, DWORD context,
                                        const GUID& interfaceId, void** out) {
    if (out == nullptr) {
        return E_POINTER;
    }
    *out = nullptr;
    if (!IsInitialized()) {
        return CO_E_NOTINITIALIZED;
    }
    if ((context & CLSCTX_INPROC_SERVER) == 0) {
        return REGDB_E_CLASSNOTREG;
    }
    std::string path = RegisteredServerPath(classId);
    if (path.empty()) {
        return REGDB_E_CLASSNOTREG;
    }
    HRESULT status = S_OK;
    HMODULE module = ServerFor(NativePath(path), &status);
    if (module == nullptr) {
        return status;
    }
    auto getClassObject = reinterpret_cast<DllGetClassObjectFn>(
        m_libraries.GetProcAddress(module, "DllGetClassObject"));
    if (getClassObject == nullptr) {
        return CO_E_ERRORINDLL;
    }
    void* factory = nullptr;
    status = getClassObject(&classId, &IID_IClassFactory, &factory);
    if (FAILED(status)) {
        return status;
    }
    if (factory == nullptr) {
        return E_FAIL;
    }
    status = CallInterface<HRESULT>(factory, kClassFactoryCreateInstance, outer, &interfaceId, out);
    Release(factory);
    if (FAILED(status)) {
        *out = nullptr;
    }
    return status;
}

HMODULE ComponentLoader::LoadLibrary(std::u16string_view path, bool autoFree) {
    std::string narrow = NativePath(Utf16ToUtf8(path));
    HMODULE module = m_libraries.Load(narrow);
    if (module != nullptr) {
        std::lock_guard guard(m_lock);
        m_servers.push_back(Server{narrow, module, autoFree});
    }
    return module;
}

void ComponentLoader::FreeUnusedLibraries() {
    std::vector<HMODULE> candidates;
    {
        std::lock_guard guard(m_lock);
        for (const Server& server : m_servers) {
            if (server.autoFree && std::find(candidates.begin(), candidates.end(), server.module) ==
                                       candidates.end()) {
                candidates.push_back(server.module);
            }
        }
    }
    for (HMODULE module : candidates) {
        auto canUnload = reinterpret_cast<DllCanUnloadNowFn>(
            m_libraries.GetProcAddress(module, "DllCanUnloadNow"));
        if (canUnload == nullptr || canUnload() != S_OK) {
            continue;
        }
        std::lock_guard guard(m_lock);
        for (auto it = m_servers.begin(); it != m_servers.end();) {
            if (it->module == module && it->autoFree) {
                m_libraries.Free(it->module);
                it = m_servers.erase(it);
            } else {
                ++it;
            }
        }
    }
}

std::size_t ComponentLoader::LoadedServerCount() const {
    std::lock_guard guard(m_lock);
    return m_servers.size();
}

HRESULT CoInitialize(void* /*reserved*/) {
    return Current().Components().Initialize();
}

void CoUninitialize() {
    Current().Components().Uninitialize();
}

HRESULT CoCreateInstance(const GUID& classId, void* outer, DWORD context, const GUID& interfaceId,
                         void** out) {
    return Current().Components().CreateInstance(classId, outer, context, interfaceId, out);
}

HMODULE CoLoadLibrary(const char16_t* path, BOOL autoFree) {
    if (path == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    return Current().Components().LoadLibrary(path, autoFree != 0);
}

void CoFreeUnusedLibraries() {
    Current().Components().FreeUnusedLibraries();
}

}  // namespace qbrix::platform
