// Live mode: the driver decides the machine's real connections. The first packet of every new
// TCP connection and UDP flow, in both directions, waits in the kernel's queue while its owner
// is found (socket, process, executable) and the reference driver decides it exactly as it
// decides a simulated connection; an unknown program's packets stay queued until the answer or
// the hold time. The bytes of approved connections come from connection tracking and go to the
// program's counters.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "DriverServer.h"
#include "ReferenceDriver.h"
#include "platform/posix/live/ConnectionCounters.h"
#include "platform/posix/live/FirewallRules.h"
#include "platform/posix/live/PacketQueue.h"
#include "platform/posix/live/SocketOwners.h"

namespace qbrix::refdriver {

class LiveFilter : public PollSource {
  public:
    struct Settings {
        std::uint16_t firstQueue = 0;
        std::uint16_t queueCount = 1;
        std::uint32_t queueLength = 8192;  // packets each queue holds before the kernel drops
    };

    LiveFilter(ReferenceDriver& driver, Settings settings);
    ~LiveFilter() override;

    // Binds the queues, turns accounting on and installs the rules. 0 on success; 1 with the
    // reason in *error. *warning tells what is not filtered (IPv6 on a machine without it).
    int Start(std::string* error, std::string* warning);
    // Lets every held packet pass and removes the rules; also done by the destructor.
    void Stop();

    std::vector<int> Fds() const override;
    void Ready(int fd) override;
    ReferenceDriver::Clock::time_point Tick(ReferenceDriver::Clock::time_point now) override;

  private:
    using Clock = ReferenceDriver::Clock;
    struct Waiting {
        std::vector<std::pair<std::uint16_t, std::uint32_t>> packets;  // queue, packet id
        platform::live::Flow flow;
        platform::live::Direction direction;
        bool parsed = false;
    };
    // An approved connection whose bytes are counted for its program.
    struct Counted {
        std::string image;
        int originalCounter;  // counter index for the bytes of the original direction
        int replyCounter;
        std::uint64_t original = 0;  // payload counted so far, each direction
        std::uint64_t reply = 0;
        Clock::time_point nextLook;
    };
    using FlowMap =
        std::unordered_map<platform::live::Flow, std::uint64_t, platform::live::FlowHash>;

    void OnPacket(const platform::live::QueuedPacket& packet);
    void OnDecided(const Connection& connection, bool approved);
    void Count(const platform::live::Flow& flow, platform::live::Moved original,
               platform::live::Moved reply, bool ended);

    ReferenceDriver& m_driver;
    Settings m_settings;
    std::unique_ptr<platform::live::PacketQueue> m_queue;
    std::unique_ptr<platform::live::ConnectionCounters> m_counters;
    platform::live::SocketOwners m_owners;
    bool m_rulesInstalled = false;
    std::uint64_t m_nextTicket = 0;
    std::unordered_map<std::uint64_t, Waiting> m_waiting;  // ticket -> queued packets
    FlowMap m_waitingFlows[2];  // per direction: flow -> ticket, so a repeat joins the wait
    std::unordered_multimap<platform::live::Flow, Counted, platform::live::FlowHash> m_counted;
    // When each counted connection is looked at next, oldest first (every look puts it at the
    // back again), so a tick touches only what is due.
    std::deque<std::pair<Clock::time_point, platform::live::Flow>> m_schedule;
};

}  // namespace qbrix::refdriver
