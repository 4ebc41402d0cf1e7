// Start-up and the store with real processes: several writers at once, a store that cannot be
// read, and the single-instance rule across processes.
#include <gtest/gtest.h>

#include <signal.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "core/RegistryKey.h"
#include "support/Process.h"
#include "support/TempPlatform.h"

namespace qbrix::test {
namespace {

TEST(StoreProcessTest, TwoProcessesWritingAtOnceLoseNothing) {
    TempPlatform platform;
    constexpr int kCount = 1500;
    ProcessResult results[2];
    std::vector<std::thread> writers;
    for (int i = 0; i < 2; ++i) {
        writers.emplace_back([&, i] {
            results[i] = RunProcess({QBRIX_STORE_WRITER, platform.DataRoot(), i == 0 ? "a" : "b",
                                     std::to_string(kCount)},
                                    {}, 60000);
        });
    }
    for (auto& writer : writers) writer.join();
    ASSERT_EQ(0, results[0].exitCode) << results[0].err;
    ASSERT_EQ(0, results[1].exitCode) << results[1].err;

    core::RegistryKey shared("\\Shared", "SOFTWARE\\Test");
    std::vector<std::string> values;
    std::vector<std::string> keys;
    shared.ListValueNames(values);
    shared.ListSubkeys(keys);
    EXPECT_EQ(static_cast<std::size_t>(2 * kCount), values.size());
    EXPECT_EQ(static_cast<std::size_t>(2 * kCount), keys.size());
    EXPECT_EQ(kCount - 1u, shared.GetDword("b" + std::to_string(kCount - 1), 0));
}

// The program names an unreadable store at start-up rather than fail later at a step that
// needs it (installing the driver's service) with a misleading error.
TEST(StoreProcessTest, ACorruptStoreIsNamedAtStartUp) {
    TempDirectory dir;
    std::filesystem::create_directories(dir.File("root"));
    std::ofstream(dir.File("root/registry.db"), std::ios::binary) << std::string(8192, 'Z');
    ProcessResult run = RunProcess({QBRIX_PROGRAM, "T"}, {{"QBRIX_ROOT", dir.File("root")}});
    EXPECT_FALSE(run.timedOut);
    EXPECT_NE(std::string::npos, run.err.find("configuration store is unreadable")) << run.err;
    EXPECT_EQ(std::string::npos, run.err.find("create service")) << run.err;
}

class SingleInstanceTest : public ::testing::TestWithParam<bool> {};

TEST_P(SingleInstanceTest, SecondCopyEndsSilentlyWhileTheNameIsHeld) {
    bool family9x = GetParam();
    TempPlatform platform;
    std::map<std::string, std::string> env = {{"QBRIX_ROOT", platform.DataRoot()}};
    if (family9x) {
        env["QBRIX_PLATFORM_FAMILY"] = "9x";
    }
    {
        BackgroundProcess holder({QBRIX_MUTEX_HOLDER, platform.DataRoot(),
                                  family9x ? "KORVEL_MUTEX_OBJECT" : "Global\\KORVEL_MUTEX_OBJECT"});
        ASSERT_EQ("held", holder.ReadLine());
        ProcessResult second = RunProcess({QBRIX_PROGRAM}, env);
        EXPECT_EQ(0, second.exitCode);
        EXPECT_EQ("", second.out);
        EXPECT_EQ("", second.err);
        // A holder that dies releases the name.
        holder.Stop(SIGKILL);
    }
    // Without a holder the program goes on past the mutex and has something to say (the
    // administrator message or a driver error), so the silence above was the mutex's doing.
    ProcessResult alone = RunProcess({QBRIX_PROGRAM}, env);
    EXPECT_FALSE(alone.timedOut);
    EXPECT_NE("", alone.err);
}

INSTANTIATE_TEST_SUITE_P(Families, SingleInstanceTest, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Win9x" : "Nt"; });

}  // namespace
}  // namespace qbrix::test
