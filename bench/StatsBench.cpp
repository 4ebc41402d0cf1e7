// The statistics tick with the largest application list the driver hands out (75), against the
// driver requests alone that the tick cannot do without; and the Internet log's row and line
// formatting of a full batch of 100 decisions, against formatting the same fields with one
// snprintf per record. Each pair runs in the same process, so their ratio is the result.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "DriverServer.h"
#include "ReferenceDriver.h"
#include "driver/DriverControl.h"
#include "events/PollActivity.h"
#include "platform/Platform.h"
#include "platform/posix/PosixPlatform.h"
#include "stats/StatPeriodList.h"
#include "stats/StatisticsTick.h"

namespace {

using namespace qbrix;

constexpr int kApps = 75;
constexpr int kRecords = 100;

// A temporary data root with the platform installed and the reference driver serving it, with
// 75 applications that have moved some traffic.
class BenchRoot {
  public:
    BenchRoot() {
        char pattern[] = "/tmp/qbrix-bench-XXXXXX";
        m_dir = ::mkdtemp(pattern);
        std::filesystem::create_directories(m_dir + "/program");
        platform::SystemInfo info = platform::DetectSystemInfo();
        info.dataRoot = m_dir + "/root";
        info.programDirectory = m_dir + "/program/";
        m_platform = std::make_unique<platform::ScopedPlatform>(platform::MakePosixPlatform(info));
        m_server = std::make_unique<refdriver::DriverServer>(m_driver, info.dataRoot);
        std::string error;
        if (m_server->Open(&error) != 0) {
            std::fprintf(stderr, "driver: %s\n", error.c_str());
            std::abort();
        }
        m_thread = std::thread([this] { m_server->Run(); });
        driver::OpenDriverDevice(1);
        for (int i = 0; i < kApps; ++i) {
            driver::AppRecord record{};
            std::string image = "app" + std::to_string(i) + ".exe";
            driver::SetFieldText(record.imageName, image);
            driver::SetFieldText(record.zone.name, "EnableAll");
            driver::SetAppRecord(driver::g_hDriver, record);
            std::string answer;
            refdriver::SendControlCommand(
                info.dataRoot,
                "connect " + image + " tcp in 10.0.0.1:80 " + std::to_string(1000 + i), &answer);
        }
    }
    ~BenchRoot() {
        driver::ResetDriverLink();
        stats::ResetStatPeriods();
        m_server->Stop();
        m_thread.join();
        m_server.reset();
        m_platform.reset();
        std::filesystem::remove_all(m_dir);
    }
    BenchRoot(const BenchRoot&) = delete;
    BenchRoot& operator=(const BenchRoot&) = delete;

  private:
    std::string m_dir;
    std::unique_ptr<platform::ScopedPlatform> m_platform;
    refdriver::ReferenceDriver m_driver;
    std::unique_ptr<refdriver::DriverServer> m_server;
    std::thread m_thread;
};

// One accepted tick per iteration: the snapshot of 75 applications and the four breakdowns
// updated and rewritten in the store.
void BM_StatisticsTick75Apps(benchmark::State& state) {
    BenchRoot root;
    std::int64_t now = 1795442709;
    stats::StatisticsTick tick([&now] { return now; });
    for (auto _ : state) {
        tick.Run();
        now += stats::StatisticsTick::kIntervalSeconds;
    }
    benchmark::DoNotOptimize(stats::StatPeriods().Hours().Entries().data());
}
BENCHMARK(BM_StatisticsTick75Apps)->Unit(benchmark::kMicrosecond);

// Baseline: the same driver requests (one list, 75 counter reads) and nothing else.
void BM_DriverRequests75Apps(benchmark::State& state) {
    BenchRoot root;
    auto records = std::make_unique<driver::AppRecord[]>(kApps);
    for (auto _ : state) {
        int count =
            driver::ListAppRecords(driver::g_hDriver, records.get(), driver::kAppListBufferSize);
        for (int i = 0; i < count; ++i) {
            std::uint64_t c[4];
            std::string name(driver::FieldText(records[i].imageName));
            driver::GetAppCounters(driver::g_hDriver, name.c_str(), &c[0], &c[1], &c[2], &c[3]);
            benchmark::DoNotOptimize(c);
        }
    }
}
BENCHMARK(BM_DriverRequests75Apps)->Unit(benchmark::kMicrosecond);

std::vector<driver::ActivityRecord> Batch() {
    std::vector<driver::ActivityRecord> records(kRecords);
    for (int i = 0; i < kRecords; ++i) {
        driver::ActivityRecord& record = records[i];
        record.timeStamp = (1795442709ULL + 11644473600ULL + i) * 10000000ULL;
        driver::SetFieldText(record.application,
                             "C:\\Programs\\App" + std::to_string(i) + "\\app.exe");
        driver::SetFieldText(record.connection.name, "Web");
        record.connection.address = 0x5DB8D822 + i;
        record.connection.remotePort = 80;
        record.connection.protocol = 1 + i % 2;
        record.connection.direction = 1 + i % 2;
        record.connection.result = i % 3 == 0 ? 1 : 0;
    }
    return records;
}

// A batch of 100 decisions as the activity poll handles it: the list row and the file line.
void BM_ActivityRowsAndLines(benchmark::State& state) {
    char pattern[] = "/tmp/qbrix-bench-XXXXXX";
    std::string dir = ::mkdtemp(pattern);
    platform::SystemInfo info = platform::DetectSystemInfo();
    info.dataRoot = dir;
    info.programDirectory = dir + "/";
    {
        platform::ScopedPlatform installed(platform::MakePosixPlatform(info));
        std::vector<driver::ActivityRecord> records = Batch();
        for (auto _ : state) {
            for (const driver::ActivityRecord& record : records) {
                events::ActivityFields fields = events::PollActivity::FieldsOf(record);
                events::ActivityRow row = events::PollActivity::RowOf(fields);
                std::string line = events::InternetLogLine(fields, row.date, row.time);
                benchmark::DoNotOptimize(row);
                benchmark::DoNotOptimize(line);
            }
        }
        state.SetItemsProcessed(state.iterations() * kRecords);
    }
    std::filesystem::remove_all(dir);
}
BENCHMARK(BM_ActivityRowsAndLines)->Unit(benchmark::kMicrosecond);

// Baseline: the same fields of each record into one line with a single snprintf.
void BM_ActivitySnprintfBaseline(benchmark::State& state) {
    std::vector<driver::ActivityRecord> records = Batch();
    for (auto _ : state) {
        for (const driver::ActivityRecord& record : records) {
            char line[512];
            const driver::ZoneRule& c = record.connection;
            int length = std::snprintf(
                line, sizeof(line), "%llu\t%.260s\t%.15s\t%s %u.%u.%u.%u:%u\t%s\t%s\r\n",
                static_cast<unsigned long long>(record.timeStamp), record.application, c.name,
                c.protocol == 1 ? "TCP" : "UDP", c.address >> 24, (c.address >> 16) & 0xFF,
                (c.address >> 8) & 0xFF, c.address & 0xFF, c.remotePort,
                c.result == 0 ? "approved" : "rejected",
                c.direction == 2 ? "outgoing" : "incoming");
            benchmark::DoNotOptimize(length);
            benchmark::DoNotOptimize(line);
        }
    }
    state.SetItemsProcessed(state.iterations() * kRecords);
}
BENCHMARK(BM_ActivitySnprintfBaseline)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
