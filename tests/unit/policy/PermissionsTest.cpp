// Application permissions: own programs, the dialog's texts and acceptance, the Programs rows,
// editing and deleting, and the decision on a pending question, against a recording driver.
#include <gtest/gtest.h>

#include "PolicyTestSupport.h"
#include "policy/Permissions.h"
#include "policy/PresetZones.h"

namespace qbrix::policy {
namespace {

using namespace test_support;

// The "user" of the permissions dialog: picks a zone by name (or cancels).
class ScriptedPermissionDialog : public PermissionDialogLauncher {
  public:
    explicit ScriptedPermissionDialog(std::string pick, bool accept = true)
        : m_pick(std::move(pick)), m_accept(accept), m_scope(*this) {}
    bool Run(AppRecord& record, bool askMode) override {
        ++opened;
        lastAskMode = askMode;
        ComboItemList items;
        PermissionDialogModel model(record, askMode, items);
        connect = model.Connect();
        application = model.Application();
        for (int i = 0; i < items.Count(); ++i) {
            if (items.Text(i) == m_pick) {
                items.Select(i);
            }
        }
        if (m_accept) {
            model.Accept();
        }
        return m_accept;
    }
    int opened = 0;
    bool lastAskMode = false;
    std::string connect;
    std::string application;

  private:
    std::string m_pick;
    bool m_accept;
    ScopedPermissionDialogLauncher m_scope;
};

class PermissionsTest : public ::testing::Test {
  protected:
    PermissionsTest() {
        g_zones.Append(Zone("Internet Client", {Rule("Local Enable")}, 1));
        g_zones.Append(Zone("DisableAll", {}, 1));
    }
    test::TempPlatform m_platform;
    test::ScriptedMessages m_messages;
    CleanPolicyState m_state;
};

TEST_F(PermissionsTest, OwnProgramsAreRecognisedAtTheSixthCharacter) {
    EXPECT_TRUE(IsOwnProgram("abcde-BRIX.exe"));
    EXPECT_TRUE(IsOwnProgram("qctrl-brix"));
    EXPECT_FALSE(IsOwnProgram("a-brix.exe"));
    EXPECT_FALSE(IsOwnProgram("abcd-brix.exe"));
    EXPECT_FALSE(IsOwnProgram("abcde-bri"));
}

TEST_F(PermissionsTest, ConnectAndApplicationTexts) {
    AppRecord record = App("TOOL.EXE", "C:\\Apps\\Tool.EXE");
    record.zone.rules[0].address = 0x0A000005;
    record.zone.rules[0].remotePort = 80;
    record.zone.rules[0].protocol = 1;
    record.zone.rules[0].direction = 2;
    EXPECT_EQ(ConnectText(record), "TCP 10.0.0.5:80  outgoing");
    record.zone.rules[0].protocol = 7;
    record.zone.rules[0].direction = 5;
    EXPECT_EQ(ConnectText(record), "UDP 10.0.0.5:80  incoming");
    record.zone.rules[0].address = 0;
    record.zone.rules[0].direction = 0;
    EXPECT_EQ(ConnectText(record), "  ");
    EXPECT_EQ(ApplicationText(record), "c:\\apps\\tool.exe");
    EXPECT_EQ(ApplicationText(App("TOOL.EXE", "?")), "tool.exe");
    EXPECT_EQ(ApplicationText(App("TOOL.EXE", " C:\\x")), "tool.exe");
    EXPECT_EQ(ApplicationText(App("TOOL.EXE", "")), "tool.exe");
}

TEST_F(PermissionsTest, RecordsWithoutPathAreLookedUpOnceAndStoredBack) {
    RecordingDriver driver;
    driver.Put(App("GONE.EXE", "", "DisableAll"));
    driver.Put(App("KNOWN.EXE", "C:\\KNOWN.EXE", "DisableAll"));
    ProgramList programs;
    programs.Fill();
    ASSERT_EQ(programs.Count(), 2);
    ASSERT_EQ(driver.sent.size(), 1u);
    EXPECT_EQ(driver::FieldText(driver.sent[0].path), "?");
    EXPECT_EQ(driver::FieldText(driver.sent[0].description), "GONE.EXE");
    EXPECT_EQ(programs.Rows()[0].description, "GONE.EXE");
    EXPECT_EQ(programs.Rows()[0].zoneName, "DisableAll");
    EXPECT_EQ(programs.Selected(), 0);
    programs.Fill();
    EXPECT_EQ(driver.sent.size(), 1u);  // "?" is not looked up again
}

TEST_F(PermissionsTest, AddProgramKeysRowsByImageNameAndAddsAnIconPerRefresh) {
    ProgramList programs;
    EXPECT_EQ(programs.AddProgram(App("A.EXE", "p", "DisableAll")), 0);
    EXPECT_EQ(programs.AddProgram(App("B.EXE")), 0);
    EXPECT_EQ(programs.AddProgram(App("A.EXE", "p", "Internet Client")), 1);
    EXPECT_EQ(programs.Count(), 2);
    EXPECT_EQ(programs.Rows()[0].zoneName, "Internet Client");
    EXPECT_EQ(programs.IconsAdded(), 3);
    EXPECT_EQ(programs.AddProgram(App("a.exe")), 0);  // exact comparison
}

TEST_F(PermissionsTest, OwnProgramQuestionIsAnsweredWithEnableAllWithoutADialog) {
    RecordingDriver driver;
    ScriptedPermissionDialog dialog("DisableAll");
    ProgramList programs;
    AppRecord question = App("qctrl-BRIX.exe");
    EXPECT_EQ(programs.DecidePendingQuestion(question), 1);
    EXPECT_EQ(dialog.opened, 0);
    ASSERT_EQ(driver.answered.size(), 1u);
    EXPECT_EQ(Bytes(&driver.answered[0].zone, 704), Bytes(&PresetZones()[0], 704));
    EXPECT_EQ(programs.Rows()[0].zoneName, "EnableAll");
    AppRecord again = App("qctrl-BRIX.exe");
    EXPECT_EQ(programs.DecidePendingQuestion(again), 0);  // already has a row: no answer
    EXPECT_EQ(driver.answered.size(), 1u);
}

TEST_F(PermissionsTest, OtherQuestionsAskInAskModeAndAnswerWhateverTheOutcome) {
    RecordingDriver driver;
    ProgramList programs;
    AppRecord question = App("x-brix.exe");  // "-brix" at the wrong place
    question.zone.rules[0].address = 0x0A000005;
    question.zone.rules[0].remotePort = 80;
    question.zone.rules[0].protocol = 1;
    question.zone.rules[0].direction = 2;
    {
        ScriptedPermissionDialog dialog("Internet Client");
        EXPECT_EQ(programs.DecidePendingQuestion(question), 1);
        EXPECT_TRUE(dialog.lastAskMode);
        EXPECT_EQ(dialog.connect, "TCP 10.0.0.5:80  outgoing");
        EXPECT_EQ(dialog.application, "x-brix.exe");  // not running: path "?"
    }
    ASSERT_EQ(driver.answered.size(), 1u);
    EXPECT_EQ(ZoneName(driver.answered[0].zone), "Internet Client");
    EXPECT_EQ(driver::FieldText(driver.answered[0].path), "?");
    EXPECT_EQ(programs.Rows()[0].zoneName, "Internet Client");

    AppRecord cancelled = App("OTHER.EXE");
    ScriptedPermissionDialog cancel("DisableAll", false);
    EXPECT_EQ(programs.DecidePendingQuestion(cancelled), 1);
    EXPECT_EQ(driver.answered.size(), 2u);
    EXPECT_EQ(ZoneName(driver.answered[1].zone), "");
}

TEST_F(PermissionsTest, AcceptingAZoneThatNoLongerExistsKeepsTheBoundZone) {
    AppRecord record = App("T.EXE", "", "Internet Client");
    ComboItemList items;
    PermissionDialogModel model(record, false, items);
    ASSERT_EQ(items.Text(items.Selected()), "Internet Client");
    g_zones.Remove(FindZone("Internet Client"));
    model.Accept();
    EXPECT_EQ(ZoneName(record.zone), "Internet Client");
    EXPECT_TRUE(IsEmptySlot(record.zone.rules[0]));  // untouched, not the old list's copy
}

TEST_F(PermissionsTest, EditSendsTheChosenZoneOnlyWhenAccepted) {
    RecordingDriver driver;
    driver.Put(App("T.EXE", "C:\\T.EXE", "DisableAll"));
    ProgramList programs;
    programs.Fill();
    {
        ScriptedPermissionDialog cancel("Internet Client", false);
        EXPECT_EQ(programs.EditProgram(), 0);
    }
    EXPECT_TRUE(driver.sent.empty());
    ScriptedPermissionDialog dialog("Internet Client");
    EXPECT_EQ(programs.EditProgram(), 1);
    EXPECT_FALSE(dialog.lastAskMode);
    ASSERT_EQ(driver.sent.size(), 1u);
    EXPECT_EQ(Bytes(&driver.sent[0].zone, 704), Bytes(FindZone("Internet Client"), 704));
    EXPECT_EQ(programs.Rows()[0].zoneName, "Internet Client");
}

TEST_F(PermissionsTest, DeleteRemovesTheRowOrReportsARunningApplication) {
    {
        RecordingDriver driver;
        driver.Put(App("A.EXE", "a"));
        driver.Put(App("B.EXE", "b"));
        ProgramList programs;
        programs.Fill();
        programs.Select(1);
        EXPECT_EQ(programs.DeleteProgram(), 1);
        EXPECT_EQ(programs.Count(), 1);
        EXPECT_EQ(programs.Selected(), 0);
        EXPECT_EQ(m_messages.shown.back().text, "Delete Program from permission list?");
    }
    RecordingDriver failing(true);
    failing.Put(App("A.EXE", "a"));
    ProgramList programs;
    programs.Fill();
    EXPECT_EQ(programs.DeleteProgram(), 0);
    EXPECT_EQ(programs.Count(), 1);
    EXPECT_EQ(m_messages.shown.back().text, "Can't delete running Application");
    programs.Select(-1);
    EXPECT_EQ(programs.DeleteProgram(), 0);
}

}  // namespace
}  // namespace qbrix::policy
