// The content-event queue: the message layout on the wire, lazy start, order, dropped sizes, the
// diagnostic lines, the retried creation and the shutdown of a running reader.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "EventTestSupport.h"
#include "core/DiagLog.h"
#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "platform/Mailslot.h"
#include "platform/Platform.h"
#include "support/TempPlatform.h"

namespace qbrix::events {
namespace {

using testing::MakeEvent;
using testing::Send;
using testing::SendRaw;
using testing::WaitQueued;

class ContentEventQueueTest : public ::testing::Test {
  protected:
    void TearDown() override { ResetContentEventQueue(); }

    void EnableDiagLog() {
        core::RegistryKey(core::kAvSuffix, core::kLspRootPath).SetDword(core::kDiagLogValue, 1);
        std::filesystem::create_directories(m_platform.ProgramDirectory() + "quarantine");
    }
    std::string DiagText() const {
        return test::ReadFile(m_platform.ProgramDirectory() + "quarantine/gui.log." +
                              std::to_string(platform::GetCurrentProcessId()) + ".BRIX");
    }

    test::TempPlatform m_platform;
};

TEST_F(ContentEventQueueTest, FieldsTravelAtTheirOffsets) {
    ContentEvent taken;
    EXPECT_EQ(0, TakeContentEvent(&taken));
    unsigned char wire[664] = {};
    wire[0] = 0x05;  // type 5, little-endian
    std::memcpy(wire + 4, "http://a.example/", 17);
    std::memcpy(wire + 204, "Rule X", 6);
    std::memset(wire + 404, 'q', 260);  // a full-width field carries no terminator
    ASSERT_TRUE(SendRaw(wire, sizeof(wire)));
    ASSERT_TRUE(WaitQueued(1));
    ASSERT_EQ(1, TakeContentEvent(&taken));
    EXPECT_EQ(5, taken.type);
    EXPECT_STREQ("http://a.example/", taken.address);
    EXPECT_STREQ("Rule X", taken.name);
    EXPECT_EQ(0, std::memcmp(wire, &taken, sizeof(wire)));
}

TEST_F(ContentEventQueueTest, NothingExistsBeforeTheFirstTakeSoEarlierEventsAreLost) {
    EXPECT_EQ(nullptr, g_contentEvents.MailslotHandle());
    EXPECT_FALSE(Send(MakeEvent(1, "early", "lost")));
    ContentEvent taken;
    EXPECT_EQ(0, TakeContentEvent(&taken));
    EXPECT_NE(nullptr, g_contentEvents.MailslotHandle());
    EXPECT_NE(platform::INVALID_HANDLE_VALUE, g_contentEvents.MailslotHandle());
    EXPECT_GE(reinterpret_cast<std::uintptr_t>(g_contentEvents.ReaderHandle()), 2u);
    EXPECT_TRUE(Send(MakeEvent(1, "later", "kept")));
    ASSERT_TRUE(WaitQueued(1));
    ASSERT_EQ(1, TakeContentEvent(&taken));
    EXPECT_STREQ("kept", taken.name);
    EXPECT_EQ(0, TakeContentEvent(&taken));
}

TEST_F(ContentEventQueueTest, EventsAreTakenInTheOrderWrittenAndWrongSizesAreDropped) {
    ContentEvent taken;
    TakeContentEvent(&taken);
    std::string garbage(663, '\x7f');
    ASSERT_TRUE(SendRaw(garbage.data(), 663));
    ASSERT_TRUE(Send(MakeEvent(0, "a", "first")));
    garbage.assign(665, '\x7f');
    ASSERT_TRUE(SendRaw(garbage.data(), 665));
    ASSERT_TRUE(SendRaw("", 0));
    ASSERT_TRUE(Send(MakeEvent(3, "b", "second")));
    garbage.assign(4000, '\x7f');
    ASSERT_TRUE(SendRaw(garbage.data(), garbage.size()));
    ASSERT_TRUE(Send(MakeEvent(4, "c", "third")));
    ASSERT_TRUE(WaitQueued(3));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // room for a wrongly kept fourth
    EXPECT_EQ(3u, g_contentEvents.QueuedCount());
    ASSERT_EQ(1, TakeContentEvent(&taken));
    EXPECT_STREQ("first", taken.name);
    ASSERT_EQ(1, TakeContentEvent(&taken));
    EXPECT_STREQ("second", taken.name);
    ASSERT_EQ(1, TakeContentEvent(&taken));
    EXPECT_STREQ("third", taken.name);
    EXPECT_EQ(0, TakeContentEvent(&taken));
}

// Permissions: another process that holds the mailslot's lock at start-up (a read-only
// descriptor is enough for the lock) only delays the event feed; the next take after it lets go
// creates the mailslot and starts the reader.
TEST_F(ContentEventQueueTest, ACreationThatFailedIsRetriedOnTheNextTake) {
    std::string lock = platform::MailslotSocketPath(kContentMailslotName) + ".lock";
    std::filesystem::create_directories(std::filesystem::path(lock).parent_path());
    int held[2];
    ASSERT_EQ(0, ::pipe(held));
    pid_t holder = ::fork();
    ASSERT_GE(holder, 0);
    if (holder == 0) {
        int fd = ::open(lock.c_str(), O_RDONLY | O_CREAT, 0644);
        char ok = fd >= 0 && ::flock(fd, LOCK_EX) == 0 ? 'y' : 'n';
        [[maybe_unused]] ssize_t ignored = ::write(held[1], &ok, 1);
        ::pause();
        ::_exit(0);
    }
    char ok = 'n';
    ASSERT_EQ(1, ::read(held[0], &ok, 1));
    ASSERT_EQ('y', ok);
    ContentEvent taken;
    EXPECT_EQ(0, TakeContentEvent(&taken));
    EXPECT_EQ(0, TakeContentEvent(&taken));
    EXPECT_EQ(platform::INVALID_HANDLE_VALUE, g_contentEvents.MailslotHandle());
    EXPECT_FALSE(Send(MakeEvent(1, "x", "lost")));
    ::kill(holder, SIGKILL);
    ::waitpid(holder, nullptr, 0);
    ::close(held[0]);
    ::close(held[1]);

    EXPECT_EQ(0, TakeContentEvent(&taken));
    EXPECT_NE(platform::INVALID_HANDLE_VALUE, g_contentEvents.MailslotHandle());
    ASSERT_TRUE(Send(MakeEvent(1, "x", "kept")));
    ASSERT_TRUE(WaitQueued(1));
    ASSERT_EQ(1, TakeContentEvent(&taken));
    EXPECT_STREQ("kept", taken.name);
}

TEST_F(ContentEventQueueTest, ShutdownStopsARunningReaderAtOnceAndLosesQueuedEvents) {
    EnableDiagLog();
    ContentEvent taken;
    TakeContentEvent(&taken);
    ASSERT_TRUE(Send(MakeEvent(1, "a", "one")));
    ASSERT_TRUE(Send(MakeEvent(1, "a", "two")));
    ASSERT_TRUE(WaitQueued(2));
    int slot = static_cast<int>(reinterpret_cast<std::intptr_t>(g_contentEvents.MailslotHandle()));
    int reader = static_cast<int>(reinterpret_cast<std::intptr_t>(g_contentEvents.ReaderHandle()));
    auto start = std::chrono::steady_clock::now();
    ResetContentEventQueue();
    // The reader waits up to 5000 ms per read; closing the slot must not wait that out.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2000));
    EXPECT_EQ(nullptr, g_contentEvents.MailslotHandle());
    EXPECT_EQ(nullptr, g_contentEvents.ReaderHandle());
    EXPECT_EQ(0u, g_contentEvents.QueuedCount());

    std::string success = platform::GetErrorMessageText(0);
    std::string expected = "\n read slot OK \n read slot OK \n ~READQUE  Slot " +
                           std::to_string(slot) + " thread " + std::to_string(reader) +
                           "\n close try\n close res 1 " + success + "\n term res 1 " + success;
    EXPECT_EQ(expected, DiagText());

    // Started again by the next take, with nothing left of before.
    EXPECT_EQ(0, TakeContentEvent(&taken));
    ASSERT_TRUE(Send(MakeEvent(0, "b", "three")));
    ASSERT_TRUE(WaitQueued(1));
    ASSERT_EQ(1, TakeContentEvent(&taken));
    EXPECT_STREQ("three", taken.name);
    EXPECT_NE(std::string::npos, DiagText().find("\n read slot OK \n read from queue"));
}

}  // namespace
}  // namespace qbrix::events
