#include "platform/posix/PosixPlatform.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

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

std::string DefaultDataRoot() {
    if (std::string root = Environment("QBRIX_ROOT"); !root.empty()) {
        return root;
    }
    if (::geteuid() == 0) {
        return "/var/lib/q-brix";
    }
    if (std::string state = Environment("XDG_STATE_HOME"); !state.empty()) {
        return JoinPath(state, "q-brix");
    }
    std::string home = Environment("HOME");
    if (home.empty()) {
        if (const passwd* entry = ::getpwuid(::geteuid()); entry != nullptr) {
            home = entry->pw_dir;
        }
    }
    return JoinPath(home, ".local/state/q-brix");
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
