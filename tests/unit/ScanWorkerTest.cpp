// The worker-thread protocol: completion, abandonment on time-out, and the jointly owned state
// that an abandoned worker keeps using after its caller has returned.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "antivirus/ScanWorker.h"

namespace qbrix::antivirus {
namespace {

using namespace std::chrono_literals;

TEST(ScanWorkerTest, FinishedCallIsSeenWithItsOutcome) {
    auto outcome = std::make_shared<int>(0);
    EXPECT_TRUE(RunScanWorker([outcome] { *outcome = 42; }));
    EXPECT_EQ(42, *outcome);
}

TEST(ScanWorkerTest, CallRunsOnItsOwnThread) {
    std::thread::id caller = std::this_thread::get_id();
    auto worker = std::make_shared<std::thread::id>();
    EXPECT_TRUE(RunScanWorker([worker] { *worker = std::this_thread::get_id(); }));
    EXPECT_NE(caller, *worker);
}

TEST(ScanWorkerTest, AbandonedWorkerRunsOnWithTheStateItShares) {
    struct Record {
        std::atomic<bool> release{false};
        std::atomic<bool> finished{false};
    };
    auto record = std::make_shared<Record>();
    std::weak_ptr<Record> watch = record;
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(RunScanWorker(
        [record] {
            while (!record->release) {
                std::this_thread::sleep_for(1ms);
            }
            record->finished = true;
        },
        50ms));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
    // The caller lets go of its share; the worker keeps the record alive until it ends.
    auto shared = record;
    record.reset();
    EXPECT_FALSE(watch.expired());
    shared->release = true;
    while (!shared->finished) {
        std::this_thread::sleep_for(1ms);
    }
    shared.reset();
    for (int i = 0; i < 2000 && !watch.expired(); ++i) {
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_TRUE(watch.expired());
}

}  // namespace
}  // namespace qbrix::antivirus
