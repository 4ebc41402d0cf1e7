// A simulated connection attempt and the line format that describes one:
//   connect IMAGE tcp|udp in|out A.B.C.D:PORT [BYTES] [local=PORT] [path=FULLPATH]
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace qbrix::refdriver {

struct Connection {
    // Process image name, the key of the application; empty when the owner is unknown (the
    // socket closed before it was identified, or the kernel's own traffic).
    std::string image;
    std::string path;             // full path when known; empty otherwise
    std::uint32_t protocol = 1;   // 1 TCP, 2 UDP
    std::uint32_t direction = 2;  // 1 incoming, 2 outgoing
    std::uint32_t address = 0;    // remote address, host order
    std::uint16_t remotePort = 0;
    std::uint16_t localPort = 0;
    std::uint64_t bytes = 0;  // moved when the connection is approved
    // Live mode: names the queued packets waiting for this connection's verdict; 0 for a
    // simulated connection.
    std::uint64_t ticket = 0;
};

// Parses the words after "connect". 0 on success; 1 with a reason in *error.
int ParseConnection(std::string_view words, Connection* connection, std::string* error);

// "A.B.C.D" to a host-order number. 0 on success.
int ParseAddress(std::string_view text, std::uint32_t* address);
std::string FormatAddress(std::uint32_t address);

}  // namespace qbrix::refdriver
