#include "core/Messages.h"

#include <atomic>
#include <cctype>

#include "platform/Platform.h"

namespace qbrix::core {

namespace {

std::atomic<Messages*> g_messages{nullptr};

// Buttons of a style, in the order they are offered, with the key that picks each.
struct Button {
    int id;
    const char* label;
    char key;
};

int ButtonsOf(unsigned style, Button* buttons) {
    switch (style & 0xF) {
        case MB_OKCANCEL:
            buttons[0] = {IDOK, "OK", 'o'};
            buttons[1] = {IDCANCEL, "Cancel", 'c'};
            return 2;
        case MB_YESNOCANCEL:
            buttons[0] = {IDYES, "Yes", 'y'};
            buttons[1] = {IDNO, "No", 'n'};
            buttons[2] = {IDCANCEL, "Cancel", 'c'};
            return 3;
        case MB_YESNO:
            buttons[0] = {IDYES, "Yes", 'y'};
            buttons[1] = {IDNO, "No", 'n'};
            return 2;
        default:
            buttons[0] = {IDOK, "OK", 'o'};
            return 1;
    }
}

}  // namespace

ConsoleMessages::ConsoleMessages(std::FILE* in, std::FILE* out) : m_in(in), m_out(out) {}

bool ConsoleMessages::Interactive() const {
    return platform::IsTerminal(m_in);
}

std::string ConsoleMessages::ReadAnswer() {
    std::string line;
    int c;
    while ((c = std::fgetc(m_in)) != EOF && c != '\n') {
        line.push_back(static_cast<char>(c));
    }
    return line;
}

int ConsoleMessages::MessageBox(std::string_view text, std::string_view caption,
                                unsigned style) {
    Button buttons[3];
    int count = ButtonsOf(style, buttons);
    int defaultIndex = (style & MB_DEFBUTTON2) != 0 && count > 1 ? 1 : 0;
    std::fprintf(m_out, "[%.*s] %.*s\n", static_cast<int>(caption.size()), caption.data(),
                 static_cast<int>(text.size()), text.data());
    if (count == 1 || !Interactive()) {
        return buttons[defaultIndex].id;
    }
    while (true) {
        for (int i = 0; i < count; ++i) {
            std::fprintf(m_out, "%s%s (%c)", i == 0 ? "" : " / ", buttons[i].label,
                         buttons[i].key);
        }
        std::fputs("? ", m_out);
        std::fflush(m_out);
        if (std::feof(m_in)) {
            return buttons[defaultIndex].id;
        }
        std::string answer = ReadAnswer();
        if (answer.empty()) {
            return buttons[defaultIndex].id;
        }
        char key = static_cast<char>(std::tolower(static_cast<unsigned char>(answer[0])));
        for (int i = 0; i < count; ++i) {
            if (buttons[i].key == key) {
                return buttons[i].id;
            }
        }
    }
}

NoAskAnswer ConsoleMessages::AskNoAsk(std::string_view title, std::string_view message) {
    std::fprintf(m_out, "[%.*s] %.*s\n", static_cast<int>(title.size()), title.data(),
                 static_cast<int>(message.size()), message.data());
    if (!Interactive()) {
        return NoAskAnswer{true, false};
    }
    std::fputs("OK (o) / OK and don't ask me again (d) / Cancel (c)? ", m_out);
    std::fflush(m_out);
    std::string answer = ReadAnswer();
    char key = answer.empty() ? 'o' : static_cast<char>(std::tolower(answer[0]));
    if (key == 'c') {
        return NoAskAnswer{false, false};
    }
    return NoAskAnswer{true, key == 'd'};
}

void ConsoleMessages::Beep(unsigned /*type*/) {
    if (Interactive()) {
        std::fputc('\a', m_out);
        std::fflush(m_out);
    }
}

std::string Messages::AskSaveFileName(std::string_view, std::string_view, std::string_view,
                                      std::string_view) {
    return std::string();
}

std::string Messages::AskOpenFileName(std::string_view, std::string_view, std::string_view) {
    return std::string();
}

std::string ConsoleMessages::AskPath(std::string_view title, std::string_view defaultExtension) {
    std::fprintf(m_out, "[%.*s] ", static_cast<int>(title.size()), title.data());
    if (!Interactive()) {
        std::fputs("no terminal to ask for a file name: cancelled\n", m_out);
        return std::string();
    }
    std::fputs("file name (empty to cancel)? ", m_out);
    std::fflush(m_out);
    std::string path = ReadAnswer();
    if (!path.empty() && !defaultExtension.empty() && path.find('.') == std::string::npos) {
        path.append(".").append(defaultExtension);
    }
    return path;
}

std::string ConsoleMessages::AskSaveFileName(std::string_view title, std::string_view,
                                             std::string_view defaultExtension,
                                             std::string_view) {
    return AskPath(title, defaultExtension);
}

std::string ConsoleMessages::AskOpenFileName(std::string_view title, std::string_view,
                                             std::string_view defaultExtension) {
    return AskPath(title, defaultExtension);
}

Messages& CurrentMessages() {
    static ConsoleMessages console;
    Messages* installed = g_messages.load();
    return installed == nullptr ? console : *installed;
}

ScopedMessages::ScopedMessages(Messages& messages) : m_previous(g_messages.exchange(&messages)) {}

ScopedMessages::~ScopedMessages() { g_messages.store(m_previous); }

}  // namespace qbrix::core
