// Live mode as an installation choice: the file "driver-mode" in the data root says whether the
// driver service runs the driver live (deciding the machine's real connections) or simulated,
// and where systemd runs, a unit starts the live driver at boot as the boot-start driver does.
// Live mode is only ever chosen explicitly (`q-brix I --live`).
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qbrix::platform {

inline constexpr char kDriverModeFile[] = "driver-mode";
inline constexpr char kDriverUnitName[] = "q-brix-driver.service";
inline constexpr char kSystemUnitDirectory[] = "/etc/systemd/system";

// The install command's switch for live mode: the word "--live" in the command text.
bool AsksForLiveMode(std::string_view commandText);

// Whether the data root's driver-mode file says "live".
bool DriverModeIsLive(const std::string& dataRoot);
// Writes "live" into the driver-mode file (0644), or removes it. True when done.
bool SetDriverMode(const std::string& dataRoot, bool live);

// The words the driver service runs: IMAGE --root DATAROOT --foreground, then --live when the
// data root's mode says so, then the demo scenario of $QBRIX_DRIVER_SCENARIO when set.
std::vector<std::string> DriverServiceWords(const std::string& image, const std::string& dataRoot);

// The unit that starts the live driver at boot.
std::string DriverUnitText(const std::string& driverImage, const std::string& dataRoot);
// Writes the unit into `unitDirectory`; with `runSystemctl`, reloads systemd and enables it
// (not started: the control program starts the driver service itself). True when done.
bool InstallDriverUnit(const std::string& unitDirectory, const std::string& driverImage,
                       const std::string& dataRoot, bool runSystemctl);
// Disables (with `runSystemctl`) and removes the unit; true when there is none left.
bool RemoveDriverUnit(const std::string& unitDirectory, bool runSystemctl);
// Whether systemd manages this machine.
bool SystemdRuns();

}  // namespace qbrix::platform
