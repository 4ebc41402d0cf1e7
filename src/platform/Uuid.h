// UUIDs as the RPC run-time provides them: creation of a random (version 4) identifier and the
// 36-character text form "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx" in lower-case hexadecimal.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "platform/WinTypes.h"

namespace qbrix::platform {

// The 16-byte identifier in the platform's layout: Data1 to Data3 in the machine's byte order,
// Data4 as bytes. The text form prints Data1 to Data3 as numbers, so it does not depend on the
// byte order.
struct GUID {
    std::uint32_t Data1;
    std::uint16_t Data2;
    std::uint16_t Data3;
    std::uint8_t Data4[8];

    friend bool operator==(const GUID&, const GUID&) = default;
};
static_assert(sizeof(GUID) == 16);
static_assert(offsetof(GUID, Data1) == 0);
static_assert(offsetof(GUID, Data2) == 4);
static_assert(offsetof(GUID, Data3) == 6);
static_assert(offsetof(GUID, Data4) == 8);

using UUID = GUID;
using RPC_STATUS = LONG;

inline constexpr RPC_STATUS RPC_S_OK = 0;
inline constexpr RPC_STATUS RPC_S_INVALID_STRING_UUID = 1705;
// No source of randomness could be read.
inline constexpr RPC_STATUS RPC_S_UUID_NO_ADDRESS = 1739;

// Length of the text form, without terminator.
inline constexpr std::size_t kUuidStringLength = 36;

// A new random identifier (version 4, RFC 4122 variant) from the system's random source.
RPC_STATUS UuidCreate(UUID* uuid);

// The text form, lower case, no braces. A null uuid gives the nil identifier's text.
RPC_STATUS UuidToStringA(const UUID* uuid, std::string* text);

// Parses exactly the 36-character form (hexadecimal digits in either case, hyphens after the
// 8th, 12th, 16th and 20th digit). Anything else gives RPC_S_INVALID_STRING_UUID and leaves
// *uuid untouched.
RPC_STATUS UuidFromStringA(std::string_view text, UUID* uuid);

// Test hook: when set, UuidCreate calls it first and fails with any nonzero status it returns.
// Process-wide; tests reset it when they are done.
extern std::function<RPC_STATUS()> g_uuidCreateFault;
void ResetUuidCreateFault();

}  // namespace qbrix::platform
