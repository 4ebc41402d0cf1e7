#include "platform/Uuid.h"

#include <cstdio>

namespace qbrix::platform {

std::function<RPC_STATUS()> g_uuidCreateFault;

void ResetUuidCreateFault() {
    g_uuidCreateFault = nullptr;
}

namespace {

int HexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

// Reads `digits` hexadecimal digits at `text[*pos]` and moves past them.
bool ReadHex(std::string_view text, std::size_t* pos, int digits, std::uint32_t* value) {
    std::uint32_t result = 0;
    for (int i = 0; i < digits; ++i) {
        int digit = HexDigit(text[*pos + i]);
        if (digit < 0) {
            return false;
        }
        result = (result << 4) | static_cast<std::uint32_t>(digit);
    }
    *pos += static_cast<std::size_t>(digits);
    *value = result;
    return true;
}

bool ReadHyphen(std::string_view text, std::size_t* pos) {
    if (text[*pos] != '-') {
        return false;
    }
    ++*pos;
    return true;
}

}  // namespace

RPC_STATUS UuidToStringA(const UUID* uuid, std::string* text) {
    const UUID nil{};
    const UUID& u = uuid == nullptr ? nil : *uuid;
    char buffer[kUuidStringLength + 1];
    std::snprintf(buffer, sizeof(buffer), "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x",
                  static_cast<unsigned>(u.Data1), static_cast<unsigned>(u.Data2),
                  static_cast<unsigned>(u.Data3), u.Data4[0], u.Data4[1], u.Data4[2], u.Data4[3],
                  u.Data4[4], u.Data4[5], u.Data4[6], u.Data4[7]);
    text->assign(buffer, kUuidStringLength);
    return RPC_S_OK;
}

RPC_STATUS UuidFromStringA(std::string_view text, UUID* uuid) {
    if (uuid == nullptr || text.size() != kUuidStringLength) {
        return RPC_S_INVALID_STRING_UUID;
    }
    UUID result{};
    std::size_t pos = 0;
    std::uint32_t value = 0;
    if (!ReadHex(text, &pos, 8, &value)) {
        return RPC_S_INVALID_STRING_UUID;
    }
    result.Data1 = value;
    if (!ReadHyphen(text, &pos) || !ReadHex(text, &pos, 4, &value)) {
        return RPC_S_INVALID_STRING_UUID;
    }
    result.Data2 = static_cast<std::uint16_t>(value);
    if (!ReadHyphen(text, &pos) || !ReadHex(text, &pos, 4, &value)) {
        return RPC_S_INVALID_STRING_UUID;
    }
    result.Data3 = static_cast<std::uint16_t>(value);
    if (!ReadHyphen(text, &pos)) {
        return RPC_S_INVALID_STRING_UUID;
    }
    for (int i = 0; i < 8; ++i) {
        if (i == 2 && !ReadHyphen(text, &pos)) {
            return RPC_S_INVALID_STRING_UUID;
        }
        if (!ReadHex(text, &pos, 2, &value)) {
            return RPC_S_INVALID_STRING_UUID;
        }
        result.Data4[i] = static_cast<std::uint8_t>(value);
    }
    *uuid = result;
    return RPC_S_OK;
}

}  // namespace qbrix::platform
