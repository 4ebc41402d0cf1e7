#include "app/AppLinks.h"

#include "driver/DriverControl.h"
#include "driver/DriverErrors.h"
#include "driver/DriverService.h"
#include "policy/ZoneStore.h"
#include "provider_install/ProviderInstaller.h"

namespace qbrix::app {

int AppLinks::InstallDriver(int permanent) { return driver::InstallDriver(permanent); }
void AppLinks::RemoveDriver(int permanent) { driver::RemoveDriver(permanent); }
int AppLinks::InstallLayeredProvider() {
    return provider_install::ProviderInstaller().InstallLayeredProvider();
}
void AppLinks::RemoveLayeredProvider() {
    provider_install::ProviderInstaller().RemoveLayeredProvider();
}
int AppLinks::OpenDriverDevice(int permanent) { return driver::OpenDriverDevice(permanent); }
int AppLinks::CheckDriverVersion() { return driver::CheckDriverVersion(driver::g_hDriver); }
void AppLinks::SetFilteringState(int state) {
    driver::SetFilteringState(driver::g_hDriver, static_cast<std::uint32_t>(state));
}
void AppLinks::CloseDriverDevice() { driver::CloseDriverDevice(); }
void AppLinks::ShowDriverErrors() { driver::ShowDriverErrors(); }
void AppLinks::LoadZoneList() { policy::LoadZones(); }

void AppLinks::InitFramework() { m_shell.Init(); }
void AppLinks::ExitFramework() { m_shell.Exit(); }
core::MainWindow* AppLinks::CreateControlPanel() { return m_shell.CreatePanel(); }

}  // namespace qbrix::app
