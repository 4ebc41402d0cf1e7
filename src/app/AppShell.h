// The windowing side of the program: the Qt application and the control panel when there is a
// display, a console otherwise (messages on the error stream, the main loop's steps once a
// second until the session ends).
#pragma once

#include <functional>
#include <memory>

#include "core/ControlApp.h"

namespace qbrix::app {

class AppShell {
  public:
    AppShell(int& argc, char** argv);
    ~AppShell();

    // True when a display (or the offscreen platform) is available and the build has the UI.
    static bool HasDisplay();

    // The framework's own initialisation: creates the Qt application and installs the dialog
    // facade when there is a display.
    void Init();
    // The control panel; without a display, the console loop (and no window).
    core::MainWindow* CreatePanel();
    // Called once when the session ends (SIGTERM, SIGINT, SIGHUP, or the desktop session's
    // termination, which arrives as a quit request that is not Exit's), before the event loop
    // stops: the shutdown that the session-end notification runs. A session save or a logout
    // that may still be cancelled is not the end. The program then ends, whatever is open.
    void SetSessionEndHandler(std::function<void()> handler) { m_sessionEnd = std::move(handler); }

    // Runs until Exit or the end of the session. With QBRIX_SMOKE_SECONDS=N the run ends by
    // itself after N seconds through the tray's Exit command (answered Yes when nobody can).
    // An unattended run with QBRIX_SCRIPT=FILE plays that script meanwhile.
    void Run();
    // True when the unattended run's script could not be played to its end.
    bool ScriptFailed() const { return m_scriptFailed; }
    // The framework's exit handling: the panel goes, the application object stays until the
    // shutdown sequence has shown its messages.
    void Exit();

  private:
    struct State;
    void EndSession();

    int& m_argc;
    char** m_argv;
    std::function<void()> m_sessionEnd;
    bool m_sessionEnded = false;
    bool m_scriptFailed = false;
    std::unique_ptr<State> m_state;
};

}  // namespace qbrix::app
