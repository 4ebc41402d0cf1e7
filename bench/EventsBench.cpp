// The event feed and the log files at their heaviest:
// - a burst of 10,000 content events from q-brix-event (the socket provider's stand-in, its own
//   process) through the mailslot and the reader thread until the user-interface side has taken
//   them all, against the same number of 664-byte datagrams sent by a thread over a plain local
//   datagram socket and received directly;
// - trimming a log file of 105 MB to its 100 MB limit, against copying a file of the same size.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <chrono>
#include <thread>
#include <vector>

#include "BenchProcess.h"
#include "events/ContentEvent.h"
#include "events/ContentEventQueue.h"
#include "events/LogFile.h"
#include "platform/Platform.h"
#include "platform/posix/PosixPlatform.h"

namespace {

using namespace qbrix;

constexpr int kBurst = 10000;
constexpr std::size_t kLogBytes = 105'000'000;
constexpr platform::DWORD kLogLimitMb = 100;

class BenchRoot {
  public:
    BenchRoot() {
        char pattern[] = "/tmp/qbrix-bench-XXXXXX";
        m_dir = ::mkdtemp(pattern);
        platform::SystemInfo info = platform::DetectSystemInfo();
        info.dataRoot = m_dir + "/root";
        info.programDirectory = m_dir + "/";
        m_platform = std::make_unique<platform::ScopedPlatform>(platform::MakePosixPlatform(info));
    }
    ~BenchRoot() {
        events::ResetContentEventQueue();
        m_platform.reset();
        std::filesystem::remove_all(m_dir);
    }
    const std::string& Dir() const { return m_dir; }
    std::string DataRoot() const { return m_dir + "/root"; }

  private:
    std::string m_dir;
    std::unique_ptr<platform::ScopedPlatform> m_platform;
};

void BM_ContentEventBurst(benchmark::State& state) {
    BenchRoot root;
    events::ContentEvent event;
    events::TakeContentEvent(&event);  // the mailslot and its reader exist from the first take
    for (auto _ : state) {
        pid_t sender = bench::Spawn({QBRIX_EVENT_TOOL, "--root", root.DataRoot(), "--burst",
                              std::to_string(kBurst)});
        int taken = 0;
        while (taken < kBurst) {
            if (events::TakeContentEvent(&event) == 1) {
                ++taken;
            } else {
                // Like the program's timer, the taker waits when nothing is queued instead of
                // spinning: on two cores a spinning taker slows the sender and the reader.
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
        int status = 0;
        ::waitpid(sender, &status, 0);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            state.SkipWithError("q-brix-event failed");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations() * kBurst);
}

void BM_RawDatagramBurst(benchmark::State& state) {
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_DGRAM, 0, pair) != 0) {
        state.SkipWithError("socketpair failed");
        return;
    }
    char message[sizeof(events::ContentEvent)] = {};
    for (auto _ : state) {
        std::thread sender([&] {
            for (int i = 0; i < kBurst; ++i) {
                ::send(pair[0], message, sizeof(message), 0);
            }
        });
        char received[sizeof(message)];
        for (int i = 0; i < kBurst; ++i) {
            ::recv(pair[1], received, sizeof(received), 0);
        }
        sender.join();
    }
    ::close(pair[0]);
    ::close(pair[1]);
    state.SetItemsProcessed(state.iterations() * kBurst);
}

// A log file of firewall lines, kLogBytes long.
std::string WriteLog(const std::string& path) {
    const std::string line =
        "23.11.2026\t14:05:09\t/usr/lib/programs/browser\tWeb\tTCP 93.184.216.34:443\t"
        "approved\toutgoing\r\n";
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    std::string block;
    while (block.size() < 1'000'000) {
        block += line;
    }
    std::size_t written = 0;
    while (written + block.size() <= kLogBytes) {
        out << block;
        written += block.size();
    }
    out << block.substr(0, kLogBytes - written);
    return path;
}

void BM_TrimLogFile(benchmark::State& state) {
    BenchRoot root;
    std::string original = WriteLog(root.Dir() + "/original.log");
    std::string log = root.Dir() + "/firewall.log";
    for (auto _ : state) {
        state.PauseTiming();
        std::filesystem::copy_file(original, log, std::filesystem::copy_options::overwrite_existing);
        state.ResumeTiming();
        events::LogFile file;
        file.Open(log, kLogLimitMb);
        file.CloseAndTrim();
    }
    if (std::filesystem::file_size(log) >= kLogLimitMb * 1'000'000ULL) {
        state.SkipWithError("the log was not trimmed");
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kLogBytes));
}

void BM_CopyFileOfTheSameSize(benchmark::State& state) {
    BenchRoot root;
    std::string original = WriteLog(root.Dir() + "/original.log");
    std::string copy = root.Dir() + "/copy.log";
    for (auto _ : state) {
        std::filesystem::copy_file(original, copy, std::filesystem::copy_options::overwrite_existing);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kLogBytes));
}

BENCHMARK(BM_ContentEventBurst)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RawDatagramBurst)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_TrimLogFile)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_CopyFileOfTheSameSize)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
