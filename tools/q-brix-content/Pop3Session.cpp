#include "Pop3Session.h"

#include "platform/Text.h"

namespace qbrix::contentproc {

namespace {

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
    while (!bytes.empty() && !Failed()) {
        if (m_tunnel || m_clientRaw) {
            m_sink.ToServer(bytes);
            return;
        }
        std::size_t end = bytes.find('\n');
        m_clientLine.append(bytes.substr(0, end == std::string_view::npos ? end : end + 1));
        bytes.remove_prefix(end == std::string_view::npos ? bytes.size() : end + 1);
        if (m_clientLine.size() - (end == std::string_view::npos ? 0 : 1) > kMaxLine) {
            m_failure = "command line too long";
            return;
        }
        if (end == std::string_view::npos) {
            return;
        }
        std::string_view bare = WithoutLineEnd(m_clientLine);
        std::size_t space = bare.find(' ');
        Command command{platform::ToUpperAscii(bare.substr(0, space)), std::string(bare),
                        space != std::string_view::npos &&
                            bare.find_first_not_of(' ', space) != std::string_view::npos};
        m_clientRaw = command.verb == "AUTH" || command.verb == "STLS";
        m_commands.push_back(std::move(command));
        m_sink.ToServer(m_sink.Command(std::move(m_clientLine)));
        m_clientLine.clear();
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
    m_processing = true;
    for (bool more = true; more && !Failed();) {
        if (m_tunnel) {
            m_sink.ToClient(Unread());
            m_used = m_server.size();
            break;
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
                more = false;
                break;
        }
    }
    // Handled bytes go once per call, not once per line: a large piece costs its length.
    m_server.erase(0, m_used);
    m_used = 0;
    m_processing = false;
}

bool Pop3Session::ProcessStatus() {
    std::string_view rest = Unread();
    std::size_t end = rest.find('\n');
    if ((end == std::string_view::npos ? rest.size() : end) > kMaxLine) {
        m_failure = "server line too long";
        return false;
    }
    if (end == std::string_view::npos) {
        return false;
    }
    std::string line(rest.substr(0, end + 1));
    m_used += end + 1;
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
    if (done.verb == "AUTH" || done.verb == "STLS") {
        m_clientRaw = false;
    }
    if (ok && done.verb == "STLS") {
        // From here on the conversation is encrypted: nothing more to read in it.
        m_sink.ToClient(line);
        m_tunnel = true;
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
    std::string_view rest = Unread();
    std::size_t at = 0;  // handled bytes of `rest`; when streaming, they go out in one piece
    auto handled = [&] {
        if (!collect && at != 0) {
            m_sink.ToClient(rest.substr(0, at));
        }
        m_used += at;
    };
    while (at < rest.size()) {
        std::string_view here = rest.substr(at);
        if (m_lineStart && here[0] == '.') {
            // The terminator is "." alone on its line; anything else after a "." is stuffing.
            if (here.size() < 2 || (here[1] == '\r' && here.size() < 3)) {
                break;
            }
            std::size_t length = here[1] == '\n' ? 2 : here[1] == '\r' && here[2] == '\n' ? 3 : 0;
            if (length != 0) {
                if (collect) {
                    m_raw.append(here.substr(0, length));
                }
                at += length;
                handled();
                if (collect) {
                    EndOfMessage();
                } else {
                    m_state = State::Status;
                }
                return true;
            }
        }
        std::size_t end = here.find('\n');
        std::string_view piece = here.substr(0, end == std::string_view::npos ? end : end + 1);
        if (collect) {
            m_raw.append(piece);
            m_text.append(m_lineStart && piece[0] == '.' ? piece.substr(1) : piece);
        }
        m_lineStart = end != std::string_view::npos;
        at += piece.size();
        if (collect && m_text.size() > m_maxMessage) {
            handled();
            GiveUpMessage();
            return true;  // the rest of the answer streams (Lines)
        }
    }
    handled();
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
    if (!m_processing) {
        Process();
    }  // else called from Message(): the loop that handed the message over goes on
}

}  // namespace qbrix::contentproc
