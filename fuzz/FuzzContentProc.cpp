// The content processor's parsing paths on hostile input: a POP3 conversation split into client
// and server pieces (malformed lines, dot-stuffing, pipelining, AUTH, STLS), an HTTP message
// parsed as a request and as a response (heads, chunk sizes, lengths that lie) and its body
// decoded (gzip, deflate). An unchanged message must pass byte for byte, and no more than a line
// or a message within the limit may wait.
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>

#include "Codings.h"
#include "Pop3Session.h"

namespace {

using namespace qbrix::contentproc;

// Answers every message unchanged: at once (from inside Message()), or later, when the test
// gets to it, as the proxy does.
struct Sink : Pop3Sink {
    std::string toServer, toClient;
    Pop3Session* session = nullptr;
    bool later = false;
    std::optional<std::string> pending;
    void ToServer(std::string_view bytes) override { toServer.append(bytes); }
    void ToClient(std::string_view bytes) override { toClient.append(bytes); }
    void Message(const std::string&, std::string text) override {
        if (later) {
            pending = std::move(text);
        } else {
            session->CompleteMessage(std::move(text));
        }
    }
    void Answer() {
        while (pending) {
            std::string text = std::move(*pending);
            pending.reset();
            session->CompleteMessage(std::move(text));
        }
    }
};

// What a side sent must reach the other side unchanged, and no more than a line (or a message
// within the limit) may wait.
void Check(const std::string& sent, const std::string& received, std::size_t mayWait) {
    if (received.size() > sent.size() || sent.compare(0, received.size(), received) != 0 ||
        sent.size() - received.size() > mayWait) {
        std::abort();
    }
}

void Pop3(const std::uint8_t* data, std::size_t size, bool later) {
    constexpr std::size_t kMaxMessage = 64;
    Sink sink;
    Pop3Session session(sink, kMaxMessage);
    sink.session = &session;
    sink.later = later;
    std::string client, server;
    for (std::size_t at = 0; at < size;) {
        // A selector byte: the side, and how many bytes follow.
        std::uint8_t selector = data[at++];
        std::size_t length = std::min<std::size_t>(selector & 0x3F, size - at);
        std::string_view piece(reinterpret_cast<const char*>(data + at), length);
        at += length;
        if (selector & 0x80) {
            client.append(piece);
            session.FromClient(piece);
        } else {
            server.append(piece);
            session.FromServer(piece);
        }
        if (selector & 0x40) {
            sink.Answer();
        }
    }
    sink.Answer();
    if (!session.Failed()) {
        // A partial command line; a partial status line, or a status line and a message being
        // collected (its dots, a "." or ".\r" that may end it).
        Check(client, sink.toServer, Pop3Session::kMaxLine);
        Check(server, sink.toClient, Pop3Session::kMaxLine + 1 + 2 * kMaxMessage + 4);
    }
}

template <bool isRequest>
void Http(const std::uint8_t* data, std::size_t size) {
    namespace http = boost::beast::http;
    http::parser<isRequest, http::string_body> parser;
    parser.header_limit(64 * 1024);
    parser.body_limit(1 << 20);
    parser.eager(true);
    boost::beast::error_code ec;
    parser.put(boost::asio::buffer(data, size), ec);
    if (ec || !parser.is_header_done()) {
        return;
    }
    auto& message = parser.get();
    auto encoding = message[http::field::content_encoding];
    std::string decoded;
    Decode(CodingOf(std::string_view(encoding.data(), encoding.size())), message.body(), 1 << 16,
           decoded);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    switch (data[0] % 3) {
        case 0:
            Pop3(data + 1, size - 1, data[0] & 0x80);
            break;
        case 1:
            Http<true>(data + 1, size - 1);
            break;
        default:
            Http<false>(data + 1, size - 1);
            break;
    }
    return 0;
}
