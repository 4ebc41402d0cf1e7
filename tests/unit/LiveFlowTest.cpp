// What the live filter reads from a queued packet, and the address its rules compare.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <string>
#include <vector>

#include "platform/posix/live/FirewallRules.h"
#include "platform/posix/live/Flow.h"

namespace qbrix::platform::live {
namespace {

std::vector<std::uint8_t> Ipv4(std::uint8_t protocol, std::size_t transportBytes,
                               std::uint16_t fragment = 0) {
    std::vector<std::uint8_t> packet(20 + transportBytes, 0);
    packet[0] = 0x45;
    packet[6] = static_cast<std::uint8_t>(fragment >> 8);
    packet[7] = static_cast<std::uint8_t>(fragment);
    packet[9] = protocol;
    std::uint8_t addresses[8] = {10, 0, 0, 1, 192, 168, 1, 9};
    std::copy(addresses, addresses + 8, packet.begin() + 12);
    if (transportBytes >= 4) {
        packet[20] = 0x9C, packet[21] = 0x40;  // 40000
        packet[22] = 0x00, packet[23] = 0x50;  // 80
    }
    return packet;
}

// An IPv6 packet, optionally behind one extension header of the given type.
std::vector<std::uint8_t> Ipv6(std::uint8_t protocol, int extension = -1) {
    std::vector<std::uint8_t> packet(40, 0);
    packet[0] = 0x60;
    packet[6] = extension >= 0 ? static_cast<std::uint8_t>(extension) : protocol;
    packet[23] = 1;                     // ::1
    packet[24] = 0xFD, packet[39] = 2;  // fd00::2
    if (extension >= 0) {
        std::vector<std::uint8_t> header(8, 0);
        header[0] = protocol;
        packet.insert(packet.end(), header.begin(), header.end());
    }
    std::uint8_t ports[4] = {0x00, 0x35, 0x9C, 0x41};  // 53 -> 40001
    packet.insert(packet.end(), ports, ports + 4);
    return packet;
}

TEST(LiveFlowTest, PacketsGiveTheirAddressesAndPortsOrNothing) {
    struct Case {
        const char* name;
        std::vector<std::uint8_t> packet;
        bool parsed;
        std::string described;
    };
    const std::vector<Case> cases = {
        {"tcp over IPv4", Ipv4(IPPROTO_TCP, 20), true, "tcp 10.0.0.1:40000 -> 192.168.1.9:80"},
        {"udp over IPv4", Ipv4(IPPROTO_UDP, 8), true, "udp 10.0.0.1:40000 -> 192.168.1.9:80"},
        {"ports cut off", Ipv4(IPPROTO_TCP, 3), false, ""},
        {"a later fragment", Ipv4(IPPROTO_UDP, 8, 0x0010), false, ""},
        {"not tcp or udp", Ipv4(IPPROTO_ICMP, 8), false, ""},
        {"udp over IPv6", Ipv6(IPPROTO_UDP), true, "udp [::1]:53 -> [fd00::2]:40001"},
        {"behind hop-by-hop options", Ipv6(IPPROTO_TCP, 0), true,
         "tcp [::1]:53 -> [fd00::2]:40001"},
        {"behind a fragment header", Ipv6(IPPROTO_TCP, 44), false, ""},
        {"IPv6 cut short", std::vector<std::uint8_t>(39, 0x60), false, ""},
        {"no IP at all", {0x20, 1, 2, 3}, false, ""},
        {"empty", {}, false, ""},
    };
    for (const Case& c : cases) {
        Flow flow;
        EXPECT_EQ(c.parsed, ParsePacket(c.packet.data(), c.packet.size(), &flow)) << c.name;
        if (c.parsed) {
            EXPECT_EQ(c.described, Describe(flow)) << c.name;
        }
    }
}

TEST(LiveFlowTest, RulesSeeIpv4AddressesLoopbackAndMappedOnes) {
    auto address = [](const char* text) {
        std::array<std::uint8_t, 16> bytes{};
        int family = std::string(text).find(':') != std::string::npos ? AF_INET6 : AF_INET;
        inet_pton(family, text, bytes.data());
        return RuleAddress(static_cast<std::uint8_t>(family), bytes);
    };
    EXPECT_EQ(0x0A4D0001u, address("10.77.0.1"));
    EXPECT_EQ(0x7F000001u, address("::1"));
    EXPECT_EQ(0xC0A80109u, address("::ffff:192.168.1.9"));
    EXPECT_EQ(0u, address("fd00:77::1"));  // no rule address can name it
}

TEST(LiveFlowTest, OnlyFirstPacketsReachTheQueueWithTheBypass) {
    std::string script = RuleScript({0, 1}, false);
    EXPECT_NE(std::string::npos, script.find("-A QBRIX-OUT -p tcp -m connbytes --connbytes 0:1"));
    EXPECT_NE(std::string::npos, script.find("-I OUTPUT 1 -m conntrack --ctstate NEW -j QBRIX-OUT"));
    EXPECT_NE(std::string::npos, script.find("--queue-num 0 --queue-bypass"));
    EXPECT_NE(
        std::string::npos,
        RuleScript({4, 2}, true).find("--queue-balance 4:5 --queue-cpu-fanout --queue-bypass"));
    EXPECT_NE(std::string::npos, RuleScript({0, 1}, true).find("icmp6-port-unreachable"));
}

}  // namespace
}  // namespace qbrix::platform::live
