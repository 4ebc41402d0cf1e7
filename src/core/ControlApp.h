// The application object: start-up from the command letter to a running control panel, and the
// shutdown sequence that switches filtering off and removes what temporary mode installed.
#pragma once

#include <string>
#include <string_view>

#include "platform/Handles.h"

namespace qbrix::core {

// The start-up command, read from the first character of the command text only.
enum class StartCommand { Normal, Install, Deinstall, Temporary };
StartCommand ParseStartCommand(std::string_view commandText);

// The control panel window, as far as start-up is concerned.
class MainWindow {
public:
    virtual ~MainWindow() = default;
};

// The calls start-up and shutdown make into the other subsystems (driver link, driver service,
// provider installer, zone store, user interface).
class ProtectionLinks {
public:
    virtual ~ProtectionLinks() = default;
    // The framework's own initialisation (common controls, application base) and exit handling.
    virtual void InitFramework() {}
    virtual void ExitFramework() {}
    // 0 in every case; failures are left as texts in the driver error buffer.
    virtual int InstallDriver(int permanent) = 0;
    virtual void RemoveDriver(int permanent) = 0;
    // 0 on success, 1 on failure.
    virtual int InstallLayeredProvider() = 0;
    virtual void RemoveLayeredProvider() = 0;
    // 0 when the device is open, 1 otherwise.
    virtual int OpenDriverDevice(int permanent) = 0;
    // 0 when the driver reports version 3.0, 1 otherwise.
    virtual int CheckDriverVersion() = 0;
    virtual void SetFilteringState(int state) = 0;
    virtual void CloseDriverDevice() = 0;
    virtual void ShowDriverErrors() = 0;
    virtual void LoadZoneList() = 0;
    virtual MainWindow* CreateControlPanel() = 0;
};

class ControlApp {
public:
    // `commandText` is the command line after the program name.
    ControlApp(ProtectionLinks& links, std::string commandText);

    // True when the control panel runs; false when the process is to end.
    bool InitInstance();
    // Framework exit handling, then the shutdown sequence; the process exit code (0).
    int ExitInstance();
    // Safe to run twice: the second run only releases the mutex and logs.
    void ShutdownProtection();

    MainWindow* m_pMainWnd = nullptr;
    int m_started = 0;
    platform::HANDLE m_hMutex = nullptr;
    int m_temporary = 0;

private:
    ProtectionLinks& m_links;
    std::string m_commandText;
};

// Nonzero when the current user may change the protection: always on the 9x family; on the NT
// family membership of the Administrators group through CheckTokenMembership.
int IsUserAdmin();

}  // namespace qbrix::core
