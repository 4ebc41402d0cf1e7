#include "Pop3Proxy.h"

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/experimental/awaitable_operators.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <optional>

#include "Codings.h"
#include "Pop3Session.h"

namespace qbrix::contentproc {

namespace net = boost::asio;
using tcp = net::ip::tcp;
using namespace std::chrono_literals;

namespace {

constexpr auto kUse = net::as_tuple(net::use_awaitable);

// Bytes waiting for one socket, written by one coroutine at a time; others wait until it is done,
// so a slow reader holds back the side that feeds it instead of filling memory.
class Outbox {
  public:
    Outbox(tcp::socket& socket) : m_socket(socket), m_done(socket.get_executor()) {}
    std::string& Pending() { return m_pending; }
    net::awaitable<bool> Flush() {
        while (m_busy) {
            m_done.expires_at(net::steady_timer::time_point::max());
            co_await m_done.async_wait(kUse);
        }
        m_busy = true;
        bool ok = true;
        while (ok && !m_pending.empty()) {
            std::string chunk = std::move(m_pending);
            m_pending.clear();
            auto [ec, n] = co_await net::async_write(m_socket, net::buffer(chunk), kUse);
            ok = !ec;
        }
        m_busy = false;
        m_done.cancel();
        co_return ok;
    }

  private:
    tcp::socket& m_socket;
    net::steady_timer m_done;
    std::string m_pending;
    bool m_busy = false;
};

class Pop3Connection : public Pop3Sink {
  public:
    Pop3Connection(ProxyContext& context, tcp::socket client, std::size_t maxSize)
        : m_context(context),
          m_client(std::move(client)),
          m_server(context.io),
          m_toClient(m_client),
          m_toServer(m_server),
          m_session(*this, maxSize) {}

    void ToServer(std::string_view bytes) override { m_toServer.Pending().append(bytes); }
    void ToClient(std::string_view bytes) override { m_toClient.Pending().append(bytes); }
    void Message(const std::string& command, std::string text) override {
        m_message = std::make_pair(command, std::move(text));
    }
    std::string Command(std::string line) override {
        if (!m_policy->protocols[content::kPop3Row].rules ||
            m_policy->protocols[content::kPop3Row].outgoing.empty()) {
            return line;
        }
        // Outgoing rules see each command line; they run here, on the I/O thread, since a
        // command line is short.
        std::vector<Event> events;
        RunRules(m_policy->protocols[content::kPop3Row].outgoing, line, m_address, events);
        m_context.events.Send(events);
        return line;
    }

    net::awaitable<void> Run(tcp::endpoint destination);

  private:
    net::awaitable<void> FromClient();
    net::awaitable<void> FromServer();
    net::awaitable<void> ProcessMessage();

    ProxyContext& m_context;
    tcp::socket m_client;
    tcp::socket m_server;
    Outbox m_toClient;
    Outbox m_toServer;
    Pop3Session m_session;
    std::shared_ptr<const ContentPolicy> m_policy;
    std::string m_address;
    std::optional<std::pair<std::string, std::string>> m_message;
    std::chrono::steady_clock::time_point m_lastActivity = std::chrono::steady_clock::now();
};

net::awaitable<void> Pop3Connection::Run(tcp::endpoint destination) {
    m_policy = m_context.policies.Current();
    m_address = "pop3://" + destination.address().to_string();
    boost::system::error_code ignored;
    m_server.open(destination.protocol(), ignored);
    MarkUpstream(m_context, m_server);
    auto [ec] = co_await m_server.async_connect(destination, kUse);
    if (ec) {
        std::string refusal = "-ERR q-Brix: cannot reach the mail server\r\n";
        co_await net::async_write(m_client, net::buffer(refusal), kUse);
        co_return;
    }
    using namespace net::experimental::awaitable_operators;
    // Whichever ends first: the conversation, or the watchdog (which cancels the conversation).
    co_await ((FromClient() && FromServer()) || IdleWatch(m_lastActivity));
}

net::awaitable<void> Pop3Connection::FromClient() {
    std::vector<char> buffer(16384);
    for (;;) {
        auto [ec, n] = co_await m_client.async_read_some(net::buffer(buffer), kUse);
        m_lastActivity = std::chrono::steady_clock::now();
        if (ec) {
            break;
        }
        m_policy = m_context.policies.Current();
        m_session.FromClient(std::string_view(buffer.data(), n));
        if (m_session.Failed()) {
            ToClient("-ERR q-Brix: " + m_session.FailReason() + "\r\n");
            co_await m_toClient.Flush();
            break;
        }
        if (!co_await m_toServer.Flush() || !co_await m_toClient.Flush()) {
            break;
        }
    }
    boost::system::error_code ignored;
    m_server.shutdown(tcp::socket::shutdown_send, ignored);
}

net::awaitable<void> Pop3Connection::ProcessMessage() {
    auto [command, text] = std::move(*m_message);
    m_message.reset();
    std::shared_ptr<const ContentPolicy> policy = m_policy;
    ProxyContext& context = m_context;
    std::string address = m_address + "/" + command;
    auto job = [policy, &context, address, text = std::move(text)]() mutable {
        WorkRequest request{content::kPop3Row, Side::Incoming, address, "message.eml"};
        WorkResult result = context.worker.Process(
            *policy, request, text, [&](const std::string& virus, const std::string& kept) {
                return BlockedMail(text, virus, kept);
            });
        context.events.Send(result.events);
        return std::move(text);
    };
    // Named: see HttpSession::Work.
    std::string processed = co_await OnWorkers(m_context, std::move(job));
    m_session.CompleteMessage(std::move(processed));
}

net::awaitable<void> Pop3Connection::FromServer() {
    std::vector<char> buffer(16384);
    for (;;) {
        auto [ec, n] = co_await m_server.async_read_some(net::buffer(buffer), kUse);
        m_lastActivity = std::chrono::steady_clock::now();
        if (ec) {
            break;
        }
        m_session.FromServer(std::string_view(buffer.data(), n));
        while (m_message) {
            co_await ProcessMessage();
        }
        if (m_session.Failed()) {
            break;
        }
        if (!co_await m_toClient.Flush() || !co_await m_toServer.Flush()) {
            break;
        }
    }
    co_await m_toClient.Flush();
    boost::system::error_code ignored;
    m_client.shutdown(tcp::socket::shutdown_send, ignored);
}

}  // namespace

net::awaitable<void> ServePop3(ProxyContext& context, tcp::socket client) {
    tcp::endpoint destination;
    if (!OriginalDestination(client, destination)) {
        std::string refusal = "-ERR q-Brix: this port takes redirected mail connections\r\n";
        co_await net::async_write(client, net::buffer(refusal), kUse);
        co_return;
    }
    std::size_t maxSize = context.policies.Current()->protocols[content::kPop3Row].maxSize;
    Pop3Connection connection(context, std::move(client), maxSize);
    co_await connection.Run(destination);
}

}  // namespace qbrix::contentproc
