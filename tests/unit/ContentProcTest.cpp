// The content processor's protocol logic without sockets: the POP3 conversation and the HTTP
// content codings.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Codings.h"
#include "Pop3Session.h"
#include "support/Compress.h"

namespace qbrix::contentproc {
namespace {

// Records what the session forwards; a message is answered with `rewrite` applied, at once.
struct Recorder : Pop3Sink {
    std::string toServer, toClient;
    std::vector<std::string> messages;
    std::function<std::string(std::string)> rewrite = [](std::string text) { return text; };
    Pop3Session* session = nullptr;
    bool hold = false;  // keep the message until the test answers it
    void ToServer(std::string_view bytes) override { toServer.append(bytes); }
    void ToClient(std::string_view bytes) override { toClient.append(bytes); }
    void Message(const std::string& command, std::string text) override {
        messages.push_back(command + "|" + text);
        if (!hold) {
            session->CompleteMessage(rewrite(std::move(text)));
        }
    }
};

struct Conversation {
    std::string client;  // what the mail program sends, all at once
    std::string server;  // what the server answers
};

const Conversation kSession{
    "USER a\r\nPASS b\r\nSTAT\r\nLIST\r\nUIDL 1\r\nRETR 1\r\nTOP 1 0\r\nQUIT\r\n",
    "+OK hello\r\n+OK\r\n+OK\r\n+OK 1 40\r\n+OK\r\n1 40\r\n.\r\n+OK 1 x\r\n"
    "+OK 40 octets\r\nSubject: s\r\n\r\n..dot\r\nbody\r\n.\r\n"
    "+OK\r\nSubject: s\r\n\r\n.\r\n+OK bye\r\n"};

void Feed(Pop3Session& session, const Conversation& conversation, std::size_t piece) {
    session.FromClient(conversation.client);
    for (std::size_t at = 0; at < conversation.server.size(); at += piece) {
        session.FromServer(std::string_view(conversation.server).substr(at, piece));
    }
}

class Pop3SessionTest : public ::testing::TestWithParam<std::size_t> {};

TEST_P(Pop3SessionTest, AnUnchangedSessionPassesByteForByte) {
    Recorder sink;
    Pop3Session session(sink, 100000);
    sink.session = &session;
    Feed(session, kSession, GetParam());
    EXPECT_FALSE(session.Failed());
    EXPECT_EQ(kSession.client, sink.toServer);
    EXPECT_EQ(kSession.server, sink.toClient);
    ASSERT_EQ(2u, sink.messages.size());
    EXPECT_EQ("RETR 1|Subject: s\r\n\r\n.dot\r\nbody\r\n", sink.messages[0]);
    EXPECT_EQ("TOP 1 0|Subject: s\r\n\r\n", sink.messages[1]);
}

TEST_P(Pop3SessionTest, MessagesOfEveryShapeComeBackByteForByte) {
    struct Case {
        std::string answer;  // after "+OK\r\n"
        std::string text;
    } cases[] = {
        {".\r\n", ""},
        {"a\nb\r\n.\n", "a\nb\r\n"},
        {"..\r\n...x\n.\r\r\n.y\r\n.\r\n", ".\r\n..x\n\r\r\ny\r\n"},
    };
    for (const Case& c : cases) {
        Recorder sink;
        Pop3Session session(sink, 100000);
        sink.session = &session;
        Feed(session, {"RETR 1\r\nNOOP\r\n", "+OK\r\n+OK\r\n" + c.answer + "+OK\r\n"}, GetParam());
        EXPECT_EQ("+OK\r\n+OK\r\n" + c.answer + "+OK\r\n", sink.toClient) << c.answer;
        EXPECT_EQ(std::vector<std::string>{"RETR 1|" + c.text}, sink.messages) << c.answer;
    }
}

INSTANTIATE_TEST_SUITE_P(Pieces, Pop3SessionTest, ::testing::Values(1, 3, 7, 1000));

TEST(Pop3Session, AnswersAfterAHeldMessageWaitForIt) {
    Recorder sink;
    Pop3Session session(sink, 100000);
    sink.session = &session;
    sink.hold = true;
    session.FromClient("RETR 1\r\nRETR 2\r\nQUIT\r\n");
    session.FromServer("+OK hi\r\n+OK\r\none\r\n.\r\n+OK\r\ntwo\r\n.\r\n+OK bye\r\n");
    EXPECT_EQ("+OK hi\r\n", sink.toClient);
    ASSERT_EQ(1u, sink.messages.size());
    session.CompleteMessage("1\r\n");
    EXPECT_EQ("+OK hi\r\n+OK\r\n1\r\n.\r\n", sink.toClient);
    ASSERT_EQ(2u, sink.messages.size());
    EXPECT_EQ("RETR 2|two\r\n", sink.messages[1]);
    session.CompleteMessage("two\r\n");
    EXPECT_EQ("+OK hi\r\n+OK\r\n1\r\n.\r\n+OK\r\ntwo\r\n.\r\n+OK bye\r\n", sink.toClient);
}

TEST(Pop3Session, ManyMessagesAnsweredAtOnceInOnePiece) {
    Recorder sink;
    Pop3Session session(sink, 100);
    sink.session = &session;
    std::string client, server = "+OK\r\n";
    for (int i = 0; i < 100000; ++i) {
        client += "RETR 1\r\n";
        server += "+OK\r\nx\r\n.\r\n";
    }
    session.FromClient(client);
    session.FromServer(server);
    EXPECT_EQ(100000u, sink.messages.size());
    EXPECT_TRUE(server == sink.toClient);
}

TEST(Pop3Session, ARewrittenMessageIsStuffedAgainAndEndsRight) {
    Recorder sink;
    Pop3Session session(sink, 100000);
    sink.session = &session;
    sink.rewrite = [](std::string) { return std::string(".first\r\nsecond\r\n.\r\nlast"); };
    session.FromClient("RETR 1\r\n");
    session.FromServer("+OK hi\r\n+OK m\r\nx\r\n.\r\n");
    EXPECT_EQ("+OK hi\r\n+OK m\r\n..first\r\nsecond\r\n..\r\nlast\r\n.\r\n", sink.toClient);
}

TEST(Pop3Session, AMessageOverTheLimitStreamsUnchanged) {
    std::string answer = "+OK\r\n" + std::string(50, 'a') + "\r\n..b\r\nc\r\n.\r\n+OK bye\r\n";
    for (std::size_t piece : {std::size_t{1}, answer.size()}) {
        Recorder sink;
        Pop3Session session(sink, 10);
        sink.session = &session;
        session.FromClient("RETR 1\r\nQUIT\r\n");
        session.FromServer("+OK hi\r\n");
        for (std::size_t at = 0; at < answer.size(); at += piece) {
            session.FromServer(answer.substr(at, piece));
            // Past the limit nothing waits: a message that never ends is not kept.
            if (at + piece > 16 && at + piece <= 55) {
                EXPECT_EQ("+OK hi\r\n" + answer.substr(0, at + piece), sink.toClient) << at;
            }
        }
        EXPECT_TRUE(sink.messages.empty()) << piece;
        EXPECT_EQ("+OK hi\r\n" + answer, sink.toClient) << piece;
    }
}

TEST(Pop3Session, AuthExchangesAndStartTlsAreNotTakenForCommands) {
    Recorder sink;
    Pop3Session session(sink, 1000);
    sink.session = &session;
    session.FromClient("AUTH PLAIN\r\n");
    session.FromServer("+OK hi\r\n+ \r\n");
    session.FromClient("RETR 1\r\n");  // the credentials, whatever they look like
    session.FromServer("+OK in\r\n");
    // The client may start its handshake before the answer to STLS arrives.
    session.FromClient("STLS\r\n\x16\x03 hello");
    session.FromServer("+OK go\r\n\x16\x03\x01 binary\r\n.\r\n");
    session.FromClient(" more\n");
    EXPECT_TRUE(session.Tunnel());
    EXPECT_EQ("AUTH PLAIN\r\nRETR 1\r\nSTLS\r\n\x16\x03 hello more\n", sink.toServer);
    EXPECT_TRUE(sink.messages.empty());
    EXPECT_EQ("+OK hi\r\n+ \r\n+OK in\r\n+OK go\r\n\x16\x03\x01 binary\r\n.\r\n", sink.toClient);
}

TEST(Pop3Session, OverlongLinesEndTheSessionHoweverTheyArrive) {
    std::string longest(Pop3Session::kMaxLine, 'x'), over = longest + "x";
    struct Case {
        bool fromClient;
        std::string line;
        bool fails;
    } cases[] = {
        {true, longest + "\n", false},  {true, over, true},  {true, over + "\r\n", true},
        {false, longest + "\n", false}, {false, over, true}, {false, over + "\r\n", true},
    };
    for (const Case& c : cases) {
        Recorder sink;
        Pop3Session session(sink, 1000);
        session.FromServer("+OK\r\n");
        session.FromClient("NOOP\r\n");
        c.fromClient ? session.FromClient(c.line) : session.FromServer(c.line);
        EXPECT_EQ(c.fails, session.Failed()) << c.fromClient << c.line.size();
    }
}

TEST(Pop3Session, LongAuthenticationLinesPassAsTheyCome) {
    Recorder sink;
    Pop3Session session(sink, 1000);
    std::string token(3 * Pop3Session::kMaxLine, 'T');
    session.FromClient("AUTH GSSAPI\r\n");
    session.FromServer("+OK\r\n+ \r\n");
    session.FromClient(token);
    session.FromClient("\r\n");
    session.FromServer("+OK in\r\n");
    EXPECT_FALSE(session.Failed());
    EXPECT_TRUE("AUTH GSSAPI\r\n" + token + "\r\n" == sink.toServer);
}

using test::Compress;

TEST(Codings, BodiesDecodeWithinTheLimitOrPassAsTheyAre) {
    std::string page = "<html>" + std::string(5000, 'p') + "</html>";
    struct Case {
        const char* encoding;
        std::string body;
        std::size_t limit;
        DecodeResult result;
    } cases[] = {
        {"gzip", Compress(page, 15 + 16), 100000, DecodeResult::Ok},
        {" X-GZIP ", Compress(page, 15 + 16), 100000, DecodeResult::Ok},
        {"deflate", Compress(page, 15), 100000, DecodeResult::Ok},
        {"deflate", Compress(page, -15), 100000, DecodeResult::Ok},  // raw, as some servers send
        {"", page, 100000, DecodeResult::Ok},
        {"gzip", Compress(std::string(50 << 20, '\0'), 15 + 16), 100000, DecodeResult::TooLarge},
        {"gzip", Compress(page, 15 + 16).substr(0, 40), 100000, DecodeResult::Corrupt},
        {"gzip", "not compressed", 100000, DecodeResult::Corrupt},
        {"br", page, 100000, DecodeResult::Corrupt},
    };
    for (const Case& c : cases) {
        std::string out;
        EXPECT_EQ(c.result, Decode(CodingOf(c.encoding), c.body, c.limit, out)) << c.encoding;
        if (c.result == DecodeResult::Ok) {
            EXPECT_EQ(page, out) << c.encoding;
        }
    }
    EXPECT_EQ(Coding::Unknown, CodingOf("gzip, br"));
}

TEST(Codings, ABlockedMailKeepsItsAddressLinesAndSaysWhy) {
    std::string mail = BlockedMail(
        "From: a@b\r\nReceived: x\r\nSubject: hi\r\nTo: c@d\r\n\r\nSubject: not a header\r\n",
        "Eicar-Test-Signature", "/q/1.eml");
    EXPECT_EQ(0u, mail.find("From: a@b\r\nSubject: [q-Brix: virus removed] hi\r\nTo: c@d\r\n"));
    EXPECT_EQ(std::string::npos, mail.find("Received"));
    EXPECT_NE(std::string::npos, mail.find("Eicar-Test-Signature"));
    EXPECT_NE(std::string::npos, mail.find("/q/1.eml"));
    EXPECT_EQ(std::string::npos, mail.find("not a header"));
}

}  // namespace
}  // namespace qbrix::contentproc
