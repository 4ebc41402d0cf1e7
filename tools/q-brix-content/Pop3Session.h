// The POP3 conversation between a mail program and its server, without sockets: the commands'
// answers are paired with the commands in order (clients may send several at once), and the
// message of every RETR or TOP answer is handed over whole, un-stuffed, for the rules and the
// scan. Everything else passes byte for byte.
#pragma once

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>

namespace qbrix::contentproc {

class Pop3Sink {
  public:
    virtual ~Pop3Sink() = default;
    virtual void ToServer(std::string_view bytes) = 0;
    virtual void ToClient(std::string_view bytes) = 0;
    // A whole message of a RETR or TOP answer: lines as they came (a leading ".." of a line back
    // to "."), without the terminating "." line. `command` is the client's line without its line
    // end. Later server bytes are held until CompleteMessage.
    virtual void Message(const std::string& command, std::string text) = 0;
    // A client command line (with its line end) before it goes to the server.
    virtual std::string Command(std::string line) { return line; }
};

class Pop3Session {
  public:
    // The longest command or status line (the bytes before its LF); a longer one ends the session,
    // however it arrives. Lines of an AUTH exchange and of a message are not limited here.
    static constexpr std::size_t kMaxLine = 8192;

    Pop3Session(Pop3Sink& sink, std::size_t maxMessageSize);
    void FromClient(std::string_view bytes);
    void FromServer(std::string_view bytes);
    // The processed text of the message last handed over. An unchanged text sends the server's
    // bytes as they were; a changed one goes out dot-stuffed, with a line end added when it has
    // none, and ".\r\n".
    void CompleteMessage(std::string text);

    bool Failed() const { return !m_failure.empty(); }
    const std::string& FailReason() const { return m_failure; }
    bool Tunnel() const { return m_tunnel; }

  private:
    enum class State { Status, Lines, Message, Held };
    struct Command {
        std::string verb;  // upper case
        std::string line;  // without its line end
        bool hasArgument = false;
    };
    void Process();
    std::string_view Unread() const { return std::string_view(m_server).substr(m_used); }
    bool ProcessStatus();
    // Moves whole or partial lines of a multi-line answer; false when more bytes are needed.
    bool ProcessLines(bool collect);
    void EndOfMessage();
    void GiveUpMessage();

    Pop3Sink& m_sink;
    std::size_t m_maxMessage;
    std::string m_failure;
    bool m_tunnel = false;
    bool m_greeted = false;
    // After AUTH or STLS, until the server answers it: client bytes (credentials, the start of a
    // handshake) are not commands and pass as they come.
    bool m_clientRaw = false;
    bool m_processing = false;  // inside Process(): a CompleteMessage from Message() only unholds
    std::string m_clientLine;
    std::string m_server;  // server bytes; the first m_used of them are handled
    std::size_t m_used = 0;
    std::deque<Command> m_commands;
    State m_state = State::Status;
    bool m_lineStart = true;
    std::string m_status;    // the +OK line of the message being collected
    std::string m_raw;       // the message's bytes as the server sent them
    std::string m_text;      // un-stuffed
    std::string m_original;  // m_text as handed over
    std::string m_command;
};

}  // namespace qbrix::contentproc
