#include "app/AppLinks.h"

#include "core/Messages.h"
#include "driver/DriverControl.h"
#include "driver/DriverErrors.h"
#include "driver/DriverService.h"

namespace qbrix::app {

int AppLinks::InstallDriver(int permanent) {
    return driver::InstallDriver(permanent);
}
void AppLinks::RemoveDriver(int permanent) {
    driver::RemoveDriver(permanent);
}
// This build carries no socket provider installer yet: there is nothing to install.
int AppLinks::InstallLayeredProvider() {
    return 0;
}
void AppLinks::RemoveLayeredProvider() {}
int AppLinks::OpenDriverDevice(int permanent) {
    return driver::OpenDriverDevice(permanent);
}
int AppLinks::CheckDriverVersion() {
    return driver::CheckDriverVersion(driver::g_hDriver);
}
void AppLinks::SetFilteringState(int state) {
    driver::SetFilteringState(driver::g_hDriver, static_cast<std::uint32_t>(state));
}
void AppLinks::CloseDriverDevice() {
    driver::CloseDriverDevice();
}
void AppLinks::ShowDriverErrors() {
    driver::ShowDriverErrors();
}
void AppLinks::LoadZoneList() {}
core::MainWindow* AppLinks::CreateControlPanel() {
    return nullptr;
}

}  // namespace qbrix::app
