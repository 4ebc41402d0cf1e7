#include "platform/posix/PosixPlatform.h"

#include <fcntl.h>
#include <grp.h>
#include <malloc.h>
#include <pwd.h>
#include <sys/acl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include "platform/posix/SqliteRegistry.h"

namespace qbrix::platform {

namespace {
std::string Environment(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? std::string() : std::string(value);
}
}  // namespace

std::string ChooseDataRoot(const DataRootFacts& facts) {
    if (!facts.qbrixRoot.empty()) {
        return facts.qbrixRoot;
    }
    if (facts.superUser || IsInstalledDataRoot(facts.machineRoot)) {
        return facts.machineRoot;
    }
    if (!facts.stateHome.empty()) {
        return JoinPath(facts.stateHome, "q-brix");
    }
    return JoinPath(facts.home, ".local/state/q-brix");
}

std::string DefaultDataRoot() {
    DataRootFacts facts;
    facts.qbrixRoot = Environment("QBRIX_ROOT");
    facts.superUser = ::geteuid() == 0;
    facts.stateHome = Environment("XDG_STATE_HOME");
    facts.home = Environment("HOME");
    if (facts.home.empty()) {
        if (const passwd* entry = ::getpwuid(::geteuid()); entry != nullptr) {
            facts.home = entry->pw_dir;
        }
    }
    std::string root = ChooseDataRoot(facts);
    if (root == facts.machineRoot) {
        mode_t previous = ::umask(0);
        ::umask((previous & 0700) | 0007);
    }
    return root;
}

bool IsInstalledDataRoot(const std::string& root) {
    const std::string marker = JoinPath(root, kInstalledMarker);
    struct stat info {};
    return ::stat(marker.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
           ::faccessat(AT_FDCWD, marker.c_str(), R_OK, AT_EACCESS) == 0;
}

DataRootAccess AccessOf(const std::string& dataRoot) {
    DataRootAccess access;
    struct stat info {};
    if (::stat(dataRoot.c_str(), &info) == 0) {
        access.shared = info.st_uid == 0;
        access.group = info.st_gid;
    } else {
        // Not made yet: it will be this process's.
        access.shared = ::geteuid() == 0;
        access.group = ::getegid();
    }
    return access;
}

namespace {

// Gives a directory this process owns the data root's directory mode and group.
void FixDirectory(const std::string& path, const DataRootAccess& access, bool passable) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != ::geteuid()) {
        return;
    }
    if (access.shared && info.st_gid != access.group) {
        [[maybe_unused]] int ignored =
            ::lchown(path.c_str(), static_cast<uid_t>(-1), static_cast<gid_t>(access.group));
    }
    mode_t wanted = access.DirectoryMode(passable);
    if ((info.st_mode & 07777) != wanted) {
        ::chmod(path.c_str(), wanted);
    }
}

}  // namespace

bool MakeDataDirectory(const std::string& dataRoot, const std::string& directory) {
    std::filesystem::path root = std::filesystem::path(dataRoot).lexically_normal();
    std::filesystem::path target = std::filesystem::path(directory).lexically_normal();
    std::error_code error;
    if (!std::filesystem::is_directory(root, error)) {
        // Its parents are made as any directory is; the data root itself is closed at once.
        std::filesystem::create_directories(root.parent_path(), error);
        if (::mkdir(root.c_str(), 0700) == 0) {
            FixDirectory(root.string(), AccessOf(root.string()), false);
        }
    }
    std::filesystem::path relative = target.lexically_relative(root);
    if (relative.empty() || *relative.begin() == "..") {
        // Not below the data root: made as any directory is.
        std::filesystem::create_directories(target, error);
        return std::filesystem::is_directory(target, error);
    }
    DataRootAccess access = AccessOf(root.string());
    std::filesystem::path current = root;
    std::filesystem::path below;
    for (const std::filesystem::path& part : relative) {
        if (part == ".") {
            continue;
        }
        current /= part;
        below /= part;
        if (::mkdir(current.c_str(), 0700) != 0 && errno != EEXIST) {
            return false;
        }
        // The way to the mailslot, which every program may write to.
        bool passable = below == "run" || below == "run/mailslot";
        FixDirectory(current.string(), access, passable);
    }
    return std::filesystem::is_directory(target, error);
}

std::string MakeRunDirectory(const std::string& dataRoot) {
    std::string run = JoinPath(dataRoot, "run");
    MakeDataDirectory(dataRoot, run);
    return run;
}

int OpenDataFile(const std::string& dataRoot, const std::string& path, int flags, unsigned mode) {
    DataRootAccess access = AccessOf(dataRoot);
    mode_t wanted = mode != 0 ? mode : access.FileMode();
    int fd = ::open(path.c_str(), flags | O_CLOEXEC, wanted);
    if (fd < 0) {
        return -1;
    }
    struct stat info {};
    if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_uid == ::geteuid()) {
        if (access.shared && info.st_gid != access.group) {
            [[maybe_unused]] int ignored =
                ::fchown(fd, static_cast<uid_t>(-1), static_cast<gid_t>(access.group));
        }
        if ((info.st_mode & 07777) != wanted) {
            ::fchmod(fd, wanted);
        }
    }
    return fd;
}

bool WriteDataFile(const std::string& dataRoot, const std::string& path, std::string_view text,
                   unsigned mode) {
    int fd = OpenDataFile(dataRoot, path, O_WRONLY | O_CREAT | O_TRUNC, mode);
    if (fd < 0) {
        return false;
    }
    bool written = true;
    while (written && !text.empty()) {
        ssize_t count = ::write(fd, text.data(), text.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        written = count > 0;
        if (written) {
            text.remove_prefix(static_cast<std::size_t>(count));
        }
    }
    return ::close(fd) == 0 && written;
}

void SetDataFileMode(const std::string& dataRoot, const std::string& path, unsigned mode) {
    DataRootAccess access = AccessOf(dataRoot);
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0 || S_ISLNK(info.st_mode) || info.st_uid != ::geteuid()) {
        return;
    }
    if (access.shared && info.st_gid != access.group) {
        [[maybe_unused]] int ignored =
            ::lchown(path.c_str(), static_cast<uid_t>(-1), static_cast<gid_t>(access.group));
    }
    ::chmod(path.c_str(), mode != 0 ? mode : access.FileMode());
}

namespace {

// Gives every group of `groups` the same rights as the owning group through a POSIX access
// control list (and, for a directory, as its default list, so what is made in it inherits them).
// A file system without access control lists leaves those groups out.
void GrantGroups(const std::filesystem::path& path, const std::vector<gid_t>& groups,
                 bool directory, bool passable) {
    std::string rights = directory ? "rwx" : "rw-";
    std::string text =
        "u::" + rights + ",g::" + rights + ",o::" + (passable ? "--x" : "---") + ",m::" + rights;
    for (gid_t gid : groups) {
        text += ",g:" + std::to_string(gid) + ":" + rights;
    }
    std::vector<acl_type_t> types{ACL_TYPE_ACCESS};
    if (directory) {
        types.push_back(ACL_TYPE_DEFAULT);
    }
    for (acl_type_t type : types) {
        if (acl_t acl = acl_from_text(text.c_str()); acl != nullptr) {
            acl_set_file(path.c_str(), type, acl);
            acl_free(acl);
        }
    }
}

// The administrator groups that exist here, in order of preference.
std::vector<gid_t> AdministratorGroups() {
    std::vector<gid_t> groups;
    for (const char* name : {"sudo", "admin", "wheel"}) {
        if (const group* entry = ::getgrnam(name); entry != nullptr) {
            groups.push_back(entry->gr_gid);
        }
    }
    return groups;
}

// Root and the first group own it; the other groups get the same rights through an access
// control list (also the default one of a directory, so what is made in it inherits them).
// Sockets and the store are files like the others: group read and write, nothing for others.
// Other users may only pass through the directories on the way to the mailslot, which every
// local program may write to.
int Share(const std::filesystem::path& path, const std::vector<gid_t>& groups, bool passable) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0 || S_ISLNK(info.st_mode)) {
        return 0;
    }
    bool directory = S_ISDIR(info.st_mode);
    gid_t owner = groups.empty() ? 0 : groups.front();
    if (::lchown(path.c_str(), 0, owner) != 0 ||
        ::chmod(path.c_str(),
                directory ? 02770 | (passable ? 0001 : 0) : (info.st_mode & 0110) | 0660) != 0) {
        return 1;
    }
    std::vector<gid_t> others;
    for (gid_t gid : groups) {
        if (gid != owner) {
            others.push_back(gid);
        }
    }
    std::sort(others.begin(), others.end());
    others.erase(std::unique(others.begin(), others.end()), others.end());
    if (!others.empty()) {
        GrantGroups(path, others, directory, directory && passable);
    }
    return 0;
}

}  // namespace

int ShareMachineDataRoot(const std::string& root) {
    std::error_code error;
    std::filesystem::create_directories(root, error);
    std::vector<gid_t> groups = AdministratorGroups();
    const std::filesystem::path base = std::filesystem::path(root).lexically_normal();
    auto passable = [&base](const std::filesystem::path& path) {
        std::filesystem::path relative = path.lexically_normal().lexically_relative(base);
        return relative == "." || relative == "run" || relative == "run/mailslot";
    };
    int failed = Share(base, groups, true);
    for (auto it = std::filesystem::recursive_directory_iterator(base, error);
         !error && it != std::filesystem::recursive_directory_iterator(); it.increment(error)) {
        failed |= Share(it->path(), groups, passable(it->path()));
    }
    // Readable by root and the administrators only: the others, who may pass through the root on
    // their way to the mailslot, do not take it for theirs.
    std::string marker = JoinPath(root, kInstalledMarker);
    int fd = ::open(marker.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0640);
    if (fd < 0) {
        return 1;
    }
    ::close(fd);
    gid_t owner = groups.empty() ? 0 : groups.front();
    if (::chown(marker.c_str(), 0, owner) != 0 || ::chmod(marker.c_str(), 0640) != 0) {
        failed = 1;
    }
    return failed != 0 || error ? 1 : 0;
}

void UnshareMachineDataRoot(const std::string& root) {
    ::unlink(JoinPath(root, kInstalledMarker).c_str());
}

std::string ExecutableDirectory() {
    std::error_code error;
    std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe", error);
    if (error) {
        return "./";
    }
    return JoinPath(exe.parent_path().string(), "");
}

UserIdentity CurrentUserIdentity() {
    UserIdentity identity;
    identity.uid = static_cast<std::uint32_t>(::geteuid());
    int count = ::getgroups(0, nullptr);
    std::vector<gid_t> groups(count > 0 ? count : 0);
    if (count > 0) {
        count = ::getgroups(count, groups.data());
        groups.resize(count > 0 ? count : 0);
    }
    groups.push_back(::getegid());
    for (gid_t gid : groups) {
        if (const group* entry = ::getgrgid(gid); entry != nullptr) {
            identity.groups.emplace_back(entry->gr_name);
        }
    }
    return identity;
}

Family FamilyFromEnvironment() {
    return Environment("QBRIX_PLATFORM_FAMILY") == "9x" ? Family::Win9x : Family::Nt;
}

SystemInfo DetectSystemInfo() {
    SystemInfo info;
    info.family = FamilyFromEnvironment();
    info.programDirectory = ExecutableDirectory();
    info.dataRoot = DefaultDataRoot();
    info.user = CurrentUserIdentity();
    return info;
}

std::string RegistryDatabasePath(const std::string& dataRoot) {
    return JoinPath(dataRoot, "registry.db");
}

void KeepLargeBuffersInHeap() {
    // glibc serves blocks above its mapping threshold (128 KB at first) with mmap and trims
    // the heap's top above 128 KB: a text that grows past a page-sized buffer then costs a
    // fresh mapping and a page fault per 4 KB on every run of a rule (measured: 220 us against
    // 2.5 us for a 100 KB page). Fixed thresholds keep such buffers for reuse.
    ::mallopt(M_MMAP_THRESHOLD, 32 << 20);
    ::mallopt(M_TRIM_THRESHOLD, 64 << 20);
}

std::unique_ptr<Platform> MakePosixPlatform(SystemInfo info) {
    KeepLargeBuffersInHeap();
    auto registry =
        std::make_unique<SqliteRegistry>(RegistryDatabasePath(info.dataRoot), info.user.uid);
    return std::make_unique<Platform>(std::move(info), std::move(registry));
}

std::uint32_t GetCurrentProcessId() { return static_cast<std::uint32_t>(::getpid()); }

bool IsTerminal(std::FILE* stream) { return stream != nullptr && ::isatty(::fileno(stream)) == 1; }

}  // namespace qbrix::platform
