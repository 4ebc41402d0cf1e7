#include "HttpProxy.h"

#include <sys/socket.h>
#include <boost/asio/as_tuple.hpp>
#include <boost/asio/experimental/awaitable_operators.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include <cerrno>
#include <chrono>
#include <optional>
#include <sstream>

#include "Codings.h"

namespace qbrix::contentproc {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = net::ip::tcp;
using namespace std::chrono_literals;

namespace {

constexpr auto kUse = net::as_tuple(net::use_awaitable);
using Clock = std::chrono::steady_clock;
// The whole head of a request must arrive within this time (slow peers that trickle a head
// byte by byte are closed), and a connection may stay idle between requests as long.
constexpr auto kHeadTime = 30s;
// Any other single step: a body piece, a server's answer, a write.
constexpr auto kStepTime = 120s;
constexpr std::uint32_t kHeaderLimit = 64 * 1024;
constexpr std::size_t kPiece = 64 * 1024;
// A body streamed through (over MaxSize, or not processed) moves in larger pieces.
constexpr std::size_t kStreamPiece = 256 * 1024;

struct Target {
    std::string host;  // as named in the request (for the address and the resolution)
    std::string port = "80";
    std::optional<tcp::endpoint> endpoint;  // the redirected connection's destination
    std::string Key() const {
        return endpoint ? endpoint->address().to_string() + "#" + std::to_string(endpoint->port())
                        : host + ":" + port;
    }
};

// Splits "host[:port]" (an IPv6 literal in brackets).
void SplitAuthority(std::string_view authority, std::string& host, std::string& port) {
    if (!authority.empty() && authority.front() == '[') {
        std::size_t close = authority.find(']');
        host = std::string(
            authority.substr(1, close == std::string_view::npos ? authority.npos : close - 1));
        if (close != std::string_view::npos && close + 1 < authority.size() &&
            authority[close + 1] == ':') {
            port = std::string(authority.substr(close + 2));
        }
        return;
    }
    std::size_t colon = authority.rfind(':');
    host = std::string(authority.substr(0, colon));
    if (colon != std::string_view::npos) {
        port = std::string(authority.substr(colon + 1));
    }
}

template <bool isRequest, typename Fields>
std::string HeadText(const http::header<isRequest, Fields>& head) {
    std::ostringstream out;
    out << head;
    return out.str();
}

// A short answer of the processor itself, after which the connection closes.
http::response<http::string_body> Refusal(http::status status, unsigned version,
                                          const std::string& why) {
    http::response<http::string_body> answer{status, version};
    answer.set(http::field::content_type, "text/plain; charset=utf-8");
    answer.set(http::field::connection, "close");
    answer.body() = "q-Brix content processor: " + why + "\n";
    answer.keep_alive(false);
    answer.prepare_payload();
    return answer;
}

// One direction of a tunnel: copies until either side ends, then ends the other's sending.
net::awaitable<void> Pump(tcp::socket& from, tcp::socket& to, Clock::time_point& lastActivity) {
    std::vector<char> buffer(kPiece);
    for (;;) {
        auto [ec, n] = co_await from.async_read_some(net::buffer(buffer), kUse);
        if (ec) {
            break;
        }
        lastActivity = Clock::now();
        auto [wec, written] = co_await net::async_write(to, net::buffer(buffer.data(), n), kUse);
        if (wec) {
            break;
        }
    }
    boost::system::error_code ignored;
    to.shutdown(tcp::socket::shutdown_send, ignored);
}

net::awaitable<void> Tunnel(tcp::socket& a, tcp::socket& b) {
    using namespace net::experimental::awaitable_operators;
    Clock::time_point lastActivity = Clock::now();
    // Whichever ends first: both directions, or the idle watch (which cancels them).
    co_await ((Pump(a, b, lastActivity) && Pump(b, a, lastActivity)) || IdleWatch(lastActivity));
}

// Reads a message's body into `data` until the message ends or `data` grows beyond `limit`.
// Returns the error that ended the read (none when complete or over the limit).
template <bool isRequest>
net::awaitable<beast::error_code> ReadBody(beast::tcp_stream& from, beast::flat_buffer& buffer,
                                           http::parser<isRequest, http::buffer_body>& parser,
                                           std::string& data, std::size_t limit) {
    std::vector<char> piece(kPiece);
    while (!parser.is_done() && data.size() <= limit) {
        parser.get().body().data = piece.data();
        parser.get().body().size = piece.size();
        from.expires_after(kStepTime);
        auto [ec, n] = co_await http::async_read(from, buffer, parser, kUse);
        if (ec == http::error::need_buffer) {
            ec = {};
        }
        data.append(piece.data(), piece.size() - parser.get().body().size);
        if (ec) {
            co_return ec;
        }
    }
    co_return beast::error_code{};
}

// Sends the message's head as it came, the body read so far, and streams the rest of the body
// from `from` unchanged (chunked stays chunked).
template <bool isRequest>
net::awaitable<beast::error_code> StreamRest(beast::tcp_stream& from, beast::flat_buffer& buffer,
                                             http::parser<isRequest, http::buffer_body>& parser,
                                             std::string& head, beast::tcp_stream& to) {
    auto& message = parser.get();
    if (!parser.is_done() && !parser.chunked()) {
        // A body of known length, or one that ends with the connection: relayed as raw bytes,
        // the bytes the parser has not seen yet first.
        boost::optional<std::uint64_t> left = parser.content_length_remaining();
        std::string out = HeadText(message.base()) + head;
        to.expires_after(kStepTime);
        auto [hec, hn] = co_await net::async_write(to.socket(), net::buffer(out), kUse);
        if (hec) {
            co_return hec;
        }
        std::vector<char> piece(kStreamPiece);
        for (;;) {
            std::size_t want = left ? std::min<std::uint64_t>(*left, piece.size()) : piece.size();
            if (want == 0) {
                break;
            }
            std::size_t got = 0;
            if (buffer.size() > 0) {
                got = net::buffer_copy(net::buffer(piece.data(), want), buffer.data());
                buffer.consume(got);
            } else {
                from.expires_after(kStepTime);
                auto [rec, rn] =
                    co_await from.socket().async_read_some(net::buffer(piece.data(), want), kUse);
                if (rec == net::error::eof && !left) {
                    break;
                }
                if (rec) {
                    co_return rec;
                }
                got = rn;
            }
            to.expires_after(kStepTime);
            auto [wec, wn] =
                co_await net::async_write(to.socket(), net::buffer(piece.data(), got), kUse);
            if (wec) {
                co_return wec;
            }
            if (left) {
                *left -= got;
            }
        }
        co_return beast::error_code{};
    }
    http::serializer<isRequest, http::buffer_body> serializer{message};
    message.body().data = nullptr;
    message.body().size = 0;
    message.body().more = true;
    to.expires_after(kStepTime);
    auto [hec, hn] = co_await http::async_write_header(to, serializer, kUse);
    if (hec) {
        co_return hec;
    }
    // What was read already goes first; then each piece is written from where it was read.
    std::vector<char> piece(kStreamPiece);
    char* data = head.empty() ? nullptr : head.data();
    std::size_t size = head.size();
    for (;;) {
        message.body().data = data;
        message.body().size = size;
        message.body().more = !parser.is_done();
        to.expires_after(kStepTime);
        auto [wec, wn] = co_await http::async_write(to, serializer, kUse);
        if (wec == http::error::need_buffer) {
            wec = {};
        }
        if (wec) {
            co_return wec;
        }
        if (parser.is_done()) {
            break;
        }
        message.body().data = piece.data();
        message.body().size = piece.size();
        from.expires_after(kStepTime);
        auto [rec, rn] = co_await http::async_read(from, buffer, parser, kUse);
        if (rec == http::error::need_buffer) {
            rec = {};
        }
        if (rec) {
            co_return rec;
        }
        data = piece.data();
        size = piece.size() - message.body().size;
    }
    co_return beast::error_code{};
}

// A request rewritten as text back into a message: the head parsed again, everything after it
// the body. False when the rules left no valid request head.
bool ParseRequestText(const std::string& text, bool hadBody,
                      http::request<http::string_body>& request) {
    std::size_t end = text.find("\r\n\r\n");
    if (end == std::string::npos) {
        return false;
    }
    http::request_parser<http::empty_body> parser;
    parser.skip(true);
    parser.header_limit(kHeaderLimit);
    beast::error_code ec;
    parser.put(net::buffer(text.data(), end + 4), ec);
    if (ec || !parser.is_header_done()) {
        return false;
    }
    request = http::request<http::string_body>{parser.release().base()};
    request.body() = text.substr(end + 4);
    request.erase(http::field::transfer_encoding);
    if (hadBody || !request.body().empty()) {
        request.content_length(request.body().size());
    } else {
        request.erase(http::field::content_length);
    }
    return true;
}

class HttpSession {
  public:
    HttpSession(ProxyContext& context, tcp::socket client)
        : m_context(context), m_client(std::move(client)), m_upstream(context.io) {}

    net::awaitable<void> Run();

  private:
    net::awaitable<bool> Connect(const Target& target, http::request_header<>& request);
    net::awaitable<bool> SendRequest(http::request_parser<http::buffer_body>& request,
                                     const std::string& address);
    net::awaitable<bool> RelayResponse(http::request<http::buffer_body>& request,
                                       const std::string& address, bool& keepClient);
    // `why` must be a named string: see Work.
    net::awaitable<void> Refuse(http::status status, unsigned version, const std::string& why);
    net::awaitable<WorkResult> Work(Side side, std::string address, std::string& text,
                                    std::string suggestedName);

    ProxyContext& m_context;
    beast::tcp_stream m_client;
    beast::tcp_stream m_upstream;
    beast::flat_buffer m_clientBuffer;
    beast::flat_buffer m_upstreamBuffer;
    std::string m_upstreamKey;  // the server the upstream connection goes to, when open
    std::optional<tcp::endpoint> m_redirectedTo;
    std::shared_ptr<const ContentPolicy> m_policy;
};

net::awaitable<void> HttpSession::Refuse(http::status status, unsigned version,
                                         const std::string& why) {
    auto answer = Refusal(status, version, why);
    m_client.expires_after(kStepTime);
    co_await http::async_write(m_client, answer, kUse);
    beast::error_code ignored;
    m_client.socket().shutdown(tcp::socket::shutdown_send, ignored);
}

net::awaitable<WorkResult> HttpSession::Work(Side side, std::string address, std::string& text,
                                             std::string suggestedName) {
    std::shared_ptr<const ContentPolicy> policy = m_policy;
    ProxyContext& context = m_context;
    std::string owned = std::move(text);
    // Named, not a temporary of the co_await expression: this compiler destroys such
    // temporaries twice.
    auto job = [policy, &context, side, address, owned = std::move(owned),
                suggestedName]() mutable {
        WorkRequest request{content::kHttpRow, side, address, suggestedName};
        WorkResult result = context.worker.Process(
            *policy, request, owned, [&](const std::string& virus, const std::string& kept) {
                return BlockedPage(address, virus, kept);
            });
        context.events.Send(result.events);
        return std::make_pair(std::move(result), std::move(owned));
    };
    auto [result, processed] = co_await OnWorkers(m_context, std::move(job));
    text = std::move(processed);
    co_return result;
}

net::awaitable<bool> HttpSession::Connect(const Target& target, http::request_header<>& request) {
    if (!m_upstreamKey.empty() && m_upstreamKey == target.Key() && m_upstream.socket().is_open()) {
        // A kept connection the server has closed meanwhile reads as ended: connect anew.
        char probe;
        ssize_t peeked =
            ::recv(m_upstream.socket().native_handle(), &probe, 1, MSG_PEEK | MSG_DONTWAIT);
        if (peeked != 0 && !(peeked < 0 && errno != EAGAIN && errno != EWOULDBLOCK)) {
            co_return true;
        }
    }
    beast::error_code ignored;
    m_upstream.socket().close(ignored);
    m_upstreamBuffer.clear();
    m_upstreamKey.clear();
    std::vector<tcp::endpoint> endpoints;
    if (target.endpoint) {
        endpoints.push_back(*target.endpoint);
    } else {
        tcp::resolver resolver(m_context.io);
        auto [ec, results] = co_await resolver.async_resolve(target.host, target.port, kUse);
        if (ec) {
            const std::string why = "cannot find the server " + target.host;
            co_await Refuse(http::status::bad_gateway, request.version(), why);
            co_return false;
        }
        for (const auto& entry : results) {
            endpoints.push_back(entry.endpoint());
        }
    }
    for (const tcp::endpoint& endpoint : endpoints) {
        for (const tcp::endpoint& own : m_context.ownEndpoints) {
            bool anyAddress = own.address().is_unspecified() || endpoint.address().is_loopback();
            if (endpoint.port() == own.port() &&
                (anyAddress || endpoint.address() == own.address())) {
                const std::string why = "the request would come back to the processor";
                co_await Refuse(http::status::loop_detected, request.version(), why);
                co_return false;
            }
        }
    }
    for (const tcp::endpoint& endpoint : endpoints) {
        m_upstream.socket().close(ignored);
        m_upstream.socket().open(endpoint.protocol(), ignored);
        MarkUpstream(m_context, m_upstream.socket());
        m_upstream.expires_after(kStepTime);
        auto [ec] = co_await m_upstream.async_connect(endpoint, kUse);
        if (!ec) {
            // Requests and answers are written whole: no waiting for acknowledgements.
            m_upstream.socket().set_option(tcp::no_delay(true), ignored);
            m_upstreamKey = target.Key();
            co_return true;
        }
    }
    const std::string why =
        "cannot connect to " + (target.host.empty() ? target.Key() : target.host);
    co_await Refuse(http::status::bad_gateway, request.version(), why);
    co_return false;
}

net::awaitable<void> HttpSession::Run() {
    beast::error_code ignored;
    m_client.socket().set_option(tcp::no_delay(true), ignored);
    // Beast reads as much as the buffer has room for (at least 512 bytes): room for a whole
    // piece makes a body arrive in a few reads instead of hundreds.
    m_clientBuffer.reserve(kPiece);
    m_upstreamBuffer.reserve(kPiece);
    tcp::endpoint destination;
    if (OriginalDestination(m_client.socket(), destination)) {
        m_redirectedTo = destination;
    }
    for (;;) {
        http::request_parser<http::buffer_body> parser;
        parser.header_limit(kHeaderLimit);
        parser.body_limit(boost::none);
        m_client.expires_after(kHeadTime);
        auto [ec, n] = co_await http::async_read_header(m_client, m_clientBuffer, parser, kUse);
        if (ec == http::error::end_of_stream || ec == net::error::eof ||
            ec == beast::error::timeout || ec == net::error::connection_reset) {
            co_return;
        }
        if (ec == http::error::header_limit) {
            const std::string why = "the request head is too large";
            co_return co_await Refuse(http::status::request_header_fields_too_large, 11, why);
        }
        if (ec) {
            const std::string why = "malformed request (" + ec.message() + ")";
            co_return co_await Refuse(http::status::bad_request, 11, why);
        }
        m_policy = m_context.policies.Current();
        auto& request = parser.get();

        // Where it goes: the redirected connection's destination, else the absolute target
        // (explicit proxy), else the Host field.
        Target target;
        std::string_view requestTarget(request.target().data(), request.target().size());
        std::string path(requestTarget);
        if (request.method() == http::verb::connect) {
            SplitAuthority(requestTarget, target.host, target.port);
        } else if (requestTarget.rfind("http://", 0) == 0 ||
                   requestTarget.rfind("HTTP://", 0) == 0) {
            std::string_view rest = requestTarget.substr(7);
            std::size_t slash = rest.find('/');
            SplitAuthority(rest.substr(0, slash), target.host, target.port);
            path = slash == std::string_view::npos ? "/" : std::string(rest.substr(slash));
            request.target(path);
            if (request.find(http::field::host) == request.end()) {
                request.set(http::field::host, rest.substr(0, slash));
            }
        } else {
            auto host = request.find(http::field::host);
            if (host != request.end()) {
                SplitAuthority(std::string_view(host->value().data(), host->value().size()),
                               target.host, target.port);
            }
        }
        if (m_redirectedTo && request.method() != http::verb::connect) {
            target.endpoint = m_redirectedTo;
        }
        if (target.host.empty() && !target.endpoint) {
            const std::string why = "the request names no server";
            co_return co_await Refuse(http::status::bad_request, request.version(), why);
        }
        std::string hostText =
            target.host.empty() ? target.endpoint->address().to_string() : target.host;
        std::string address = "http://" + hostText +
                              (target.port != "80" && !target.endpoint ? ":" + target.port : "") +
                              path;
        request.erase("Proxy-Connection");

        if (!co_await Connect(target, request)) {
            co_return;
        }
        if (request.method() == http::verb::connect) {
            // TLS and anything else tunnelled passes untouched.
            http::response<http::empty_body> established{http::status::ok, request.version()};
            established.reason("Connection established");
            m_client.expires_after(kStepTime);
            auto [wec, wn] = co_await http::async_write(m_client, established, kUse);
            if (wec) {
                co_return;
            }
            if (m_clientBuffer.size() > 0) {
                co_await net::async_write(m_upstream.socket(), m_clientBuffer.data(), kUse);
                m_clientBuffer.clear();
            }
            m_client.expires_never();
            m_upstream.expires_never();
            co_return co_await Tunnel(m_client.socket(), m_upstream.socket());
        }
        if (!co_await SendRequest(parser, address)) {
            co_return;
        }
        bool keepClient = true;
        if (!co_await RelayResponse(request, address, keepClient) || !keepClient) {
            beast::error_code ignored;
            m_client.socket().shutdown(tcp::socket::shutdown_send, ignored);
            co_return;
        }
    }
}

net::awaitable<bool> HttpSession::SendRequest(http::request_parser<http::buffer_body>& parser,
                                              const std::string& address) {
    auto& request = parser.get();
    const ProtocolPolicy& policy = m_policy->protocols[content::kHttpRow];
    bool hasBody = !parser.is_done();
    if (hasBody && http::token_list(request[http::field::expect]).exists("100-continue")) {
        // The body is wanted at once: the processor answers the client's question itself.
        request.erase(http::field::expect);
        http::response<http::empty_body> goOn{http::status::continue_, request.version()};
        m_client.expires_after(kStepTime);
        co_await http::async_write(m_client, goOn, kUse);
    }
    bool process = policy.rules && !policy.outgoing.empty();
    std::string body;
    if (process && hasBody) {
        beast::error_code ec =
            co_await ReadBody(m_client, m_clientBuffer, parser, body, policy.maxSize);
        if (ec) {
            co_return false;
        }
        process = parser.is_done();
    }
    if (!process) {
        // Head as it came and the body streamed.
        beast::error_code ec =
            co_await StreamRest(m_client, m_clientBuffer, parser, body, m_upstream);
        co_return !ec;
    }
    std::string text = HeadText(request.base()) + body;
    WorkResult result = co_await Work(Side::Outgoing, address, text, "request");
    http::request<http::string_body> out;
    if (!result.changed || !ParseRequestText(text, hasBody, out)) {
        out = http::request<http::string_body>{request.base()};
        out.body() = std::move(body);
        out.erase(http::field::transfer_encoding);
        if (hasBody) {
            out.content_length(out.body().size());
        }
    }
    m_upstream.expires_after(kStepTime);
    auto [ec, n] = co_await http::async_write(m_upstream, out, kUse);
    co_return !ec;
}

net::awaitable<bool> HttpSession::RelayResponse(http::request<http::buffer_body>& request,
                                                const std::string& address, bool& keepClient) {
    const ProtocolPolicy& policy = m_policy->protocols[content::kHttpRow];
    for (;;) {
        http::response_parser<http::buffer_body> parser;
        parser.header_limit(kHeaderLimit);
        parser.body_limit(boost::none);
        if (request.method() == http::verb::head) {
            parser.skip(true);
        }
        m_upstream.expires_after(kStepTime);
        auto [ec, n] = co_await http::async_read_header(m_upstream, m_upstreamBuffer, parser, kUse);
        if (ec) {
            const std::string why = "the server's answer is not valid HTTP (" + ec.message() + ")";
            co_await Refuse(http::status::bad_gateway, request.version(), why);
            co_return false;
        }
        auto& response = parser.get();
        unsigned status = response.result_int();
        if (status == 101) {
            // Another protocol from here on (a WebSocket, say): passed untouched.
            http::response<http::empty_body> head{response.base()};
            m_client.expires_after(kStepTime);
            co_await http::async_write(m_client, head, kUse);
            if (m_upstreamBuffer.size() > 0) {
                co_await net::async_write(m_client.socket(), m_upstreamBuffer.data(), kUse);
            }
            if (m_clientBuffer.size() > 0) {
                co_await net::async_write(m_upstream.socket(), m_clientBuffer.data(), kUse);
            }
            m_client.expires_never();
            m_upstream.expires_never();
            co_await Tunnel(m_client.socket(), m_upstream.socket());
            co_return false;
        }
        if (status >= 100 && status < 200) {
            http::response<http::empty_body> interim{response.base()};
            m_client.expires_after(kStepTime);
            co_await http::async_write(m_client, interim, kUse);
            continue;
        }
        bool hasBody = !parser.is_done();
        bool upstreamKeeps = response.keep_alive() && !parser.need_eof();
        keepClient = request.keep_alive();
        std::string body;
        Coding coding = CodingOf(std::string_view(response[http::field::content_encoding].data(),
                                                  response[http::field::content_encoding].size()));
        bool process = hasBody && policy.WantsContent(Side::Incoming) && coding != Coding::Unknown;
        if (process) {
            beast::error_code rec =
                co_await ReadBody(m_upstream, m_upstreamBuffer, parser, body, policy.maxSize);
            if (rec && rec != http::error::partial_message) {
                const std::string why = "the server's answer broke off (" + rec.message() + ")";
                co_await Refuse(http::status::bad_gateway, request.version(), why);
                co_return false;
            }
            process = parser.is_done();
        }
        std::string text;
        if (process && Decode(coding, body, policy.maxSize, text) != DecodeResult::Ok) {
            process = false;  // too large once decoded, or not decodable: passed unchanged
        }
        if (!process) {
            // The head as it came; what was read and the rest of the body streamed unchanged.
            if (parser.need_eof()) {
                keepClient = false;
            }
            beast::error_code sec =
                co_await StreamRest(m_upstream, m_upstreamBuffer, parser, body, m_client);
            if (sec || !upstreamKeeps) {
                beast::error_code ignored;
                m_upstream.socket().close(ignored);
                m_upstreamKey.clear();
            }
            co_return !sec;
        }
        std::string suggested = address.substr(address.rfind('/') + 1);
        WorkResult result = co_await Work(Side::Incoming, address, text, suggested);
        http::response<http::string_body> out{response.base()};
        out.erase(http::field::transfer_encoding);
        if (result.blocked) {
            out.result(http::status::forbidden);
            out.set(http::field::content_type, "text/html; charset=utf-8");
            out.erase(http::field::content_encoding);
            out.erase(http::field::content_disposition);
            out.body() = std::move(text);
        } else if (result.changed) {
            // Rewritten content goes out as it is now, without a content coding.
            out.erase(http::field::content_encoding);
            out.erase(http::field::content_md5);
            out.body() = std::move(text);
        } else {
            out.body() = std::move(body);
        }
        out.content_length(out.body().size());
        if (!upstreamKeeps) {
            beast::error_code ignored;
            m_upstream.socket().close(ignored);
            m_upstreamKey.clear();
        }
        out.keep_alive(keepClient);
        m_client.expires_after(kStepTime);
        auto [wec, wn] = co_await http::async_write(m_client, out, kUse);
        co_return !wec;
    }
}

}  // namespace

net::awaitable<void> ServeHttp(ProxyContext& context, tcp::socket client) {
    HttpSession session(context, std::move(client));
    co_await session.Run();
}

}  // namespace qbrix::contentproc
