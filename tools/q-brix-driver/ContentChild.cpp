#include "ContentChild.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>

#include "platform/posix/DriverProcess.h"
#include "platform/posix/live/FirewallRules.h"

extern char** environ;

namespace qbrix::refdriver {

namespace {
// A processor that keeps failing is started again at most this often.
constexpr auto kRestartPause = std::chrono::seconds(2);
constexpr int kMaxRestarts = 10;
}  // namespace

ContentChild::ContentChild(std::string program, std::vector<std::string> arguments)
    : m_program(std::move(program)), m_arguments(std::move(arguments)) {}

ContentChild::~ContentChild() {
    Stop();
}

int ContentChild::Start(std::string* error) {
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) {
        *error = std::string("cannot start the content processor: ") + std::strerror(errno);
        return 1;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    std::vector<char*> argv{const_cast<char*>(m_program.c_str())};
    for (std::string& argument : m_arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    int rc = ::posix_spawn(&m_pid, m_program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    if (rc != 0) {
        ::close(out[0]);
        m_pid = -1;
        *error = "cannot start " + m_program + ": " + std::strerror(rc);
        return 1;
    }
    // Ready once it says where it listens (it has redirected the traffic by then).
    std::string line;
    pollfd ready{out[0], POLLIN, 0};
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (line.find('\n') == std::string::npos && std::chrono::steady_clock::now() < deadline) {
        if (::poll(&ready, 1, 200) > 0) {
            char chunk[256];
            ssize_t n = ::read(out[0], chunk, sizeof(chunk));
            if (n <= 0) {
                break;
            }
            line.append(chunk, static_cast<std::size_t>(n));
        }
    }
    ::close(out[0]);
    if (line.find("listening") == std::string::npos) {
        Stop();
        *error = "the content processor did not start (see its messages above)";
        return 1;
    }
    m_pidFd = static_cast<int>(::syscall(SYS_pidfd_open, m_pid, 0));
    return 0;
}

void ContentChild::Reap() {
    if (m_pidFd >= 0) {
        ::close(m_pidFd);
        m_pidFd = -1;
    }
    if (m_pid > 0) {
        int status = 0;
        ::waitpid(m_pid, &status, 0);
        m_pid = -1;
    }
    // Whatever it left: connections to port 80 and 110 go straight to their servers again.
    platform::live::RemoveRedirect();
}

void ContentChild::Stop() {
    if (m_pid > 0) {
        // It removes its redirection as it ends; killed after 5 s, it leaves it to Reap.
        platform::EndDriverProcess(m_pid, 5000);
    }
    Reap();
}

std::vector<int> ContentChild::Fds() const {
    return m_pidFd >= 0 ? std::vector<int>{m_pidFd} : std::vector<int>{};
}

void ContentChild::Ready(int) {
    std::fprintf(stderr,
                 "q-brix-driver: the content processor ended; web and mail pass "
                 "unfiltered until it runs again\n");
    Reap();
    m_restartAt = ReferenceDriver::Clock::now() + kRestartPause;
}

ReferenceDriver::Clock::time_point ContentChild::Tick(ReferenceDriver::Clock::time_point now) {
    if (m_pid > 0 || m_restartAt == ReferenceDriver::Clock::time_point{}) {
        return now + std::chrono::hours(1);
    }
    if (now < m_restartAt) {
        return m_restartAt;
    }
    m_restartAt = {};
    if (++m_restarts > kMaxRestarts) {
        std::fprintf(stderr,
                     "q-brix-driver: the content processor keeps ending; not started "
                     "again\n");
        return now + std::chrono::hours(1);
    }
    std::string error;
    if (Start(&error) != 0) {
        std::fprintf(stderr, "q-brix-driver: %s\n", error.c_str());
        m_restartAt = now + kRestartPause;
        return m_restartAt;
    }
    return now + std::chrono::hours(1);
}

}  // namespace qbrix::refdriver
