// UUID creation from the kernel's random source: /dev/urandom, with the C++ library's random
// device as the fallback when the file cannot be read (a chroot without /dev, for instance).
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <random>

#include "platform/Uuid.h"

namespace qbrix::platform {

namespace {

bool ReadUrandom(unsigned char* bytes, std::size_t count) {
    int fd = ::open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    std::size_t done = 0;
    while (done < count) {
        ssize_t got = ::read(fd, bytes + done, count - done);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            break;
        }
        done += static_cast<std::size_t>(got);
    }
    ::close(fd);
    return done == count;
}

bool ReadRandomDevice(unsigned char* bytes, std::size_t count) {
    try {
        std::random_device device;
        for (std::size_t i = 0; i < count; i += sizeof(unsigned int)) {
            unsigned int value = device();
            std::memcpy(bytes + i, &value, std::min(sizeof(value), count - i));
        }
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace

RPC_STATUS UuidCreate(UUID* uuid) {
    if (g_uuidCreateFault) {
        if (RPC_STATUS status = g_uuidCreateFault(); status != RPC_S_OK) {
            return status;
        }
    }
    if (uuid == nullptr) {
        return static_cast<RPC_STATUS>(ERROR_INVALID_PARAMETER);  // RPC_S_INVALID_ARG
    }
    unsigned char bytes[sizeof(UUID)];
    if (!ReadUrandom(bytes, sizeof(bytes)) && !ReadRandomDevice(bytes, sizeof(bytes))) {
        return RPC_S_UUID_NO_ADDRESS;
    }
    std::memcpy(uuid, bytes, sizeof(bytes));
    // Version 4 in the top nibble of Data3, the RFC 4122 variant in the top bits of Data4[0].
    uuid->Data3 = static_cast<std::uint16_t>((uuid->Data3 & 0x0FFF) | 0x4000);
    uuid->Data4[0] = static_cast<std::uint8_t>((uuid->Data4[0] & 0x3F) | 0x80);
    return RPC_S_OK;
}

}  // namespace qbrix::platform
