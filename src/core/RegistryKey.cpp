#include "core/RegistryKey.h"

#include <cstring>

#include "platform/Platform.h"

namespace qbrix::core {

using namespace qbrix::platform;

namespace {
constexpr DWORD kStringBufferSize = 999;
constexpr DWORD kValueNameBufferSize = 999;
constexpr DWORD kSubkeyNameBufferSize = 99;
}  // namespace

RegistryKey::RegistryKey(std::string_view suffix, std::string_view rootPath) {
    Open(suffix, rootPath);
}

RegistryKey::~RegistryKey() { Close(); }

LONG RegistryKey::Open(std::string_view suffix, std::string_view rootPath) {
    std::string path(rootPath);
    path.append(suffix);
    return OpenBelow(HKEY_LOCAL_MACHINE, path);
}

LONG RegistryKey::Reopen(std::string_view suffix, std::string_view rootPath) {
    Close();
    return Open(suffix, rootPath);
}

LONG RegistryKey::OpenBelow(HKEY root, std::string_view path) {
    HKEY key = nullptr;
    DWORD disposition = 0;
    LONG rc = Current().Reg().CreateKeyEx(root, path, REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS,
                                          &key, &disposition);
    if (rc != ERROR_SUCCESS) {
        Close();
        return rc;
    }
    Close();
    m_key = key;
    return ERROR_SUCCESS;
}

void RegistryKey::Close() {
    if (m_key != nullptr) {
        Current().Reg().CloseKey(m_key);
        m_key = nullptr;
    }
}

DWORD RegistryKey::GetDword(std::string_view name, DWORD defaultValue) {
    if (m_key == nullptr) {
        return defaultValue;
    }
    DWORD type = REG_NONE;
    BYTE data[4] = {};
    DWORD size = sizeof(data);
    if (Current().Reg().QueryValueEx(m_key, name, &type, data, &size) == ERROR_SUCCESS &&
        type == REG_DWORD && size == sizeof(data)) {
        DWORD value = 0;
        std::memcpy(&value, data, sizeof(value));
        return value;
    }
    SetDword(name, defaultValue);
    return defaultValue;
}

std::string RegistryKey::GetString(std::string_view name, const char* defaultText) {
    if (m_key == nullptr) {
        return defaultText == nullptr ? std::string() : std::string(defaultText);
    }
    char buffer[kStringBufferSize];
    DWORD size = sizeof(buffer);
    if (QueryString(name, buffer, &size) == ERROR_SUCCESS) {
        // The stored bytes up to the first zero; a value written without its terminator ends
        // at its size.
        return std::string(buffer, strnlen(buffer, size));
    }
    if (defaultText == nullptr) {
        return std::string();
    }
    SetString(name, defaultText);
    return std::string(defaultText);
}

LONG RegistryKey::QueryString(std::string_view name, char* buffer, DWORD* size) {
    DWORD capacity = *size;
    *size = 0;
    if (m_key == nullptr) {
        return ERROR_INVALID_HANDLE;
    }
    DWORD type = REG_NONE;
    DWORD length = capacity;
    LONG rc = Current().Reg().QueryValueEx(m_key, name, &type, reinterpret_cast<BYTE*>(buffer),
                                           &length);
    if (rc != ERROR_SUCCESS) {
        return rc;
    }
    if (type != REG_SZ) {
        return static_cast<LONG>(ERROR_INVALID_DATA);
    }
    *size = length;
    return ERROR_SUCCESS;
}

void RegistryKey::ListValueNames(std::vector<std::string>& names, const char* const* seed) {
    if (m_key == nullptr) {
        return;
    }
    names.clear();
    LONG rc = ERROR_SUCCESS;
    for (DWORD index = 0;; ++index) {
        char name[kValueNameBufferSize];
        DWORD nameSize = sizeof(name);
        rc = Current().Reg().EnumValue(m_key, index, name, &nameSize, nullptr, nullptr, nullptr);
        if (rc != ERROR_SUCCESS) {
            break;
        }
        names.emplace_back(name, nameSize);
    }
    bool keyHasNoValues = names.empty() && rc == static_cast<LONG>(ERROR_NO_MORE_ITEMS);
    if (!keyHasNoValues || seed == nullptr) {
        return;
    }
    for (const char* const* entry = seed; *entry != nullptr && **entry != '\0'; ++entry) {
        SetString(*entry, "");
        names.emplace_back(*entry);
    }
}

LONG RegistryKey::ListSubkeys(std::vector<std::string>& names) {
    if (m_key == nullptr) {
        return ERROR_INVALID_HANDLE;
    }
    names.clear();
    for (DWORD index = 0;; ++index) {
        char name[kSubkeyNameBufferSize];
        DWORD nameSize = sizeof(name);
        LONG rc = Current().Reg().EnumKeyEx(m_key, index, name, &nameSize);
        if (rc == static_cast<LONG>(ERROR_NO_MORE_ITEMS) ||
            rc == static_cast<LONG>(ERROR_MORE_DATA)) {
            return ERROR_SUCCESS;
        }
        if (rc != ERROR_SUCCESS) {
            return rc;
        }
        names.emplace_back(name, nameSize);
    }
}

LONG RegistryKey::SetDword(std::string_view name, DWORD value) {
    if (m_key == nullptr) {
        return ERROR_INVALID_HANDLE;
    }
    BYTE data[sizeof(value)];
    std::memcpy(data, &value, sizeof(value));
    return Current().Reg().SetValueEx(m_key, name, REG_DWORD, data, sizeof(data));
}

LONG RegistryKey::SetString(std::string_view name, std::string_view text) {
    if (m_key == nullptr) {
        return ERROR_INVALID_HANDLE;
    }
    std::string stored(text);
    return Current().Reg().SetValueEx(m_key, name, REG_SZ,
                                      reinterpret_cast<const BYTE*>(stored.c_str()),
                                      static_cast<DWORD>(stored.size() + 1));
}

LONG RegistryKey::DeleteKeyTree(HKEY parent, std::string_view name) {
    return DeleteRegistryTree(Current().Reg(), parent, name);
}

std::string StoreFailureText(LONG rc) {
    std::string text;
    switch (static_cast<DWORD>(rc)) {
        case ERROR_ACCESS_DENIED:
            text = "the configuration store is read-only or may not be opened";
            break;
        case ERROR_BUSY:
            text = "the configuration store is locked by another process";
            break;
        case ERROR_BADDB:
            text = "the configuration store is unreadable (not a valid database)";
            break;
        case ERROR_DISK_FULL:
            text = "there is not enough space on the disk for the configuration store";
            break;
        default:
            text = GetErrorMessageText(static_cast<DWORD>(rc));
            while (!text.empty() &&
                   (text.back() == '\n' || text.back() == '\r' || text.back() == '.')) {
                text.pop_back();
            }
            if (text.empty()) {
                text = "the configuration store failed";
            }
            break;
    }
    return text + " (error " + std::to_string(rc) + ")";
}

}  // namespace qbrix::core
