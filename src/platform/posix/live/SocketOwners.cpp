#include "platform/posix/live/SocketOwners.h"

#include <dirent.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

namespace qbrix::platform::live {

namespace {

constexpr std::size_t kRecentProcesses = 8;
constexpr std::size_t kMaxCachedSockets = 200000;

std::uint64_t SocketInode(const char* link) {
    // "socket:[12345]"
    std::string_view text(link);
    if (text.rfind("socket:[", 0) != 0 || text.back() != ']') {
        return 0;
    }
    std::uint64_t inode = 0;
    for (char c : text.substr(8, text.size() - 9)) {
        if (c < '0' || c > '9') {
            return 0;
        }
        inode = inode * 10 + static_cast<std::uint64_t>(c - '0');
    }
    return inode;
}

pid_t ProcessNumber(const char* name) {
    pid_t pid = 0;
    for (const char* c = name; *c != '\0'; ++c) {
        if (*c < '0' || *c > '9') {
            return 0;
        }
        pid = pid * 10 + (*c - '0');
    }
    return pid;
}

void CopyAddress(std::uint32_t (&to)[4], const std::array<std::uint8_t, 16>& from) {
    std::memcpy(to, from.data(), sizeof(to));
}

}  // namespace

SocketOwners::SocketOwners() {
    m_diag = ::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    timeval timeout{1, 0};
    ::setsockopt(m_diag, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
}

SocketOwners::~SocketOwners() {
    if (m_diag >= 0) {
        ::close(m_diag);
    }
}

bool SocketOwners::FindSocket(const Flow& flow, Direction direction, std::uint64_t* inode,
                              std::uint32_t* uid) {
    if (m_diag < 0) {
        return false;
    }
    struct {
        nlmsghdr header;
        inet_diag_req_v2 request;
    } message{};
    message.header.nlmsg_len = sizeof(message);
    message.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    message.header.nlmsg_flags = NLM_F_REQUEST;
    message.header.nlmsg_seq = ++m_sequence;
    message.request.sdiag_family = flow.family;
    message.request.sdiag_protocol = flow.protocol;
    message.request.idiag_states = ~0u;
    message.request.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    message.request.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    bool outgoing = direction == Direction::Outgoing;
    const auto& local = outgoing ? flow.source : flow.destination;
    const auto& remote = outgoing ? flow.destination : flow.source;
    std::uint16_t localPort = outgoing ? flow.sourcePort : flow.destinationPort;
    std::uint16_t remotePort = outgoing ? flow.destinationPort : flow.sourcePort;
    inet_diag_sockid& id = message.request.id;
    if (flow.protocol == IPPROTO_UDP) {
        // The kernel looks UDP sockets up as for a packet arriving from src to dst.
        CopyAddress(id.idiag_src, remote);
        CopyAddress(id.idiag_dst, local);
        id.idiag_sport = htons(remotePort);
        id.idiag_dport = htons(localPort);
    } else {
        CopyAddress(id.idiag_src, local);
        CopyAddress(id.idiag_dst, remote);
        id.idiag_sport = htons(localPort);
        id.idiag_dport = htons(remotePort);
    }
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    if (::sendto(m_diag, &message, sizeof(message), 0, reinterpret_cast<sockaddr*>(&kernel),
                 sizeof(kernel)) < 0) {
        return false;
    }
    alignas(nlmsghdr) char buffer[8192];
    for (;;) {
        ssize_t got = ::recv(m_diag, buffer, sizeof(buffer), 0);
        if (got < 0) {
            return false;
        }
        for (auto* header = reinterpret_cast<nlmsghdr*>(buffer);
             NLMSG_OK(header, static_cast<unsigned>(got)); header = NLMSG_NEXT(header, got)) {
            if (header->nlmsg_seq != m_sequence) {
                continue;  // an answer to an earlier, timed-out question
            }
            if (header->nlmsg_type != SOCK_DIAG_BY_FAMILY) {
                return false;  // an error: no such socket
            }
            const auto* found = static_cast<const inet_diag_msg*>(NLMSG_DATA(header));
            *inode = found->idiag_inode;
            *uid = found->idiag_uid;
            return *inode != 0;
        }
    }
}

bool SocketOwners::ScanProcess(pid_t pid) {
    std::string directory = "/proc/" + std::to_string(pid) + "/fd";
    DIR* fds = ::opendir(directory.c_str());
    if (fds == nullptr) {
        return false;
    }
    char link[64];
    while (dirent* entry = ::readdir(fds)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        ssize_t size = ::readlinkat(::dirfd(fds), entry->d_name, link, sizeof(link) - 1);
        if (size <= 0) {
            continue;
        }
        link[size] = '\0';
        if (std::uint64_t inode = SocketInode(link); inode != 0) {
            m_sockets[inode] = pid;
        }
    }
    ::closedir(fds);
    return true;
}

void SocketOwners::ScanAll() {
    m_sockets.clear();
    DIR* proc = ::opendir("/proc");
    if (proc == nullptr) {
        return;
    }
    while (dirent* entry = ::readdir(proc)) {
        if (pid_t pid = ProcessNumber(entry->d_name); pid > 0) {
            ScanProcess(pid);
        }
    }
    ::closedir(proc);
}

void SocketOwners::Remember(pid_t pid) {
    auto known = std::find(m_recent.begin(), m_recent.end(), pid);
    if (known != m_recent.end()) {
        m_recent.erase(known);
    }
    m_recent.push_front(pid);
    if (m_recent.size() > kRecentProcesses) {
        m_recent.pop_back();
    }
}

pid_t SocketOwners::FindProcess(std::uint64_t inode) {
    auto lookup = [this, inode]() -> pid_t {
        auto found = m_sockets.find(inode);
        return found != m_sockets.end() ? found->second : 0;
    };
    // A listening socket or a flow seen before; then the processes that opened connections
    // lately (a program opening many connections is found in its own descriptors); then all.
    if (pid_t pid = lookup(); pid != 0 && ::kill(pid, 0) == 0) {
        return pid;
    }
    if (m_sockets.size() > kMaxCachedSockets) {
        m_sockets.clear();
    }
    for (std::size_t i = 0; i < m_recent.size();) {
        pid_t recent = m_recent[i];
        if (!ScanProcess(recent)) {
            m_recent.erase(m_recent.begin() + static_cast<std::ptrdiff_t>(i));
            continue;
        }
        if (lookup() == recent) {
            Remember(recent);
            return recent;
        }
        ++i;
    }
    ScanAll();
    pid_t pid = lookup();
    if (pid != 0) {
        Remember(pid);
    }
    return pid;
}

bool SocketOwners::Find(const Flow& flow, Direction direction, Owner* owner) {
    std::uint64_t inode = 0;
    std::uint32_t uid = 0;
    if (!FindSocket(flow, direction, &inode, &uid)) {
        return false;
    }
    pid_t pid = FindProcess(inode);
    if (pid == 0) {
        return false;
    }
    char link[4096];
    std::string exe = "/proc/" + std::to_string(pid) + "/exe";
    ssize_t size = ::readlink(exe.c_str(), link, sizeof(link) - 1);
    if (size <= 0) {
        return false;  // a kernel thread, or gone
    }
    std::string path(link, static_cast<std::size_t>(size));
    constexpr std::string_view kDeleted = " (deleted)";
    if (path.size() > kDeleted.size() && path.ends_with(kDeleted)) {
        path.resize(path.size() - kDeleted.size());  // replaced on disk while running
    }
    owner->pid = pid;
    owner->uid = uid;
    owner->image = path.substr(path.rfind('/') + 1);
    owner->path = std::move(path);
    return true;
}

}  // namespace qbrix::platform::live
