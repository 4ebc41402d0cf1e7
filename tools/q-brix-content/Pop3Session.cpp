#include "Pop3Session.h"

#include <algorithm>
#include <cctype>

namespace qbrix::contentproc {

namespace {

std::string Upper(std::string_view text) {
    std::string upper(text);
    std::transform(upper.begin(), upper.end(), upper.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return upper;
}

std::string_view WithoutLineEnd(std::string_view line) {
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
        line.remove_suffix(1);
    }
    return line;
}

bool MultiLine(const std::string& verb, bool hasArgument) {
    return verb == "RETR" || verb == "TOP" || verb == "CAPA" ||
           ((verb == "LIST" || verb == "UIDL") && !hasArgument);
}

// A "." at the start of every line, as the answer's framing needs.
std::string Stuff(const std::string& text) {
    std::string out;
    out.reserve(text.size() + text.size() / 64 + 8);
    bool lineStart = true;
    for (char c : text) {
        if (lineStart && c == '.') {
            out += '.';
        }
        out += c;
        lineStart = c == '\n';
    }
    return out;
}

}  // namespace

Pop3Session::Pop3Session(Pop3Sink& sink, std::size_t maxMessageSize)
    : m_sink(sink), m_maxMessage(maxMessageSize) {}

void Pop3Session::FromClient(std::string_view bytes) {
    if (Failed()) {
        return;
    }
    if (m_tunnel) {
        m_sink.ToServer(bytes);
        return;
    }
    m_clientLine.append(bytes);
    std::size_t start = 0;
    for (std::size_t end; (end = m_clientLine.find('\n', start)) != std::string::npos;
         start = end + 1) {
        std::string line = m_clientLine.substr(start, end + 1 - start);
        if (!m_authenticating) {
            std::string_view bare = WithoutLineEnd(line);
            std::size_t space = bare.find(' ');
            Command command{Upper(bare.substr(0, space)), std::string(bare),
                            space != std::string_view::npos &&
                                bare.find_first_not_of(' ', space) != std::string_view::npos};
            m_authenticating = command.verb == "AUTH";
            m_commands.push_back(std::move(command));
            line = m_sink.Command(std::move(line));
        }
        m_sink.ToServer(line);
    }
    m_clientLine.erase(0, start);
    if (m_clientLine.size() > kMaxLine) {
        m_failure = "command line too long";
    }
}

void Pop3Session::FromServer(std::string_view bytes) {
    if (Failed()) {
        return;
    }
    m_server.append(bytes);
    Process();
}

void Pop3Session::Process() {
    for (bool more = true; more && !Failed();) {
        if (m_tunnel) {
            m_sink.ToClient(m_server);
            m_server.clear();
            return;
        }
        switch (m_state) {
            case State::Status:
                more = ProcessStatus();
                break;
            case State::Lines:
                more = ProcessLines(false);
                break;
            case State::Message:
                more = ProcessLines(true);
                break;
            case State::Held:
                return;
        }
    }
}

bool Pop3Session::ProcessStatus() {
    std::size_t end = m_server.find('\n');
    if (end == std::string::npos) {
        if (m_server.size() > kMaxLine) {
            m_failure = "server line too long";
        }
        return false;
    }
    std::string line = m_server.substr(0, end + 1);
    m_server.erase(0, end + 1);
    if (!m_greeted || m_commands.empty()) {
        m_greeted = true;
        m_sink.ToClient(line);
        return true;
    }
    bool ok = line.rfind("+OK", 0) == 0;
    Command& command = m_commands.front();
    if (command.verb == "AUTH" && !ok && line.rfind("-ERR", 0) != 0) {
        m_sink.ToClient(line);  // a challenge ("+ ..."): the exchange goes on
        return true;
    }
    Command done = std::move(command);
    m_commands.pop_front();
    if (done.verb == "AUTH") {
        m_authenticating = false;
    }
    if (ok && done.verb == "STLS") {
        // From here on the conversation is encrypted: nothing more to read in it.
        m_sink.ToClient(line);
        m_tunnel = true;
        // What the client sent after STLS (the start of its handshake) goes first.
        m_sink.ToServer(m_clientLine);
        m_clientLine.clear();
        return true;
    }
    m_lineStart = true;
    if (ok && MultiLine(done.verb, done.hasArgument)) {
        if (done.verb == "RETR" || done.verb == "TOP") {
            m_state = State::Message;
            m_status = std::move(line);
            m_command = std::move(done.line);
            m_raw.clear();
            m_text.clear();
            return true;
        }
        m_state = State::Lines;
    }
    m_sink.ToClient(line);
    return true;
}

bool Pop3Session::ProcessLines(bool collect) {
    while (!m_server.empty()) {
        if (m_lineStart && m_server[0] == '.') {
            // The terminator is "." alone on its line; anything else after a "." is stuffing.
            if (m_server.size() < 2 || (m_server[1] == '\r' && m_server.size() < 3)) {
                return false;
            }
            std::size_t length = m_server[1] == '\n'                          ? 2
                                 : m_server[1] == '\r' && m_server[2] == '\n' ? 3
                                                                              : 0;
            if (length != 0) {
                std::string terminator = m_server.substr(0, length);
                m_server.erase(0, length);
                if (collect) {
                    m_raw += terminator;
                    EndOfMessage();
                } else {
                    m_sink.ToClient(terminator);
                    m_state = State::Status;
                }
                return true;
            }
        }
        std::size_t end = m_server.find('\n');
        std::size_t take = end == std::string::npos ? m_server.size() : end + 1;
        std::string_view piece(m_server.data(), take);
        if (collect) {
            m_raw.append(piece);
            m_text.append(m_lineStart && piece[0] == '.' ? piece.substr(1) : piece);
        } else {
            m_sink.ToClient(piece);
        }
        m_lineStart = end != std::string::npos;
        m_server.erase(0, take);
        if (collect && m_text.size() > m_maxMessage) {
            GiveUpMessage();
            return true;  // the rest of the answer streams (Lines)
        }
    }
    return false;
}

void Pop3Session::GiveUpMessage() {
    // Too large to process: what came so far and the rest go out unchanged.
    m_sink.ToClient(m_status);
    m_sink.ToClient(m_raw);
    m_status.clear();
    m_raw.clear();
    m_text.clear();
    m_state = State::Lines;
}

void Pop3Session::EndOfMessage() {
    m_state = State::Held;
    m_original = m_text;
    m_sink.Message(m_command, std::move(m_text));
}

void Pop3Session::CompleteMessage(std::string text) {
    if (m_state != State::Held) {
        return;
    }
    m_sink.ToClient(m_status);
    if (text == m_original) {
        m_sink.ToClient(m_raw);
    } else {
        std::string out = Stuff(text);
        if (!out.empty() && out.back() != '\n') {
            out += "\r\n";
        }
        out += ".\r\n";
        m_sink.ToClient(out);
    }
    m_status.clear();
    m_raw.clear();
    m_original.clear();
    m_text.clear();
    m_state = State::Status;
    Process();
}

}  // namespace qbrix::contentproc
