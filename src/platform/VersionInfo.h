// Version resources of executable files: GetFileVersionInfoSizeA, GetFileVersionInfoA and
// VerQueryValueA over our own reader of the resource section of PE files. Only PE files carry
// version resources; other executables (ELF) report ERROR_BAD_EXE_FORMAT. Files are found
// ignoring the case of their names (Files.h), since the callers pass upper-cased paths.
#pragma once

#include <cstdint>
#include <string_view>

#include "platform/WinTypes.h"

namespace qbrix::platform {

inline constexpr DWORD ERROR_BAD_EXE_FORMAT = 193;
inline constexpr DWORD ERROR_RESOURCE_DATA_NOT_FOUND = 1812;
inline constexpr DWORD ERROR_RESOURCE_TYPE_NOT_FOUND = 1813;

using UINT = std::uint32_t;

// The size of the buffer GetFileVersionInfoA needs for the file's version information, 0 with
// the last error set when there is none. `*handle` is set to 0.
DWORD GetFileVersionInfoSizeA(std::string_view path, DWORD* handle);

// Copies the version information into `data`, which must hold the size reported above; the
// room beyond the resource itself receives the narrow texts VerQueryValueA hands out.
BOOL GetFileVersionInfoA(std::string_view path, DWORD handle, DWORD size, void* data);

// Looks up a value in version information read by GetFileVersionInfoA: "\\" (the fixed file
// information), "\\VarFileInfo\\Translation" (language and code-page pairs, `*length` in bytes)
// or "\\StringFileInfo\\<lang><codepage>\\<key>" (a narrow text; `*length` in characters with
// its terminator). Key components are compared ignoring case. 0 when the value is missing.
BOOL VerQueryValueA(const void* block, std::string_view subBlock, void** buffer, UINT* length);

}  // namespace qbrix::platform
