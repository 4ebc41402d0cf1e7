#include "platform/posix/live/PacketQueue.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nfnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

extern "C" {
#include <libnetfilter_queue/libnetfilter_queue.h>
}

namespace qbrix::platform::live {

namespace {

constexpr int kCopyRange = 256;
constexpr std::size_t kBufferSize = 1 << 20;
constexpr std::size_t kBatchSize = 4096;  // about a hundred verdicts

using PacketSink = std::function<void(const QueuedPacket&)>;

int OnMessage(const nlmsghdr* message, void* data) {
    const auto& onPacket = *static_cast<const PacketSink*>(data);
    nlattr* attributes[NFQA_MAX + 1] = {};
    if (nfq_nlmsg_parse(message, attributes) < 0 || attributes[NFQA_PACKET_HDR] == nullptr) {
        return MNL_CB_OK;
    }
    const auto* header =
        static_cast<const nfqnl_msg_packet_hdr*>(mnl_attr_get_payload(attributes[NFQA_PACKET_HDR]));
    const auto* generic = static_cast<const nfgenmsg*>(mnl_nlmsg_get_payload(message));
    QueuedPacket packet;
    packet.queue = ntohs(generic->res_id);
    packet.id = ntohl(header->packet_id);
    packet.direction = header->hook == NF_INET_LOCAL_IN ? Direction::Incoming : Direction::Outgoing;
    if (attributes[NFQA_PAYLOAD] != nullptr) {
        packet.parsed = ParsePacket(
            static_cast<const std::uint8_t*>(mnl_attr_get_payload(attributes[NFQA_PAYLOAD])),
            mnl_attr_get_payload_len(attributes[NFQA_PAYLOAD]), &packet.flow);
    }
    onPacket(packet);
    return MNL_CB_OK;
}

}  // namespace

std::unique_ptr<PacketQueue> PacketQueue::Open(std::uint16_t first, std::uint16_t count,
                                               std::uint32_t maxLength, std::string* error) {
    std::unique_ptr<PacketQueue> queue(new PacketQueue());
    queue->m_buffer.resize(kBufferSize);
    queue->m_socket = mnl_socket_open2(NETLINK_NETFILTER, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (queue->m_socket == nullptr) {
        *error = std::string("cannot open a netfilter socket: ") + std::strerror(errno);
        return nullptr;
    }
    if (mnl_socket_bind(queue->m_socket, 0, MNL_SOCKET_AUTOPID) < 0) {
        *error = std::string("cannot bind the netfilter socket: ") + std::strerror(errno);
        return nullptr;
    }
    queue->m_portId = mnl_socket_get_portid(queue->m_socket);
    int fd = mnl_socket_get_fd(queue->m_socket);
    // Room for a burst of first packets; a lost message is a dropped packet, never a passed one.
    int room = 16 << 20;
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof(room));
    int on = 1;
    ::setsockopt(fd, SOL_NETLINK, NETLINK_NO_ENOBUFS, &on, sizeof(on));
    for (std::uint16_t i = 0; i < count; ++i) {
        std::uint16_t number = static_cast<std::uint16_t>(first + i);
        if (!queue->Configure(number, NFQNL_CFG_CMD_BIND, maxLength, error)) {
            return nullptr;
        }
        queue->m_queues.push_back(number);
    }
    return queue;
}

bool PacketQueue::Configure(std::uint16_t number, std::uint8_t command, std::uint32_t maxLength,
                            std::string* error) {
    char buffer[MNL_SOCKET_BUFFER_SIZE];
    nlmsghdr* message = nfq_nlmsg_put(buffer, NFQNL_MSG_CONFIG, number);
    nfq_nlmsg_cfg_put_cmd(message, AF_UNSPEC, command);
    if (command == NFQNL_CFG_CMD_BIND) {
        nfq_nlmsg_cfg_put_params(message, NFQNL_COPY_PACKET, kCopyRange);
        nfq_nlmsg_cfg_put_qmaxlen(message, maxLength);
        // Whole packets as the stack holds them (no segmentation for our sake); no fail-open:
        // a full queue drops, it never lets a first packet through unjudged.
        mnl_attr_put_u32(message, NFQA_CFG_FLAGS, htonl(NFQA_CFG_F_GSO));
        mnl_attr_put_u32(message, NFQA_CFG_MASK, htonl(NFQA_CFG_F_GSO));
    }
    message->nlmsg_flags |= NLM_F_ACK;
    if (mnl_socket_sendto(m_socket, message, message->nlmsg_len) < 0) {
        *error = std::string("cannot configure queue ") + std::to_string(number) + ": " +
                 std::strerror(errno);
        return false;
    }
    // The acknowledgement tells whether the kernel took it (refused when another reader bound
    // the queue).
    for (int attempt = 0; attempt < 1000; ++attempt) {
        ssize_t got = mnl_socket_recvfrom(m_socket, buffer, sizeof(buffer));
        if (got < 0 && errno == EAGAIN) {
            struct timespec pause {
                0, 1000000
            };
            ::nanosleep(&pause, nullptr);
            continue;
        }
        if (got < 0) {
            break;
        }
        int result =
            mnl_cb_run(buffer, static_cast<std::size_t>(got), 0, m_portId, nullptr, nullptr);
        if (result < 0) {
            // The kernel answers "not permitted" both to a caller without the right and for a
            // queue another reader has bound.
            int reason = errno;
            bool privileged = ::geteuid() == 0;
            *error = "queue " + std::to_string(number) + " refused: " + std::strerror(reason) +
                     (reason == EPERM && privileged ? " (another driver reads it)"
                      : reason == EPERM             ? " (live mode needs root)"
                      : reason == EBUSY             ? " (another driver reads it)"
                                                    : "");
            return false;
        }
        return true;
    }
    *error = "queue " + std::to_string(number) + ": no answer from the kernel";
    return false;
}

PacketQueue::~PacketQueue() {
    if (m_socket == nullptr) {
        return;
    }
    Flush();
    std::string ignored;
    for (std::uint16_t number : m_queues) {
        Configure(number, NFQNL_CFG_CMD_UNBIND, 0, &ignored);
    }
    mnl_socket_close(m_socket);
}

int PacketQueue::Fd() const {
    return mnl_socket_get_fd(m_socket);
}

bool PacketQueue::Drain(const std::function<void(const QueuedPacket&)>& onPacket) {
    for (;;) {
        ssize_t got = mnl_socket_recvfrom(m_socket, m_buffer.data(), m_buffer.size());
        if (got < 0) {
            // Nothing more waiting; a message lost to a full socket was a dropped packet.
            return errno == EAGAIN || errno == EINTR || errno == ENOBUFS;
        }
        // Messages of several queues may share one read; each names its own queue.
        mnl_cb_run(m_buffer.data(), static_cast<std::size_t>(got), 0, m_portId, OnMessage,
                   const_cast<PacketSink*>(&onPacket));
    }
}

void PacketQueue::Give(std::uint16_t queue, std::uint32_t id, Verdict verdict) {
    // Room for one more verdict (header, verdict and mark attributes: well under 128 bytes).
    if (m_verdicts.size() + 128 > kBatchSize) {
        Flush();
    }
    std::size_t offset = m_verdicts.size();
    m_verdicts.resize(offset + 128);
    nlmsghdr* message = nfq_nlmsg_put(m_verdicts.data() + offset, NFQNL_MSG_VERDICT, queue);
    switch (verdict) {
        case Verdict::Accept:
            nfq_nlmsg_verdict_put(message, static_cast<int>(id), NF_ACCEPT);
            break;
        case Verdict::Drop:
            nfq_nlmsg_verdict_put(message, static_cast<int>(id), NF_DROP);
            break;
        case Verdict::Reject:
            // The packet goes through the chain again with the mark its first rule answers.
            nfq_nlmsg_verdict_put(message, static_cast<int>(id), NF_REPEAT);
            nfq_nlmsg_verdict_put_mark(message, kRejectMark);
            break;
    }
    m_verdicts.resize(offset + NLMSG_ALIGN(message->nlmsg_len));
}

void PacketQueue::Flush() {
    if (!m_verdicts.empty()) {
        mnl_socket_sendto(m_socket, m_verdicts.data(), m_verdicts.size());
        m_verdicts.clear();
    }
}

}  // namespace qbrix::platform::live
