// The content processor's parsing paths on hostile input: a POP3 conversation split into client
// and server pieces (malformed lines, dot-stuffing, pipelining, AUTH, STLS), an HTTP message
// parsed as a request and as a response (heads, chunk sizes, lengths that lie) and its body
// decoded (gzip, deflate). An unchanged message must pass byte for byte.
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "Codings.h"
#include "Pop3Session.h"

namespace {

using namespace qbrix::contentproc;

struct Sink : Pop3Sink {
    std::string toServer, toClient;
    Pop3Session* session = nullptr;
    void ToServer(std::string_view bytes) override { toServer.append(bytes); }
    void ToClient(std::string_view bytes) override { toClient.append(bytes); }
    void Message(const std::string&, std::string text) override {
        session->CompleteMessage(std::move(text));
    }
};

void Pop3(const std::uint8_t* data, std::size_t size) {
    Sink sink;
    Pop3Session session(sink, 64);
    sink.session = &session;
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
    }
    if (!session.Failed()) {
        // Client bytes after the last line end wait for their line; all else went through.
        if (sink.toServer != client.substr(0, sink.toServer.size())) {
            std::abort();
        }
        if (sink.toClient != server.substr(0, sink.toClient.size())) {
            std::abort();
        }
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
            Pop3(data + 1, size - 1);
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
