#include "support/Process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <stdexcept>

namespace qbrix::test {

namespace {

using Clock = std::chrono::steady_clock;

int RemainingMs(Clock::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

// Forks and execs argv with stdin from /dev/null and stdout/stderr into the given descriptors.
pid_t Spawn(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env,
            int outFd, int errFd) {
    pid_t pid = ::fork();
    if (pid < 0) {
        throw std::runtime_error("fork failed");
    }
    if (pid == 0) {
        int devNull = ::open("/dev/null", O_RDONLY);
        ::dup2(devNull, 0);
        ::dup2(outFd, 1);
        ::dup2(errFd, 2);
        for (const auto& [name, value] : env) {
            ::setenv(name.c_str(), value.c_str(), 1);
        }
        std::vector<char*> args;
        for (const std::string& arg : argv) {
            args.push_back(const_cast<char*>(arg.c_str()));
        }
        args.push_back(nullptr);
        ::execv(args[0], args.data());
        ::_exit(127);
    }
    return pid;
}

int ExitCodeOf(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; }

}  // namespace

bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    auto deadline = Clock::now() + limit;
    while (Clock::now() < deadline) {
        if (condition()) {
            return true;
        }
        ::usleep(20000);
    }
    return condition();
}

ProcessResult RunProcess(const std::vector<std::string>& argv,
                         const std::map<std::string, std::string>& env, int timeoutMs) {
    int outPipe[2];
    int errPipe[2];
    if (::pipe2(outPipe, O_CLOEXEC) != 0 || ::pipe2(errPipe, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    pid_t pid = Spawn(argv, env, outPipe[1], errPipe[1]);
    ::close(outPipe[1]);
    ::close(errPipe[1]);

    ProcessResult result;
    auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
    std::string* sinks[2] = {&result.out, &result.err};
    int open = 2;
    while (open > 0) {
        int ready = ::poll(fds, 2, RemainingMs(deadline));
        if (ready <= 0) {
            result.timedOut = true;
            ::kill(pid, SIGKILL);
            break;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd >= 0 && (fds[i].revents & (POLLIN | POLLHUP)) != 0) {
                char buffer[4096];
                ssize_t count = ::read(fds[i].fd, buffer, sizeof(buffer));
                if (count <= 0) {
                    ::close(fds[i].fd);
                    fds[i].fd = -1;
                    --open;
                } else {
                    sinks[i]->append(buffer, static_cast<std::size_t>(count));
                }
            }
        }
    }
    for (pollfd& fd : fds) {
        if (fd.fd >= 0) ::close(fd.fd);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    result.exitCode = result.timedOut ? -1 : ExitCodeOf(status);
    return result;
}

BackgroundProcess::BackgroundProcess(const std::vector<std::string>& argv,
                                     const std::map<std::string, std::string>& env,
                                     const std::string& errorFile) {
    int outPipe[2];
    if (::pipe2(outPipe, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    int errFd = ::open(errorFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    m_pid = Spawn(argv, env, outPipe[1], errFd);
    ::close(outPipe[1]);
    ::close(errFd);
    m_out = outPipe[0];
}

BackgroundProcess::~BackgroundProcess() {
    if (m_pid > 0) {
        Stop(SIGKILL);
    }
    if (m_out >= 0) {
        ::close(m_out);
    }
}

std::string BackgroundProcess::ReadLine(int timeoutMs) {
    auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (true) {
        std::size_t end = m_buffer.find('\n');
        if (end != std::string::npos) {
            std::string line = m_buffer.substr(0, end);
            m_buffer.erase(0, end + 1);
            return line;
        }
        pollfd fd{m_out, POLLIN, 0};
        if (::poll(&fd, 1, RemainingMs(deadline)) <= 0) {
            return std::string();
        }
        char buffer[1024];
        ssize_t count = ::read(m_out, buffer, sizeof(buffer));
        if (count <= 0) {
            return std::string();
        }
        m_buffer.append(buffer, static_cast<std::size_t>(count));
    }
}

int BackgroundProcess::Stop(int signal, int timeoutMs) {
    if (m_pid <= 0) {
        return -1;
    }
    ::kill(m_pid, signal);
    int exitCode = Wait(timeoutMs);
    if (m_pid > 0) {  // still running: it goes now
        ::kill(m_pid, SIGKILL);
        int status = 0;
        ::waitpid(m_pid, &status, 0);
        m_pid = -1;
        return -1;
    }
    return exitCode;
}

int BackgroundProcess::Wait(int timeoutMs) {
    if (m_pid <= 0) {
        return -1;
    }
    auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    int status = 0;
    while (::waitpid(m_pid, &status, WNOHANG) == 0) {
        if (RemainingMs(deadline) == 0) {
            return -1;
        }
        ::usleep(10000);
    }
    m_pid = -1;
    return ExitCodeOf(status);
}

}  // namespace qbrix::test
