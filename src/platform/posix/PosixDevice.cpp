// The driver device as a client of the driver's stream socket. One connection per handle; one
// framed exchange per control request, bounded in time so that a dead or misbehaving driver
// fails the request instead of hanging the program.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <vector>

#include "platform/Device.h"
#include "platform/DeviceFrames.h"
#include "platform/Platform.h"
#include "platform/SystemFiles.h"
#include "platform/Text.h"
#include "platform/posix/DriverProcess.h"

namespace qbrix::platform {

namespace {

using Clock = std::chrono::steady_clock;

std::atomic<int> g_replyTimeoutMs{2000};

constexpr char kNtDeviceName[] = "\\\\.\\q-Brix";
constexpr char k9xDeviceName[] = "\\\\.\\q-Brix.VXD";
constexpr char k9xDriverFile[] = "q-Brix.VXD";

class DriverDevice : public KernelObject {
  public:
    DriverDevice(int fd, pid_t loadedDriver) : m_fd(fd), m_loadedDriver(loadedDriver) {}
    ~DriverDevice() override {
        ::close(m_fd);
        // A dynamically loaded driver lives as long as the handle that loaded it.
        if (m_loadedDriver > 0) {
            EndDriverProcess(m_loadedDriver, DeviceReplyTimeoutMs());
        }
    }

    BOOL Exchange(DWORD code, const void* input, DWORD inputSize, void* output, DWORD outputSize,
                  DWORD* bytesReturned);

  private:
    bool SendAll(const void* data, std::size_t size, Clock::time_point deadline);
    bool ReceiveAll(void* data, std::size_t size, Clock::time_point deadline);
    bool WaitFor(short events, Clock::time_point deadline);

    int m_fd;
    pid_t m_loadedDriver;
    bool m_broken = false;
};

bool DriverDevice::WaitFor(short events, Clock::time_point deadline) {
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            return false;
        }
        pollfd entry{m_fd, events, 0};
        int ready = ::poll(&entry, 1, static_cast<int>(left.count()));
        if (ready > 0) {
            return true;
        }
        if (ready < 0 && errno != EINTR) {
            return false;
        }
    }
}

bool DriverDevice::SendAll(const void* data, std::size_t size, Clock::time_point deadline) {
    auto bytes = static_cast<const char*>(data);
    while (size > 0) {
        if (!WaitFor(POLLOUT, deadline)) {
            return false;
        }
        ssize_t sent = ::send(m_fd, bytes, size, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0) {
            if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) {
                continue;
            }
            return false;
        }
        bytes += sent;
        size -= static_cast<std::size_t>(sent);
    }
    return true;
}

bool DriverDevice::ReceiveAll(void* data, std::size_t size, Clock::time_point deadline) {
    auto bytes = static_cast<char*>(data);
    while (size > 0) {
        if (!WaitFor(POLLIN, deadline)) {
            return false;
        }
        ssize_t got = ::recv(m_fd, bytes, size, MSG_DONTWAIT);
        if (got == 0) {
            return false;  // the driver closed the connection
        }
        if (got < 0) {
            if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) {
                continue;
            }
            return false;
        }
        bytes += got;
        size -= static_cast<std::size_t>(got);
    }
    return true;
}

BOOL DriverDevice::Exchange(DWORD code, const void* input, DWORD inputSize, void* output,
                            DWORD outputSize, DWORD* bytesReturned) {
    if (bytesReturned != nullptr) {
        *bytesReturned = 0;
    }
    if (m_broken) {
        SetLastError(ERROR_GEN_FAILURE);
        return 0;
    }
    if (inputSize > kMaxFrameBody || outputSize > kMaxFrameBody ||
        (input == nullptr && inputSize != 0) || (output == nullptr && outputSize != 0)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(DeviceReplyTimeoutMs());
    RequestHeader request{kRequestMagic, code, inputSize, outputSize};
    ReplyHeader reply{};
    // Any failure from here on leaves the stream out of step: the handle is done for.
    m_broken = true;
    if (!SendAll(&request, sizeof(request), deadline) ||
        (inputSize > 0 && !SendAll(input, inputSize, deadline)) ||
        !ReceiveAll(&reply, sizeof(reply), deadline)) {
        SetLastError(ERROR_GEN_FAILURE);
        return 0;
    }
    if (reply.magic != kReplyMagic || reply.outputSize > outputSize ||
        (reply.bytesTransferred > inputSize && reply.bytesTransferred > outputSize)) {
        SetLastError(ERROR_INVALID_DATA);
        return 0;
    }
    if (reply.outputSize > 0 && !ReceiveAll(output, reply.outputSize, deadline)) {
        SetLastError(ERROR_GEN_FAILURE);
        return 0;
    }
    m_broken = false;
    if (bytesReturned != nullptr) {
        *bytesReturned = reply.bytesTransferred;
    }
    if (reply.success == 0) {
        SetLastError(reply.errorCode != 0 ? reply.errorCode : ERROR_GEN_FAILURE);
        return 0;
    }
    SetLastError(ERROR_SUCCESS);
    return 1;
}

HANDLE Fail(DWORD error) {
    SetLastError(error);
    return INVALID_HANDLE_VALUE;
}

}  // namespace

int DeviceReplyTimeoutMs() {
    return g_replyTimeoutMs.load();
}
void SetDeviceReplyTimeoutMs(int timeoutMs) {
    g_replyTimeoutMs.store(timeoutMs);
}

std::string DeviceSocketPath(const std::string& dataRoot) {
    return JoinPath(JoinPath(dataRoot, "run"), "q-Brix.sock");
}

std::string DeviceSocketPath() {
    Current().RunDirectory();  // created on demand
    return DeviceSocketPath(Current().Info().dataRoot);
}

HANDLE CreateFile(std::string_view name, DWORD, DWORD, void*, DWORD disposition,
                  DWORD flagsAndAttributes, HANDLE) {
    bool nt = EqualsIgnoreCase(name, kNtDeviceName);
    bool vxd = EqualsIgnoreCase(name, k9xDeviceName);
    if (!nt && !vxd) {
        return Fail(ERROR_FILE_NOT_FOUND);
    }
    if (nt && IsNtPlatform() == 0) {
        return Fail(ERROR_FILE_NOT_FOUND);  // the 9x family names its drivers by file
    }
    pid_t loaded = -1;
    if (vxd && disposition == CREATE_NEW) {
        if ((flagsAndAttributes & FILE_FLAG_DELETE_ON_CLOSE) == 0 || IsNtPlatform() == 1) {
            return Fail(ERROR_INVALID_PARAMETER);
        }
        // A driver that is already loaded is shared; otherwise its file is loaded now.
        if (int fd = ConnectDeviceSocket(DeviceSocketPath()); fd >= 0) {
            return Current().Handles().Add(std::make_shared<DriverDevice>(fd, -1));
        }
        DWORD error = 0;
        loaded = LaunchDriverProcess(JoinPath(GetCurrentDirectory(), k9xDriverFile),
                                     Current().Info().dataRoot, kDriverStartTimeoutMs, &error);
        if (loaded < 0) {
            return Fail(error == ERROR_FILE_NOT_FOUND ? ERROR_FILE_NOT_FOUND : ERROR_GEN_FAILURE);
        }
    } else if (disposition != OPEN_EXISTING) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    int fd = ConnectDeviceSocket(DeviceSocketPath());
    if (fd < 0) {
        if (loaded > 0) {
            EndDriverProcess(loaded, DeviceReplyTimeoutMs());
        }
        return Fail(errno == EACCES ? ERROR_ACCESS_DENIED : ERROR_FILE_NOT_FOUND);
    }
    return Current().Handles().Add(std::make_shared<DriverDevice>(fd, loaded));
}

BOOL DeviceIoControl(HANDLE device, DWORD code, const void* input, DWORD inputSize, void* output,
                     DWORD outputSize, DWORD* bytesReturned, void*) {
    auto object = Current().Handles().FindAs<DriverDevice>(device);
    if (object == nullptr) {
        if (bytesReturned != nullptr) {
            *bytesReturned = 0;
        }
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    return object->Exchange(code, input, inputSize, output, outputSize, bytesReturned);
}

}  // namespace qbrix::platform
