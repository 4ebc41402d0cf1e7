#include "app/AppShell.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#ifdef QBRIX_HAVE_UI
#include <QApplication>
#include <QGuiApplication>
#include <QSessionManager>
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

struct AppShell::State {
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
    if (m_state->application == nullptr) {
        return nullptr;
    }
    m_state->panel = std::make_unique<ui::ControlPanel>(BuildPanelParts());
    QObject::connect(m_state->panel.get(), &ui::ControlPanel::ExitRequested,
                     m_state->application.get(), &QCoreApplication::quit);
    return m_state->panel.get();
#else
    return nullptr;
#endif
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
        int fd = signalfd(-1, &endSignals, SFD_CLOEXEC | SFD_NONBLOCK);
        QSocketNotifier notifier(fd, QSocketNotifier::Read);
        QObject::connect(&notifier, &QSocketNotifier::activated, [this, fd] {
            signalfd_siginfo info;
            while (::read(fd, &info, sizeof(info)) == sizeof(info)) {
            }
            EndSession();
            QCoreApplication::quit();
        });
        // The desktop session is ending: the same shutdown as a signal.
        QObject::connect(m_state->application.get(), &QGuiApplication::commitDataRequest,
                         [this] { EndSession(); });
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
        m_scriptFailed = script != nullptr && (script->Failed() || !script->Finished());
        return;
    }
#endif
    if (smokeSeconds > 0) {
        timespec limit{smokeSeconds, 0};
        if (sigtimedwait(&endSignals, nullptr, &limit) > 0) {
            EndSession();
        }
        return;
    }
    int received = 0;
    sigwait(&endSignals, &received);
    EndSession();
}

void AppShell::Exit() {
#ifdef QBRIX_HAVE_UI
    m_state->panel.reset();
#endif
}

}  // namespace qbrix::app
