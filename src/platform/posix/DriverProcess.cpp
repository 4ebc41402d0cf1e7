#include "platform/posix/DriverProcess.h"
#include "platform/posix/LiveMode.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "platform/Device.h"
#include "platform/Services.h"

extern char** environ;

namespace qbrix::platform {

namespace {

using Clock = std::chrono::steady_clock;

void Pause() {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

}  // namespace

int ConnectDeviceSocket(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        int saved = errno;
        ::close(fd);
        errno = saved;
        return -1;
    }
    return fd;
}

bool ProcessAlive(pid_t pid) {
    if (pid <= 0) {
        return false;
    }
    int status = 0;
    pid_t reaped = ::waitpid(pid, &status, WNOHANG);
    if (reaped == pid) {
        return false;
    }
    return ::kill(pid, 0) == 0 || errno == EPERM;
}

pid_t LaunchDriverProcess(const std::string& image, const std::string& dataRoot, int timeoutMs,
                          DWORD* error) {
    struct stat info {};
    if (::stat(image.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
        *error = ERROR_FILE_NOT_FOUND;
        return -1;
    }
    if (::access(image.c_str(), X_OK) != 0) {
        *error = ERROR_ACCESS_DENIED;
        return -1;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    // Its own session: the driver outlives the program that started it, as a loaded driver does.
    // Signals the caller blocks must not stay blocked in the driver.
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK);
    std::vector<std::string> words = DriverServiceWords(image, dataRoot);
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    int spawned = ::posix_spawn(&pid, image.c_str(), &actions, &attributes, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (spawned != 0) {
        *error = ERROR_FILE_NOT_FOUND;
        return -1;
    }
    std::string socketPath = DeviceSocketPath(dataRoot);
    Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (Clock::now() < deadline) {
        if (!ProcessAlive(pid)) {
            *error = ERROR_SERVICE_REQUEST_TIMEOUT;
            return -1;
        }
        if (int fd = ConnectDeviceSocket(socketPath); fd >= 0) {
            ::close(fd);
            return pid;
        }
        Pause();
    }
    EndDriverProcess(pid, timeoutMs);
    *error = ERROR_SERVICE_REQUEST_TIMEOUT;
    return -1;
}

void EndDriverProcess(pid_t pid, int timeoutMs) {
    if (!ProcessAlive(pid)) {
        return;
    }
    ::kill(pid, SIGTERM);
    Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (Clock::now() < deadline) {
        if (!ProcessAlive(pid)) {
            return;
        }
        Pause();
    }
    ::kill(pid, SIGKILL);
    for (int i = 0; i < 100 && ProcessAlive(pid); ++i) {
        Pause();
    }
}

}  // namespace qbrix::platform
