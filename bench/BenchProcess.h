// The benchmarks' way of starting the system's programs: a child with this process's environment
// plus `extraEnv` ("NAME=value" entries, which win), no input, and its output discarded.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/types.h>

#include <string>
#include <vector>

extern char** environ;

namespace qbrix::bench {

// The child's process id, or -1 when it could not be started.
inline pid_t Spawn(std::vector<std::string> argv, const std::vector<std::string>& extraEnv = {}) {
    std::vector<std::string> env(extraEnv);
    for (char** entry = environ; *entry != nullptr; ++entry) {
        env.emplace_back(*entry);
    }
    std::vector<char*> args;
    for (std::string& word : argv) {
        args.push_back(word.data());
    }
    args.push_back(nullptr);
    std::vector<char*> envp;
    for (std::string& entry : env) {
        envp.push_back(entry.data());
    }
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    if (posix_spawn(&pid, args[0], &actions, nullptr, args.data(), envp.data()) != 0) {
        pid = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

}  // namespace qbrix::bench
