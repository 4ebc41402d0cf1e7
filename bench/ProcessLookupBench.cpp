// Process identification at its heaviest: the first start with 75 programs that no running
// process matches, so each lookup examines every process it may. The machine is brought to 300
// processes with sleeping children (at most 300 of them, all ended when the benchmark ends).
// The baseline, measured in the same run, is one listing of /proc's process directories.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <signal.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "BenchProcess.h"
#include "platform/Platform.h"
#include "platform/Processes.h"
#include "platform/posix/PosixPlatform.h"
#include "policy/ProcessLookup.h"

namespace {

using namespace qbrix;

constexpr int kProcesses = 300;
constexpr int kPrograms = 75;

int CountProcesses() {
    int count = 0;
    if (DIR* proc = ::opendir("/proc")) {
        while (const dirent* item = ::readdir(proc)) {
            count += item->d_name[0] >= '1' && item->d_name[0] <= '9' ? 1 : 0;
        }
        ::closedir(proc);
    }
    return count;
}

// Sleeping children that bring the machine to kProcesses processes while they live.
class Sleepers {
  public:
    Sleepers() {
        for (int i = CountProcesses(); i < kProcesses && m_children.size() < kProcesses; ++i) {
            pid_t pid = bench::Spawn({"/usr/bin/sleep", "600"});
            if (pid > 0) {
                m_children.push_back(pid);
            }
        }
    }
    ~Sleepers() {
        for (pid_t pid : m_children) {
            ::kill(pid, SIGTERM);
        }
        for (pid_t pid : m_children) {
            int status = 0;
            ::waitpid(pid, &status, 0);
        }
    }

  private:
    std::vector<pid_t> m_children;
};

Sleepers& Machine() {
    static Sleepers sleepers;
    return sleepers;
}

void BM_LookUp75UnknownPrograms(benchmark::State& state) {
    Machine();
    char pattern[] = "/tmp/qbrix-bench-XXXXXX";
    std::string dir = ::mkdtemp(pattern);
    platform::SystemInfo info = platform::DetectSystemInfo();
    info.dataRoot = dir;
    auto platform = std::make_unique<platform::ScopedPlatform>(platform::MakePosixPlatform(info));
    std::vector<std::string> names;
    for (int i = 0; i < kPrograms; ++i) {
        names.push_back("unknown" + std::to_string(i) + ".exe");
    }
    for (auto _ : state) {
        // One start fills the programs page in one go, as its first step does.
        platform::ProcessSnapshot snapshot;
        for (const std::string& name : names) {
            std::string path;
            std::string description;
            if (policy::GetProcessName(name, path, description) == 0) {
                state.SkipWithError("an unknown program was found");
                return;
            }
        }
    }
    state.counters["processes"] = CountProcesses();
    platform.reset();
    std::filesystem::remove_all(dir);
}

void BM_ListProcDirectories(benchmark::State& state) {
    Machine();
    for (auto _ : state) {
        benchmark::DoNotOptimize(CountProcesses());
    }
    state.counters["processes"] = CountProcesses();
}

BENCHMARK(BM_LookUp75UnknownPrograms)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ListProcDirectories)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
