#include "app/AppLinks.h"

#include "core/Messages.h"
#include "provider_install/ProviderInstaller.h"

namespace qbrix::app {

// This build carries no driver link yet: the device cannot be opened, so start-up stops at the
// device check with a message, and the installation commands have nothing to install.
int AppLinks::InstallDriver(int) { return 0; }
void AppLinks::RemoveDriver(int) {}
int AppLinks::InstallLayeredProvider() {
    return provider_install::ProviderInstaller().InstallLayeredProvider();
}
void AppLinks::RemoveLayeredProvider() {
    provider_install::ProviderInstaller().RemoveLayeredProvider();
}
int AppLinks::OpenDriverDevice(int) { return 1; }
int AppLinks::CheckDriverVersion() { return 1; }
void AppLinks::SetFilteringState(int) {}
void AppLinks::CloseDriverDevice() {}
void AppLinks::ShowDriverErrors() {
    core::CurrentMessages().MessageBox("driver link not available in this build", "error",
                                       core::MB_OK | core::MB_ICONERROR);
}
void AppLinks::LoadZoneList() {}

void AppLinks::InitFramework() { m_shell.Init(); }
void AppLinks::ExitFramework() { m_shell.Exit(); }
core::MainWindow* AppLinks::CreateControlPanel() { return m_shell.CreatePanel(); }

}  // namespace qbrix::app
