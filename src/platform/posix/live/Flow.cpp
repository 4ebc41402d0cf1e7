#include "platform/posix/live/Flow.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>

namespace qbrix::platform::live {

namespace {

std::uint16_t Port(const std::uint8_t* bytes) {
    return static_cast<std::uint16_t>((bytes[0] << 8) | bytes[1]);
}

std::string Endpoint(std::uint8_t family, const std::array<std::uint8_t, 16>& address,
                     std::uint16_t port) {
    char text[INET6_ADDRSTRLEN] = {};
    ::inet_ntop(family == AF_INET6 ? AF_INET6 : AF_INET, address.data(), text, sizeof(text));
    return family == AF_INET6 ? "[" + std::string(text) + "]:" + std::to_string(port)
                              : std::string(text) + ":" + std::to_string(port);
}

}  // namespace

std::size_t FlowHash::operator()(const Flow& flow) const noexcept {
    // FNV-1a over the fields that tell flows apart.
    std::uint64_t hash = 1469598103934665603ULL;
    auto mix = [&hash](const std::uint8_t* bytes, std::size_t size) {
        for (std::size_t i = 0; i < size; ++i) {
            hash = (hash ^ bytes[i]) * 1099511628211ULL;
        }
    };
    std::uint8_t head[6] = {flow.family,
                            flow.protocol,
                            static_cast<std::uint8_t>(flow.sourcePort >> 8),
                            static_cast<std::uint8_t>(flow.sourcePort),
                            static_cast<std::uint8_t>(flow.destinationPort >> 8),
                            static_cast<std::uint8_t>(flow.destinationPort)};
    mix(head, sizeof(head));
    std::size_t size = flow.family == AF_INET6 ? 16 : 4;
    mix(flow.source.data(), size);
    mix(flow.destination.data(), size);
    return static_cast<std::size_t>(hash);
}

std::uint32_t RuleAddress(std::uint8_t family, const std::array<std::uint8_t, 16>& address) {
    auto ipv4 = [](const std::uint8_t* bytes) {
        return (std::uint32_t{bytes[0]} << 24) | (std::uint32_t{bytes[1]} << 16) |
               (std::uint32_t{bytes[2]} << 8) | bytes[3];
    };
    if (family == AF_INET) {
        return ipv4(address.data());
    }
    static constexpr std::uint8_t kMapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
    static constexpr std::uint8_t kLoopback[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    if (std::memcmp(address.data(), kMapped, sizeof(kMapped)) == 0) {
        return ipv4(address.data() + 12);
    }
    if (std::memcmp(address.data(), kLoopback, sizeof(kLoopback)) == 0) {
        return 0x7F000001u;
    }
    return 0;
}

std::string Describe(const Flow& flow) {
    return std::string(flow.protocol == IPPROTO_TCP ? "tcp " : "udp ") +
           Endpoint(flow.family, flow.source, flow.sourcePort) + " -> " +
           Endpoint(flow.family, flow.destination, flow.destinationPort);
}

bool ParsePacket(const std::uint8_t* data, std::size_t size, Flow* flow) {
    *flow = Flow{};
    if (size < 1) {
        return false;
    }
    std::size_t transport = 0;
    std::uint8_t protocol = 0;
    if ((data[0] >> 4) == 4) {
        if (size < 20) {
            return false;
        }
        std::size_t headerLength = std::size_t{data[0] & 0x0Fu} * 4;
        bool fragment = ((data[6] & 0x1Fu) | data[7]) != 0;  // a later fragment has no ports
        if (headerLength < 20 || fragment) {
            return false;
        }
        flow->family = AF_INET;
        protocol = data[9];
        std::memcpy(flow->source.data(), data + 12, 4);
        std::memcpy(flow->destination.data(), data + 16, 4);
        transport = headerLength;
    } else if ((data[0] >> 4) == 6) {
        if (size < 40) {
            return false;
        }
        flow->family = AF_INET6;
        std::memcpy(flow->source.data(), data + 8, 16);
        std::memcpy(flow->destination.data(), data + 24, 16);
        protocol = data[6];
        transport = 40;
        // Hop-by-hop, routing and destination options come before the transport header.
        while (protocol == 0 || protocol == 43 || protocol == 60) {
            if (size < transport + 8) {
                return false;
            }
            protocol = data[transport];
            transport += (std::size_t{data[transport + 1]} + 1) * 8;
        }
    } else {
        return false;
    }
    if ((protocol != IPPROTO_TCP && protocol != IPPROTO_UDP) || size < transport + 4) {
        return false;
    }
    flow->protocol = protocol;
    flow->sourcePort = Port(data + transport);
    flow->destinationPort = Port(data + transport + 2);
    return true;
}

}  // namespace qbrix::platform::live
