#include "app/AppShell.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>

#include "app/MainLoop.h"

#ifdef QBRIX_HAVE_UI
#include <QAbstractEventDispatcher>
#include <QApplication>
#include <QGuiApplication>
#include <QSocketNotifier>
#include <QTimer>

#include "app/PanelFactory.h"
#include "ui/ControlPanel.h"
#include "ui/DialogSetup.h"
#include "ui/QtMessages.h"
#include "ui/UnattendedScript.h"
#endif

namespace qbrix::app {

namespace {

sigset_t SessionEndSignals() {
    sigset_t endSignals;
    sigemptyset(&endSignals);
    sigaddset(&endSignals, SIGTERM);
    sigaddset(&endSignals, SIGINT);
    sigaddset(&endSignals, SIGHUP);
    return endSignals;
}

[[maybe_unused]] bool Set(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0';
}

// Seconds of an unattended smoke run, 0 for a normal run.
int SmokeSeconds() {
    const char* value = std::getenv("QBRIX_SMOKE_SECONDS");
    return value == nullptr ? 0 : std::max(0, std::atoi(value));
}

}  // namespace

#ifdef QBRIX_HAVE_UI
// Sees the application's quit requests. Exit has already let the panel close; any other quit is
// the desktop session ending (the session manager's termination arrives as one).
class QuitWatch : public QObject {
  public:
    QuitWatch(ui::ControlPanel& panel, std::function<void()> sessionEnd)
        : m_panel(panel), m_sessionEnd(std::move(sessionEnd)) {}

  protected:
    bool eventFilter(QObject* watched, QEvent* event) override {
        if (event->type() == QEvent::Quit && !m_panel.ExitConfirmed()) {
            m_sessionEnd();
            return true;
        }
        return QObject::eventFilter(watched, event);
    }

  private:
    ui::ControlPanel& m_panel;
    std::function<void()> m_sessionEnd;
};
#endif

struct AppShell::State {
    std::unique_ptr<ConsoleLoop> console;
#ifdef QBRIX_HAVE_UI
    std::unique_ptr<QApplication> application;
    std::unique_ptr<ui::ControlPanel> panel;
    std::unique_ptr<ui::QtMessages> messages;
    std::unique_ptr<core::ScopedMessages> messagesScope;
    std::unique_ptr<ui::DialogSetup> dialogs;
    bool unattended = false;
#endif
};

AppShell::AppShell(int& argc, char** argv) : m_argc(argc), m_argv(argv), m_state(new State) {
    // The session-end endSignals are taken synchronously by Run, never by a handler.
    sigset_t endSignals = SessionEndSignals();
    pthread_sigmask(SIG_BLOCK, &endSignals, nullptr);
}

AppShell::~AppShell() {
    m_state->console.reset();
#ifdef QBRIX_HAVE_UI
    m_state->messagesScope.reset();
    m_state->panel.reset();
    m_state->dialogs.reset();
    m_state->application.reset();
#endif
}

bool AppShell::HasDisplay() {
#ifdef QBRIX_HAVE_UI
    return Set("QT_QPA_PLATFORM") || Set("DISPLAY") || Set("WAYLAND_DISPLAY");
#else
    return false;
#endif
}

void AppShell::Init() {
#ifdef QBRIX_HAVE_UI
    if (!HasDisplay() || m_state->application != nullptr) {
        return;
    }
    m_state->application = std::make_unique<QApplication>(m_argc, m_argv);
    QApplication::setQuitOnLastWindowClosed(false);
    QString platform = QGuiApplication::platformName();
    // Real dialogs only where somebody can answer them; offscreen runs keep the console.
    bool unattended = platform == "offscreen" || platform == "minimal";
    m_state->unattended = unattended;
    m_state->dialogs = std::make_unique<ui::DialogSetup>(unattended);
    if (!unattended) {
        m_state->messages = std::make_unique<ui::QtMessages>();
        m_state->messagesScope = std::make_unique<core::ScopedMessages>(*m_state->messages);
    }
#endif
}

core::MainWindow* AppShell::CreatePanel() {
#ifdef QBRIX_HAVE_UI
    if (m_state->application != nullptr) {
        m_state->panel = std::make_unique<ui::ControlPanel>(BuildPanelParts());
        QObject::connect(m_state->panel.get(), &ui::ControlPanel::ExitRequested,
                         m_state->application.get(), &QCoreApplication::quit);
        return m_state->panel.get();
    }
#endif
    m_state->console = std::make_unique<ConsoleLoop>();
    return nullptr;
}

void AppShell::EndSession() {
    if (m_sessionEnded) {
        return;
    }
    m_sessionEnded = true;
    if (m_sessionEnd) {
        m_sessionEnd();
    }
}

void AppShell::Run() {
    sigset_t endSignals = SessionEndSignals();
    int smokeSeconds = SmokeSeconds();
#ifdef QBRIX_HAVE_UI
    if (m_state->application != nullptr) {
        // The end of the session ends the program whatever is open: the shutdown runs, the
        // panel may close, and every event loop stops, a modal dialog's included; a loop that a
        // dialog starts afterwards stops as soon as it would wait.
        auto endSession = [this] {
            if (m_state->panel != nullptr) {
                m_state->panel->EndSession();
            }
            EndSession();
            QCoreApplication::exit(0);
        };
        int fd = signalfd(-1, &endSignals, SFD_CLOEXEC | SFD_NONBLOCK);
        QSocketNotifier notifier(fd, QSocketNotifier::Read);
        QObject::connect(&notifier, &QSocketNotifier::activated, [fd, endSession] {
            signalfd_siginfo info;
            while (::read(fd, &info, sizeof(info)) == sizeof(info)) {
            }
            endSession();
        });
        QObject::connect(QAbstractEventDispatcher::instance(),
                         &QAbstractEventDispatcher::aboutToBlock, [this] {
                             if (m_sessionEnded) {
                                 QCoreApplication::exit(0);
                             }
                         });
        // A session save or a logout the user may still cancel (commitDataRequest) is not the
        // end; the session manager's termination is, and arrives as a quit request.
        std::unique_ptr<QuitWatch> quitWatch;
        if (m_state->panel != nullptr) {
            quitWatch = std::make_unique<QuitWatch>(*m_state->panel, endSession);
            m_state->application->installEventFilter(quitWatch.get());
        }
        if (smokeSeconds > 0 && m_state->panel != nullptr) {
            QTimer::singleShot(smokeSeconds * 1000, m_state->panel.get(),
                               [panel = m_state->panel.get()] { panel->ExitCommand(); });
        }
        std::unique_ptr<ui::UnattendedScript> script;
        if (m_state->unattended && m_state->panel != nullptr) {
            script = ui::UnattendedScript::FromEnvironment(*m_state->panel);
        }
        QApplication::exec();
        ::close(fd);
        // A script cut short by the end of the session has not failed.
        m_scriptFailed =
            script != nullptr && (script->Failed() || (!script->Finished() && !m_sessionEnded));
        return;
    }
#endif
    // Without a display: the main loop's steps once a second until the session ends (or the
    // smoke run's time is up).
    auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(smokeSeconds);
    for (;;) {
        constexpr int kPeriodMs = core::MainLoopSteps::kPeriodMs;
        timespec period{kPeriodMs / 1000, kPeriodMs % 1000 * 1000000L};
        if (sigtimedwait(&endSignals, nullptr, &period) > 0) {
            EndSession();
            return;
        }
        if (smokeSeconds > 0 && std::chrono::steady_clock::now() >= limit) {
            return;
        }
        if (m_state->console != nullptr) {
            m_state->console->Tick();
        }
    }
}

void AppShell::Exit() {
    m_state->console.reset();
#ifdef QBRIX_HAVE_UI
    m_state->panel.reset();
#endif
}

}  // namespace qbrix::app
