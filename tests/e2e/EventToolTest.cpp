// q-brix-event, the provider's stand-in, sending to a content-event queue read in this process.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "events/ContentEventQueue.h"
#include "support/Process.h"
#include "support/TempPlatform.h"

namespace qbrix::events {
namespace {

class EventToolTest : public ::testing::Test {
  protected:
    void TearDown() override { ResetContentEventQueue(); }

    test::ProcessResult Tool(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {QBRIX_EVENT_TOOL, "--root", m_platform.DataRoot()});
        return test::RunProcess(arguments, {}, 120000);
    }

    // Takes events until `count` have come or nothing more arrives for a while.
    std::vector<ContentEvent> TakeAll(std::size_t count, int quietMs = 1500) {
        std::vector<ContentEvent> taken;
        auto lastSeen = std::chrono::steady_clock::now();
        ContentEvent event;
        while (taken.size() < count &&
               std::chrono::steady_clock::now() - lastSeen < std::chrono::milliseconds(quietMs)) {
            if (TakeContentEvent(&event)) {
                taken.push_back(event);
                lastSeen = std::chrono::steady_clock::now();
            }
        }
        return taken;
    }

    test::TempPlatform m_platform;
};

TEST_F(EventToolTest, WithoutARunningReaderTheToolFails) {
    test::ProcessResult result = Tool({"--type", "1", "--address", "a", "--name", "b"});
    EXPECT_EQ(1, result.exitCode);
    EXPECT_NE(std::string::npos, result.err.find("no control program reads"));
    EXPECT_EQ(2, Tool({"--burst"}).exitCode);
    EXPECT_EQ(2, Tool({"demo", "--burst", "3"}).exitCode);
}

TEST_F(EventToolTest, OneEventFromOptionsAndTheDemoSetArriveInOrder) {
    ContentEvent event;
    TakeContentEvent(&event);
    ASSERT_EQ(0, Tool({"--type", "1", "--address", "http://w.example/x.zip", "--name", "x.zip",
                       "--quarantine", "/q/x.zip"})
                     .exitCode);
    ASSERT_EQ(0, Tool({"demo"}).exitCode);
    std::vector<ContentEvent> taken = TakeAll(6);
    ASSERT_EQ(6u, taken.size());
    EXPECT_EQ(1, taken[0].type);
    EXPECT_STREQ("http://w.example/x.zip", taken[0].address);
    EXPECT_STREQ("x.zip", taken[0].name);
    EXPECT_STREQ("/q/x.zip", taken[0].quarantine);
    std::vector<int> demoTypes;
    for (std::size_t i = 1; i < taken.size(); ++i) {
        demoTypes.push_back(taken[i].type);
    }
    EXPECT_EQ((std::vector<int>{0, 3, 4, 5, 2}), demoTypes);
}

TEST_F(EventToolTest, MessagesOfAnotherSizeProduceNoEvent) {
    ContentEvent event;
    TakeContentEvent(&event);
    ASSERT_EQ(0, Tool({"--raw-size", "663"}).exitCode);
    ASSERT_EQ(0, Tool({"--raw-size", "665"}).exitCode);
    ASSERT_EQ(0, Tool({"--raw-size", "664", "--type", "4"}).exitCode);
    std::vector<ContentEvent> taken = TakeAll(2, 1000);
    ASSERT_EQ(1u, taken.size());
    EXPECT_EQ(4, taken[0].type);
}

TEST_F(EventToolTest, ABurstOf100000IsTakenCompletelyAndInOrder) {
    ContentEvent event;
    TakeContentEvent(&event);
    test::BackgroundProcess tool(
        {QBRIX_EVENT_TOOL, "--root", m_platform.DataRoot(), "--burst", "100000"});
    std::vector<ContentEvent> taken = TakeAll(100000, 10000);
    ASSERT_EQ(100000u, taken.size());
    for (std::size_t i = 0; i < taken.size(); ++i) {
        ASSERT_EQ("event " + std::to_string(i), taken[i].name) << i;
    }
    EXPECT_EQ(0, tool.Stop(0, 10000));
}

}  // namespace
}  // namespace qbrix::events
