// A connection as the live filter sees it: the addresses and ports of its first packet, which are
// also the original direction of the kernel's connection tracking entry.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace qbrix::platform::live {

enum class Direction : std::uint8_t { Incoming, Outgoing };

struct Flow {
    std::uint8_t family = 0;                     // AF_INET or AF_INET6
    std::uint8_t protocol = 0;                   // IPPROTO_TCP or IPPROTO_UDP
    std::uint16_t sourcePort = 0;                // host order
    std::uint16_t destinationPort = 0;           // host order
    std::array<std::uint8_t, 16> source{};       // network order; IPv4 in the first four bytes
    std::array<std::uint8_t, 16> destination{};  // network order; IPv4 in the first four bytes

    bool operator==(const Flow&) const = default;
};

struct FlowHash {
    std::size_t operator()(const Flow& flow) const noexcept;
};

// The IPv4 address (host order) a rule compares with: an IPv4 address itself, the address inside
// an IPv4-mapped IPv6 address, 127.0.0.1 for ::1; 0 for any other IPv6 address (a rule naming
// an address never matches it).
std::uint32_t RuleAddress(std::uint8_t family, const std::array<std::uint8_t, 16>& address);

// "tcp 10.0.0.1:80 -> 10.0.0.2:4000" / "udp [::1]:53 -> [::1]:4000", for log lines.
std::string Describe(const Flow& flow);

// Reads the addresses, protocol and ports from the start of an IP packet. False when the packet
// is not TCP or UDP over IPv4/IPv6, or too short to hold its ports.
bool ParsePacket(const std::uint8_t* data, std::size_t size, Flow* flow);

}  // namespace qbrix::platform::live
