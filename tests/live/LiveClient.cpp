// qbrix-live-client: the program the live-mode tests copy under several names, so that each copy
// is a program of its own to the firewall.
//   qbrix-live-client connect tcp|udp ADDRESS PORT BYTES TIMEOUT_MS
//       sends BYTES and waits for the server's "ok COUNT"; prints "passed COUNT" (TCP: then, on a
//       second line, "retransmitted BYTES", what TCP sent again), "refused" or "timeout" and
//       exits 0, 3 or 4 (1 for any other failure)
//   qbrix-live-client serve tcp|udp|web ADDRESS PORT
//       prints "ready" once bound; a TCP peer's bytes are counted until it half-closes, then
//       answered "ok COUNT"; every UDP datagram is answered "ok SIZE"; "web" answers every HTTP
//       request with a small demo page. Runs until killed.
//   qbrix-live-client get ADDRESS PORT
//       fetches "/" over HTTP and prints the answer's body (the demo browser).
#include <arpa/inet.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Address {
    sockaddr_storage storage{};
    socklen_t size = 0;
};

bool Parse(const char* text, const char* port, Address* address) {
    auto* v4 = reinterpret_cast<sockaddr_in*>(&address->storage);
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&address->storage);
    int number = std::atoi(port);
    if (::inet_pton(AF_INET, text, &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(static_cast<std::uint16_t>(number));
        address->size = sizeof(sockaddr_in);
        return true;
    }
    if (::inet_pton(AF_INET6, text, &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(static_cast<std::uint16_t>(number));
        address->size = sizeof(sockaddr_in6);
        return true;
    }
    return false;
}

// Waits for the descriptor until the deadline; false on time-out.
bool WaitReadable(int fd, Clock::time_point deadline, short events = POLLIN) {
    for (;;) {
        auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) {
            return false;
        }
        pollfd entry{fd, events, 0};
        int ready = ::poll(&entry, 1, static_cast<int>(left));
        if (ready > 0) {
            return true;
        }
        if (ready < 0 && errno != EINTR) {
            return false;
        }
    }
}

int Outcome(int error) {
    if (error == ECONNREFUSED || error == ECONNRESET || error == EHOSTUNREACH ||
        error == ENETUNREACH || error == EPERM) {
        std::puts("refused");
        return 3;
    }
    std::puts("timeout");
    return 4;
}

int ConnectTcp(const Address& address, long bytes, Clock::time_point deadline) {
    int fd = ::socket(address.storage.ss_family, SOCK_STREAM | SOCK_NONBLOCK, 0);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address.storage), address.size) != 0 &&
        errno != EINPROGRESS) {
        return Outcome(errno);
    }
    if (!WaitReadable(fd, deadline, POLLOUT)) {
        return Outcome(ETIMEDOUT);
    }
    int error = 0;
    socklen_t size = sizeof(error);
    ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size);
    if (error != 0) {
        return Outcome(error);
    }
    std::vector<char> chunk(65536, 'x');
    long sent = 0;
    while (sent < bytes) {
        if (!WaitReadable(fd, deadline, POLLOUT)) {
            return Outcome(ETIMEDOUT);
        }
        ssize_t n =
            ::send(fd, chunk.data(), static_cast<std::size_t>(std::min<long>(bytes - sent, 65536)),
                   MSG_NOSIGNAL);
        if (n < 0 && errno != EAGAIN) {
            return Outcome(errno);
        }
        sent += n > 0 ? n : 0;
    }
    ::shutdown(fd, SHUT_WR);
    std::string answer;
    char buffer[64];
    while (WaitReadable(fd, deadline)) {
        ssize_t n = ::recv(fd, buffer, sizeof(buffer), 0);
        if (n <= 0) {
            break;
        }
        answer.append(buffer, static_cast<std::size_t>(n));
    }
    tcp_info info{};
    socklen_t infoSize = sizeof(info);
    ::getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &infoSize);
    ::close(fd);
    if (answer.rfind("ok ", 0) != 0) {
        return Outcome(ETIMEDOUT);
    }
    std::printf("passed %sretransmitted %llu\n", answer.c_str() + 3,
                static_cast<unsigned long long>(info.tcpi_bytes_retrans));
    return 0;
}

int ConnectUdp(const Address& address, long bytes, Clock::time_point deadline) {
    int fd = ::socket(address.storage.ss_family, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address.storage), address.size) != 0) {
        return Outcome(errno);
    }
    // Datagrams of up to 60,000 bytes (the headers stay far under 1 % of what is counted).
    std::vector<char> chunk(60000, 'u');
    long sent = 0;
    long answered = 0;
    char buffer[64];
    do {
        std::size_t size = static_cast<std::size_t>(std::min<long>(bytes - sent, 60000));
        if (::send(fd, chunk.data(), size, 0) < 0) {
            return Outcome(errno);
        }
        sent += static_cast<long>(size);
        // One answer per datagram keeps the exchange lossless without a flow control.
        if (!WaitReadable(fd, deadline)) {
            return Outcome(ETIMEDOUT);
        }
        ssize_t n = ::recv(fd, buffer, sizeof(buffer) - 1, 0);
        if (n < 0) {
            return Outcome(errno);
        }
        buffer[n] = '\0';
        answered += std::atol(buffer + 3);
    } while (sent < bytes);
    ::close(fd);
    std::printf("passed %ld\n", answered);
    return 0;
}

constexpr char kDemoPage[] =
    "<html><body><h1>Demo page</h1><p>News of the day.</p>"
    "<p><img src=\"banner.gif\"> a banner ad</p></body></html>\n";

// One HTTP request per connection: the demo page, then the connection closes.
void AnswerWeb(int peer) {
    std::string request;
    std::vector<char> data(4096);
    for (ssize_t n; request.find("\r\n\r\n") == std::string::npos &&
                    (n = ::recv(peer, data.data(), data.size(), 0)) > 0;) {
        request.append(data.data(), static_cast<std::size_t>(n));
    }
    std::string answer = "HTTP/1.1 200 OK\r\nContent-Type: text/html\r\nContent-Length: " +
                         std::to_string(sizeof(kDemoPage) - 1) + "\r\nConnection: close\r\n\r\n" +
                         kDemoPage;
    ::send(peer, answer.data(), answer.size(), MSG_NOSIGNAL);
}

int Get(const Address& address) {
    int fd = ::socket(address.storage.ss_family, SOCK_STREAM, 0);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address.storage), address.size) != 0) {
        std::puts(errno == ECONNREFUSED ? "refused" : "failed");
        return 3;
    }
    std::string request = "GET / HTTP/1.1\r\nHost: demo.example\r\nConnection: close\r\n\r\n";
    ::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
    std::string answer;
    std::vector<char> data(65536);
    for (ssize_t n; (n = ::recv(fd, data.data(), data.size(), 0)) > 0;) {
        answer.append(data.data(), static_cast<std::size_t>(n));
    }
    ::close(fd);
    std::size_t body = answer.find("\r\n\r\n");
    std::fputs(body == std::string::npos ? answer.c_str() : answer.c_str() + body + 4, stdout);
    return 0;
}

int Serve(const std::string& protocol, const Address& address) {
    bool web = protocol == "web";
    bool tcp = protocol == "tcp" || web;
    int fd = ::socket(address.storage.ss_family, tcp ? SOCK_STREAM : SOCK_DGRAM, 0);
    int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (address.storage.ss_family == AF_INET6) {
        ::setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof(on));  // IPv4 has its own server
    }
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address.storage), address.size) != 0 ||
        (tcp && ::listen(fd, 1024) != 0)) {
        std::perror("bind");
        return 1;
    }
    std::puts("ready");
    std::fflush(stdout);
    std::vector<char> buffer(65536);
    for (;;) {
        if (!tcp) {
            sockaddr_storage peer{};
            socklen_t size = sizeof(peer);
            ssize_t n = ::recvfrom(fd, buffer.data(), buffer.size(), 0,
                                   reinterpret_cast<sockaddr*>(&peer), &size);
            if (n >= 0) {
                std::string answer = "ok " + std::to_string(n) + "\n";
                ::sendto(fd, answer.data(), answer.size(), 0, reinterpret_cast<sockaddr*>(&peer),
                         size);
            }
            continue;
        }
        int peer = ::accept(fd, nullptr, nullptr);
        if (peer < 0) {
            continue;
        }
        std::thread([peer, web] {
            if (web) {
                AnswerWeb(peer);
                ::close(peer);
                return;
            }
            std::vector<char> data(65536);
            long total = 0;
            for (ssize_t n; (n = ::recv(peer, data.data(), data.size(), 0)) > 0;) {
                total += n;
            }
            std::string answer = "ok " + std::to_string(total) + "\n";
            ::send(peer, answer.data(), answer.size(), MSG_NOSIGNAL);
            ::close(peer);
        }).detach();
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    Address address;
    if (args.size() == 6 && args[0] == "connect" &&
        Parse(args[2].c_str(), args[3].c_str(), &address)) {
        long bytes = std::atol(args[4].c_str());
        Clock::time_point deadline =
            Clock::now() + std::chrono::milliseconds(std::atol(args[5].c_str()));
        return args[1] == "tcp" ? ConnectTcp(address, bytes, deadline)
                                : ConnectUdp(address, std::max(bytes, 1L), deadline);
    }
    if (args.size() == 4 && args[0] == "serve" &&
        Parse(args[2].c_str(), args[3].c_str(), &address)) {
        return Serve(args[1], address);
    }
    if (args.size() == 3 && args[0] == "get" && Parse(args[1].c_str(), args[2].c_str(), &address)) {
        return Get(address);
    }
    std::fputs(
        "usage: qbrix-live-client connect tcp|udp ADDRESS PORT BYTES TIMEOUT_MS\n"
        "       qbrix-live-client serve tcp|udp|web ADDRESS PORT\n"
        "       qbrix-live-client get ADDRESS PORT\n",
        stderr);
    return 2;
}
