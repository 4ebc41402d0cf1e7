// The kernel's netfilter queue: the first packet of every new connection, held in the kernel
// until the driver gives it a verdict. Verdicts may come in any order, so a connection waiting
// for the user's answer never holds up another.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/posix/live/Flow.h"

struct mnl_socket;

namespace qbrix::platform::live {

// The mark a rejected packet carries when the kernel re-runs it through the driver's chain,
// whose first rule answers it (a reset for TCP, port unreachable for UDP). One bit of the mark.
inline constexpr std::uint32_t kRejectMark = 0x00100000u;

enum class Verdict : std::uint8_t { Accept, Drop, Reject };

struct QueuedPacket {
    std::uint16_t queue = 0;
    std::uint32_t id = 0;
    Direction direction = Direction::Outgoing;
    bool parsed = false;  // false: not TCP/UDP over IP, or cut short; flow is empty
    Flow flow;
};

class PacketQueue {
  public:
    // Binds queues first .. first+count-1 on one netlink socket, copying the first 256 bytes of
    // each packet, each queue holding up to maxLength packets (beyond that the kernel drops new
    // first packets: nothing passes unjudged). Null with the reason in *error.
    static std::unique_ptr<PacketQueue> Open(std::uint16_t first, std::uint16_t count,
                                             std::uint32_t maxLength, std::string* error);
    ~PacketQueue();
    PacketQueue(const PacketQueue&) = delete;
    PacketQueue& operator=(const PacketQueue&) = delete;

    int Fd() const;
    // Reads every packet waiting and hands each to onPacket. Returns false when the socket
    // failed for good.
    bool Drain(const std::function<void(const QueuedPacket&)>& onPacket);
    // Verdicts are gathered and sent together by Flush (one system call for a burst).
    void Give(std::uint16_t queue, std::uint32_t id, Verdict verdict);
    void Flush();

  private:
    PacketQueue() = default;
    bool Configure(std::uint16_t queue, std::uint8_t command, std::uint32_t maxLength,
                   std::string* error);

    mnl_socket* m_socket = nullptr;
    std::uint32_t m_portId = 0;
    std::vector<std::uint16_t> m_queues;
    std::vector<char> m_buffer;
    std::vector<char> m_verdicts;  // messages not sent yet
};

}  // namespace qbrix::platform::live
