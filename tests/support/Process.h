// Test support: runs real programs (the system's executables and test helpers) as child
// processes, with their own environment, and collects what they print.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace qbrix::test {

// Polls `condition` every 20 ms until it holds or `limit` has passed; its last answer.
bool WaitFor(const std::function<bool()>& condition,
             std::chrono::milliseconds limit = std::chrono::seconds(5));

struct ProcessResult {
    int exitCode = -1;  // -1 when killed by a signal or timed out
    bool timedOut = false;
    std::string out;
    std::string err;
};

// Runs `argv` to completion (killed after `timeoutMs`) with `env` added to this process's
// environment; standard input is /dev/null.
ProcessResult RunProcess(const std::vector<std::string>& argv,
                         const std::map<std::string, std::string>& env = {},
                         int timeoutMs = 20000);

// A child left running: its standard output is read line by line, its error stream goes to
// `errorFile` (default: nowhere); killed and reaped when the object goes.
class BackgroundProcess {
public:
    BackgroundProcess(const std::vector<std::string>& argv,
                      const std::map<std::string, std::string>& env = {},
                      const std::string& errorFile = "/dev/null");
    ~BackgroundProcess();
    BackgroundProcess(const BackgroundProcess&) = delete;
    BackgroundProcess& operator=(const BackgroundProcess&) = delete;

    // The next line of its output without the line feed; empty after `timeoutMs` or at the end.
    std::string ReadLine(int timeoutMs = 10000);
    // Sends a signal and waits for the exit status (-1 when it did not end within `timeoutMs`).
    int Stop(int signal, int timeoutMs = 10000);
    // Waits for the child to end by itself: its exit status, or -1 when it still runs after
    // `timeoutMs` (it is left running) or ended through a signal.
    int Wait(int timeoutMs);
    pid_t Pid() const { return m_pid; }

private:
    pid_t m_pid = -1;
    int m_out = -1;
    std::string m_buffer;
};

}  // namespace qbrix::test
