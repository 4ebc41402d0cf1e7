#include "ui/UnattendedScript.h"

#include <QAbstractButton>
#include <QAbstractItemView>
#include <QApplication>
#include <QComboBox>
#include <QLineEdit>
#include <QMenu>
#include <QTabWidget>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <utility>

#include "core/Messages.h"
#include "platform/Text.h"
#include "ui/AnsiText.h"
#include "ui/ControlPanel.h"
#include "ui/DialogPresenter.h"
#include "ui/PermissionDialog.h"

namespace qbrix::ui {

namespace {

constexpr int kStepPeriodMs = 50;

std::atomic<std::int64_t> g_clockOffset{0};

std::int64_t NowMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

std::string Trim(std::string_view text) {
    std::size_t begin = text.find_first_not_of(" \t\r");
    if (begin == std::string_view::npos) {
        return {};
    }
    std::size_t end = text.find_last_not_of(" \t\r");
    return std::string(text.substr(begin, end - begin + 1));
}

// The first word of `text` and what follows it, trimmed.
std::pair<std::string, std::string> SplitWord(const std::string& text) {
    std::size_t blank = text.find_first_of(" \t");
    if (blank == std::string::npos) {
        return {text, {}};
    }
    return {text.substr(0, blank), Trim(std::string_view(text).substr(blank))};
}

bool ParseNumber(const std::string& text, long long* value) {
    const char* end = text.data() + text.size();
    auto [stop, error] = std::from_chars(text.data(), end, *value);
    return error == std::errc() && stop == end && !text.empty();
}

QString Shown(const std::string& text) {
    return FromAnsi(text);
}

// The image name of a program path, either kind of separator.
std::string ImageOf(const std::string& path) {
    std::size_t slash = path.find_last_of("\\/");
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

std::optional<std::vector<ScriptStep>> ParseScript(const std::string& text, std::string* error) {
    std::vector<ScriptStep> steps;
    std::istringstream lines(text);
    std::string raw;
    int number = 0;
    auto bad = [&](const std::string& why) {
        *error = "line " + std::to_string(number) + ": " + why;
        return std::nullopt;
    };
    while (std::getline(lines, raw)) {
        ++number;
        std::string line = Trim(raw);
        if (line.empty() || line[0] == '#') {
            continue;
        }
        ScriptStep step;
        step.line = number;
        auto [verb, rest] = SplitWord(line);
        step.verb = verb;
        if (verb == "answer" || verb == "menu") {
            auto [first, last] = SplitWord(rest);
            if (first.empty() || (verb == "answer" && last.empty())) {
                return bad(verb == "answer" ? "answer needs a program and a zone"
                                            : "menu needs an action");
            }
            step.words = {first, last};
        } else if (verb == "page" || verb == "select" || verb == "press" || verb == "touch") {
            if (rest.empty()) {
                return bad(verb + " needs a name");
            }
            step.words = {rest};
        } else if (verb == "clock" || verb == "timeout") {
            if (!ParseNumber(rest, &step.number) || (verb == "timeout" && step.number <= 0)) {
                return bad(verb + " needs a number of seconds");
            }
        } else if (verb == "wait") {
            auto [what, args] = SplitWord(rest);
            step.what = what;
            if (what == "asked" || what == "ticks") {
                if (!ParseNumber(args, &step.number) || step.number < 0) {
                    return bad("wait " + what + " needs a count");
                }
            } else if (what == "rows") {
                auto [count, page] = SplitWord(args);
                if (!ParseNumber(count, &step.number) || step.number < 0 || page.empty()) {
                    return bad("wait rows needs a count and a page");
                }
                step.words = {page};
            } else if (what == "file") {
                if (args.empty()) {
                    return bad("wait file needs a path");
                }
                step.words = {args};
            } else {
                return bad("wait for what? (asked, rows, file, ticks)");
            }
        } else if (verb == "exit") {
            if (!rest.empty()) {
                return bad("exit takes nothing more");
            }
        } else {
            return bad("unknown step \"" + verb + "\"");
        }
        steps.push_back(std::move(step));
    }
    return steps;
}

// What the script answers in the user's place: the questions about programs, and the file
// dialogs of the menu commands. Message boxes go on to the console, which prints them and takes
// their default button.
struct UnattendedScript::Answers : DialogPresenter, core::Messages {
    Answers() : presenterScope(*this), messagesScope(*this) {}

    int Present(QDialog& dialog) override {
        auto* permissions = qobject_cast<PermissionDialog*>(&dialog);
        if (permissions == nullptr) {
            dialog.done(QDialog::Rejected);
            return QDialog::Rejected;
        }
        ++asked;
        auto* application = dialog.findChild<QLineEdit*>("Application");
        std::string image =
            application != nullptr ? ImageOf(ToAnsi(application->text())) : std::string();
        std::string zone;
        for (const auto& [name, answer] : zones) {
            if (platform::EqualsIgnoreCase(name, image)) {
                zone = answer;
            }
        }
        auto* box = dialog.findChild<QComboBox*>("Zone");
        int index = box != nullptr && !zone.empty() ? box->findText(Shown(zone)) : -1;
        if (index < 0) {
            if (!zone.empty()) {
                problem = "the question about " + image + " offers no zone \"" + zone + "\"";
            }
            dialog.done(QDialog::Rejected);
            return QDialog::Rejected;
        }
        box->setCurrentIndex(index);
        dialog.done(QDialog::Accepted);
        return QDialog::Accepted;
    }

    int MessageBox(std::string_view text, std::string_view caption, unsigned style) override {
        return console.MessageBox(text, caption, style);
    }
    core::NoAskAnswer AskNoAsk(std::string_view title, std::string_view message) override {
        return console.AskNoAsk(title, message);
    }
    void Beep(unsigned) override {}
    std::string AskSaveFileName(std::string_view, std::string_view, std::string_view,
                                std::string_view) override {
        return std::exchange(file, std::string());
    }
    std::string AskOpenFileName(std::string_view, std::string_view, std::string_view) override {
        return std::exchange(file, std::string());
    }

    std::map<std::string, std::string> zones;  // image name -> zone
    std::string file;                          // the next file dialog's answer
    std::string problem;                       // an answer that could not be given
    int asked = 0;
    core::ConsoleMessages console{nullptr, stderr};
    ScopedPresenter presenterScope;
    core::ScopedMessages messagesScope;
};

UnattendedScript::UnattendedScript(ControlPanel& panel, std::vector<ScriptStep> steps)
    : m_panel(panel), m_steps(std::move(steps)), m_answers(std::make_unique<Answers>()) {
    connect(&m_panel, &ControlPanel::Ticked, this, [this] { ++m_ticks; });
    connect(&m_timer, &QTimer::timeout, this, &UnattendedScript::Advance);
    m_timer.start(kStepPeriodMs);
    // The first steps run at the first turn of the event loop: the panel is ready then.
    QTimer::singleShot(0, this, &UnattendedScript::Advance);
}

UnattendedScript::~UnattendedScript() = default;

std::unique_ptr<UnattendedScript> UnattendedScript::FromEnvironment(ControlPanel& panel) {
    const char* path = std::getenv("QBRIX_SCRIPT");
    if (path == nullptr || *path == '\0') {
        return nullptr;
    }
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    std::string error;
    std::optional<std::vector<ScriptStep>> steps;
    if (!file) {
        error = "cannot be read";
    } else {
        steps = ParseScript(text.str(), &error);
    }
    if (!steps) {
        // A script that fails at its first step: the run ends at once, with the reason.
        ScriptStep failure;
        failure.verb = "fail";
        failure.words = {std::string(path) + ": " + error};
        steps = std::vector<ScriptStep>{failure};
    }
    return std::make_unique<UnattendedScript>(panel, std::move(*steps));
}

std::int64_t UnattendedScript::ClockOffset() {
    return g_clockOffset.load();
}

bool UnattendedScript::Failed() const {
    return m_failed || !m_answers->problem.empty();
}

void UnattendedScript::Advance() {
    // A step may run a nested event loop (a menu, a message box): no other step starts meanwhile.
    if (m_busy || m_failed) {
        return;
    }
    m_busy = true;
    while (!Finished() && !m_failed) {
        if (!m_answers->problem.empty()) {
            Fail(ScriptStep{}, m_answers->problem);
            break;
        }
        if (!RunStep(m_steps[m_next])) {
            break;
        }
        m_stepDeadline = 0;
        ++m_next;
    }
    if (Finished()) {
        m_timer.stop();
    }
    m_busy = false;
}

namespace {

PropertyPage* FindPage(ControlPanel& panel, const std::string& caption) {
    QTabWidget* tabs = panel.Tabs();
    for (int i = 0; i < tabs->count(); ++i) {
        if (tabs->tabText(i) == Shown(caption)) {
            return qobject_cast<PropertyPage*>(tabs->widget(i));
        }
    }
    return nullptr;
}

// The list of a page: its first item view.
QAbstractItemView* ListOf(QWidget* page) {
    return page == nullptr ? nullptr : page->findChild<QAbstractItemView*>();
}

}  // namespace

bool UnattendedScript::RunStep(const ScriptStep& step) {
    const std::string& verb = step.verb;
    if (verb == "fail") {
        Fail(step, step.words[0]);
        return false;
    }
    if (verb == "answer") {
        m_answers->zones[step.words[0]] = step.words[1];
        return true;
    }
    if (verb == "wait") {
        return Wait(step);
    }
    if (verb == "clock") {
        g_clockOffset += step.number;
        return true;
    }
    if (verb == "touch") {
        if (!std::ofstream(step.words[0], std::ios::trunc)) {
            Fail(step, "cannot write " + step.words[0]);
            return false;
        }
        return true;
    }
    if (verb == "timeout") {
        m_timeoutSeconds = static_cast<int>(step.number);
        return true;
    }
    if (verb == "exit") {
        m_panel.ExitCommand();
        return true;
    }
    if (verb == "page") {
        int index = m_panel.Tabs()->indexOf(FindPage(m_panel, step.words[0]));
        if (index < 0) {
            Fail(step, "the panel has no page \"" + step.words[0] + "\"");
            return false;
        }
        m_panel.ShowPanel(index);
        return true;
    }
    QWidget* page = m_panel.Tabs()->currentWidget();
    if (page == nullptr) {
        Fail(step, "the panel shows no page");
        return false;
    }
    if (verb == "select") {
        QAbstractItemView* list = ListOf(page);
        QAbstractItemModel* model = list != nullptr ? list->model() : nullptr;
        for (int row = 0; model != nullptr && row < model->rowCount(); ++row) {
            QModelIndex index = model->index(row, 0);
            if (index.data().toString() == Shown(step.words[0])) {
                list->setCurrentIndex(index);
                list->scrollTo(index);
                return true;
            }
        }
        Fail(step, "the page shows no row \"" + step.words[0] + "\"");
        return false;
    }
    if (verb == "press") {
        for (QAbstractButton* button : page->findChildren<QAbstractButton*>()) {
            if (button->text().remove('&') == Shown(step.words[0]) && button->isVisible() &&
                button->isEnabled()) {
                button->click();
                return true;
            }
        }
        Fail(step, "the page has no button \"" + step.words[0] + "\" to press");
        return false;
    }
    if (verb == "menu") {
        QAbstractItemView* list = ListOf(page);
        if (list == nullptr || list->contextMenuPolicy() != Qt::CustomContextMenu) {
            Fail(step, "the page's list has no menu");
            return false;
        }
        m_answers->file = step.words[1];
        bool chosen = false;
        // The menu runs its own loop: the choice is made from inside it, as a click would. The
        // timer goes with this call, so a page that opens no menu leaves nothing pending.
        QTimer chooser;
        chooser.setSingleShot(true);
        connect(&chooser, &QTimer::timeout, this, [&chosen, action = Shown(step.words[0])] {
            auto* menu = qobject_cast<QMenu*>(QApplication::activePopupWidget());
            if (menu == nullptr) {
                return;
            }
            for (QAction* item : menu->actions()) {
                if (item->text().remove('&') == action && item->isEnabled()) {
                    chosen = true;
                    menu->hide();
                    item->trigger();
                    return;
                }
            }
            menu->hide();
        });
        chooser.start(0);
        QRect row = list->visualRect(list->currentIndex());
        emit list->customContextMenuRequested(row.isValid() ? row.center() : QPoint(4, 4));
        m_answers->file.clear();
        if (!chosen) {
            Fail(step, "the menu offers no \"" + step.words[0] + "\"");
        }
        return chosen;
    }
    Fail(step, "unknown step");
    return false;
}

bool UnattendedScript::Wait(const ScriptStep& step) {
    if (m_stepDeadline == 0) {
        m_stepDeadline = NowMs() + m_timeoutSeconds * 1000LL;
        if (step.what == "ticks") {
            m_tickTarget = m_ticks + static_cast<int>(step.number);
        }
    }
    bool done = false;
    if (step.what == "asked") {
        done = m_answers->asked >= step.number;
    } else if (step.what == "ticks") {
        done = m_ticks >= m_tickTarget;
    } else if (step.what == "file") {
        std::error_code error;
        done = std::filesystem::exists(step.words[0], error);
    } else if (step.what == "rows") {
        PropertyPage* page = FindPage(m_panel, step.words[0]);
        if (page == nullptr) {
            Fail(step, "the panel has no page \"" + step.words[0] + "\"");
            return false;
        }
        QAbstractItemView* list = ListOf(page);
        done =
            list != nullptr && list->model() != nullptr && list->model()->rowCount() >= step.number;
    }
    if (!done && NowMs() > m_stepDeadline) {
        Fail(step, "still waiting after " + std::to_string(m_timeoutSeconds) + " s");
    }
    return done;
}

void UnattendedScript::Fail(const ScriptStep& step, const std::string& why) {
    m_failed = true;
    m_timer.stop();
    std::string where = step.line > 0 ? "line " + std::to_string(step.line) + " (" + step.verb +
                                            (step.what.empty() ? "" : " " + step.what) + "): "
                                      : std::string();
    std::fprintf(stderr, "q-brix script, %s%s\n", where.c_str(), why.c_str());
    std::fflush(stderr);
    // The run ends as a user ends it.
    QTimer::singleShot(0, &m_panel, [panel = &m_panel] { panel->ExitCommand(); });
}

}  // namespace qbrix::ui
