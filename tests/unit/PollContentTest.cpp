// The Content log page's timer step: what reaches the list, the pop-up, the log file and the
// row limit, and the re-entry guard.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "EventTestSupport.h"
#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "events/PollContent.h"
#include "support/TempPlatform.h"

namespace qbrix::events {
namespace {

using testing::MakeEvent;
using testing::Send;
using testing::WaitQueued;

// A list that records what the poll does to it.
class RecordingView : public ContentLogView {
  public:
    void SetRedraw(bool on) override { calls.push_back(on ? "redraw on" : "redraw off"); }
    int RowCount() override { return rows; }
    void DeleteLastRow() override {
        calls.push_back("delete last");
        --rows;
    }
    void InsertTopRow(const ContentRow& row) override {
        calls.push_back("insert " + row.type + "|" + row.name + "|" + row.address + "|" +
                        row.quarantine);
        ++rows;
    }
    void ShowDetails(const ContentEvent& event) override {
        calls.push_back(std::string("details ") + event.name);
        if (nested != nullptr) {
            nested->Run();  // the timer firing inside the modal dialog
        }
    }

    std::vector<std::string> calls;
    int rows = 0;
    PollContent* nested = nullptr;
};

class PollContentTest : public ::testing::Test {
  protected:
    PollContentTest() { ResetContentPollFlag(); }
    void TearDown() override {
        ResetContentEventQueue();
        ResetContentPollFlag();
    }
    std::string LogPath() const { return m_platform.ProgramDirectory() + "content.log"; }
    // The first tick creates the mailslot; then the events are sent and queued.
    void Queue(const std::vector<ContentEvent>& events) {
        RecordingView idle;
        PollContent(idle).Run();
        for (const ContentEvent& event : events) {
            ASSERT_TRUE(Send(event));
        }
        ASSERT_TRUE(WaitQueued(events.size()));
    }

    test::TempPlatform m_platform;
    test::ScriptedMessages m_messages;
};

TEST_F(PollContentTest, FindingsPopUpBeforeTheirRowAndEveryEventIsLogged) {
    Queue({MakeEvent(1, "http://w.example/a.zip", "a.zip", "/q/a.zip"),
           MakeEvent(3, "http://w.example/b", "b", "")});
    RecordingView view;
    PollContent(view).Run();
    std::vector<std::string> expected = {
        "redraw off",
        "details a.zip",
        "insert  Web|a.zip|http://w.example/a.zip|/q/a.zip",
        "insert  Web|b|http://w.example/b|",
        "redraw on",
    };
    EXPECT_EQ(expected, view.calls);
    EXPECT_EQ(" Web\ta.zip\thttp://w.example/a.zip\t/q/a.zip\r\n Web\tb\thttp://w.example/b\t\r\n",
              test::ReadFile(LogPath()));
    // The defaults were written back to the store.
    core::RegistryKey key(core::kLspLogSuffix, core::kGuiRootPath);
    EXPECT_EQ(LogPath(), key.GetString(core::kFileNameValue, nullptr));
}

TEST_F(PollContentTest, UseLogOffFillsTheListOnly) {
    core::RegistryKey(core::kLspLogSuffix, core::kGuiRootPath).SetDword(core::kUseLogValue, 0);
    Queue({MakeEvent(4, "http://w.example/", "rule", "")});
    RecordingView view;
    PollContent(view).Run();
    EXPECT_EQ(1, view.rows);
    EXPECT_EQ("", test::ReadFile(LogPath()));
}

TEST_F(PollContentTest, ListsKeepAtMost1001Rows) {
    Queue({MakeEvent(5, "a", "one", ""), MakeEvent(5, "a", "two", "")});
    RecordingView view;
    view.rows = 1000;
    PollContent(view).Run();
    std::vector<std::string> expected = {"redraw off", "insert Rule Applied|one|a|", "delete last",
                                         "insert Rule Applied|two|a|", "redraw on"};
    EXPECT_EQ(expected, view.calls);
    EXPECT_EQ(1001, view.rows);
}

TEST_F(PollContentTest, ATickInsideTheDetailsDialogSkipsThePoll) {
    Queue({MakeEvent(0, "pop3://m", "mail", "/q/m"), MakeEvent(2, "pop3://m", "quiet", "")});
    RecordingView inner;
    PollContent innerPoll(inner);
    RecordingView outer;
    outer.nested = &innerPoll;
    PollContent(outer).Run();
    EXPECT_TRUE(inner.calls.empty());
    EXPECT_EQ(2, outer.rows);
    // Once the outer tick is over, the next one runs again.
    PollContent(inner).Run();
    EXPECT_EQ(2u, inner.calls.size());
}

TEST_F(PollContentTest, TheLogIsTrimmedAtTheEndOfTheTick) {
    std::string old;
    while (old.size() < 1200000) {
        old += "old line " + std::to_string(old.size()) + "\r\n";
    }
    Queue({MakeEvent(3, "http://w.example/new", "new", "")});
    std::ofstream(LogPath(), std::ios::binary) << old;
    RecordingView view;
    PollContent(view).Run();
    std::string line = " Web\tnew\thttp://w.example/new\t\r\n";
    std::string whole = old + line;
    std::string expected = whole.substr(whole.find('\n', 100000 + (whole.size() - 1000000)) + 1);
    EXPECT_TRUE(testing::SameBytes(expected, test::ReadFile(LogPath())));
}

}  // namespace
}  // namespace qbrix::events
