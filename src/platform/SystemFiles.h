// The Windows and system directories of the emulated machine, the current directory, and the
// profile-string calls on ini files such as "system.ini".
#pragma once

#include <string>
#include <string_view>

#include "platform/WinTypes.h"

namespace qbrix::platform {

// "<data root>/windows" and "<data root>/windows/system32", created on demand, no trailing '/'.
std::string GetWindowsDirectory();
std::string GetSystemDirectory();

std::string GetCurrentDirectory();
// 0 with the last error set when the directory cannot be entered.
BOOL SetCurrentDirectory(std::string_view path);

// Writes `key` = `value` into `section` of the ini file. A file name without a directory is
// taken from the Windows directory. The first existing line of the key in the section (names
// compared ignoring case) is replaced; a missing key is appended to its section and a missing
// section to the file. A null `key` removes the whole section, a null `value` removes the first
// line of the key. 0 with the last error set when the file cannot be written.
BOOL WritePrivateProfileString(const char* section, const char* key, const char* value,
                               std::string_view fileName);

// The value of the first line of `key` in `section`, or `defaultValue`.
std::string GetPrivateProfileString(std::string_view section, std::string_view key,
                                    std::string_view defaultValue, std::string_view fileName);

}  // namespace qbrix::platform
