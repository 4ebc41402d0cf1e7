// One open registry key, or none. Every read goes through read-with-default: a value that is
// missing or of the wrong type is replaced in the store by its default, so the tree fills
// itself with defaults the first time each value is read. Keys are opened, used and closed
// within one operation; failures of writes are silent.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/Registry.h"

namespace qbrix::core {

using platform::DWORD;
using platform::HKEY;
using platform::LONG;

class RegistryKey {
public:
    RegistryKey() = default;
    // Opens (creating) rootPath + suffix below HKEY_LOCAL_MACHINE.
    RegistryKey(std::string_view suffix, std::string_view rootPath);
    ~RegistryKey();
    RegistryKey(const RegistryKey&) = delete;
    RegistryKey& operator=(const RegistryKey&) = delete;

    // Create-or-open rootPath + suffix below HKEY_LOCAL_MACHINE with all rights. On success any
    // key held before is closed; on failure the object holds none.
    LONG Open(std::string_view suffix, std::string_view rootPath);
    // Closes first, then opens as Open does.
    LONG Reopen(std::string_view suffix, std::string_view rootPath);
    // Create-or-open a path below any root (HKEY_CURRENT_USER for the per-user values).
    LONG OpenBelow(HKEY root, std::string_view path);
    void Close();

    bool IsOpen() const { return m_key != nullptr; }
    HKEY Handle() const { return m_key; }

    // The stored REG_DWORD, or the default (written back) when the value is missing, of another
    // type or of another size. No open key: the default.
    DWORD GetDword(std::string_view name, DWORD defaultValue);
    // The stored REG_SZ (up to 998 bytes), or the default written back when the value cannot
    // be read as such. With no default (null) nothing is written and the text is empty.
    std::string GetString(std::string_view name, const char* defaultText);
    // The query's own error, ERROR_INVALID_DATA when the value is not REG_SZ, else 0 with
    // *size set to the bytes read. *size is 0 after a failure.
    LONG QueryString(std::string_view name, char* buffer, DWORD* size);

    // Value names in index order. A key without any value is seeded with the names of `seed`
    // (a list that ends at a null or empty entry), each written as an empty REG_SZ.
    void ListValueNames(std::vector<std::string>& names, const char* const* seed = nullptr);
    // Sub-key names in index order (names of up to 98 bytes): the listing ends at the end of
    // the sub-keys or at the first name that does not fit. 0 then; the store's error when the
    // enumeration failed for another reason.
    LONG ListSubkeys(std::vector<std::string>& names);

    // Typed writes: REG_DWORD for numbers, REG_SZ with its terminating zero for texts.
    LONG SetDword(std::string_view name, DWORD value);
    LONG SetString(std::string_view name, std::string_view text);

    // Deletes the key `name` below `parent` with everything below it, at any depth
    // (platform::DeleteRegistryTree).
    static LONG DeleteKeyTree(HKEY parent, std::string_view name);

private:
    HKEY m_key = nullptr;
};

// What a failed call of the store means, for a message: "the configuration store is locked by
// another process (error 170)" and the like.
std::string StoreFailureText(LONG rc);

}  // namespace qbrix::core
