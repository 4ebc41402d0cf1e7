// The framing of a device control request on the driver's stream socket, shared by the device
// service and the drivers that serve it. All integers little-endian.
//
//   request: magic "QBRQ", control code, input size, output capacity, then the input bytes
//   reply:   magic "QBRP", success flag (1/0), error code, bytes transferred, output size,
//            then the output bytes (output size <= output capacity)
//
// Bytes transferred is the driver's information value; it may exceed the output size (a "set"
// request reports its input length) but never both the input size and the output capacity.
#pragma once

#include <cstdint>
#include <cstring>

namespace qbrix::platform {

inline constexpr std::uint32_t kRequestMagic = 0x51524251u;  // "QBRQ"
inline constexpr std::uint32_t kReplyMagic = 0x50524251u;    // "QBRP"
// Neither side accepts a frame body larger than this.
inline constexpr std::uint32_t kMaxFrameBody = 1u << 20;

struct RequestHeader {
    std::uint32_t magic;
    std::uint32_t code;
    std::uint32_t inputSize;
    std::uint32_t outputCapacity;
};

struct ReplyHeader {
    std::uint32_t magic;
    std::uint32_t success;
    std::uint32_t errorCode;
    std::uint32_t bytesTransferred;
    std::uint32_t outputSize;
};

static_assert(sizeof(RequestHeader) == 16);
static_assert(sizeof(ReplyHeader) == 20);

}  // namespace qbrix::platform
