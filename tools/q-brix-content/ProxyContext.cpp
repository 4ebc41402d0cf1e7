#include "ProxyContext.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <cstring>

#include "platform/Kernel.h"
#include "platform/Mailslot.h"

namespace qbrix::contentproc {

namespace {
// The socket options of the kernel's redirection (SO_ORIGINAL_DST, IP6T_SO_ORIGINAL_DST).
constexpr int kOriginalDestination = 80;
}  // namespace

EventSender::~EventSender() {
    if (m_writer != nullptr) {
        platform::CloseHandle(m_writer);
    }
}

void EventSender::Send(const std::vector<Event>& events) {
    if (events.empty()) {
        return;
    }
    std::lock_guard<std::mutex> lock(m_lock);
    for (const Event& event : events) {
        events::ContentEvent record = ToRecord(event);
        // A writer whose reader went away fails; one new open finds a reader that came back.
        for (int attempt = 0; attempt < 2; ++attempt) {
            if (m_writer == nullptr) {
                platform::HANDLE writer =
                    platform::OpenMailslotWriter(events::kContentMailslotName);
                if (writer == platform::INVALID_HANDLE_VALUE) {
                    return;  // no control program: the events are lost, as the provider's are
                }
                m_writer = writer;
            }
            platform::DWORD written = 0;
            if (platform::WriteMailslot(m_writer, &record,
                                        sizeof(record), &written) &&
                written == sizeof(record)) {
                break;
            }
            platform::CloseHandle(m_writer);
            m_writer = nullptr;
        }
    }
}

boost::asio::awaitable<void> IdleWatch(const std::chrono::steady_clock::time_point& lastActivity) {
    boost::asio::steady_timer timer(co_await boost::asio::this_coro::executor);
    do {
        timer.expires_at(lastActivity + kIdleTime);
        auto [ec] = co_await timer.async_wait(boost::asio::as_tuple(boost::asio::use_awaitable));
        if (ec) {
            co_return;  // cancelled: the connection ended first
        }
    } while (std::chrono::steady_clock::now() - lastActivity < kIdleTime);
}

bool OriginalDestination(boost::asio::ip::tcp::socket& socket,
                         boost::asio::ip::tcp::endpoint& destination) {
    boost::system::error_code ec;
    boost::asio::ip::tcp::endpoint local = socket.local_endpoint(ec);
    if (ec) {
        return false;
    }
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    int level = local.address().is_v6() ? IPPROTO_IPV6 : IPPROTO_IP;
    if (::getsockopt(socket.native_handle(), level, kOriginalDestination, &address, &length) != 0) {
        return false;
    }
    if (address.ss_family == AF_INET) {
        const auto& v4 = reinterpret_cast<const sockaddr_in&>(address);
        boost::asio::ip::address_v4::bytes_type bytes;
        std::memcpy(bytes.data(), &v4.sin_addr, 4);
        destination = {boost::asio::ip::address_v4(bytes), ntohs(v4.sin_port)};
    } else if (address.ss_family == AF_INET6) {
        const auto& v6 = reinterpret_cast<const sockaddr_in6&>(address);
        boost::asio::ip::address_v6::bytes_type bytes;
        std::memcpy(bytes.data(), &v6.sin6_addr, 16);
        destination = {boost::asio::ip::address_v6(bytes), ntohs(v6.sin6_port)};
    } else {
        return false;
    }
    // A connection made to the processor itself was not redirected.
    return destination != local;
}

void MarkUpstream(ProxyContext& context, boost::asio::ip::tcp::socket& socket) {
    if (context.upstreamMark != 0) {
        std::uint32_t mark = context.upstreamMark;
        ::setsockopt(socket.native_handle(), SOL_SOCKET, SO_MARK, &mark, sizeof(mark));
    }
}

}  // namespace qbrix::contentproc
