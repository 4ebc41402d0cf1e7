#include "platform/posix/live/SocketOwners.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace qbrix::platform::live {

namespace {

constexpr std::size_t kRecentProcesses = 8;
constexpr std::size_t kMaxCachedSockets = 200000;
constexpr std::size_t kMaxProcesses = 512;
constexpr auto kLifeCheckInterval = std::chrono::milliseconds(100);

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
    for (auto& [pid, process] : m_processes) {
        ::close(process.directory);
    }
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

SocketOwners::Process* SocketOwners::OpenProcess(pid_t pid) {
    auto found = m_processes.find(pid);
    auto now = std::chrono::steady_clock::now();
    if (found != m_processes.end()) {
        Process& process = found->second;
        if (now - process.checked < kLifeCheckInterval) {
            return &process;
        }
        if (::faccessat(process.directory, "exe", F_OK, AT_SYMLINK_NOFOLLOW) == 0) {
            process.checked = now;
            return &process;
        }
        ForgetProcess(pid);  // ended; the number may belong to another process now
    }
    if (m_processes.size() >= kMaxProcesses) {
        for (auto& [number, process] : m_processes) {
            ::close(process.directory);
        }
        m_processes.clear();
    }
    std::string directory = "/proc/" + std::to_string(pid);
    Process process;
    process.directory = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (process.directory < 0) {
        return nullptr;
    }
    char link[4096];
    ssize_t size = ::readlinkat(process.directory, "exe", link, sizeof(link) - 1);
    if (size <= 0) {
        ::close(process.directory);
        return nullptr;  // a kernel thread, or gone
    }
    process.path.assign(link, static_cast<std::size_t>(size));
    process.checked = now;
    constexpr std::string_view kDeleted = " (deleted)";
    if (process.path.size() > kDeleted.size() && process.path.ends_with(kDeleted)) {
        process.path.resize(process.path.size() - kDeleted.size());  // replaced while running
    }
    return &m_processes.emplace(pid, std::move(process)).first->second;
}

void SocketOwners::ForgetProcess(pid_t pid) {
    if (auto found = m_processes.find(pid); found != m_processes.end()) {
        ::close(found->second.directory);
        m_processes.erase(found);
    }
}

bool SocketOwners::TryDescriptor(Process& process, int fd, std::uint64_t inode) {
    if (fd < 0) {
        return false;
    }
    char name[32];
    char link[64];
    std::snprintf(name, sizeof(name), "fd/%d", fd);
    ssize_t size = ::readlinkat(process.directory, name, link, sizeof(link) - 1);
    if (size <= 0) {
        return false;
    }
    link[size] = '\0';
    return SocketInode(link) == inode;
}

bool SocketOwners::ScanProcess(pid_t pid, int directory, std::uint64_t wanted) {
    int fdDirectory = directory >= 0 ? ::openat(directory, "fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC)
                                     : ::open(("/proc/" + std::to_string(pid) + "/fd").c_str(),
                                              O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* fds = fdDirectory >= 0 ? ::fdopendir(fdDirectory) : nullptr;
    if (fds == nullptr) {
        if (fdDirectory >= 0) {
            ::close(fdDirectory);
        }
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
            m_sockets[inode] = Holder{pid, std::atoi(entry->d_name)};
            if (inode == wanted) {
                break;
            }
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
            ScanProcess(pid, -1, 0);
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
    auto lookup = [this, inode]() -> Holder {
        auto found = m_sockets.find(inode);
        return found != m_sockets.end() ? found->second : Holder{};
    };
    // A listening socket or a flow seen before, while its process lives (an inode number
    // names one socket while it exists).
    if (Holder known = lookup(); known.pid != 0 && OpenProcess(known.pid) != nullptr) {
        return known.pid;
    }
    if (m_sockets.size() > kMaxCachedSockets) {
        m_sockets.clear();
    }
    // The processes that opened connections lately: first the descriptor their last socket
    // had and the next one, then all their descriptors.
    for (std::size_t i = 0; i < m_recent.size();) {
        pid_t recent = m_recent[i];
        Process* process = OpenProcess(recent);
        if (process == nullptr) {
            m_recent.erase(m_recent.begin() + static_cast<std::ptrdiff_t>(i));
            continue;
        }
        for (int fd :
             {process->lastFd, process->lastFd + 1, process->lastFd - 1, process->lastFd + 2}) {
            if (TryDescriptor(*process, fd, inode)) {
                m_sockets[inode] = Holder{recent, fd};
                process->lastFd = fd;
                Remember(recent);
                return recent;
            }
        }
        if (ScanProcess(recent, process->directory, inode) && lookup().pid == recent) {
            Holder found = lookup();
            process->lastFd = found.fd;
            Remember(recent);
            return recent;
        }
        ++i;
    }
    // Then every process.
    ScanAll();
    Holder found = lookup();
    if (found.pid != 0) {
        if (Process* process = OpenProcess(found.pid); process != nullptr) {
            process->lastFd = found.fd;
        }
        Remember(found.pid);
    }
    return found.pid;
}

bool SocketOwners::Find(const Flow& flow, Direction direction, Owner* owner) {
    std::uint64_t inode = 0;
    std::uint32_t uid = 0;
    if (!FindSocket(flow, direction, &inode, &uid)) {
        return false;
    }
    pid_t pid = FindProcess(inode);
    Process* process = pid != 0 ? OpenProcess(pid) : nullptr;
    if (process == nullptr) {
        return false;
    }
    owner->pid = pid;
    owner->uid = uid;
    owner->path = process->path;
    owner->image = owner->path.substr(owner->path.rfind('/') + 1);
    return true;
}

}  // namespace qbrix::platform::live
