// The control panel shell, offscreen: title and pages, the Exit prompt, the page save check, the
// tray menu and the timer steps.
#include <gtest/gtest.h>

#include <QApplication>
#include <QCloseEvent>
#include <QComboBox>
#include <QDesktopServices>
#include <QDialog>
#include <QElapsedTimer>
#include <QMenu>
#include <QPushButton>
#include <QSignalSpy>
#include <QTabWidget>
#include <QTest>
#include <QTextBrowser>
#include <QTimer>
#include <fstream>
#include <string>
#include <vector>

#include "core/Messages.h"
#include "platform/Platform.h"
#include "support/TempPlatform.h"
#include "ui/ControlPanel.h"

namespace qbrix::ui {
namespace {

class EditablePage : public PropertyPage {
  public:
    using PropertyPage::PropertyPage;
    bool HasUnsavedChanges() override { return ++asked, dirty; }
    void SaveOrDiscard(bool save) override {
        decisions.push_back(save);
        dirty = false;
    }
    bool dirty = false;
    int asked = 0;
    std::vector<bool> decisions;
};

class ControlPanelTest : public ::testing::Test {
  protected:
    ControlPanelTest() {
        const char* captions[] = {"Programs", "Content Options", "Zones",      "Statistics",
                                  "Settings", "Internet Log",    "Content Log"};
        PanelParts parts;
        for (const char* caption : captions) {
            auto* page = new EditablePage(caption);
            m_pages.push_back(page);
            parts.pages.push_back(page);
        }
        parts.steps.askPendingApplication = [this] { m_steps.push_back("ask"); };
        parts.steps.pollActivity = [this] { m_steps.push_back("activity"); };
        parts.steps.drainContentEvents = [this] { m_steps.push_back("content"); };
        parts.steps.refreshStatistics = [this] { m_steps.push_back("statistics"); };
        parts.fillContentRulesMenu = [this](QMenu* menu, bool greyed) {
            m_greyed.push_back(greyed);
            menu->addAction("Disable All")->setEnabled(!greyed);
        };
        m_panel = std::make_unique<ControlPanel>(std::move(parts));
    }

    test::TempPlatform m_platform;
    test::ScriptedMessages m_messages;
    std::vector<EditablePage*> m_pages;
    std::vector<std::string> m_steps;
    std::vector<bool> m_greyed;
    std::unique_ptr<ControlPanel> m_panel;
};

TEST_F(ControlPanelTest, TitlePagesAndControls) {
    EXPECT_EQ("h-Brix 3.1.091", m_panel->windowTitle().toStdString());
    QTabWidget* tabs = m_panel->Tabs();
    ASSERT_EQ(7, tabs->count());
    EXPECT_EQ("Internet Log", tabs->tabText(5).toStdString());
    EXPECT_EQ(0, tabs->currentIndex());
    auto* close = m_panel->findChild<QPushButton*>("1");
    ASSERT_NE(nullptr, close);
    EXPECT_EQ("Close", close->text().toStdString());
    // The override selector starts with its empty item.
    ASSERT_GE(m_panel->ZoneOverrideSelector()->count(), 1);
    EXPECT_EQ("", m_panel->ZoneOverrideSelector()->itemText(0).toStdString());
    EXPECT_FALSE(m_panel->isVisible());  // the program starts in the tray
    EXPECT_EQ("q-Brix Control", m_panel->TrayIcon()->toolTip().toStdString());
}

TEST_F(ControlPanelTest, CloseRequestsAreIgnoredUntilTheSessionEnds) {
    m_panel->ShowPanel(0);
    EXPECT_FALSE(m_panel->close());  // Alt+F4 and the window manager's close
    EXPECT_TRUE(m_panel->isVisible());
    // The end of the session closes it without a question, and unsaved changes stay unsaved.
    m_pages[0]->dirty = true;
    m_panel->EndSession();
    EXPECT_TRUE(m_panel->close());
    EXPECT_FALSE(m_panel->isVisible());
    EXPECT_TRUE(m_messages.shown.empty());
    EXPECT_TRUE(m_pages[0]->decisions.empty());
}

TEST_F(ControlPanelTest, ExitAsksOnceAndEndsOnlyOnYes) {
    QSignalSpy exitRequested(m_panel.get(), &ControlPanel::ExitRequested);
    m_messages.QueueBoxAnswer(core::IDNO);
    m_messages.whileShown = [this] { m_panel->ExitCommand(); };  // a second Exit, quickly
    m_panel->ExitCommand();
    ASSERT_EQ(1u, m_messages.shown.size());
    EXPECT_EQ("q-Brix Warning", m_messages.shown[0].caption);
    EXPECT_EQ(core::MB_YESNO | core::MB_ICONQUESTION, m_messages.shown[0].style);
    EXPECT_EQ(0, exitRequested.count());

    m_messages.whileShown = nullptr;
    m_panel->ShowPanel(2);
    m_pages[2]->dirty = true;
    m_messages.QueueBoxAnswer(core::IDYES);  // Exit
    m_messages.QueueBoxAnswer(core::IDNO);   // Save Changes?
    m_panel->ExitCommand();
    EXPECT_EQ(1, exitRequested.count());
    EXPECT_EQ(std::vector<bool>{false}, m_pages[2]->decisions);
    EXPECT_FALSE(m_panel->isVisible());
}

TEST_F(ControlPanelTest, HidingWithUnsavedChangesAsksOnce) {
    m_panel->ShowPanel(0);
    m_pages[0]->dirty = true;
    m_panel->HidePanel();
    ASSERT_EQ(1u, m_messages.shown.size());
    EXPECT_EQ("Save Changes?", m_messages.shown[0].text);
    EXPECT_EQ("q-Brix", m_messages.shown[0].caption);
    EXPECT_EQ(std::vector<bool>{true}, m_pages[0]->decisions);
    EXPECT_FALSE(m_panel->isVisible());
    // Only the active page is asked.
    EXPECT_EQ(0, m_pages[1]->asked);
    m_panel->ShowPanel(0);
    m_panel->HidePanel();
    EXPECT_EQ(1u, m_messages.shown.size());
}

TEST_F(ControlPanelTest, TrayMenuIsBuiltInItsOrder) {
    std::unique_ptr<QMenu> menu(m_panel->BuildTrayMenu());
    std::vector<std::string> texts;
    for (QAction* action : menu->actions()) {
        texts.push_back(action->isSeparator() ? "-" : action->text().toStdString());
    }
    EXPECT_EQ((std::vector<std::string>{"Content Rules", "-", "About", "Setting", "Show Panel", "-",
                                        "Help", "Exit"}),
              texts);
    EXPECT_EQ(ControlPanel::kExitCommand, menu->actions().back()->data().toInt());

    m_panel->ShowPanel(0);
    std::unique_ptr<QMenu> again(m_panel->BuildTrayMenu());
    EXPECT_EQ((std::vector<bool>{false, true}), m_greyed);  // greyed while the panel shows

    // "Setting" shows the panel on the Settings page.
    m_panel->hide();
    again->actions()[3]->trigger();
    EXPECT_TRUE(m_panel->isVisible());
    EXPECT_EQ(4, m_panel->Tabs()->currentIndex());
}

TEST_F(ControlPanelTest, HelpOpensTheInstalledGuideWithTheDesktopsViewer) {
    const std::string path = platform::ProgramFile(ControlPanel::kHelpFile);
    m_panel->OpenHelp();  // no file yet
    ASSERT_EQ(1u, m_messages.shown.size());
    EXPECT_EQ("The help file " + path + " is missing.", m_messages.shown[0].text);
    EXPECT_EQ("Help", m_messages.shown[0].caption);

    std::ofstream(path) << "<html><body><h1>Guide</h1></body></html>";
    QTextBrowser viewer;  // stands in for the desktop's viewer of local files
    QDesktopServices::setUrlHandler("file", &viewer, "setSource");
    m_panel->OpenHelp();
    QDesktopServices::unsetUrlHandler("file");
    EXPECT_EQ(QUrl::fromLocalFile(QString::fromStdString(path)), viewer.source());
    EXPECT_EQ(1u, m_messages.shown.size());

    m_panel->SetUrlOpener([](const QUrl&) { return false; });  // no viewer on this desktop
    m_panel->OpenHelp();
    ASSERT_EQ(2u, m_messages.shown.size());
    EXPECT_EQ("No program to show the help file " + path + " was found.", m_messages.shown[1].text);
}

TEST_F(ControlPanelTest, EachTickRunsTheFourStepsInOrder) {
    m_panel->Tick();
    m_panel->Tick();
    EXPECT_EQ((std::vector<std::string>{"ask", "activity", "content", "statistics", "ask",
                                        "activity", "content", "statistics"}),
              m_steps);
}

// A step that opens a modal dialog does not hold up the timer: while the dialog is open, the
// following ticks run the other steps (the step with the dialog guards itself, as the real
// steps do with their re-entry flags).
TEST(ControlPanelTimerTest, TicksGoOnWhileAStepHoldsAModalDialogOpen) {
    test::TempPlatform platform;
    test::ScriptedMessages messages;
    int asks = 0;
    int asksWhileOpen = 0;
    bool dialogOpen = false;
    PanelParts parts;
    parts.pages.push_back(new PropertyPage("Programs"));
    parts.steps.askPendingApplication = [&] {
        ++asks;
        if (dialogOpen) {
            ++asksWhileOpen;
        }
    };
    parts.steps.drainContentEvents = [&] {
        if (dialogOpen) {
            return;  // the step's re-entry flag
        }
        dialogOpen = true;
        QDialog dialog;
        QTimer closer;
        QElapsedTimer open;
        open.start();
        QObject::connect(&closer, &QTimer::timeout, [&] {
            if (asksWhileOpen >= 2 || open.elapsed() > 5000) {
                dialog.reject();
            }
        });
        closer.start(20);
        dialog.exec();
        dialogOpen = false;
    };
    ControlPanel panel(std::move(parts));
    ASSERT_TRUE(QTest::qWaitFor([&] { return asks > 0 && !dialogOpen; }, 8000));
    EXPECT_GE(asksWhileOpen, 2) << asks << " asks, " << asksWhileOpen
                                << " while the dialog was open";
}

TEST_F(ControlPanelTest, TrayIconComesBackWhenTheTrayReturns) {
    m_panel->TrayIcon()->hide();
    m_panel->AddTrayIcon();
    EXPECT_TRUE(m_panel->TrayIcon()->isVisible());
}

}  // namespace
}  // namespace qbrix::ui
