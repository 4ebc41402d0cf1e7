// Builds the Linux platform: the SQLite registry under the data root and the system facts read
// from the running process and its environment.
#pragma once

#include <memory>
#include <string>

#include "platform/Platform.h"

namespace qbrix::platform {

// The machine's data root, and the file in it that says the product is installed there.
inline constexpr char kMachineDataRoot[] = "/var/lib/q-brix";
inline constexpr char kInstalledMarker[] = "installed";

// What the choice of the data root depends on.
struct DataRootFacts {
    std::string qbrixRoot;  // $QBRIX_ROOT
    bool superUser = false;
    std::string machineRoot = kMachineDataRoot;
    std::string stateHome;  // $XDG_STATE_HOME
    std::string home;       // $HOME, else the user's home directory
};

// $QBRIX_ROOT when set; otherwise the machine's root for root, and for every other user who can
// see its install marker (the machine's root is closed to all but root and the administrator
// groups); otherwise the user's own root, $XDG_STATE_HOME/q-brix (default
// ~/.local/state/q-brix), as for a build that was never installed.
std::string ChooseDataRoot(const DataRootFacts& facts);

// The data root of this process. When it is the machine's, what the process creates there is
// made group-writable and closed to others (umask 007), so that every administrator can use it.
std::string DefaultDataRoot();

// True when `root` carries the install marker.
bool IsInstalledDataRoot(const std::string& root);

// The install command's part (run as root): the machine's root, with everything already in it,
// belongs to root and to the administrator groups (sudo, admin, wheel, whichever exist: the first
// as the owning group, set-group-id on directories, the others through access control lists),
// writable by them and closed to other users; then the install marker is written. 0 on success.
int ShareMachineDataRoot(const std::string& root);
// The deinstall command's part: the install marker goes, so administrators fall back to roots of
// their own.
void UnshareMachineDataRoot(const std::string& root);

// The running executable's directory, ending in '/'.
std::string ExecutableDirectory();

// The calling user's id and group names.
UserIdentity CurrentUserIdentity();

// Family from QBRIX_PLATFORM_FAMILY ("9x" selects the 9x family), NT otherwise.
Family FamilyFromEnvironment();

SystemInfo DetectSystemInfo();

// The registry database file of a data root.
std::string RegistryDatabasePath(const std::string& dataRoot);

std::unique_ptr<Platform> MakePosixPlatform(SystemInfo info);

}  // namespace qbrix::platform
