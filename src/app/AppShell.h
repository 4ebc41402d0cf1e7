// The windowing side of the program: the Qt application and the control panel when there is a
// display, a console otherwise (messages on the error stream, the program runs until the
// session ends).
#pragma once

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
    core::MainWindow* CreatePanel();
    // Runs until Exit or the end of the session (SIGTERM, SIGINT, SIGHUP).
    void Run();
    // The framework's exit handling: the panel goes, the application object stays until the
    // shutdown sequence has shown its messages.
    void Exit();

private:
    struct State;
    int& m_argc;
    char** m_argv;
    std::unique_ptr<State> m_state;
};

}  // namespace qbrix::app
