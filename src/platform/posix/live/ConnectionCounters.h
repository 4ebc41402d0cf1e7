// The bytes each connection moved, from the kernel's connection tracking with accounting
// switched on (per network namespace; the previous setting is restored on close): the counts of
// one connection by its addresses and ports (a dump of the whole table would stall the packet
// path on a busy machine), and the final counts of connections that ended.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "platform/posix/live/Flow.h"

struct nfct_handle;

namespace qbrix::platform::live {

// What one direction of a connection moved: IP bytes (headers included) and packets.
struct Moved {
    std::uint64_t bytes = 0;
    std::uint64_t packets = 0;
};

// The connection (its original direction) and what each direction moved so far.
using CounterSink = std::function<void(const Flow& flow, Moved original, Moved reply)>;

class ConnectionCounters {
  public:
    // Null with the reason in *error (no conntrack netlink, no permission).
    static std::unique_ptr<ConnectionCounters> Open(std::string* error);
    ~ConnectionCounters();
    ConnectionCounters(const ConnectionCounters&) = delete;
    ConnectionCounters& operator=(const ConnectionCounters&) = delete;

    // One connection's counts. Found: 1, with *finished telling whether it is closing (a TCP
    // connection past its last data: the counts are final). 0 when it is no longer tracked;
    // -1 when the query failed.
    int Get(const Flow& flow, Moved* original, Moved* reply, bool* finished);
    // The descriptor that turns readable when connections end, and their final counts.
    int EndedFd() const;
    void DrainEnded(const CounterSink& sink);

  private:
    ConnectionCounters() = default;

    nfct_handle* m_dump = nullptr;
    nfct_handle* m_events = nullptr;
    std::string m_previousAccounting;
};

}  // namespace qbrix::platform::live
