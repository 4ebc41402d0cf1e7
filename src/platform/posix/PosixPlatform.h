// Builds the Linux platform: the SQLite registry under the data root and the system facts read
// from the running process and its environment.
#pragma once

#include <memory>
#include <string>
#include <string_view>

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
// read its install marker (only root and the administrator groups can); otherwise the user's own root, $XDG_STATE_HOME/q-brix (default
// ~/.local/state/q-brix), as for a build that was never installed.
std::string ChooseDataRoot(const DataRootFacts& facts);

// The data root of this process. When it is the machine's, what the process creates there is
// made group-writable and closed to others (umask 007), so that every administrator can use it.
std::string DefaultDataRoot();

// True when `root` carries an install marker this process may read.
bool IsInstalledDataRoot(const std::string& root);

// What the platform makes in a data root (run files, locks, sockets, the store, the emulated
// Windows directory) gets modes of its own, whatever the process's umask. A data root owned by
// root (the machine's, or any other that root made) is shared with its group: files 0660 and
// directories 2770, in the data root's group; any other data root is its owner's alone: files
// 0600, directories 0700. Other users get nothing, except passage through the directories on the
// way to the mailslot, which every local program may write to.
struct DataRootAccess {
    bool shared = false;
    unsigned group = 0;  // the data root's group, when shared

    unsigned FileMode() const { return shared ? 0660 : 0600; }
    unsigned DirectoryMode(bool passable) const {
        return (shared ? 02770 : 0700) | (passable ? 0001 : 0);
    }
};
DataRootAccess AccessOf(const std::string& dataRoot);

// Creates `directory` (the data root or a directory in it) and the missing directories between
// with the data root's directory mode ("run" and "run/mailslot" passable); a directory below the
// data root that this process owns gets that mode back when it has another. The data root
// itself, when it exists, is left as it is. True when `directory` exists afterwards.
bool MakeDataDirectory(const std::string& dataRoot, const std::string& directory);

// The data root's "run" directory, made as above.
std::string MakeRunDirectory(const std::string& dataRoot);

// open(2) of a file in the data root, creating it with `mode` (0: the data root's file mode).
// A file this process owns gets that mode and the data root's group whatever the umask, also
// when it existed; -1 with errno on failure.
int OpenDataFile(const std::string& dataRoot, const std::string& path, int flags,
                 unsigned mode = 0);

// Replaces the content of a file in the data root with `text`, the file opened as above. True
// when all was written.
bool WriteDataFile(const std::string& dataRoot, const std::string& path, std::string_view text,
                   unsigned mode = 0);

// Gives `path` (a socket just bound) `mode` (0: the data root's file mode) and, when shared, the
// data root's group.
void SetDataFileMode(const std::string& dataRoot, const std::string& path, unsigned mode = 0);

// The install command's part (run as root): the machine's root, with everything already in it,
// belongs to root and to the administrator groups (sudo, admin, wheel, whichever exist: the first
// as the owning group, set-group-id on directories, the others through access control lists),
// writable by them and closed to other users, who may only pass through the root, "run" and
// "run/mailslot" on their way to the mailslot; then the install marker is written, readable by
// the administrators only. 0 on success.
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
