// Who owns a connection: the socket behind a flow (netlink sock_diag, by its addresses and
// ports: inode and user), then the process holding that socket (its /proc/PID/fd links, kept
// in a cache that is refreshed only around the processes asked about), then the process's
// executable.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <string>
#include <unordered_map>

#include "platform/posix/live/Flow.h"

namespace qbrix::platform::live {

struct Owner {
    pid_t pid = 0;
    std::uint32_t uid = 0;
    std::string path;   // the executable's full path
    std::string image;  // its file name, the application's key
};

class SocketOwners {
  public:
    SocketOwners();
    ~SocketOwners();
    SocketOwners(const SocketOwners&) = delete;
    SocketOwners& operator=(const SocketOwners&) = delete;

    // The owner of the local end of a flow's first packet. False when no socket or process
    // holds it any more (closed before it was identified, or the kernel's own traffic).
    bool Find(const Flow& flow, Direction direction, Owner* owner);

    // The socket's inode and user, by sock_diag. False when there is no such socket.
    bool FindSocket(const Flow& flow, Direction direction, std::uint64_t* inode,
                    std::uint32_t* uid);
    // The process holding the socket inode; 0 when none.
    pid_t FindProcess(std::uint64_t inode);

  private:
    struct Holder {
        pid_t pid = 0;
        int fd = -1;
    };
    // A process looked at lately: its /proc directory kept open (every call on it fails once
    // the process is gone, so a reused number is never mistaken for it), its executable, and
    // the descriptor of the socket last found in it (a program's next socket usually takes the
    // same number, or the next). It is checked for life at most every 100 ms: process numbers
    // come round again only after millions of processes.
    struct Process {
        int directory = -1;
        std::string path;
        int lastFd = -1;
        std::chrono::steady_clock::time_point checked;  // last seen alive
    };

    Process* OpenProcess(pid_t pid);
    void ForgetProcess(pid_t pid);
    bool TryDescriptor(Process& process, int fd, std::uint64_t inode);
    // Reads one process's descriptors into the cache, up to the wanted socket (0: all);
    // false when it is gone.
    bool ScanProcess(pid_t pid, int directory, std::uint64_t wanted);
    void ScanAll();
    void Remember(pid_t pid);

    int m_diag = -1;
    std::uint32_t m_sequence = 0;
    std::unordered_map<std::uint64_t, Holder> m_sockets;  // socket inode -> process, descriptor
    std::unordered_map<pid_t, Process> m_processes;
    std::deque<pid_t> m_recent;  // processes that opened connections lately, newest first
};

}  // namespace qbrix::platform::live
