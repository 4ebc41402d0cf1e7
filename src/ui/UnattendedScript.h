// The script of an unattended run: what "the user" does when nobody sits at the screen. An
// offscreen run (demonstrations, the end-to-end tests, measurements) names a script file in
// QBRIX_SCRIPT; its steps run one after another on the panel's own thread, each waiting (at most
// its time limit) for what it needs, through the same widgets and dialogs a user would work.
//
// One step per line; blank lines and lines starting with '#' are skipped. The last word of a step
// takes the rest of the line, so zone names and paths may hold blanks:
//
//   answer IMAGE ZONE       the question about program IMAGE (its image name, any case) gets
//                           ZONE and OK; questions about other programs are closed with Escape
//   wait asked N            until N questions about programs have been put
//   wait rows N PAGE        until the list of page PAGE (its tab caption) shows N rows or more
//   wait file PATH          until the file PATH exists
//   wait ticks N            until the panel's timer has run N more ticks
//   page PAGE               shows the panel on page PAGE
//   select TEXT             selects the row of the current page's list whose first column is TEXT
//   menu ACTION [FILE]      right-clicks the selected row and chooses ACTION from the menu; a
//                           file dialog it opens is answered with FILE
//   press BUTTON            presses the current page's button captioned BUTTON
//   touch FILE              writes an empty file FILE: tells whoever watches the run how far
//                           it has come
//   clock SECONDS           moves the clock of the statistics on by SECONDS
//   timeout SECONDS         the time limit of the waiting steps that follow (30 at first)
//   exit                    the tray's Exit; its warning is answered on the console
//
// A step that cannot be done, or waits past its limit, is reported on the error stream and the
// run ends through Exit, so the script's outcome shows in the exit status.
#pragma once

#include <QObject>
#include <QTimer>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qbrix::ui {

class ControlPanel;

struct ScriptStep {
    int line = 0;
    std::string verb;                // "answer", "wait", "page", ...
    std::string what;                // the object of "wait": "asked", "rows", "file", "ticks"
    long long number = 0;            // N or SECONDS
    std::vector<std::string> words;  // the remaining words, the last one holding the rest
};

// Reads a script's text; on a bad line, nullopt and `error` says which line and why.
std::optional<std::vector<ScriptStep>> ParseScript(const std::string& text, std::string* error);

class UnattendedScript : public QObject {
    Q_OBJECT
  public:
    // Runs `steps` on `panel` from the next turn of the event loop.
    UnattendedScript(ControlPanel& panel, std::vector<ScriptStep> steps);
    ~UnattendedScript() override;

    // Loads the script named by QBRIX_SCRIPT; null when none is named. A file that cannot be
    // read or parsed is reported on the error stream and gives a script that fails at once.
    static std::unique_ptr<UnattendedScript> FromEnvironment(ControlPanel& panel);

    // A step failed, or a question could not be answered as the script said.
    bool Failed() const;
    bool Finished() const { return m_next >= m_steps.size(); }

    // The seconds the statistics clock has been moved on by scripts of this process.
    static std::int64_t ClockOffset();

  private:
    struct Answers;

    void Advance();
    // Runs the current step: true when it is done, false while it waits.
    bool RunStep(const ScriptStep& step);
    bool Wait(const ScriptStep& step);
    void Fail(const ScriptStep& step, const std::string& why);

    ControlPanel& m_panel;
    std::vector<ScriptStep> m_steps;
    std::size_t m_next = 0;
    std::unique_ptr<Answers> m_answers;
    QTimer m_timer;
    int m_ticks = 0;
    int m_tickTarget = -1;
    int m_timeoutSeconds = 30;
    std::int64_t m_stepDeadline = 0;  // milliseconds of the monotonic clock, 0 before a wait
    bool m_failed = false;
    bool m_busy = false;
};

}  // namespace qbrix::ui
