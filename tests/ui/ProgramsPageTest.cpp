// The "Programs" page, the "Permissions for Application" dialog and the application prompt,
// offscreen, against a recording driver: the rows with their icons and column widths, Edit and
// Delete, the dialog's texts, and the order of the prompt's actions with its re-entry guard.
#include <gtest/gtest.h>

#include <QApplication>
#include <QComboBox>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QTabWidget>
#include <QTest>
#include <QTreeWidget>
#include <cstdio>

#include "PolicyTestSupport.h"
#include "UiTestSupport.h"
#include "policy/PresetZones.h"
#include "ui/ControlPanel.h"
#include "ui/DialogSetup.h"
#include "ui/PermissionDialog.h"
#include "ui/ProgramsPage.h"

namespace qbrix::ui {
namespace {

using namespace policy::test_support;
using test_support::Child;
using test_support::ScriptedPresenter;

// Picks a zone by its text in the dialog's selector and presses OK (or Cancel).
ScriptedPresenter::Script Choose(const QString& zone, bool ok = true) {
    return [zone, ok](QDialog& dialog) {
        auto* box = Child<QComboBox>(dialog, "Zone");
        box->setCurrentIndex(box->findText(zone));
        Child<QPushButton>(dialog, ok ? "OK" : "Cancel")->click();
        return dialog.result();
    };
}

class ProgramsPageTest : public ::testing::Test {
  protected:
    ProgramsPageTest() {
        policy::g_zones.Append(Zone("Internet Client", {Rule("Local Enable")}, 1));
        policy::g_zones.Append(Zone("DisableAll", {}, 1));
    }
    QStringList Row(ProgramsPage& page, int index) {
        QTreeWidgetItem* item = page.List()->topLevelItem(index);
        if (item == nullptr) {
            return {};
        }
        return {item->text(0), item->text(1), item->text(2), item->text(3)};
    }
    static policy::AppRecord Question(const char* imageName) {
        policy::AppRecord record = App(imageName);
        record.zone.rules[0].address = 0x0A000005;
        record.zone.rules[0].remotePort = 80;
        record.zone.rules[0].protocol = 1;
        record.zone.rules[0].direction = 2;
        return record;
    }

    ::qbrix::test::TempPlatform m_platform;
    ::qbrix::test::ScriptedMessages m_messages;
    CleanPolicyState m_state;
    DialogSetup m_dialogs{false};
    ScriptedPresenter m_presenter;
};

TEST_F(ProgramsPageTest, FillShowsEveryApplicationAndCompletesUnknownPaths) {
    RecordingDriver driver;
    policy::AppRecord mail = App("MAIL.EXE", "C:\\MAIL\\MAIL.EXE", "Internet Client");
    driver::SetFieldText(mail.description, "Mail reader");
    driver.Put(mail);
    driver.Put(App("GONE.EXE", "", "DisableAll"));
    ProgramsPage page;
    ASSERT_EQ(page.List()->topLevelItemCount(), 2);
    EXPECT_EQ(Row(page, 0), (QStringList{"GONE.EXE", "DisableAll", "?", "GONE.EXE"}));
    EXPECT_EQ(Row(page, 1),
              (QStringList{"Mail reader", "Internet Client", "C:\\MAIL\\MAIL.EXE", "MAIL.EXE"}));
    EXPECT_TRUE(page.List()->isColumnHidden(2));
    EXPECT_TRUE(page.List()->isColumnHidden(3));
    EXPECT_FALSE(page.List()->topLevelItem(1)->icon(0).isNull());
    // The record without a path went back to the driver with "?" and is not looked up again.
    ASSERT_EQ(driver.sent.size(), 1u);
    EXPECT_EQ(std::string(driver::FieldText(driver.sent[0].path)), "?");
}

// The process search gives paths in capitals: the icon is found whatever the case of the names.
TEST_F(ProgramsPageTest, AProgramsIconIsFoundFromItsUpperCasedPath) {
    const std::string file = m_platform.ProgramDirectory() + "Tool.bin";
    std::fclose(std::fopen(file.c_str(), "w"));
    EXPECT_FALSE(ProgramFileIcon(QString::fromStdString(file).toUpper().toStdString()).isNull());
    EXPECT_FALSE(ProgramFileIcon(file).isNull());
    EXPECT_TRUE(ProgramFileIcon(m_platform.ProgramDirectory() + "NONE.BIN").isNull());
    EXPECT_TRUE(ProgramFileIcon("").isNull());
}

// The name column takes the list's client width less 240, the zone column 120.
TEST_F(ProgramsPageTest, TheNameColumnFollowsTheClientWidth) {
    ProgramsPage page;
    for (int width : {700, 520}) {
        page.resize(width, 300);
        page.show();
        QApplication::processEvents();
        EXPECT_EQ(page.List()->columnWidth(0), page.List()->viewport()->width() - 240) << width;
        EXPECT_EQ(page.List()->columnWidth(1), 120);
    }
}

TEST_F(ProgramsPageTest, EditBindsTheChosenZoneAndCancelChangesNothing) {
    RecordingDriver driver;
    driver.Put(App("MAIL.EXE", "C:\\MAIL\\MAIL.EXE", "Internet Client"));
    ProgramsPage page;
    m_presenter.SetScript(Choose("DisableAll", false));
    QTest::keyClick(page.List(), Qt::Key_Space);
    EXPECT_TRUE(driver.sent.empty());

    std::string application;
    m_presenter.SetScript([&](QDialog& dialog) {
        application = Child<QLineEdit>(dialog, "Application")->text().toStdString();
        EXPECT_FALSE(Child<QLineEdit>(dialog, "Connect")->isVisibleTo(&dialog));
        return Choose("DisableAll")(dialog);
    });
    QTest::keyClick(page.List(), Qt::Key_Space);
    EXPECT_EQ(application, "c:\\mail\\mail.exe");
    ASSERT_EQ(driver.sent.size(), 1u);
    EXPECT_EQ(policy::ZoneName(driver.sent[0].zone), "DisableAll");
    EXPECT_EQ(Row(page, 0)[1], "DisableAll");
    EXPECT_EQ(m_presenter.titles.back(), "Permissions for Application");
}

TEST_F(ProgramsPageTest, DeletingARunningApplicationKeepsItsRow) {
    {
        RecordingDriver driver(/*deleteFails=*/true);
        driver.Put(App("MAIL.EXE", "C:\\MAIL.EXE", "Internet Client"));
        ProgramsPage page;
        m_messages.QueueBoxAnswer(core::IDYES);
        QTest::keyClick(page.List(), Qt::Key_Delete);
        EXPECT_EQ(m_messages.shown.back().text, "Can't delete running Application");
        EXPECT_EQ(page.List()->topLevelItemCount(), 1);
    }
    RecordingDriver driver;
    driver.Put(App("A.EXE", "C:\\A.EXE", "Internet Client"));
    driver.Put(App("B.EXE", "C:\\B.EXE", "Internet Client"));
    ProgramsPage page;
    page.List()->setCurrentItem(page.List()->topLevelItem(1));
    m_messages.QueueBoxAnswer(core::IDYES);
    QTest::keyClick(page.List(), Qt::Key_Delete);
    EXPECT_EQ(m_messages.shown.back().text, "Delete Program from permission list?");
    ASSERT_EQ(page.List()->topLevelItemCount(), 1);
    EXPECT_EQ(page.List()->currentItem()->text(3), "A.EXE");
}

TEST_F(ProgramsPageTest, TheDialogShowsTheConnectionAttemptAndUndecodableBytes) {
    policy::AppRecord record = Question("TOOL.EXE");
    driver::SetFieldText(record.description, "Caf\xe9 tool");
    PermissionDialog dialog(record, true);
    EXPECT_EQ(Child<QLineEdit>(dialog, "Connect")->text(), "TCP 10.0.0.5:80  outgoing");
    EXPECT_EQ(Child<QLineEdit>(dialog, "Description")->text(), QString::fromLatin1("Caf\xe9 tool"));
    EXPECT_EQ(Child<QLineEdit>(dialog, "Application")->text(), "tool.exe");
    EXPECT_EQ(Child<QComboBox>(dialog, "Zone")->count(), 2);
}

class PromptTest : public ProgramsPageTest {
  protected:
    PromptTest() {
        PanelParts parts;
        m_page = new ProgramsPage();
        parts.pages = {m_page, new PropertyPage("Zones")};
        parts.steps.askPendingApplication = [page = m_page] { page->AskPendingApplication(); };
        m_panel = std::make_unique<ControlPanel>(std::move(parts));
        m_panel->Tabs()->setCurrentIndex(1);
    }
    RecordingDriver m_driver;
    ProgramsPage* m_page = nullptr;
    std::unique_ptr<ControlPanel> m_panel;
};

TEST_F(PromptTest, OwnProgramsAreAnsweredWithEnableAllWithoutAsking) {
    m_driver.pending.push_back(Question("abcde-BRIX.exe"));
    m_page->AskPendingApplication();
    ASSERT_EQ(m_driver.answered.size(), 1u);
    const policy::ZoneRecord& enableAll = policy::PresetZones()[0];
    EXPECT_EQ(Bytes(&m_driver.answered[0].zone, sizeof enableAll),
              Bytes(&enableAll, sizeof enableAll));
    EXPECT_EQ(m_presenter.presented, 0);
    EXPECT_TRUE(m_messages.beeps.empty());
    EXPECT_FALSE(m_panel->isVisible());
    EXPECT_EQ(Row(*m_page, 0)[1], "EnableAll");
}

TEST_F(PromptTest, OtherProgramsBeepRaiseThePanelAskAndAnswer) {
    m_driver.pending.push_back(Question("a-brix.exe"));
    std::vector<std::string> seen;
    m_presenter.SetScript([&](QDialog& dialog) {
        // By now: the row is there, the beep sounded, the panel is up on the Programs page.
        seen.push_back(m_page->List()->topLevelItemCount() == 1 ? "row" : "no row");
        seen.push_back(Row(*m_page, 0).value(0).toStdString());  // the program's name
        seen.push_back(m_messages.beeps.size() == 1 ? "beep" : "no beep");
        seen.push_back(m_panel->isVisible() ? "shown" : "hidden");
        seen.push_back(m_panel->Tabs()->currentWidget() == m_page ? "programs" : "other page");
        seen.push_back(m_panel->windowFlags() & Qt::WindowStaysOnTopHint ? "topmost" : "normal");
        seen.push_back(Child<QLineEdit>(dialog, "Connect")->text().toStdString());
        EXPECT_TRUE(m_driver.answered.empty());
        return Choose("Internet Client")(dialog);
    });
    m_page->AskPendingApplication();
    EXPECT_EQ(seen, (std::vector<std::string>{"row", "a-brix.exe", "beep", "shown", "programs",
                                              "topmost", "TCP 10.0.0.5:80  outgoing"}));
    ASSERT_EQ(m_driver.answered.size(), 1u);
    EXPECT_EQ(policy::ZoneName(m_driver.answered[0].zone), "Internet Client");
    EXPECT_EQ(std::string(driver::FieldText(m_driver.answered[0].path)), "?");
    EXPECT_EQ(Row(*m_page, 0)[1], "Internet Client");
    EXPECT_FALSE(m_panel->windowFlags() & Qt::WindowStaysOnTopHint);
    EXPECT_FALSE(m_page->Asking());
}

TEST_F(PromptTest, CancelStillAnswersWithTheZoneTheDriverSent) {
    m_driver.pending.push_back(Question("TOOL.EXE"));
    m_presenter.SetScript(Choose("Internet Client", false));
    m_page->AskPendingApplication();
    ASSERT_EQ(m_driver.answered.size(), 1u);
    EXPECT_EQ(m_driver.answered[0].zone.rules[0].address, 0x0A000005u);
    EXPECT_EQ(policy::ZoneName(m_driver.answered[0].zone), "");
}

TEST_F(PromptTest, OneQuestionPerTickAndNoneWhileOneIsOpen) {
    m_driver.pending.push_back(Question("ONE.EXE"));
    m_driver.pending.push_back(Question("TWO.EXE"));
    m_presenter.SetScript([&](QDialog& dialog) {
        m_panel->Tick();  // the timer keeps firing while the dialog is open
        EXPECT_EQ(m_driver.pending.size(), 1u);
        return Choose("DisableAll")(dialog);
    });
    m_page->AskPendingApplication();
    EXPECT_EQ(m_driver.answered.size(), 1u);
    m_presenter.SetScript(Choose("DisableAll"));
    m_page->AskPendingApplication();
    ASSERT_EQ(m_driver.answered.size(), 2u);
    EXPECT_EQ(std::string(driver::FieldText(m_driver.answered[1].imageName)), "TWO.EXE");
    m_page->AskPendingApplication();  // nothing pending
    EXPECT_EQ(m_driver.answered.size(), 2u);
}

TEST_F(PromptTest, AProgramThatAlreadyHasARowIsNotAnswered) {
    m_page->AddProgram(App("TOOL.EXE", "C:\\TOOL.EXE", "Internet Client"));
    m_driver.pending.push_back(Question("TOOL.EXE"));
    m_page->AskPendingApplication();
    EXPECT_TRUE(m_driver.answered.empty());
    EXPECT_EQ(m_presenter.presented, 0);
    EXPECT_FALSE(m_page->Asking());
}

TEST_F(ProgramsPageTest, SeventyFiveApplicationsAndAMissingDriver) {
    {
        RecordingDriver driver;
        for (int i = 0; i < 75; ++i) {
            std::string name = "APP" + std::to_string(i) + ".EXE";
            driver.Put(App(name.c_str(), "C:\\APP.EXE", "DisableAll"));
        }
        ProgramsPage page;
        EXPECT_EQ(page.List()->topLevelItemCount(), 75);
    }
    // Without a driver the page is empty and the prompt finds nothing to ask.
    ProgramsPage page;
    EXPECT_EQ(page.List()->topLevelItemCount(), 0);
    page.AskPendingApplication();
    EXPECT_FALSE(page.Asking());
    EXPECT_EQ(m_presenter.presented, 0);
}

}  // namespace
}  // namespace qbrix::ui
