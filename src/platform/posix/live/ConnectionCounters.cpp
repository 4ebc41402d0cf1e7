#include "platform/posix/live/ConnectionCounters.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <fstream>

extern "C" {
#include <libnetfilter_conntrack/libnetfilter_conntrack.h>
#include <libnetfilter_conntrack/libnetfilter_conntrack_tcp.h>
}

namespace qbrix::platform::live {

namespace {

constexpr char kAccounting[] = "/proc/sys/net/netfilter/nf_conntrack_acct";

std::string ReadSetting() {
    std::ifstream in(kAccounting);
    std::string value;
    in >> value;
    return value;
}

bool WriteSetting(const std::string& value) {
    std::ofstream out(kAccounting);
    out << value << "\n";
    return static_cast<bool>(out.flush());
}

Moved MovedOf(const nf_conntrack* entry, bool original) {
    return Moved{
        nfct_get_attr_u64(entry, original ? ATTR_ORIG_COUNTER_BYTES : ATTR_REPL_COUNTER_BYTES),
        nfct_get_attr_u64(entry, original ? ATTR_ORIG_COUNTER_PACKETS : ATTR_REPL_COUNTER_PACKETS)};
}

int OnConnection(nf_conntrack_msg_type, nf_conntrack* entry, void* data) {
    std::uint8_t protocol = nfct_get_attr_u8(entry, ATTR_ORIG_L4PROTO);
    if (protocol != IPPROTO_TCP && protocol != IPPROTO_UDP) {
        return NFCT_CB_CONTINUE;
    }
    Flow flow;
    flow.family = nfct_get_attr_u8(entry, ATTR_ORIG_L3PROTO);
    flow.protocol = protocol;
    if (flow.family == AF_INET) {
        std::uint32_t source = nfct_get_attr_u32(entry, ATTR_ORIG_IPV4_SRC);
        std::uint32_t destination = nfct_get_attr_u32(entry, ATTR_ORIG_IPV4_DST);
        std::memcpy(flow.source.data(), &source, 4);
        std::memcpy(flow.destination.data(), &destination, 4);
    } else if (flow.family == AF_INET6) {
        std::memcpy(flow.source.data(), nfct_get_attr(entry, ATTR_ORIG_IPV6_SRC), 16);
        std::memcpy(flow.destination.data(), nfct_get_attr(entry, ATTR_ORIG_IPV6_DST), 16);
    } else {
        return NFCT_CB_CONTINUE;
    }
    flow.sourcePort = ntohs(nfct_get_attr_u16(entry, ATTR_ORIG_PORT_SRC));
    flow.destinationPort = ntohs(nfct_get_attr_u16(entry, ATTR_ORIG_PORT_DST));
    (*static_cast<const CounterSink*>(data))(flow, MovedOf(entry, true), MovedOf(entry, false));
    return NFCT_CB_CONTINUE;
}

}  // namespace

std::unique_ptr<ConnectionCounters> ConnectionCounters::Open(std::string* error) {
    std::unique_ptr<ConnectionCounters> counters(new ConnectionCounters());
    counters->m_previousAccounting = ReadSetting();
    if (counters->m_previousAccounting.empty() || !WriteSetting("1")) {
        *error = std::string("cannot switch connection accounting on (") + kAccounting + ")";
        return nullptr;
    }
    counters->m_dump = nfct_open(CONNTRACK, 0);
    counters->m_events = nfct_open(CONNTRACK, NF_NETLINK_CONNTRACK_DESTROY);
    if (counters->m_dump == nullptr || counters->m_events == nullptr) {
        *error = std::string("cannot open connection tracking: ") + std::strerror(errno);
        return nullptr;
    }
    int fd = nfct_fd(counters->m_events);
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    int room = 4 << 20;
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof(room));
    return counters;
}

ConnectionCounters::~ConnectionCounters() {
    if (m_dump != nullptr) {
        nfct_close(m_dump);
    }
    if (m_events != nullptr) {
        nfct_close(m_events);
    }
    if (!m_previousAccounting.empty()) {
        WriteSetting(m_previousAccounting);
    }
}

int ConnectionCounters::Get(const Flow& flow, Moved* original, Moved* reply, bool* finished) {
    nf_conntrack* query = nfct_new();
    if (query == nullptr) {
        return -1;
    }
    nfct_set_attr_u8(query, ATTR_ORIG_L3PROTO, flow.family);
    nfct_set_attr_u8(query, ATTR_ORIG_L4PROTO, flow.protocol);
    if (flow.family == AF_INET) {
        std::uint32_t source = 0;
        std::uint32_t destination = 0;
        std::memcpy(&source, flow.source.data(), 4);
        std::memcpy(&destination, flow.destination.data(), 4);
        nfct_set_attr_u32(query, ATTR_ORIG_IPV4_SRC, source);
        nfct_set_attr_u32(query, ATTR_ORIG_IPV4_DST, destination);
    } else {
        nfct_set_attr(query, ATTR_ORIG_IPV6_SRC, flow.source.data());
        nfct_set_attr(query, ATTR_ORIG_IPV6_DST, flow.destination.data());
    }
    nfct_set_attr_u16(query, ATTR_ORIG_PORT_SRC, htons(flow.sourcePort));
    nfct_set_attr_u16(query, ATTR_ORIG_PORT_DST, htons(flow.destinationPort));
    struct Answer {
        bool found = false;
        Moved original, reply;
        bool finished = false;
    } answer;
    nfct_callback_register(
        m_dump, NFCT_T_ALL,
        [](nf_conntrack_msg_type, nf_conntrack* entry, void* data) -> int {
            auto* found = static_cast<Answer*>(data);
            found->found = true;
            found->original = MovedOf(entry, true);
            found->reply = MovedOf(entry, false);
            if (nfct_attr_is_set(entry, ATTR_TCP_STATE) > 0) {
                std::uint8_t state = nfct_get_attr_u8(entry, ATTR_TCP_STATE);
                found->finished = state >= TCP_CONNTRACK_FIN_WAIT && state <= TCP_CONNTRACK_CLOSE;
            }
            return NFCT_CB_CONTINUE;
        },
        &answer);
    int result = nfct_query(m_dump, NFCT_Q_GET, query);
    int error = errno;
    nfct_callback_unregister(m_dump);
    nfct_destroy(query);
    if (!answer.found) {
        return result < 0 && error != ENOENT ? -1 : 0;
    }
    *original = answer.original;
    *reply = answer.reply;
    *finished = answer.finished;
    return 1;
}

int ConnectionCounters::EndedFd() const {
    return nfct_fd(m_events);
}

void ConnectionCounters::DrainEnded(const CounterSink& sink) {
    nfct_callback_register(m_events, NFCT_T_DESTROY, OnConnection, const_cast<CounterSink*>(&sink));
    // Returns once nothing more is waiting (the socket does not block).
    nfct_catch(m_events);
    nfct_callback_unregister(m_events);
}

}  // namespace qbrix::platform::live
