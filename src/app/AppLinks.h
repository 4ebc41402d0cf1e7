// Connects start-up and shutdown to the subsystems that serve them in this build.
#pragma once

#include "core/ControlApp.h"

namespace qbrix::app {

class AppLinks : public core::ProtectionLinks {
public:
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
};

}  // namespace qbrix::app
