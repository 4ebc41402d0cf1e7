#include "DriverServer.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "platform/Device.h"
#include "platform/DeviceFrames.h"
#include "platform/Platform.h"
#include "platform/posix/PosixPlatform.h"

namespace qbrix::refdriver {

namespace {

using Clock = ReferenceDriver::Clock;
constexpr std::size_t kMaxControlLine = 4096;

std::atomic<int> g_signalPipe{-1};

void OnSignal(int) {
    int fd = g_signalPipe.load();
    if (fd >= 0) {
        char byte = 1;
        [[maybe_unused]] ssize_t ignored = ::write(fd, &byte, 1);
    }
}

bool MakeAddress(const std::string& path, sockaddr_un* address) {
    *address = sockaddr_un{};
    address->sun_family = AF_UNIX;
    if (path.size() >= sizeof(address->sun_path)) {
        return false;
    }
    std::memcpy(address->sun_path, path.c_str(), path.size() + 1);
    return true;
}

int Connect(const std::string& path) {
    sockaddr_un address{};
    if (!MakeAddress(path, &address)) {
        return -1;
    }
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// A socket already served by a live process is refused; a stale file is replaced. Only root and
// the administrators (or, on a user's own data root, that user) may connect, whatever the umask.
int Listen(const std::string& dataRoot, const std::string& path, std::string* error) {
    sockaddr_un address{};
    if (!MakeAddress(path, &address)) {
        *error = "socket path too long: " + path;
        return -1;
    }
    if (int probe = Connect(path); probe >= 0) {
        ::close(probe);
        *error = path + " is already served by another driver";
        return -1;
    }
    ::unlink(path.c_str());
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(fd, 16) != 0) {
        *error = "cannot serve " + path + ": " + std::strerror(errno);
        if (fd >= 0) {
            ::close(fd);
        }
        return -1;
    }
    platform::SetDataFileMode(dataRoot, path);
    return fd;
}

bool SendAll(int fd, const std::string& data) {
    std::size_t sent = 0;
    while (sent < data.size()) {
        ssize_t n = ::send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        sent += static_cast<std::size_t>(n);
    }
    return true;
}

std::string ReplyFrame(const Reply& reply) {
    platform::ReplyHeader header{platform::kReplyMagic, reply.success ? 1u : 0u, reply.error,
                                 reply.bytesTransferred,
                                 static_cast<std::uint32_t>(reply.output.size())};
    return std::string(reinterpret_cast<const char*>(&header), sizeof(header)) + reply.output;
}

}  // namespace

DriverServer::DriverServer(ReferenceDriver& driver, std::string dataRoot)
    : m_driver(driver), m_dataRoot(std::move(dataRoot)), m_scenarioStart(Clock::now()) {}

DriverServer::~DriverServer() {
    Close();
}

std::string DriverServer::DeviceSocket() const {
    return platform::DeviceSocketPath(m_dataRoot);
}
std::string DriverServer::ControlSocket() const {
    return platform::JoinPath(platform::JoinPath(m_dataRoot, "run"), "q-Brix.ctl");
}
std::string DriverServer::PidFile() const {
    return platform::JoinPath(platform::JoinPath(m_dataRoot, "run"), "q-brix-driver.pid");
}

int DriverServer::Open(std::string* error) {
    platform::MakeRunDirectory(m_dataRoot);
    if (::pipe2(m_wake, O_CLOEXEC | O_NONBLOCK) != 0) {
        *error = "cannot create a pipe";
        return 1;
    }
    m_deviceListener = Listen(m_dataRoot, DeviceSocket(), error);
    if (m_deviceListener < 0) {
        return 1;
    }
    m_controlListener = Listen(m_dataRoot, ControlSocket(), error);
    if (m_controlListener < 0) {
        ::close(m_deviceListener);
        m_deviceListener = -1;
        ::unlink(DeviceSocket().c_str());
        return 1;
    }
    WritePidFile();
    return 0;
}

void DriverServer::WritePidFile() const {
    // Readable by the administrators, written by the driver alone.
    unsigned mode = platform::AccessOf(m_dataRoot).shared ? 0640 : 0600;
    platform::WriteDataFile(m_dataRoot, PidFile(), std::to_string(::getpid()) + "\n", mode);
}

void DriverServer::SetScenario(std::vector<ScenarioStep> steps) {
    m_steps = std::move(steps);
    m_nextStep = 0;
    m_scenarioStart = Clock::now();
}

void DriverServer::AddSource(PollSource* source) {
    m_sources.push_back(source);
}

void DriverServer::Stop() {
    char byte = 1;
    [[maybe_unused]] ssize_t ignored = ::write(m_wake[1], &byte, 1);
}

void DriverServer::PlayDueSteps() {
    Clock::time_point now = Clock::now();
    while (m_nextStep < m_steps.size() && m_scenarioStart + m_steps[m_nextStep].at <= now) {
        m_driver.Inject(m_steps[m_nextStep].connection, now);
        ++m_nextStep;
    }
    m_driver.Tick(now);
}

bool DriverServer::ServeDevice(Client& client) {
    for (;;) {
        if (client.buffer.size() < sizeof(platform::RequestHeader)) {
            return true;
        }
        platform::RequestHeader header{};
        std::memcpy(&header, client.buffer.data(), sizeof(header));
        if (header.magic != platform::kRequestMagic) {
            return false;  // not our protocol: nothing sensible can be answered
        }
        if (header.inputSize > platform::kMaxFrameBody ||
            header.outputCapacity > platform::kMaxFrameBody) {
            SendAll(client.fd, ReplyFrame(Reply{false, platform::ERROR_INVALID_PARAMETER, 0, {}}));
            return false;
        }
        std::size_t frame = sizeof(header) + header.inputSize;
        if (client.buffer.size() < frame) {
            return true;
        }
        Reply reply = m_driver.Handle(
            header.code, std::string_view(client.buffer).substr(sizeof(header), header.inputSize),
            header.outputCapacity);
        client.buffer.erase(0, frame);
        if (!SendAll(client.fd, ReplyFrame(reply))) {
            return false;
        }
    }
}

bool DriverServer::ServeControl(Client& client) {
    for (;;) {
        std::size_t end = client.buffer.find('\n');
        if (end == std::string::npos) {
            return client.buffer.size() <= kMaxControlLine;
        }
        std::string line = client.buffer.substr(0, end);
        client.buffer.erase(0, end + 1);
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        std::string answer;
        if (line.rfind("connect ", 0) == 0) {
            Connection connection;
            std::string reason;
            answer = ParseConnection(std::string_view(line).substr(8), &connection, &reason) == 0
                         ? "ok " + m_driver.Inject(connection)
                         : "error " + reason;
        } else if (line == "status") {
            answer = "ok " + m_driver.Status();
        } else {
            answer = "error unknown command (connect ..., status)";
        }
        if (!SendAll(client.fd, answer + "\n")) {
            return false;
        }
    }
}

void DriverServer::Run() {
    g_signalPipe.store(m_wake[1]);
    struct sigaction action {};
    action.sa_handler = OnSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    ::signal(SIGPIPE, SIG_IGN);

    for (;;) {
        PlayDueSteps();
        Clock::time_point next = m_driver.NextDeadline();
        for (PollSource* source : m_sources) {
            next = std::min(next, source->Tick(Clock::now()));
        }
        if (m_nextStep < m_steps.size()) {
            next = std::min(next, m_scenarioStart + m_steps[m_nextStep].at);
        }
        int timeoutMs = 1000;
        if (next != Clock::time_point::max()) {
            auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(next - Clock::now()).count();
            timeoutMs = static_cast<int>(std::clamp<long long>(left + 1, 0, 1000));
        }
        std::vector<pollfd> fds = {
            {m_wake[0], POLLIN, 0}, {m_deviceListener, POLLIN, 0}, {m_controlListener, POLLIN, 0}};
        std::vector<PollSource*> owners;
        for (PollSource* source : m_sources) {
            for (int fd : source->Fds()) {
                fds.push_back({fd, POLLIN, 0});
                owners.push_back(source);
            }
        }
        std::size_t firstClient = fds.size();
        for (const Client& client : m_clients) {
            fds.push_back({client.fd, POLLIN, 0});
        }
        int ready = ::poll(fds.data(), fds.size(), timeoutMs);
        if (ready < 0 && errno != EINTR) {
            break;
        }
        if (ready <= 0) {
            continue;
        }
        if (fds[0].revents != 0) {
            break;
        }
        for (int listener = 1; listener <= 2; ++listener) {
            if ((fds[listener].revents & POLLIN) == 0) {
                continue;
            }
            int fd = ::accept4(fds[listener].fd, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) {
                // A reader that stops reading must not stall the driver for long.
                timeval timeout{2, 0};
                ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
                m_clients.push_back(Client{fd, listener == 2, {}});
            }
        }
        for (std::size_t i = 0; i < owners.size(); ++i) {
            if (fds[3 + i].revents != 0) {
                owners[i]->Ready(fds[3 + i].fd);
            }
        }
        std::vector<int> closed;
        for (std::size_t i = firstClient; i < fds.size(); ++i) {
            if (fds[i].revents == 0) {
                continue;
            }
            Client& client = m_clients[i - firstClient];
            char chunk[65536];
            ssize_t got = ::recv(client.fd, chunk, sizeof(chunk), MSG_DONTWAIT);
            bool keep = got > 0 || (got < 0 && (errno == EAGAIN || errno == EINTR));
            if (got > 0) {
                client.buffer.append(chunk, static_cast<std::size_t>(got));
                keep = client.control ? ServeControl(client) : ServeDevice(client);
            }
            if (!keep) {
                closed.push_back(client.fd);
            }
        }
        for (int fd : closed) {
            ::close(fd);
            std::erase_if(m_clients, [fd](const Client& client) { return client.fd == fd; });
        }
    }
    g_signalPipe.store(-1);
    Close();
}

void DriverServer::Close() {
    for (const Client& client : m_clients) {
        ::close(client.fd);
    }
    m_clients.clear();
    if (m_deviceListener >= 0) {
        ::close(m_deviceListener);
        ::unlink(DeviceSocket().c_str());
        m_deviceListener = -1;
    }
    if (m_controlListener >= 0) {
        ::close(m_controlListener);
        ::unlink(ControlSocket().c_str());
        m_controlListener = -1;
        ::unlink(PidFile().c_str());
    }
    for (int& fd : m_wake) {
        if (fd >= 0) {
            ::close(fd);
            fd = -1;
        }
    }
}

int SendControlCommand(const std::string& dataRoot, const std::string& command,
                       std::string* answer) {
    std::string path = platform::JoinPath(platform::JoinPath(dataRoot, "run"), "q-Brix.ctl");
    int fd = Connect(path);
    if (fd < 0) {
        *answer = "no driver serves " + path;
        return 1;
    }
    timeval timeout{5, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    std::string line;
    if (SendAll(fd, command + "\n")) {
        char c = 0;
        while (::recv(fd, &c, 1, 0) == 1 && c != '\n') {
            line.push_back(c);
        }
    }
    ::close(fd);
    if (line.empty()) {
        *answer = "the driver did not answer";
        return 1;
    }
    *answer = line;
    return 0;
}

}  // namespace qbrix::refdriver
