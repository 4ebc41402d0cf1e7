#include "LiveFilter.h"

#include <netinet/in.h>

namespace qbrix::refdriver {

using platform::live::Direction;
using platform::live::Flow;
using platform::live::QueuedPacket;
using platform::live::Verdict;

namespace {

constexpr std::size_t kImageField = sizeof(driver::AppRecord{}.imageName);
// Each counted connection is looked at this often until its counts are final.
constexpr auto kCountInterval = std::chrono::milliseconds(500);
// At most this many connections are looked at per tick; the rest wait for the next one.
constexpr std::size_t kLooksPerTick = 20000;

int DirectionIndex(Direction direction) {
    return direction == Direction::Outgoing ? 1 : 0;
}

}  // namespace

LiveFilter::LiveFilter(ReferenceDriver& driver, Settings settings)
    : m_driver(driver), m_settings(settings) {
    m_driver.SetOnDecided(
        [this](const Connection& connection, bool approved) { OnDecided(connection, approved); });
}

LiveFilter::~LiveFilter() {
    Stop();
    m_driver.SetOnDecided(nullptr);
}

int LiveFilter::Start(std::string* error, std::string* warning) {
    // The queues are read before any rule sends packets to them.
    m_queue = platform::live::PacketQueue::Open(m_settings.firstQueue, m_settings.queueCount,
                                                m_settings.queueLength, error);
    if (m_queue == nullptr) {
        return 1;
    }
    m_counters = platform::live::ConnectionCounters::Open(error);
    if (m_counters == nullptr) {
        m_queue.reset();
        return 1;
    }
    platform::live::InstalledFamilies families;
    if (platform::live::InstallRules({m_settings.firstQueue, m_settings.queueCount}, &families,
                                     error, warning) != 0) {
        m_counters.reset();
        m_queue.reset();
        return 1;
    }
    m_rulesInstalled = true;
    return 0;
}

void LiveFilter::Stop() {
    if (m_rulesInstalled) {
        platform::live::RemoveRules();
        m_rulesInstalled = false;
    }
    // Nothing is filtered while no driver runs: what was held passes.
    if (m_queue != nullptr) {
        m_queue->Drain([this](const QueuedPacket& packet) {
            m_queue->Give(packet.queue, packet.id, Verdict::Accept);
        });
        for (const auto& [ticket, waiting] : m_waiting) {
            for (const auto& [queue, id] : waiting.packets) {
                m_queue->Give(queue, id, Verdict::Accept);
            }
        }
        m_queue->Flush();
    }
    m_waiting.clear();
    m_waitingFlows[0].clear();
    m_waitingFlows[1].clear();
    m_queue.reset();
    m_counters.reset();
}

std::vector<int> LiveFilter::Fds() const {
    std::vector<int> fds;
    if (m_queue != nullptr) {
        fds.push_back(m_queue->Fd());
    }
    if (m_counters != nullptr) {
        fds.push_back(m_counters->EndedFd());
    }
    return fds;
}

void LiveFilter::Ready(int fd) {
    if (m_queue != nullptr && fd == m_queue->Fd()) {
        m_queue->Drain([this](const QueuedPacket& packet) { OnPacket(packet); });
        m_queue->Flush();
    } else if (m_counters != nullptr && fd == m_counters->EndedFd()) {
        m_counters->DrainEnded(
            [this](const Flow& flow, platform::live::Moved original, platform::live::Moved reply) {
                Count(flow, original, reply, true);
            });
    }
}

void LiveFilter::OnPacket(const QueuedPacket& packet) {
    int index = DirectionIndex(packet.direction);
    if (packet.parsed) {
        // A retransmission, or another datagram, of a connection still waiting for its answer.
        if (auto found = m_waitingFlows[index].find(packet.flow);
            found != m_waitingFlows[index].end()) {
            m_waiting[found->second].packets.emplace_back(packet.queue, packet.id);
            return;
        }
    }
    bool outgoing = packet.direction == Direction::Outgoing;
    const Flow& flow = packet.flow;
    Connection connection;
    platform::live::Owner owner;
    if (packet.parsed && m_owners.Find(flow, packet.direction, &owner)) {
        connection.image = owner.image.substr(0, kImageField);
        connection.path = owner.path;
    }
    connection.protocol = flow.protocol == IPPROTO_UDP ? 2 : 1;
    connection.direction = outgoing ? 2 : 1;
    connection.address =
        platform::live::RuleAddress(flow.family, outgoing ? flow.destination : flow.source);
    connection.remotePort = outgoing ? flow.destinationPort : flow.sourcePort;
    connection.localPort = outgoing ? flow.sourcePort : flow.destinationPort;
    connection.ticket = ++m_nextTicket;
    Waiting& waiting = m_waiting[connection.ticket];
    waiting.packets.emplace_back(packet.queue, packet.id);
    waiting.flow = flow;
    waiting.direction = packet.direction;
    waiting.parsed = packet.parsed;
    if (packet.parsed) {
        m_waitingFlows[index][flow] = connection.ticket;
    }
    m_driver.Inject(connection);  // decides at once (OnDecided) or holds it for the answer
}

void LiveFilter::OnDecided(const Connection& connection, bool approved) {
    auto found = m_waiting.find(connection.ticket);
    if (connection.ticket == 0 || found == m_waiting.end() || m_queue == nullptr) {
        return;  // a simulated connection
    }
    Waiting waiting = std::move(found->second);
    m_waiting.erase(found);
    bool outgoing = waiting.direction == Direction::Outgoing;
    if (waiting.parsed) {
        m_waitingFlows[DirectionIndex(waiting.direction)].erase(waiting.flow);
    }
    // A refused outgoing connection is answered at once (reset / port unreachable), so the
    // program does not wait for a time-out; a refused incoming one is dropped unanswered.
    Verdict verdict = approved ? Verdict::Accept : outgoing ? Verdict::Reject : Verdict::Drop;
    for (const auto& [queue, id] : waiting.packets) {
        m_queue->Give(queue, id, verdict);
    }
    if (approved && waiting.parsed && !connection.image.empty()) {
        int base = connection.protocol == 2 ? 2 : 0;  // TCP in/out, UDP in/out
        Clock::time_point look = Clock::now() + kCountInterval;
        Counted counted{
            connection.image, base + (outgoing ? 1 : 0), base + (outgoing ? 0 : 1), 0, 0, look};
        m_counted.emplace(waiting.flow, std::move(counted));
        m_schedule.emplace_back(look, waiting.flow);
    }
}

void LiveFilter::Count(const Flow& flow, platform::live::Moved original,
                       platform::live::Moved reply, bool ended) {
    // The program's counters hold what it sent and received: the payload, which is the IP bytes
    // less the usual headers of each packet (IPv4 20 or IPv6 40 bytes; TCP 32 with the
    // time-stamp option Linux sends, UDP 8).
    std::uint64_t header =
        (flow.family == AF_INET6 ? 40 : 20) + (flow.protocol == IPPROTO_TCP ? 32 : 8);
    auto payload = [header](platform::live::Moved moved) {
        std::uint64_t headers = moved.packets * header;
        return moved.bytes > headers ? moved.bytes - headers : 0;
    };
    std::uint64_t originalPayload = payload(original);
    std::uint64_t replyPayload = payload(reply);
    auto [first, last] = m_counted.equal_range(flow);
    Clock::time_point next = Clock::now() + kCountInterval;
    for (auto entry = first; entry != last;) {
        Counted& counted = entry->second;
        // A new connection may reuse a finished one's addresses and ports: counts start over.
        std::uint64_t originalMoved = originalPayload >= counted.original
                                          ? originalPayload - counted.original
                                          : originalPayload;
        std::uint64_t replyMoved =
            replyPayload >= counted.reply ? replyPayload - counted.reply : replyPayload;
        m_driver.AddTraffic(counted.image, counted.originalCounter, originalMoved);
        m_driver.AddTraffic(counted.image, counted.replyCounter, replyMoved);
        counted.original = originalPayload;
        counted.reply = replyPayload;
        counted.nextLook = next;
        entry = ended ? m_counted.erase(entry) : std::next(entry);
    }
}

ReferenceDriver::Clock::time_point LiveFilter::Tick(Clock::time_point now) {
    if (m_queue != nullptr) {
        m_queue->Flush();  // verdicts given since the last turn (answers, hold times)
    }
    if (m_counters == nullptr) {
        return Clock::time_point::max();
    }
    std::size_t looks = 0;
    while (!m_schedule.empty() && m_schedule.front().first <= now && looks < kLooksPerTick) {
        Flow flow = m_schedule.front().second;
        m_schedule.pop_front();
        auto entry = m_counted.find(flow);
        if (entry == m_counted.end() || entry->second.nextLook > now) {
            continue;  // ended, or a look of the other end of the same connection came first
        }
        ++looks;
        platform::live::Moved original;
        platform::live::Moved reply;
        bool finished = false;
        int found = m_counters->Get(flow, &original, &reply, &finished);
        if (found > 0) {
            Count(flow, original, reply, finished);
        }
        if (found == 0 || (found > 0 && finished)) {
            // Ended (its last counts came as an event) or past its last data.
            m_counted.erase(flow);
            continue;
        }
        if (found < 0) {
            for (auto [first, last] = m_counted.equal_range(flow); first != last; ++first) {
                first->second.nextLook = now + kCountInterval;  // try again later
            }
        }
        m_schedule.emplace_back(now + kCountInterval, flow);
    }
    if (m_schedule.empty()) {
        return Clock::time_point::max();
    }
    return looks == kLooksPerTick ? now : m_schedule.front().first;
}

}  // namespace qbrix::refdriver
