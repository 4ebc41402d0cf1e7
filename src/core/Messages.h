// The one facade through which the system shows message boxes and asks its don't-ask-again
// questions, so that the user interface can give it real dialogs, a console can answer without
// a display, and tests can script the answers.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

namespace qbrix::core {

// Message box styles and answers, with the numbers of the platform's message box.
inline constexpr unsigned MB_OK = 0x0;
inline constexpr unsigned MB_OKCANCEL = 0x1;
inline constexpr unsigned MB_YESNOCANCEL = 0x3;
inline constexpr unsigned MB_YESNO = 0x4;
inline constexpr unsigned MB_ICONERROR = 0x10;
inline constexpr unsigned MB_ICONQUESTION = 0x20;
inline constexpr unsigned MB_ICONWARNING = 0x30;
inline constexpr unsigned MB_ICONINFORMATION = 0x40;
inline constexpr unsigned MB_DEFBUTTON2 = 0x100;

inline constexpr int IDOK = 1;
inline constexpr int IDCANCEL = 2;
inline constexpr int IDYES = 6;
inline constexpr int IDNO = 7;

struct NoAskAnswer {
    bool ok = false;            // OK rather than Cancel
    bool dontAskAgain = false;  // the "Don't ask me again" box was ticked
};

class Messages {
public:
    virtual ~Messages() = default;
    // Shows a modal message box and returns the button pressed (IDOK, IDYES, ...).
    virtual int MessageBox(std::string_view text, std::string_view caption, unsigned style) = 0;
    // The don't-ask-again dialog: title, message, OK, Cancel and the check box.
    virtual NoAskAnswer AskNoAsk(std::string_view title, std::string_view message) = 0;
    // An audible alert of the given message-box icon type.
    virtual void Beep(unsigned type) = 0;
    // The platform's file dialogs. `filter` is a list of "Description|*.ext" pairs separated by
    // '|', empty for none. The chosen full path, or an empty text for Cancel. Saving asks before
    // an existing file is overwritten.
    virtual std::string AskSaveFileName(std::string_view title, std::string_view filter,
                                        std::string_view defaultExtension,
                                        std::string_view initialName);
    virtual std::string AskOpenFileName(std::string_view title, std::string_view filter,
                                        std::string_view defaultExtension);
};

// Without a display: prints each message to the error stream and reads the answer from the
// terminal when there is one; otherwise takes the box's default button (OK for the
// don't-ask-again dialog, with the box left unticked).
class ConsoleMessages : public Messages {
public:
    ConsoleMessages(std::FILE* in = stdin, std::FILE* out = stderr);
    int MessageBox(std::string_view text, std::string_view caption, unsigned style) override;
    NoAskAnswer AskNoAsk(std::string_view title, std::string_view message) override;
    void Beep(unsigned type) override;
    std::string AskSaveFileName(std::string_view title, std::string_view filter,
                                std::string_view defaultExtension,
                                std::string_view initialName) override;
    std::string AskOpenFileName(std::string_view title, std::string_view filter,
                                std::string_view defaultExtension) override;

private:
    std::string AskPath(std::string_view title, std::string_view defaultExtension);
    bool Interactive() const;
    std::string ReadAnswer();

    std::FILE* m_in;
    std::FILE* m_out;
};

// The facade in use: a console presenter until something else is installed.
Messages& CurrentMessages();

// Installs a facade for the guard's lifetime and restores the previous one afterwards.
class ScopedMessages {
public:
    explicit ScopedMessages(Messages& messages);
    ~ScopedMessages();
    ScopedMessages(const ScopedMessages&) = delete;
    ScopedMessages& operator=(const ScopedMessages&) = delete;

private:
    Messages* m_previous;
};

}  // namespace qbrix::core
