// The registry service: a tree of keys holding named, typed values, reached through handles.
// Semantics follow the Windows registry calls the system is written against: the same error
// codes, case-insensitive and case-preserving names, sub-keys enumerated in case-insensitive
// name order and values in creation order, keys deleted only when they have no sub-keys.
#pragma once

#include <string_view>

#include "platform/WinTypes.h"

namespace qbrix::platform {

struct RegistryKeyHandle;
using HKEY = RegistryKeyHandle*;

// The predefined roots. HKEY_CURRENT_USER is the calling user's branch of HKEY_USERS.
inline HKEY const HKEY_CLASSES_ROOT = reinterpret_cast<HKEY>(std::uintptr_t{0x80000000u});
inline HKEY const HKEY_CURRENT_USER = reinterpret_cast<HKEY>(std::uintptr_t{0x80000001u});
inline HKEY const HKEY_LOCAL_MACHINE = reinterpret_cast<HKEY>(std::uintptr_t{0x80000002u});
inline HKEY const HKEY_USERS = reinterpret_cast<HKEY>(std::uintptr_t{0x80000003u});

// Longest key name component and value name, in bytes, as the Windows registry allows.
inline constexpr DWORD kMaxKeyNameLength = 255;
inline constexpr DWORD kMaxValueNameLength = 16383;
// Deepest key, in levels below its root, as the Windows registry allows.
inline constexpr DWORD kMaxKeyDepth = 512;

class Registry {
public:
    virtual ~Registry() = default;

    // Creates the key (and any missing parents) or opens it when it exists. Sub-key paths are
    // backslash-separated; an empty path opens a new handle to `key` itself.
    virtual LONG CreateKeyEx(HKEY key, std::string_view subKey, DWORD options, REGSAM access,
                             HKEY* result, DWORD* disposition) = 0;
    virtual LONG OpenKeyEx(HKEY key, std::string_view subKey, REGSAM access, HKEY* result) = 0;
    virtual LONG CloseKey(HKEY key) = 0;

    // With `data` null only the size is reported. A buffer smaller than the value gives
    // ERROR_MORE_DATA with `*size` set to the size needed.
    virtual LONG QueryValueEx(HKEY key, std::string_view name, DWORD* type, BYTE* data,
                              DWORD* size) = 0;
    virtual LONG SetValueEx(HKEY key, std::string_view name, DWORD type, const BYTE* data,
                            DWORD size) = 0;
    virtual LONG DeleteValue(HKEY key, std::string_view name) = 0;
    // Deletes a key that has no sub-keys, with its values.
    virtual LONG DeleteKey(HKEY key, std::string_view subKey) = 0;

    // `*nameSize` is the buffer size in bytes on entry and the name length (no terminator) on
    // success. ERROR_NO_MORE_ITEMS past the last entry, ERROR_MORE_DATA for a short buffer.
    virtual LONG EnumKeyEx(HKEY key, DWORD index, char* name, DWORD* nameSize) = 0;
    virtual LONG EnumValue(HKEY key, DWORD index, char* name, DWORD* nameSize, DWORD* type,
                           BYTE* data, DWORD* dataSize) = 0;

    // Number of sub-keys and values and the longest sub-key name, value name and value data.
    virtual LONG QueryInfoKey(HKEY key, DWORD* subKeys, DWORD* maxSubKeyLength, DWORD* values,
                              DWORD* maxValueNameLength, DWORD* maxValueLength) = 0;

    // Groups the calls that follow on this thread into one change of the store: all of them
    // reach it or none does, even when the process dies half way. Scopes nest; other threads
    // wait until the outermost scope ends. Once a write of the store fails inside a scope, every
    // later call inside it fails with that error and ending it commits nothing (the end returns
    // the error). A store without transactions accepts and ignores them.
    virtual LONG BeginTransaction() { return ERROR_SUCCESS; }
    virtual LONG EndTransaction(bool commit) {
        (void)commit;
        return ERROR_SUCCESS;
    }
};

// Deletes the key `name` below `parent` with everything below it, at any depth: the walk keeps
// its open keys in a list, not on the call stack. Sub-keys go first, always the one at index 0;
// the first failure ends the walk and is returned.
LONG DeleteRegistryTree(Registry& registry, HKEY parent, std::string_view name);

// A transaction scope on the installed platform's registry: rolled back unless committed. When
// it cannot begin (a store locked by another process), the calls inside go through one by one;
// a change that must be all or nothing checks Active() and gives up with BeginResult().
class RegistryTransaction {
public:
    RegistryTransaction();
    ~RegistryTransaction();
    RegistryTransaction(const RegistryTransaction&) = delete;
    RegistryTransaction& operator=(const RegistryTransaction&) = delete;

    bool Active() const { return m_active; }
    LONG BeginResult() const { return m_beginResult; }
    LONG Commit();

private:
    LONG m_beginResult;
    bool m_active;
};

}  // namespace qbrix::platform
