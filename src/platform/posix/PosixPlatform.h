// Builds the Linux platform: the SQLite registry under the data root and the system facts read
// from the running process and its environment.
#pragma once

#include <memory>
#include <string>

#include "platform/Platform.h"

namespace qbrix::platform {

// The data root: $QBRIX_ROOT when set; otherwise /var/lib/q-brix for root and
// $XDG_STATE_HOME/q-brix (default ~/.local/state/q-brix) for other users.
std::string DefaultDataRoot();

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
