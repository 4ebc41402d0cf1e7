#include "platform/Libraries.h"

#include <dlfcn.h>

#include "platform/Platform.h"
#include "platform/Text.h"

namespace qbrix::platform {

struct LoadedModule {
    std::string builtinName;  // upper-cased; empty for a shared library
    void* dl = nullptr;
};

Libraries::Libraries() = default;

Libraries::~Libraries() {
    for (auto& [module, count] : m_loadCounts) {
        if (module->dl != nullptr) {
            dlclose(module->dl);
        }
        delete module;
    }
}

HMODULE Libraries::Load(std::string_view name) {
    std::string folded = ToUpperAscii(name);
    std::string fileName = folded.substr(folded.find_last_of("\\/") + 1);
    std::lock_guard guard(m_lock);
    auto builtin = m_builtins.find(fileName);
    if (builtin != m_builtins.end()) {
        for (auto& [module, count] : m_loadCounts) {
            if (module->builtinName == fileName) {
                ++count;
                return module;
            }
        }
        auto* module = new LoadedModule{fileName, nullptr};
        m_loadCounts[module] = 1;
        return module;
    }
    void* dl = dlopen(std::string(name).c_str(), RTLD_NOW | RTLD_LOCAL);
    if (dl == nullptr) {
        SetLastError(ERROR_MOD_NOT_FOUND);
        return nullptr;
    }
    for (auto& [module, count] : m_loadCounts) {
        if (module->dl == dl) {
            dlclose(dl);  // dlopen counted it too; keep one reference per module
            ++count;
            return module;
        }
    }
    auto* module = new LoadedModule{std::string(), dl};
    m_loadCounts[module] = 1;
    return module;
}

void* Libraries::GetProcAddress(HMODULE module, std::string_view symbol) {
    std::lock_guard guard(m_lock);
    if (module == nullptr || m_loadCounts.count(module) == 0) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    void* address = nullptr;
    if (module->dl != nullptr) {
        address = dlsym(module->dl, std::string(symbol).c_str());
    } else if (auto exports = m_builtins.find(module->builtinName); exports != m_builtins.end()) {
        auto it = exports->second.find(std::string(symbol));
        address = it == exports->second.end() ? nullptr : it->second;
    }
    if (address == nullptr) {
        SetLastError(ERROR_PROC_NOT_FOUND);
    }
    return address;
}

bool Libraries::Free(HMODULE module) {
    std::lock_guard guard(m_lock);
    auto it = m_loadCounts.find(module);
    if (it == m_loadCounts.end()) {
        SetLastError(ERROR_INVALID_HANDLE);
        return false;
    }
    if (--it->second == 0) {
        if (module->dl != nullptr) {
            dlclose(module->dl);
        }
        delete module;
        m_loadCounts.erase(it);
    }
    return true;
}

std::shared_ptr<void> Libraries::HoldLibraryOf(const void* code) {
    Dl_info info{};
    if (code == nullptr || dladdr(code, &info) == 0 || info.dli_fname == nullptr) {
        return nullptr;
    }
    void* dl = dlopen(info.dli_fname, RTLD_NOW | RTLD_NOLOAD);
    if (dl == nullptr) {
        return nullptr;
    }
    return std::shared_ptr<void>(dl, [](void* handle) { dlclose(handle); });
}

bool Libraries::KeepLibraryOf(const void* code) {
    Dl_info info{};
    if (code == nullptr || dladdr(code, &info) == 0 || info.dli_fname == nullptr) {
        return false;
    }
    // The reference taken here is never given back, and the library is never unmapped.
    return dlopen(info.dli_fname, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE) != nullptr;
}

void Libraries::RegisterBuiltin(std::string_view name, Exports exports) {
    std::lock_guard guard(m_lock);
    m_builtins[ToUpperAscii(name)] = std::move(exports);
}

void Libraries::UnregisterBuiltin(std::string_view name) {
    std::lock_guard guard(m_lock);
    m_builtins.erase(ToUpperAscii(name));
}

}  // namespace qbrix::platform
