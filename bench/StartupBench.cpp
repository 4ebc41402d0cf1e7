// What a user notices of the running program: the time from starting it to its panel being
// ready, its resident memory when idle, and its processor use when idle. The program runs as a
// real process, offscreen, on the reference driver. The loaded case has 75 programs (as many as
// the driver holds) and 100 zones; the baseline, measured in the same run, is the same program
// on a store with only its built-in zones and no programs. The zone cases start the program on
// stores of 1,000, 3,000 and 10,000 zones (no programs): the start must grow linearly with them.
//
// "Ready" is the first turn of the event loop after the panel was built: the unattended script's
// first step writes a file then. The idle figures are taken after the start has settled;
// QBRIX_BENCH_IDLE_SECONDS sets the idle span (60 by default).
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "BenchProcess.h"
#include "driver/DriverControl.h"
#include "driver/DriverErrors.h"
#include "platform/Device.h"
#include "platform/Platform.h"
#include "platform/posix/PosixPlatform.h"
#include "policy/ZoneList.h"
#include "policy/ZoneStore.h"

namespace {

using namespace qbrix;
using bench::Spawn;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

void End(pid_t pid) {
    if (pid > 0) {
        ::kill(pid, SIGTERM);
        int status = 0;
        ::waitpid(pid, &status, 0);
    }
}

// A data root with its reference driver running; `programs` applications registered with the
// driver and `zones` zones in the store (at least the built-in ones).
class Root {
  public:
    Root(const std::string& name, int programs, int zones)
        : m_path(std::filesystem::temp_directory_path() / ("qbrix-bench-" + name + "-" +
                                                            std::to_string(::getpid()))) {
        std::filesystem::remove_all(m_path);
        std::filesystem::create_directories(m_path);
        m_driver = Spawn({QBRIX_DRIVER, "--root", m_path, "--foreground"}, {});
        platform::SystemInfo info = platform::DetectSystemInfo();
        info.dataRoot = m_path;
        platform::ScopedPlatform scope(platform::MakePosixPlatform(info));
        std::string socket = platform::DeviceSocketPath(m_path);
        for (int i = 0; i < 500 && !std::filesystem::exists(socket); ++i) {
            std::this_thread::sleep_for(10ms);
        }
        policy::LoadZones();  // the built-in zones, as the first run makes them
        for (int i = static_cast<int>(policy::g_zones.Size()); i < zones; ++i) {
            policy::ZoneRecord zone = policy::EmptyZone();
            std::snprintf(zone.name, sizeof(zone.name), "Zone %05d", i);
            zone.result = static_cast<std::uint32_t>(i % 2);
            policy::g_zones.Append(zone);
        }
        policy::SaveZones();
        if (driver::OpenDriverDevice(1) == 0) {
            for (int i = 0; i < programs; ++i) {
                driver::AppRecord record{};
                std::string image = "program" + std::to_string(i) + ".exe";
                driver::SetFieldText(record.imageName, image);
                record.zone = policy::g_zones.At(static_cast<std::size_t>(i) %
                                                 policy::g_zones.Size());
                driver::SetAppRecord(driver::g_hDriver, record);
            }
        }
        driver::ResetDriverLink();
        driver::ResetDriverErrors();
        policy::g_zones.Clear();
    }
    ~Root() {
        End(m_driver);
        std::filesystem::remove_all(m_path);
    }

    // Starts the control program; returns its process once its panel is ready, and the time
    // that took.
    pid_t StartProgram(Clock::duration* took) {
        std::string ready = m_path / "ready";
        std::string script = m_path / "ready.script";
        std::filesystem::remove(ready);
        std::ofstream(script) << "touch " << ready << "\n";
        Clock::time_point start = Clock::now();
        pid_t pid = Spawn({QBRIX_PROGRAM}, {"QBRIX_ROOT=" + m_path.string(),
                                            "QT_QPA_PLATFORM=offscreen", "QBRIX_SCRIPT=" + script});
        while (pid > 0 && !std::filesystem::exists(ready)) {
            if (Clock::now() - start > 30s) {
                End(pid);
                return -1;
            }
            std::this_thread::sleep_for(200us);
        }
        *took = Clock::now() - start;
        return pid;
    }

  private:
    std::filesystem::path m_path;
    pid_t m_driver = -1;
};

Root& Loaded() {
    static Root root("loaded", 75, 100);
    return root;
}
Root& Baseline() {
    static Root root("baseline", 0, 0);
    return root;
}

// Starts the program on `root`; -1 (and the benchmark marked as failed) when it never got ready.
pid_t StartOrSkip(benchmark::State& state, Root& root, Clock::duration* took) {
    pid_t pid = root.StartProgram(took);
    if (pid < 0) {
        state.SkipWithError("the program did not get ready");
    }
    return pid;
}

void StartToReady(benchmark::State& state, Root& root) {
    for (auto _ : state) {
        Clock::duration took{};
        pid_t pid = StartOrSkip(state, root, &took);
        if (pid < 0) {
            return;
        }
        state.SetIterationTime(std::chrono::duration<double>(took).count());
        state.PauseTiming();
        End(pid);
        state.ResumeTiming();
    }
}

void BM_StartToReady_Baseline(benchmark::State& state) { StartToReady(state, Baseline()); }
void BM_StartToReady_75Programs100Zones(benchmark::State& state) { StartToReady(state, Loaded()); }
void BM_StartToReady_Zones(benchmark::State& state) {
    static std::map<int, std::unique_ptr<Root>> roots;
    int zones = static_cast<int>(state.range(0));
    std::unique_ptr<Root>& root = roots[zones];
    if (root == nullptr) {
        root = std::make_unique<Root>("zones" + std::to_string(zones), 0, zones);
    }
    StartToReady(state, *root);
}

long ResidentKb(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::atol(line.c_str() + 6);
        }
    }
    return -1;
}

// User and system time of a process, in clock ticks.
long long CpuTicks(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    std::size_t close = text.rfind(')');
    if (close == std::string::npos) {
        return -1;
    }
    std::istringstream fields(text.substr(close + 2));
    std::string field;
    long long utime = 0;
    long long stime = 0;
    for (int i = 3; fields >> field; ++i) {
        if (i == 14) {
            utime = std::atoll(field.c_str());
        } else if (i == 15) {
            stime = std::atoll(field.c_str());
            break;
        }
    }
    return utime + stime;
}

int IdleSeconds() {
    const char* value = std::getenv("QBRIX_BENCH_IDLE_SECONDS");
    int seconds = value != nullptr ? std::atoi(value) : 60;
    return seconds > 0 ? seconds : 60;
}

void Idle(benchmark::State& state, Root& root) {
    for (auto _ : state) {
        Clock::duration took{};
        pid_t pid = StartOrSkip(state, root, &took);
        if (pid < 0) {
            return;
        }
        std::this_thread::sleep_for(5s);  // the first ticks and the start's work are over
        long resident = ResidentKb(pid);
        long long before = CpuTicks(pid);
        Clock::time_point from = Clock::now();
        std::this_thread::sleep_for(std::chrono::seconds(IdleSeconds()));
        long long after = CpuTicks(pid);
        double wall = std::chrono::duration<double>(Clock::now() - from).count();
        End(pid);
        state.SetIterationTime(wall);
        state.counters["resident_MB"] = static_cast<double>(resident) / 1024.0;
        state.counters["idle_cpu_percent"] =
            100.0 * static_cast<double>(after - before) / static_cast<double>(::sysconf(_SC_CLK_TCK)) /
            wall;
    }
}

void BM_Idle_Baseline(benchmark::State& state) { Idle(state, Baseline()); }
void BM_Idle_75Programs100Zones(benchmark::State& state) { Idle(state, Loaded()); }

BENCHMARK(BM_StartToReady_Baseline)->UseManualTime()->Iterations(10)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StartToReady_75Programs100Zones)
    ->UseManualTime()
    ->Iterations(10)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StartToReady_Zones)
    ->Arg(1000)
    ->Arg(3000)
    ->Arg(10000)
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Idle_Baseline)->UseManualTime()->Iterations(1)->Unit(benchmark::kSecond);
BENCHMARK(BM_Idle_75Programs100Zones)->UseManualTime()->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
