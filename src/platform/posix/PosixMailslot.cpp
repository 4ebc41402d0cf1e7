// Mailslots as Unix sequenced-packet sockets in the run directory: "\\.\mailslot\korvel" is the
// listening socket "<run>/mailslot/korvel". Each writer's handle is one connection, and its
// packets keep message boundaries as mailslots do. A connected pair is limited only by its
// buffer, not by the short queue the kernel allows a named datagram socket, so a writer's burst
// does not wait for the reader every few messages. Ownership of a name is an advisory lock on
// "<name>.lock" beside the socket, held while the reader's handle is open; the kernel drops it
// when its holder dies, so the next creator may remove the dead socket and bind a new one.
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <vector>

#include "platform/Mailslot.h"
#include "platform/Platform.h"
#include "platform/posix/PosixPlatform.h"

namespace qbrix::platform {

namespace {

constexpr std::string_view kPrefix = "\\\\.\\mailslot\\";

bool SameTextIgnoringCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        char x = a[i] >= 'A' && a[i] <= 'Z' ? static_cast<char>(a[i] - 'A' + 'a') : a[i];
        char y = b[i] >= 'A' && b[i] <= 'Z' ? static_cast<char>(b[i] - 'A' + 'a') : b[i];
        if (x != y) {
            return false;
        }
    }
    return true;
}

bool FillAddress(const std::string& path, sockaddr_un* address) {
    std::memset(address, 0, sizeof(*address));
    address->sun_family = AF_UNIX;
    if (path.size() >= sizeof(address->sun_path)) {
        return false;
    }
    std::memcpy(address->sun_path, path.c_str(), path.size() + 1);
    return true;
}

// Every message travels behind one marker byte, so an empty message (one byte on the wire) is
// told apart from the end of a writer's connection (nothing).
constexpr char kMarker = 'M';

class MailslotReader : public KernelObject {
  public:
    MailslotReader(int listener, int lock, std::string path, DWORD maxMessageSize, DWORD timeoutMs)
        : m_listener(listener),
          m_lock(lock),
          m_path(std::move(path)),
          m_maxMessageSize(maxMessageSize),
          m_timeoutMs(timeoutMs) {}

    // The listener, the wake-up for Closing and later every writer's connection wait in one
    // epoll set; false when the set could not be made.
    bool Start() {
        m_epoll = ::epoll_create1(EPOLL_CLOEXEC);
        m_wake = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        return m_epoll >= 0 && m_wake >= 0 && Watch(m_listener) && Watch(m_wake);
    }

    ~MailslotReader() override {
        ::close(m_listener);
        // The socket goes before the lock, so a new owner never sees ours.
        ::unlink(m_path.c_str());
        ::close(m_lock);
        for (int connection : m_connections) {
            ::close(connection);
        }
        if (m_epoll >= 0) {
            ::close(m_epoll);
        }
        if (m_wake >= 0) {
            ::close(m_wake);
        }
    }

    // Wakes a reader blocked in a read.
    void Closing() override {
        m_closed.store(true);
        std::uint64_t one = 1;
        (void)!::write(m_wake, &one, sizeof(one));
    }

    // Every queued message (at most `count`) in one call, from every writer's connection; the
    // wait comes only when none is queued, so a reader that keeps up with a burst makes one
    // call per batch.
    BOOL ReadMany(char* buffer, DWORD size, DWORD count, DWORD* lengths, DWORD* messagesRead) {
        std::vector<mmsghdr> headers(count);
        std::vector<iovec> parts(2 * static_cast<std::size_t>(count));
        std::vector<char> markers(count);
        for (DWORD i = 0; i < count; ++i) {
            parts[2 * i] = {&markers[i], 1};
            parts[2 * i + 1] = {buffer + static_cast<std::size_t>(i) * size, size};
        }
        bool forever = m_timeoutMs == MAILSLOT_WAIT_FOREVER;
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(m_timeoutMs);
        for (;;) {
            if (m_closed.load()) {
                SetLastError(ERROR_INVALID_HANDLE);
                return 0;
            }
            AcceptWriters();
            DWORD taken = Drain(headers.data(), parts.data(), count);
            if (taken > 0) {
                for (DWORD i = 0; i < taken; ++i) {
                    lengths[i] = headers[i].msg_len - 1;
                }
                *messagesRead = taken;
                return 1;
            }
            int waitMs = -1;
            if (!forever) {
                auto left = std::chrono::ceil<std::chrono::milliseconds>(
                    deadline - std::chrono::steady_clock::now());
                if (left.count() <= 0) {
                    SetLastError(ERROR_SEM_TIMEOUT);
                    return 0;
                }
                waitMs = static_cast<int>(left.count());
            }
            epoll_event ready[8];
            if (::epoll_wait(m_epoll, ready, 8, waitMs) < 0 && errno != EINTR) {
                SetLastError(ERROR_GEN_FAILURE);
                return 0;
            }
        }
    }

    BOOL Read(void* buffer, DWORD size, DWORD* bytesRead) {
        DWORD length = 0;
        DWORD taken = 0;
        if (!ReadMany(static_cast<char*>(buffer), size, 1, &length, &taken)) {
            return 0;
        }
        // The real length tells an over-long message from one that fits; it is gone either way.
        if (length > size || (m_maxMessageSize != 0 && length > m_maxMessageSize)) {
            SetLastError(ERROR_INSUFFICIENT_BUFFER);
            return 0;
        }
        *bytesRead = length;
        return 1;
    }

  private:
    bool Watch(int fd) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = fd;
        return ::epoll_ctl(m_epoll, EPOLL_CTL_ADD, fd, &event) == 0;
    }

    // Takes the connections of writers that opened the slot since the last read.
    void AcceptWriters() {
        for (;;) {
            int connection = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
            if (connection < 0) {
                if (errno == EINTR || errno == ECONNABORTED) {
                    continue;
                }
                // Out of descriptors: the listener leaves the wait set, so a waiting writer does
                // not keep the reader busy, until a connection ends or an accept works again.
                if (errno != EAGAIN && m_listening &&
                    ::epoll_ctl(m_epoll, EPOLL_CTL_DEL, m_listener, nullptr) == 0) {
                    m_listening = false;
                }
                return;
            }
            if (!m_listening && Watch(m_listener)) {
                m_listening = true;
            }
            if (!Watch(connection)) {
                ::close(connection);
                continue;
            }
            m_connections.push_back(connection);
        }
    }

    // Takes what is queued on the connections, starting after the one drained first last time
    // so that no writer starves the others. A connection whose writer closed and whose messages
    // are all taken reads as empty and is closed.
    DWORD Drain(mmsghdr* headers, iovec* parts, DWORD count) {
        DWORD taken = 0;
        std::size_t total = m_connections.size();
        std::vector<int> ended;
        for (std::size_t n = 0; n < total && taken < count; ++n) {
            int connection = m_connections[(m_next + n) % total];
            for (DWORD i = taken; i < count; ++i) {
                headers[i] = {};
                headers[i].msg_hdr.msg_iov = &parts[2 * i];
                headers[i].msg_hdr.msg_iovlen = 2;
            }
            int got;
            do {
                // MSG_TRUNC gives each message's real length, so an over-long one is recognised
                // instead of being delivered cut short.
                got = ::recvmmsg(connection, headers + taken, count - taken,
                                 MSG_DONTWAIT | MSG_TRUNC, nullptr);
            } while (got < 0 && errno == EINTR);
            if (got < 0) {
                if (errno != EAGAIN) {
                    ended.push_back(connection);
                }
                continue;
            }
            int kept = 0;
            while (kept < got && headers[taken + kept].msg_len > 0) {
                ++kept;
            }
            if (kept < got) {
                ended.push_back(connection);
            }
            taken += static_cast<DWORD>(kept);
        }
        if (total > 0) {
            m_next = (m_next + 1) % total;
        }
        for (int connection : ended) {
            ::close(connection);  // also leaves the epoll set
            std::erase(m_connections, connection);
        }
        if (!ended.empty() && !m_listening && Watch(m_listener)) {
            m_listening = true;
        }
        return taken;
    }

    int m_listener;
    int m_lock;
    std::string m_path;
    DWORD m_maxMessageSize;
    DWORD m_timeoutMs;
    int m_epoll = -1;
    int m_wake = -1;
    std::vector<int> m_connections;  // only the reading thread touches them
    std::size_t m_next = 0;
    bool m_listening = true;  // the listener is in the epoll set
    std::atomic<bool> m_closed{false};
};

class MailslotWriter : public KernelObject {
  public:
    explicit MailslotWriter(int socket) : m_socket(socket) {}
    ~MailslotWriter() override { ::close(m_socket); }

    BOOL Write(const void* data, DWORD size, DWORD* bytesWritten) {
        char marker = kMarker;
        iovec parts[2] = {{&marker, 1}, {const_cast<void*>(data), size}};
        msghdr message{};
        message.msg_iov = parts;
        message.msg_iovlen = 2;
        ssize_t sent;
        do {
            sent = ::sendmsg(m_socket, &message, MSG_NOSIGNAL);
        } while (sent < 0 && errno == EINTR);
        if (sent < 0) {
            switch (errno) {
                case EMSGSIZE:
                    SetLastError(ERROR_INVALID_PARAMETER);
                    break;
                case EPIPE:  // the reader closed the slot
                case ECONNRESET:
                case ECONNREFUSED:
                case ENOTCONN:
                    SetLastError(ERROR_FILE_NOT_FOUND);
                    break;
                default:
                    SetLastError(ERROR_GEN_FAILURE);
            }
            return 0;
        }
        *bytesWritten = static_cast<DWORD>(sent - 1);
        return 1;
    }

  private:
    int m_socket;
};

}  // namespace

std::string MailslotSocketPath(std::string_view name) {
    if (name.size() <= kPrefix.size() ||
        !SameTextIgnoringCase(name.substr(0, kPrefix.size()), kPrefix)) {
        return {};
    }
    std::string file;
    for (char c : name.substr(kPrefix.size())) {
        file.push_back(c == '/' || c == '\\' ? '_' : c);
    }
    return JoinPath(JoinPath(Current().RunDirectory(), "mailslot"), file);
}

HANDLE CreateMailslot(std::string_view name, DWORD maxMessageSize, DWORD readTimeoutMs) {
    std::string path = MailslotSocketPath(name);
    if (path.empty()) {
        SetLastError(ERROR_INVALID_NAME);
        return INVALID_HANDLE_VALUE;
    }
    sockaddr_un address;
    if (!FillAddress(path, &address)) {
        SetLastError(ERROR_FILENAME_EXCED_RANGE);
        return INVALID_HANDLE_VALUE;
    }
    // Every program may reach the socket, but only root and the administrators may open the lock
    // file that owns the name.
    const std::string& root = Current().Info().dataRoot;
    MakeDataDirectory(root, std::filesystem::path(path).parent_path().string());
    int lock = OpenDataFile(root, path + ".lock", O_RDWR | O_CREAT);
    if (lock < 0) {
        SetLastError(errno == EACCES ? ERROR_ACCESS_DENIED : ERROR_PATH_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    if (::flock(lock, LOCK_EX | LOCK_NB) != 0) {
        ::close(lock);
        SetLastError(ERROR_ALREADY_EXISTS);
        return INVALID_HANDLE_VALUE;
    }
    // Holding the lock, any socket left at the path belongs to a process that is gone.
    ::unlink(path.c_str());
    int socket = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (socket < 0) {
        ::close(lock);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return INVALID_HANDLE_VALUE;
    }
    if (::bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(socket, SOMAXCONN) != 0) {
        DWORD error = errno == EACCES ? ERROR_ACCESS_DENIED : ERROR_PATH_NOT_FOUND;
        ::close(socket);
        ::close(lock);
        SetLastError(error);
        return INVALID_HANDLE_VALUE;
    }
    SetDataFileMode(root, path, 0666);  // writers run as other users too, as every program may
    auto reader =
        std::make_shared<MailslotReader>(socket, lock, path, maxMessageSize, readTimeoutMs);
    if (!reader->Start()) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return INVALID_HANDLE_VALUE;
    }
    SetLastError(ERROR_SUCCESS);
    return Current().Handles().Add(std::move(reader));
}

namespace {

// The reader behind a mailslot handle; null with ERROR_INVALID_HANDLE when there is none (also
// when the platform is gone: the reader thread may outlive it at process exit).
auto FindReader(HANDLE mailslot) {
    auto reader = IsInstalled() ? Current().Handles().FindAs<MailslotReader>(mailslot) : nullptr;
    if (reader == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
    }
    return reader;
}

}  // namespace

BOOL ReadMailslot(HANDLE mailslot, void* buffer, DWORD size, DWORD* bytesRead) {
    if (bytesRead != nullptr) {
        *bytesRead = 0;
    }
    if (buffer == nullptr || bytesRead == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    auto reader = FindReader(mailslot);
    if (reader == nullptr) {
        return 0;
    }
    return reader->Read(buffer, size, bytesRead);
}

BOOL ReadMailslotMessages(HANDLE mailslot, void* buffer, DWORD size, DWORD count, DWORD* lengths,
                          DWORD* messagesRead) {
    if (messagesRead != nullptr) {
        *messagesRead = 0;
    }
    if (buffer == nullptr || lengths == nullptr || messagesRead == nullptr || count == 0) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    auto reader = FindReader(mailslot);
    if (reader == nullptr) {
        return 0;
    }
    return reader->ReadMany(static_cast<char*>(buffer), size, count, lengths, messagesRead);
}

HANDLE OpenMailslotWriter(std::string_view name) {
    std::string path = MailslotSocketPath(name);
    sockaddr_un address;
    if (path.empty() || !FillAddress(path, &address)) {
        SetLastError(ERROR_INVALID_NAME);
        return INVALID_HANDLE_VALUE;
    }
    int socket = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (socket < 0) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return INVALID_HANDLE_VALUE;
    }
    // Room for a burst of messages, so a writer hands over many per wake-up of the reader
    // instead of waiting after a few hundred (the system's maximum applies to other users).
    int room = 8 << 20;
    if (::setsockopt(socket, SOL_SOCKET, SO_SNDBUFFORCE, &room, sizeof(room)) != 0) {
        ::setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &room, sizeof(room));
    }
    if (::connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        DWORD error = errno == EACCES ? ERROR_ACCESS_DENIED : ERROR_FILE_NOT_FOUND;
        ::close(socket);
        SetLastError(error);
        return INVALID_HANDLE_VALUE;
    }
    SetLastError(ERROR_SUCCESS);
    return Current().Handles().Add(std::make_shared<MailslotWriter>(socket));
}

BOOL WriteMailslot(HANDLE writer, const void* data, DWORD size, DWORD* bytesWritten) {
    if (bytesWritten != nullptr) {
        *bytesWritten = 0;
    }
    auto object = Current().Handles().FindAs<MailslotWriter>(writer);
    if (object == nullptr || bytesWritten == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    return object->Write(data, size, bytesWritten);
}

}  // namespace qbrix::platform
