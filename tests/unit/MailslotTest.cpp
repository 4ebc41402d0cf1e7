// Mailslots and threads of the platform: ownership of a name, message boundaries, the read
// time-out, over-long messages, and waking a blocked reader by closing its handle.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "platform/Kernel.h"
#include "platform/Mailslot.h"
#include "platform/Platform.h"
#include "platform/Threads.h"
#include "support/TempPlatform.h"

namespace qbrix::platform {
namespace {

constexpr char kName[] = "\\\\.\\mailslot\\korvel";

class MailslotTest : public ::testing::Test {
  protected:
    void Send(const std::string& message) {
        HANDLE writer = OpenMailslotWriter(kName);
        ASSERT_NE(INVALID_HANDLE_VALUE, writer);
        DWORD written = 0;
        ASSERT_TRUE(
            WriteMailslot(writer, message.data(), static_cast<DWORD>(message.size()), &written));
        EXPECT_EQ(message.size(), written);
        CloseHandle(writer);
    }

    std::string Read(HANDLE slot, DWORD size = 1000) {
        std::string buffer(size, '\0');
        DWORD read = 0;
        if (!ReadMailslot(slot, buffer.data(), size, &read)) {
            return "<failed " + std::to_string(GetLastError()) + ">";
        }
        buffer.resize(read);
        return buffer;
    }

    test::TempPlatform m_platform;
};

TEST_F(MailslotTest, MessagesArriveWholeAndInOrder) {
    HANDLE slot = CreateMailslot(kName, 0, 1000);
    ASSERT_NE(INVALID_HANDLE_VALUE, slot);
    Send("first");
    Send(std::string(664, 'x'));
    Send("");
    EXPECT_EQ("first", Read(slot));
    EXPECT_EQ(std::string(664, 'x'), Read(slot));
    EXPECT_EQ("", Read(slot));
    EXPECT_EQ(m_platform.DataRoot() + "/run/mailslot/korvel",
              MailslotSocketPath("\\\\.\\MailSlot\\korvel"));
    EXPECT_TRUE(CloseHandle(slot));
}

// One wake-up takes every waiting message, up to the count asked for; the rest wait for the
// next call. Lengths are the messages' real ones, so the over-long one can be told apart.
TEST_F(MailslotTest, ManyMessagesAreTakenInOneReadWithTheirLengths) {
    HANDLE slot = CreateMailslot(kName, 8, 1000);
    ASSERT_NE(INVALID_HANDLE_VALUE, slot);
    for (const std::string& message :
         {std::string("one"), std::string("second"), std::string(20, 'x'), std::string(""),
          std::string("last")}) {
        Send(message);
    }
    char buffer[4][8];
    DWORD lengths[4] = {};
    DWORD read = 9;
    ASSERT_TRUE(ReadMailslotMessages(slot, buffer, 8, 4, lengths, &read));
    ASSERT_EQ(4u, read);
    EXPECT_EQ("one", std::string(buffer[0], lengths[0]));
    EXPECT_EQ("second", std::string(buffer[1], lengths[1]));
    EXPECT_EQ(20u, lengths[2]);
    EXPECT_EQ(0u, lengths[3]);
    ASSERT_TRUE(ReadMailslotMessages(slot, buffer, 8, 4, lengths, &read));
    ASSERT_EQ(1u, read);
    EXPECT_EQ("last", std::string(buffer[0], lengths[0]));
    CloseHandle(slot);
    EXPECT_FALSE(ReadMailslotMessages(slot, buffer, 8, 4, lengths, &read));
    EXPECT_EQ(ERROR_INVALID_HANDLE, GetLastError());
    EXPECT_EQ(0u, read);
}

// Writers that keep their handle for a burst and writers that open, send one message and close,
// all at once: every message arrives whole, each writer's in the order sent. A writer still open
// when the reader goes fails its next write as one without reader.
TEST_F(MailslotTest, ManyWritersAtOnceLoseNothingAndKeepTheirOrder) {
    HANDLE slot = CreateMailslot(kName, 16, 1000);
    ASSERT_NE(INVALID_HANDLE_VALUE, slot);
    constexpr int kBursts = 4;
    constexpr int kPerBurst = 500;
    constexpr int kSingles = 40;
    std::vector<std::thread> writers;
    for (int w = 0; w < kBursts; ++w) {
        writers.emplace_back([w] {
            HANDLE writer = OpenMailslotWriter(kName);
            for (int i = 0; i < kPerBurst; ++i) {
                std::string message = std::to_string(w) + ":" + std::to_string(i);
                DWORD written = 0;
                WriteMailslot(writer, message.data(), static_cast<DWORD>(message.size()), &written);
            }
            CloseHandle(writer);
        });
    }
    writers.emplace_back([this] {
        for (int i = 0; i < kSingles; ++i) {
            Send("single:" + std::to_string(i));
        }
    });
    std::vector<int> next(kBursts, 0);
    int singles = 0;
    int total = 0;
    char buffer[64][16];
    DWORD lengths[64];
    DWORD read = 0;
    while (total < kBursts * kPerBurst + kSingles &&
           ReadMailslotMessages(slot, buffer, 16, 64, lengths, &read)) {
        for (DWORD m = 0; m < read; ++m, ++total) {
            std::string message(buffer[m], lengths[m]);
            std::size_t colon = message.find(':');
            ASSERT_NE(std::string::npos, colon) << message;
            if (message.starts_with("single:")) {
                ++singles;
                continue;
            }
            int w = std::stoi(message.substr(0, colon));
            EXPECT_EQ(std::to_string(w) + ":" + std::to_string(next[w]), message);
            next[w] = std::stoi(message.substr(colon + 1)) + 1;
        }
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    EXPECT_EQ(std::vector<int>(kBursts, kPerBurst), next);
    EXPECT_EQ(kSingles, singles);

    HANDLE late = OpenMailslotWriter(kName);
    ASSERT_NE(INVALID_HANDLE_VALUE, late);
    CloseHandle(slot);
    DWORD written = 7;
    EXPECT_FALSE(WriteMailslot(late, "x", 1, &written));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, GetLastError());
    EXPECT_EQ(0u, written);
    CloseHandle(late);
}

TEST_F(MailslotTest, NamesThatAreNoSlotAndSlotsWithoutReaderAreRefused) {
    EXPECT_EQ(INVALID_HANDLE_VALUE, CreateMailslot("\\\\.\\pipe\\korvel", 0, 0));
    EXPECT_EQ(ERROR_INVALID_NAME, GetLastError());
    EXPECT_EQ(INVALID_HANDLE_VALUE, OpenMailslotWriter(kName));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, GetLastError());
    DWORD count = 1;
    char byte = 0;
    EXPECT_FALSE(ReadMailslot(INVALID_HANDLE_VALUE, &byte, 1, &count));
    EXPECT_EQ(ERROR_INVALID_HANDLE, GetLastError());
    EXPECT_EQ(0u, count);
}

TEST_F(MailslotTest, SecondOwnerInTheSameProcessFailsUntilTheFirstCloses) {
    HANDLE first = CreateMailslot(kName, 664, 0);
    ASSERT_NE(INVALID_HANDLE_VALUE, first);
    EXPECT_EQ(INVALID_HANDLE_VALUE, CreateMailslot(kName, 664, 0));
    EXPECT_EQ(ERROR_ALREADY_EXISTS, GetLastError());
    CloseHandle(first);
    HANDLE second = CreateMailslot(kName, 664, 0);
    ASSERT_NE(INVALID_HANDLE_VALUE, second);
    Send("after");
    EXPECT_EQ("after", Read(second));
    CloseHandle(second);
}

// A child process takes the name; while it lives the name is refused, after it is killed (its
// socket file left behind) the name is reclaimed and works.
TEST_F(MailslotTest, LiveOwnerElsewhereBlocksAndDeadOwnersSlotIsReclaimed) {
    int ready[2];
    ASSERT_EQ(0, ::pipe(ready));
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        HANDLE slot = CreateMailslot(kName, 664, MAILSLOT_WAIT_FOREVER);
        char status = slot == INVALID_HANDLE_VALUE ? 'n' : 'y';
        (void)!::write(ready[1], &status, 1);
        ::pause();
        ::_exit(0);
    }
    ::close(ready[1]);
    char status = 0;
    ASSERT_EQ(1, ::read(ready[0], &status, 1));
    ::close(ready[0]);
    ASSERT_EQ('y', status);

    EXPECT_EQ(INVALID_HANDLE_VALUE, CreateMailslot(kName, 664, 0));
    EXPECT_EQ(ERROR_ALREADY_EXISTS, GetLastError());

    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    EXPECT_TRUE(test::FileExists(MailslotSocketPath(kName)));  // the dead owner's socket
    EXPECT_EQ(INVALID_HANDLE_VALUE, OpenMailslotWriter(kName));

    HANDLE slot = CreateMailslot(kName, 664, 1000);
    ASSERT_NE(INVALID_HANDLE_VALUE, slot);
    Send("reclaimed");
    EXPECT_EQ("reclaimed", Read(slot));
    CloseHandle(slot);
    EXPECT_FALSE(test::FileExists(MailslotSocketPath(kName)));
}

TEST_F(MailslotTest, ReadGivesUpAfterTheTimeOut) {
    HANDLE slot = CreateMailslot(kName, 664, 300);
    ASSERT_NE(INVALID_HANDLE_VALUE, slot);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ("<failed 121>", Read(slot));  // ERROR_SEM_TIMEOUT
    auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, std::chrono::milliseconds(290));
    EXPECT_LT(elapsed, std::chrono::milliseconds(3000));

    HANDLE immediate = CreateMailslot("\\\\.\\mailslot\\other", 0, 0);
    start = std::chrono::steady_clock::now();
    EXPECT_EQ("<failed 121>", Read(immediate));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
    CloseHandle(slot);
    CloseHandle(immediate);
}

TEST_F(MailslotTest, OverLongMessagesFailTheReadAndAreGone) {
    HANDLE slot = CreateMailslot(kName, 664, 1000);
    ASSERT_NE(INVALID_HANDLE_VALUE, slot);
    Send(std::string(665, 'a'));  // longer than the slot's largest message
    Send(std::string(700, 'b'));  // longer than the reader's buffer too
    Send(std::string(664, 'c'));
    Send(std::string(10, 'd'));                   // fits the slot, not the small buffer below
    EXPECT_EQ("<failed 122>", Read(slot, 2000));  // ERROR_INSUFFICIENT_BUFFER
    EXPECT_EQ("<failed 122>", Read(slot, 664));
    EXPECT_EQ(std::string(664, 'c'), Read(slot, 664));
    EXPECT_EQ("<failed 122>", Read(slot, 9));
    EXPECT_EQ("<failed 121>", Read(slot));  // nothing of the dropped messages is left
    CloseHandle(slot);
}

TEST_F(MailslotTest, ClosingTheHandleWakesABlockedReader) {
    HANDLE slot = CreateMailslot(kName, 664, MAILSLOT_WAIT_FOREVER);
    ASSERT_NE(INVALID_HANDLE_VALUE, slot);
    std::atomic<int> result{-1};
    std::atomic<DWORD> error{0};
    std::thread reader([&] {
        char buffer[664];
        DWORD read = 0;
        result = ReadMailslot(slot, buffer, sizeof(buffer), &read);
        error = GetLastError();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(CloseHandle(slot));
    reader.join();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1000));
    EXPECT_EQ(0, result.load());
    EXPECT_EQ(ERROR_INVALID_HANDLE, error.load());
    EXPECT_FALSE(CloseHandle(slot));
}

std::atomic<bool> g_release{false};
std::atomic<int> g_runs{0};

void Worker(void* argument) {
    g_runs += *static_cast<int*>(argument);
    while (!g_release.load()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

TEST(ThreadTest, TerminateWaitsForAThreadAskedToStopAndReportsOneThatDoesNot) {
    test::TempPlatform platform;
    g_release = false;
    g_runs = 0;
    int step = 3;
    HANDLE thread = BeginThread(&Worker, &step);
    ASSERT_NE(INVALID_HANDLE_VALUE, thread);
    EXPECT_GE(reinterpret_cast<std::uintptr_t>(thread), 2u);
    EXPECT_FALSE(TerminateThread(thread, 0, 50));
    EXPECT_EQ(ERROR_BUSY, GetLastError());
    g_release = true;
    EXPECT_TRUE(TerminateThread(thread, 0, 5000));
    EXPECT_EQ(3, g_runs.load());
    EXPECT_TRUE(CloseHandle(thread));
    EXPECT_FALSE(TerminateThread(thread, 0, 0));
    EXPECT_EQ(ERROR_INVALID_HANDLE, GetLastError());
}

}  // namespace
}  // namespace qbrix::platform
