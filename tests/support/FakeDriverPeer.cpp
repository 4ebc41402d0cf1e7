#include "support/FakeDriverPeer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

namespace qbrix::test {

FakeDriverPeer::FakeDriverPeer(std::string socketPath, Script script)
    : m_path(std::move(socketPath)), m_script(std::move(script)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, m_path.c_str(), m_path.size() + 1);
    ::unlink(m_path.c_str());
    m_listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_listener < 0 ||
        ::bind(m_listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(m_listener, 4) != 0 || ::pipe2(m_stop, O_CLOEXEC) != 0) {
        throw std::runtime_error("cannot serve the fake driver socket");
    }
    m_thread = std::thread([this] { Serve(); });
}

FakeDriverPeer::~FakeDriverPeer() {
    char byte = 1;
    [[maybe_unused]] ssize_t ignored = ::write(m_stop[1], &byte, 1);
    m_thread.join();
    ::close(m_listener);
    ::close(m_stop[0]);
    ::close(m_stop[1]);
    ::unlink(m_path.c_str());
}

std::string FakeDriverPeer::Reply(bool success, platform::DWORD error, platform::DWORD bytes,
                                  const std::string& output) {
    platform::ReplyHeader header{platform::kReplyMagic, success ? 1u : 0u, error, bytes,
                                 static_cast<std::uint32_t>(output.size())};
    return std::string(reinterpret_cast<const char*>(&header), sizeof(header)) + output;
}

std::vector<FakeDriverPeer::Request> FakeDriverPeer::Requests() {
    std::lock_guard guard(m_lock);
    return m_requests;
}

void FakeDriverPeer::Serve() {
    int client = -1;
    std::string buffer;
    for (;;) {
        pollfd fds[2] = {{m_stop[0], POLLIN, 0}, {client >= 0 ? client : m_listener, POLLIN, 0}};
        if (::poll(fds, 2, -1) <= 0) {
            continue;
        }
        if (fds[0].revents != 0) {
            break;
        }
        if (client < 0) {
            client = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
            buffer.clear();
            continue;
        }
        char chunk[65536];
        ssize_t got = ::recv(client, chunk, sizeof(chunk), 0);
        if (got <= 0) {
            ::close(client);
            client = -1;
            continue;
        }
        buffer.append(chunk, static_cast<std::size_t>(got));
        while (buffer.size() >= sizeof(platform::RequestHeader)) {
            Request request{};
            std::memcpy(&request.header, buffer.data(), sizeof(request.header));
            std::size_t frame = sizeof(request.header) + request.header.inputSize;
            if (buffer.size() < frame) {
                break;
            }
            request.input = buffer.substr(sizeof(request.header), request.header.inputSize);
            buffer.erase(0, frame);
            {
                std::lock_guard guard(m_lock);
                m_requests.push_back(request);
            }
            std::optional<std::string> answer = m_script(request);
            if (!answer.has_value()) {
                ::close(client);
                client = -1;
                break;
            }
            if (!answer->empty()) {
                [[maybe_unused]] ssize_t sent =
                    ::send(client, answer->data(), answer->size(), MSG_NOSIGNAL);
            }
        }
    }
    if (client >= 0) {
        ::close(client);
    }
}

}  // namespace qbrix::test
