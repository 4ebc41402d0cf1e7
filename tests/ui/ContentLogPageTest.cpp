// The "Content Log" page, offscreen, filled by the real content poll from the mailslot: rows at
// the top, the row limit, the log file, and the pop-up with the "Internet Content Info" details.
#include <gtest/gtest.h>

#include <QHeaderView>
#include <QLineEdit>
#include <QTabWidget>
#include <QTreeWidget>

#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "events/PollContent.h"
#include "support/TempPlatform.h"
#include "ui/ContentDetailsDialog.h"
#include "ui/ContentLogPage.h"
#include "unit/EventTestSupport.h"

namespace qbrix::ui {
namespace {

using events::testing::MakeEvent;

class ContentLogPageTest : public ::testing::Test {
  protected:
    ContentLogPageTest() {
        events::ResetContentPollFlag();
        m_tabs.addTab(new PropertyPage("Other"), "Other");
        m_page = new ContentLogPage();
        m_tabs.addTab(m_page, m_page->Caption());
    }
    void TearDown() override {
        events::ResetContentEventQueue();
        events::ResetContentPollFlag();
    }
    // The first tick creates the mailslot; then the events are sent and queued.
    void Queue(const std::vector<events::ContentEvent>& sent) {
        events::PollContent(*m_page).Run();
        for (const events::ContentEvent& event : sent) {
            ASSERT_TRUE(events::testing::Send(event));
        }
        ASSERT_TRUE(events::testing::WaitQueued(sent.size()));
    }
    QStringList Row(int index) const {
        QStringList texts;
        QTreeWidgetItem* item = m_page->List()->topLevelItem(index);
        for (int column = 0; column < 4; ++column) {
            texts << item->text(column);
        }
        return texts;
    }

    test::TempPlatform m_platform;
    test::ScriptedMessages m_messages;
    QTabWidget m_tabs;
    ContentLogPage* m_page = nullptr;
};

TEST_F(ContentLogPageTest, ColumnsComeFromTheStringTable) {
    QTreeWidget* list = m_page->List();
    ASSERT_EQ(list->columnCount(), 4);
    QTreeWidgetItem* header = list->headerItem();
    EXPECT_EQ(header->text(0), " Type");
    EXPECT_EQ(header->text(1), "Name");
    EXPECT_EQ(header->text(2), "Address");
    EXPECT_EQ(header->text(3), "Quarantine");
    EXPECT_EQ(list->columnWidth(3), 200);
    EXPECT_EQ(m_page->Caption(), "Content Log");
}

TEST_F(ContentLogPageTest, QuietKindsAddARowAndFindingsPopThePanelUpFirst) {
    std::vector<std::string> details;
    m_page->SetDetailsRunner([&](const events::ContentEvent& event) {
        details.push_back(event.name);
        // While the details are up the panel is in front, topmost, on this page.
        EXPECT_TRUE(m_tabs.isVisible());
        EXPECT_EQ(m_tabs.currentWidget(), m_page);
        EXPECT_TRUE(m_tabs.windowFlags() & Qt::WindowStaysOnTopHint);
        EXPECT_EQ(m_page->RowCount(), 1);  // the finding's own row comes after the dialog
    });
    Queue({MakeEvent(events::kWebQuiet, "http://w.example/b", "b"),
           MakeEvent(events::kWebFound, "http://w.example/a.zip", "a.zip", "/q/a.zip")});
    events::PollContent(*m_page).Run();

    EXPECT_EQ(details, std::vector<std::string>{"a.zip"});
    EXPECT_FALSE(m_tabs.windowFlags() & Qt::WindowStaysOnTopHint);
    ASSERT_EQ(m_page->RowCount(), 2);
    EXPECT_EQ(Row(0), (QStringList{" Web", "a.zip", "http://w.example/a.zip", "/q/a.zip"}));
    EXPECT_EQ(Row(1), (QStringList{" Web", "b", "http://w.example/b", ""}));
    EXPECT_TRUE(m_page->List()->updatesEnabled());
    EXPECT_EQ(" Web\tb\thttp://w.example/b\t\r\n Web\ta.zip\thttp://w.example/a.zip\t/q/a.zip\r\n",
              test::ReadFile(m_platform.ProgramDirectory() + "content.log"));
}

TEST_F(ContentLogPageTest, TheOldestRowGoesWhenTheListIsFull) {
    for (int i = 0; i < 1001; ++i) {
        m_page->InsertTopRow({" Mail", "old " + std::to_string(i), "", ""});
    }
    Queue({MakeEvent(events::kRuleFound, "http://w.example/", "newest")});
    events::PollContent(*m_page).Run();
    ASSERT_EQ(m_page->RowCount(), 1001);
    EXPECT_EQ(Row(0)[1], "newest");
    EXPECT_EQ(Row(1000)[1], "old 1");
}

TEST_F(ContentLogPageTest, AnUnwritableLogFileLeavesTheListWorking) {
    // The log "file" is a directory: it cannot be opened, the rows still come.
    core::RegistryKey key(core::kLspLogSuffix, core::kGuiRootPath);
    key.SetString(core::kFileNameValue, m_platform.DataRoot());
    Queue({MakeEvent(events::kRuleApplied, "http://w.example/", "rule hit")});
    events::PollContent(*m_page).Run();
    ASSERT_EQ(m_page->RowCount(), 1);
    EXPECT_EQ(Row(0)[1], "rule hit");
    EXPECT_TRUE(m_messages.shown.empty());
}

TEST_F(ContentLogPageTest, DetailsDialogShowsTheEventReadOnly) {
    events::ContentEvent event = MakeEvent(events::kMailFound, "pop3://mail", "virus.exe", "/q/v");
    std::memset(event.name, 'n', sizeof(event.name));  // no terminator: bounded by the width
    ContentDetailsDialog dialog(event);
    EXPECT_EQ(dialog.windowTitle(), "Internet Content Info");
    auto* type = dialog.findChild<QLineEdit*>("type");
    auto* name = dialog.findChild<QLineEdit*>("name");
    ASSERT_TRUE(type && name);
    EXPECT_EQ(type->text(), " E-mail");
    EXPECT_TRUE(type->isReadOnly());
    EXPECT_EQ(name->text(), QString(200, 'n'));
    EXPECT_EQ(dialog.findChild<QLineEdit*>("address")->text(), "pop3://mail");
    EXPECT_EQ(dialog.findChild<QLineEdit*>("quarantine")->text(), "/q/v");
}

}  // namespace
}  // namespace qbrix::ui
