#include "platform/posix/PosixPlatform.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
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
    struct stat marker {};
    return ::stat(JoinPath(root, kInstalledMarker).c_str(), &marker) == 0 &&
           S_ISREG(marker.st_mode);
}

namespace {

// A POSIX access control list in the kernel's extended-attribute form (little-endian fields):
// the owner, the owning group and every group of `groups` (ascending) get `perms`, others nothing.
std::string AccessControlList(const std::vector<gid_t>& groups, std::uint32_t perms) {
    constexpr std::uint32_t kUserObj = 0x01, kGroupObj = 0x04, kGroup = 0x08, kMask = 0x10,
                            kOther = 0x20, kNoId = 0xFFFFFFFFu;
    std::string acl;
    auto put = [&acl](std::uint32_t value, int bytes) {
        for (int i = 0; i < bytes; ++i) {
            acl.push_back(static_cast<char>(value >> (8 * i) & 0xFF));
        }
    };
    auto entry = [&put](std::uint32_t tag, std::uint32_t perm, std::uint32_t id) {
        put(tag, 2);
        put(perm, 2);
        put(id, 4);
    };
    put(2, 4);  // the format's version
    entry(kUserObj, perms, kNoId);
    entry(kGroupObj, perms, kNoId);
    for (gid_t gid : groups) {
        entry(kGroup, perms, static_cast<std::uint32_t>(gid));
    }
    entry(kMask, perms, kNoId);
    entry(kOther, 0, kNoId);
    return acl;
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
int Share(const std::filesystem::path& path, const std::vector<gid_t>& groups) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0 || S_ISLNK(info.st_mode)) {
        return 0;
    }
    bool directory = S_ISDIR(info.st_mode);
    gid_t owner = groups.empty() ? 0 : groups.front();
    if (::lchown(path.c_str(), 0, owner) != 0 ||
        ::chmod(path.c_str(), directory ? 02770 : (info.st_mode & 0110) | 0660) != 0) {
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
        std::string acl = AccessControlList(others, directory ? 7 : 6);
        // A file system without access control lists leaves the other groups out.
        ::setxattr(path.c_str(), "system.posix_acl_access", acl.data(), acl.size(), 0);
        if (directory) {
            std::string inherited = AccessControlList(others, 7);
            ::setxattr(path.c_str(), "system.posix_acl_default", inherited.data(), inherited.size(),
                       0);
        }
    }
    return 0;
}

}  // namespace

int ShareMachineDataRoot(const std::string& root) {
    std::error_code error;
    std::filesystem::create_directories(root, error);
    std::vector<gid_t> groups = AdministratorGroups();
    int failed = Share(root, groups);
    for (auto it = std::filesystem::recursive_directory_iterator(root, error);
         !error && it != std::filesystem::recursive_directory_iterator(); it.increment(error)) {
        failed |= Share(it->path(), groups);
    }
    std::string marker = JoinPath(root, kInstalledMarker);
    int fd = ::open(marker.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return 1;
    }
    ::close(fd);
    ::chmod(marker.c_str(), 0644);
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

std::unique_ptr<Platform> MakePosixPlatform(SystemInfo info) {
    auto registry =
        std::make_unique<SqliteRegistry>(RegistryDatabasePath(info.dataRoot), info.user.uid);
    return std::make_unique<Platform>(std::move(info), std::move(registry));
}

}  // namespace qbrix::platform
