// What every connection of the processor shares: the I/O context, the workers that run rules and
// scans, the policy and the event channel.
#pragma once

#include <boost/asio/associated_executor.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ContentPolicy.h"
#include "ContentWork.h"
#include "platform/Handles.h"

namespace qbrix::contentproc {

// Sends content events to the control program's mailslot. A control program that is not
// running loses them, as it would lose the provider's.
class EventSender {
  public:
    EventSender() = default;
    ~EventSender();
    EventSender(const EventSender&) = delete;
    EventSender& operator=(const EventSender&) = delete;
    void Send(const std::vector<Event>& events);

  private:
    std::mutex m_lock;
    platform::HANDLE m_writer = nullptr;  // opened on demand
};

struct ProxyContext {
    boost::asio::io_context& io;
    boost::asio::thread_pool& workers;
    PolicyWatcher& policies;
    ContentWorker& worker;
    EventSender& events;
    // Set on the processor's own connections to servers, so the redirection and the firewall
    // let them pass (0: none).
    std::uint32_t upstreamMark = 0;
    // Where the processor listens (connections to these are never passed on again).
    std::vector<boost::asio::ip::tcp::endpoint> ownEndpoints;
};

// Runs `work` on the worker pool and resumes the caller on its own executor with the result.
template <typename Work>
auto OnWorkers(ProxyContext& context, Work work) {
    using Result = decltype(work());
    return boost::asio::async_initiate<const boost::asio::use_awaitable_t<>, void(Result)>(
        [&context](auto handler, Work work) {
            boost::asio::post(
                context.workers, [handler = std::move(handler), work = std::move(work)]() mutable {
                    Result result = work();
                    auto executor = boost::asio::get_associated_executor(handler);
                    boost::asio::post(executor, [handler = std::move(handler),
                                                 result = std::move(result)]() mutable {
                        std::move(handler)(std::move(result));
                    });
                });
        },
        boost::asio::use_awaitable, std::move(work));
}

// A connection (a tunnel, a mail session) in which nothing moves for this long is closed: a peer
// may keep one open while it is used, not hold the processor's resources forever.
inline constexpr auto kIdleTime = std::chrono::minutes(10);

// Ends when nothing has moved for kIdleTime since `lastActivity` (which the connection's loops
// update); cancelled, it ends at once. Awaited with `||` beside the connection's loops, it ends
// them.
boost::asio::awaitable<void> IdleWatch(const std::chrono::steady_clock::time_point& lastActivity);

// The address a redirected connection was meant for; false when it was not redirected.
bool OriginalDestination(boost::asio::ip::tcp::socket& socket,
                         boost::asio::ip::tcp::endpoint& destination);
// Applies the context's mark to a socket about to connect to a server.
void MarkUpstream(ProxyContext& context, boost::asio::ip::tcp::socket& socket);

}  // namespace qbrix::contentproc
