// Connects start-up and shutdown to the subsystems that serve them in this build.
#pragma once

#include "app/AppShell.h"
#include "core/ControlApp.h"

namespace qbrix::app {

class AppLinks : public core::ProtectionLinks {
public:
    explicit AppLinks(AppShell& shell) : m_shell(shell) {}

    void InitFramework() override;
    void ExitFramework() override;
    int InstallDriver(int permanent) override;
    void RemoveDriver(int permanent) override;
    int InstallLayeredProvider() override;
    void RemoveLayeredProvider() override;
    int OpenDriverDevice(int permanent) override;
    int CheckDriverVersion() override;
    void SetFilteringState(int state) override;
    void CloseDriverDevice() override;
    void ShowDriverErrors() override;
    void LoadZoneList() override;
    core::MainWindow* CreateControlPanel() override;

private:
    AppShell& m_shell;
};

}  // namespace qbrix::app
