// Mailslots as Unix datagram sockets in the run directory: "\\.\mailslot\korvel" is the socket
// "<run>/mailslot/korvel". Datagrams keep message boundaries as mailslots do. Ownership of a
// name is an advisory lock on "<name>.lock" beside the socket, held while the reader's handle is
// open; the kernel drops it when its holder dies, so the next creator may remove the dead
// socket and bind a new one.
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
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

class MailslotReader : public KernelObject {
  public:
    MailslotReader(int socket, int lock, std::string path, DWORD maxMessageSize, DWORD timeoutMs)
        : m_socket(socket),
          m_lock(lock),
          m_path(std::move(path)),
          m_maxMessageSize(maxMessageSize),
          m_timeoutMs(timeoutMs) {}

    ~MailslotReader() override {
        ::close(m_socket);
        // The socket goes before the lock, so a new owner never sees ours.
        ::unlink(m_path.c_str());
        ::close(m_lock);
    }

    // Wakes a reader blocked in Read: the shut-down socket reports end of input at once.
    void Closing() override {
        m_closed.store(true);
        ::shutdown(m_socket, SHUT_RDWR);
    }

    // Waits up to the slot's time-out for a message; false (and the error set) when none came.
    bool Wait() {
        int waitMs = m_timeoutMs == MAILSLOT_WAIT_FOREVER ? -1 : static_cast<int>(m_timeoutMs);
        pollfd wait{m_socket, POLLIN, 0};
        int ready;
        do {
            ready = ::poll(&wait, 1, waitMs);
        } while (ready < 0 && errno == EINTR);
        if (m_closed.load()) {
            SetLastError(ERROR_INVALID_HANDLE);
            return false;
        }
        if (ready == 0) {
            SetLastError(ERROR_SEM_TIMEOUT);
            return false;
        }
        return true;
    }

    // Every queued message (at most `count`) in one call; the wait comes only when none is
    // queued, so a reader that keeps up with a burst makes one call per batch.
    BOOL ReadMany(char* buffer, DWORD size, DWORD count, DWORD* lengths, DWORD* messagesRead) {
        if (m_closed.load()) {
            SetLastError(ERROR_INVALID_HANDLE);
            return 0;
        }
        std::vector<mmsghdr> headers(count);
        std::vector<iovec> parts(count);
        for (DWORD i = 0; i < count; ++i) {
            parts[i] = {buffer + static_cast<std::size_t>(i) * size, size};
            headers[i] = {};
            headers[i].msg_hdr.msg_iov = &parts[i];
            headers[i].msg_hdr.msg_iovlen = 1;
        }
        // MSG_TRUNC gives each datagram's real length, as in Read.
        auto receive = [&] {
            int taken;
            do {
                taken =
                    ::recvmmsg(m_socket, headers.data(), count, MSG_DONTWAIT | MSG_TRUNC, nullptr);
            } while (taken < 0 && errno == EINTR);
            return taken;
        };
        int taken = receive();
        if (taken < 0 && errno == EAGAIN) {
            if (!Wait()) {
                return 0;
            }
            taken = receive();
        }
        if (m_closed.load()) {
            SetLastError(ERROR_INVALID_HANDLE);
            return 0;
        }
        if (taken <= 0) {
            SetLastError(taken == 0 || errno == EAGAIN ? ERROR_SEM_TIMEOUT : ERROR_GEN_FAILURE);
            return 0;
        }
        for (int i = 0; i < taken; ++i) {
            lengths[i] = headers[i].msg_len;
        }
        *messagesRead = static_cast<DWORD>(taken);
        return 1;
    }

    BOOL Read(void* buffer, DWORD size, DWORD* bytesRead) {
        if (!Wait()) {
            return 0;
        }
        // MSG_TRUNC makes the call return the datagram's real length, so an over-long message
        // is recognised instead of being delivered cut short.
        ssize_t length = ::recv(m_socket, buffer, size, MSG_DONTWAIT | MSG_TRUNC);
        if (length < 0) {
            SetLastError(errno == EAGAIN ? ERROR_SEM_TIMEOUT : ERROR_GEN_FAILURE);
            return 0;
        }
        if (m_closed.load()) {
            SetLastError(ERROR_INVALID_HANDLE);
            return 0;
        }
        if (static_cast<std::size_t>(length) > size ||
            (m_maxMessageSize != 0 && static_cast<std::size_t>(length) > m_maxMessageSize)) {
            SetLastError(ERROR_INSUFFICIENT_BUFFER);
            return 0;
        }
        *bytesRead = static_cast<DWORD>(length);
        return 1;
    }

  private:
    int m_socket;
    int m_lock;
    std::string m_path;
    DWORD m_maxMessageSize;
    DWORD m_timeoutMs;
    std::atomic<bool> m_closed{false};
};

class MailslotWriter : public KernelObject {
  public:
    explicit MailslotWriter(int socket) : m_socket(socket) {}
    ~MailslotWriter() override { ::close(m_socket); }

    BOOL Write(const void* data, DWORD size, DWORD* bytesWritten) {
        ssize_t sent;
        do {
            sent = ::send(m_socket, data, size, MSG_NOSIGNAL);
        } while (sent < 0 && errno == EINTR);
        if (sent < 0) {
            switch (errno) {
                case EMSGSIZE:
                    SetLastError(ERROR_INVALID_PARAMETER);
                    break;
                case ECONNREFUSED:
                case ENOENT:
                    SetLastError(ERROR_FILE_NOT_FOUND);
                    break;
                default:
                    SetLastError(ERROR_GEN_FAILURE);
            }
            return 0;
        }
        *bytesWritten = static_cast<DWORD>(sent);
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
    int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socket < 0) {
        ::close(lock);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return INVALID_HANDLE_VALUE;
    }
    if (::bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        DWORD error = errno == EACCES ? ERROR_ACCESS_DENIED : ERROR_PATH_NOT_FOUND;
        ::close(socket);
        ::close(lock);
        SetLastError(error);
        return INVALID_HANDLE_VALUE;
    }
    SetDataFileMode(root, path, 0666);  // writers run as other users too, as every program may
    SetLastError(ERROR_SUCCESS);
    return Current().Handles().Add(
        std::make_shared<MailslotReader>(socket, lock, path, maxMessageSize, readTimeoutMs));
}

BOOL ReadMailslot(HANDLE mailslot, void* buffer, DWORD size, DWORD* bytesRead) {
    if (bytesRead != nullptr) {
        *bytesRead = 0;
    }
    // The reader thread may outlive the platform at process exit; it then only fails.
    if (!IsInstalled() || buffer == nullptr || bytesRead == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    auto reader = Current().Handles().FindAs<MailslotReader>(mailslot);
    if (reader == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    return reader->Read(buffer, size, bytesRead);
}

BOOL ReadMailslotMessages(HANDLE mailslot, void* buffer, DWORD size, DWORD count, DWORD* lengths,
                          DWORD* messagesRead) {
    if (messagesRead != nullptr) {
        *messagesRead = 0;
    }
    if (!IsInstalled() || buffer == nullptr || lengths == nullptr || messagesRead == nullptr ||
        count == 0) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    auto reader = Current().Handles().FindAs<MailslotReader>(mailslot);
    if (reader == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
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
    int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socket < 0) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return INVALID_HANDLE_VALUE;
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
