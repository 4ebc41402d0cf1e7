// The Internet log page's timer step: reading the driver's decisions until none is left, the
// rows and the log file lines they give, the row limit, the settings and the re-entry guard.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "InProcessDriver.h"
#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "driver/DriverControl.h"
#include "events/PollActivity.h"
#include "platform/Device.h"
#include "support/FakeDriverPeer.h"
#include "support/TempPlatform.h"

namespace qbrix::events {
namespace {

using test::FakeDriverPeer;

// A list that records what the poll does to it.
class RecordingView : public ActivityLogView {
  public:
    void SetRedraw(bool on) override { calls.push_back(on ? "redraw on" : "redraw off"); }
    int RowCount() override { return rows; }
    void DeleteLastRow() override {
        calls.push_back("delete last");
        --rows;
    }
    void InsertTopRow(const ActivityRow& row) override {
        calls.push_back("insert " + std::to_string(row.icon) + "|" + row.application + "|" +
                        row.ruleName + "|" + row.address + "|" + row.date + "|" + row.time);
        ++rows;
        if (nested != nullptr) {
            nested->Run();  // the timer firing while this tick is still busy
        }
    }

    std::vector<std::string> calls;
    int rows = 0;
    PollActivity* nested = nullptr;
};

// Dates and times in UTC and the C locale, whatever the machine uses.
class FixedClockTexts {
  public:
    FixedClockTexts() {
        Save("TZ", &m_tz);
        Save("LC_ALL", &m_lcAll);
        ::setenv("TZ", "UTC0", 1);
        ::setenv("LC_ALL", "C", 1);
        ::tzset();
    }
    ~FixedClockTexts() {
        Restore("TZ", m_tz);
        Restore("LC_ALL", m_lcAll);
        ::tzset();
    }

  private:
    static void Save(const char* name, std::optional<std::string>* value) {
        const char* text = std::getenv(name);
        *value = text == nullptr ? std::nullopt : std::optional<std::string>(text);
    }
    static void Restore(const char* name, const std::optional<std::string>& value) {
        if (value) {
            ::setenv(name, value->c_str(), 1);
        } else {
            ::unsetenv(name);
        }
    }
    std::optional<std::string> m_tz;
    std::optional<std::string> m_lcAll;
};

// 2026-11-23 14:05:09 UTC as a file time.
constexpr std::uint64_t kStamp = (1795442709ULL + 11644473600ULL) * 10000000ULL;

driver::ActivityRecord MakeRecord(const std::string& application, const std::string& rule,
                                  std::uint32_t address, std::uint16_t port, std::uint32_t protocol,
                                  std::uint32_t direction, std::uint32_t result) {
    driver::ActivityRecord record{};
    record.timeStamp = kStamp;
    driver::SetFieldText(record.application, application);
    driver::SetFieldText(record.connection.name, rule);
    record.connection.address = address;
    record.connection.remotePort = port;
    record.connection.protocol = protocol;
    record.connection.direction = direction;
    record.connection.result = result;
    return record;
}

std::string Bytes(const std::vector<driver::ActivityRecord>& records) {
    return std::string(reinterpret_cast<const char*>(records.data()),
                       records.size() * sizeof(driver::ActivityRecord));
}

class PollActivityTest : public ::testing::Test {
  protected:
    PollActivityTest() {
        ResetActivityPollFlag();
        driver::ResetDriverLink();
        platform::SetDeviceReplyTimeoutMs(500);
    }
    ~PollActivityTest() override {
        driver::ResetDriverLink();
        ResetActivityPollFlag();
        platform::SetDeviceReplyTimeoutMs(2000);
    }
    std::string LogPath() const { return m_platform.ProgramDirectory() + "firewall.log"; }

    // A driver that answers the activity reads with `batches` in turn, then with nothing.
    void Serve(std::vector<std::string> batches) {
        auto pending = std::make_shared<std::vector<std::string>>(std::move(batches));
        m_peer = std::make_unique<FakeDriverPeer>(
            platform::DeviceSocketPath(),
            [pending](const FakeDriverPeer::Request& request) -> std::optional<std::string> {
                if (request.header.code != driver::IOCTL_READ_ACTIVITY_EVENTS || pending->empty()) {
                    return FakeDriverPeer::Reply(true, 0, 0);
                }
                std::string batch = pending->front();
                pending->erase(pending->begin());
                return FakeDriverPeer::Reply(true, 0, static_cast<platform::DWORD>(batch.size()),
                                             batch);
            });
        ASSERT_EQ(0, driver::OpenDriverDevice(1));
    }
    std::size_t ActivityReads() {
        std::size_t reads = 0;
        for (const auto& request : m_peer->Requests()) {
            if (request.header.code == driver::IOCTL_READ_ACTIVITY_EVENTS) {
                EXPECT_EQ(driver::kActivityBufferSize, request.header.outputCapacity);
                ++reads;
            }
        }
        return reads;
    }

    FixedClockTexts m_clock;
    test::TempPlatform m_platform;
    test::ScriptedMessages m_messages;
    std::unique_ptr<FakeDriverPeer> m_peer;
};

TEST_F(PollActivityTest, DecisionsBecomeRowsAndLogLinesInDriverOrder) {
    Serve(
        {Bytes({MakeRecord("C:\\Programs\\browser.exe", "Web", 0x5DB8D822, 80, 1, 2, 0),
                MakeRecord("C:\\Programs\\ftpd.exe", "Block-All-Rule!", 0xC0A80114, 40312, 2, 1, 1),
                MakeRecord("C:\\Programs\\x.exe", "", 0, 0, 1, 0, 0)})});
    RecordingView view;
    PollActivity(view).Run();
    std::vector<std::string> expected = {
        "redraw off",
        "insert 3|C:\\Programs\\browser.exe|Web|TCP 93.184.216.34:80|11/23/26|14:05:09",
        "insert 0|C:\\Programs\\ftpd.exe|Block-All-Rule!|UDP 192.168.1.20:40312|11/23/26|"
        "14:05:09",
        "insert 2|C:\\Programs\\x.exe|||11/23/26|14:05:09",
        "redraw on",
    };
    EXPECT_EQ(expected, view.calls);
    EXPECT_EQ(2u, ActivityReads());
    EXPECT_EQ(
        "11/23/26\t14:05:09\tC:\\Programs\\browser.exe\tWeb\tTCP 93.184.216.34:80\t"
        "approved\toutgoing\r\n"
        "11/23/26\t14:05:09\tC:\\Programs\\ftpd.exe\tBlock-All-Rule!\tUDP "
        "192.168.1.20:40312\trejected\tincoming\r\n"
        "11/23/26\t14:05:09\tC:\\Programs\\x.exe\t\t\tapproved\t\r\n",
        test::ReadFile(LogPath()));
    // The page's defaults were written back to the store.
    core::RegistryKey key(core::kFwLogSuffix, core::kGuiRootPath);
    EXPECT_EQ(LogPath(), key.GetString(core::kFileNameValue, nullptr));
    EXPECT_EQ(1u, key.GetDword(core::kUseLogValue, 7));
}

TEST_F(PollActivityTest, FullFieldsAreReadWithinTheirWidths) {
    driver::ActivityRecord record =
        MakeRecord(std::string(260, 'p'), "fifteen-chars-x", 1, 1, 1, 2, 1);
    std::memset(&record.connection.reserved, 'r', sizeof(record.connection.reserved));
    Serve({Bytes({record})});
    RecordingView view;
    PollActivity(view).Run();
    ASSERT_EQ(3u, view.calls.size());
    EXPECT_EQ(
        "insert 1|" + std::string(260, 'p') + "|fifteen-chars-x|TCP 0.0.0.1:1|11/23/26|14:05:09",
        view.calls[1]);
}

TEST_F(PollActivityTest, ReadsAgainUntilTheDriverHasNothingLeft) {
    std::vector<driver::ActivityRecord> full(100, MakeRecord("a", "r", 1, 1, 1, 1, 0));
    std::vector<driver::ActivityRecord> rest(50, MakeRecord("b", "r", 1, 1, 1, 1, 0));
    Serve({Bytes(full), Bytes(rest)});
    RecordingView view;
    PollActivity(view).Run();
    EXPECT_EQ(150, view.rows);
    EXPECT_EQ(3u, ActivityReads());
}

// A driver whose reads never come back empty (here for 1,000 reads) cannot hold a tick: each
// tick takes its share and leaves the rest, and the log file stays at its limit.
TEST_F(PollActivityTest, ADriverThatNeverRunsDryIsReadUpToTheCapPerTick) {
    core::RegistryKey(core::kFwLogSuffix, core::kGuiRootPath)
        .SetDword(core::kFileSizeValue, 4295);  // a limit of 32,704 bytes
    std::vector<std::string> batches(
        1000, Bytes(std::vector<driver::ActivityRecord>(100, MakeRecord("a", "r", 1, 1, 1, 1, 0))));
    Serve(std::move(batches));
    RecordingView view;
    PollActivity(view).Run();
    EXPECT_EQ(static_cast<std::size_t>(kActivityRecordsPerTick / 100), ActivityReads());
    EXPECT_EQ(kActivityRecordsPerTick,
              std::count_if(view.calls.begin(), view.calls.end(),
                            [](const std::string& call) { return call.rfind("insert", 0) == 0; }));
    EXPECT_EQ("redraw on", view.calls.back());
    EXPECT_LE(test::ReadFile(LogPath()).size(), 32704u);
    PollActivity(view).Run();
    EXPECT_EQ(static_cast<std::size_t>(2 * kActivityRecordsPerTick / 100), ActivityReads());
}

TEST_F(PollActivityTest, AReplyThatIsNoWholeNumberOfRecordsEndsTheTick) {
    std::string batch = Bytes({MakeRecord("a", "r", 1, 1, 1, 1, 0)}) + "x";
    Serve({batch, Bytes({MakeRecord("b", "r", 1, 1, 1, 1, 0)})});
    RecordingView view;
    PollActivity(view).Run();
    EXPECT_EQ(0, view.rows);
    EXPECT_EQ(1u, ActivityReads());
    // The next tick reads what is left.
    PollActivity(view).Run();
    EXPECT_EQ(1, view.rows);
}

TEST_F(PollActivityTest, ListsKeepAtMost1001Rows) {
    Serve({Bytes({MakeRecord("one", "r", 0, 0, 1, 1, 0), MakeRecord("two", "r", 0, 0, 1, 1, 0)})});
    RecordingView view;
    view.rows = 1000;
    PollActivity(view).Run();
    ASSERT_EQ(5u, view.calls.size());
    EXPECT_EQ(0u, view.calls[1].find("insert 2|one|"));
    EXPECT_EQ("delete last", view.calls[2]);
    EXPECT_EQ(0u, view.calls[3].find("insert 2|two|"));
    EXPECT_EQ(1001, view.rows);
}

TEST_F(PollActivityTest, UseLogOffFillsTheListOnlyAndAnotherFileCanBeNamed) {
    core::RegistryKey key(core::kFwLogSuffix, core::kGuiRootPath);
    key.SetDword(core::kUseLogValue, 0);
    Serve({Bytes({MakeRecord("a", "r", 1, 1, 1, 1, 0)})});
    RecordingView view;
    PollActivity(view).Run();
    EXPECT_EQ(1, view.rows);
    EXPECT_EQ("", test::ReadFile(LogPath()));

    std::string other = m_platform.ProgramDirectory() + "other.log";
    key.SetDword(core::kUseLogValue, 1);
    key.SetString(core::kFileNameValue, other);
    m_peer.reset();
    driver::ResetDriverLink();
    Serve({Bytes({MakeRecord("b", "r", 0, 0, 1, 2, 1)})});
    PollActivity(view).Run();
    EXPECT_EQ("11/23/26\t14:05:09\tb\tr\t\trejected\toutgoing\r\n", test::ReadFile(other));
}

TEST_F(PollActivityTest, WithoutADriverTheTickOnlyTogglesRedrawing) {
    RecordingView view;
    PollActivity(view).Run();
    EXPECT_EQ((std::vector<std::string>{"redraw off", "redraw on"}), view.calls);
}

TEST_F(PollActivityTest, ATickWhileTheLastIsBusySkipsThePoll) {
    Serve({Bytes({MakeRecord("a", "r", 1, 1, 1, 1, 0), MakeRecord("b", "r", 1, 1, 1, 1, 0)})});
    RecordingView inner;
    PollActivity innerPoll(inner);
    RecordingView outer;
    outer.nested = &innerPoll;
    PollActivity(outer).Run();
    EXPECT_TRUE(inner.calls.empty());
    EXPECT_EQ(2, outer.rows);
    // Once the outer tick is over the flag is clear again.
    PollActivity(inner).Run();
    EXPECT_EQ((std::vector<std::string>{"redraw off", "redraw on"}), inner.calls);
}

TEST_F(PollActivityTest, AnOversizedLogFileIsTrimmedAtTheEndOfTheTick) {
    std::string line(99, 'x');
    line += "\n";
    {
        std::ofstream file(LogPath(), std::ios::binary);
        for (int i = 0; i < 12000; ++i) {
            file << line;
        }
    }
    Serve({Bytes({MakeRecord("a", "r", 1, 1, 1, 1, 0)})});
    RecordingView view;
    PollActivity(view).Run();
    std::string trimmed = test::ReadFile(LogPath());
    EXPECT_LE(trimmed.size(), 900100u);
    EXPECT_GE(trimmed.size(), 899900u);
    EXPECT_EQ('x', trimmed.front());
    EXPECT_NE(std::string::npos, trimmed.find("\ta\tr\tTCP 0.0.0.1:1\tapproved\tincoming\r\n"));
}

// The reference driver deciding real (simulated) connections, read by the poll.
TEST_F(PollActivityTest, ReferenceDriverDecisionsReachTheList) {
    test::InProcessDriver driver(m_platform.DataRoot());
    driver.AddApp("browser.exe", "C:\\Programs\\Browser\\browser.exe");
    driver.Connect("browser.exe tcp out 93.184.216.34:443 1200");
    driver.Connect("browser.exe udp in 10.1.2.3:53 10 local=5353");
    RecordingView view;
    PollActivity(view).Run();
    ASSERT_EQ(4u, view.calls.size());
    EXPECT_EQ(0u,
              view.calls[1].find(
                  "insert 3|C:\\Programs\\Browser\\browser.exe|EnableAll|TCP 93.184.216.34:443|"));
    EXPECT_EQ(0u, view.calls[2].find(
                      "insert 2|C:\\Programs\\Browser\\browser.exe|EnableAll|UDP 10.1.2.3:53|"));
    std::string log = test::ReadFile(LogPath());
    EXPECT_NE(std::string::npos,
              log.find("\tC:\\Programs\\Browser\\browser.exe\tEnableAll\tTCP 93.184.216.34:443\t"
                       "approved\toutgoing\r\n"));
    // Everything was taken: the next tick finds nothing.
    RecordingView next;
    PollActivity(next).Run();
    EXPECT_EQ(0, next.rows);
}

}  // namespace
}  // namespace qbrix::events
