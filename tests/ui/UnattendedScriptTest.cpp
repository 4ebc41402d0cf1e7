// The script of an unattended run: what it accepts, and how a step that cannot be done ends the
// run through Exit. The end-to-end day of the program plays a whole script against real
// processes.
#include <gtest/gtest.h>

#include <QListWidget>
#include <QMenu>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>
#include <QVBoxLayout>

#include "core/Messages.h"
#include "support/TempPlatform.h"
#include "ui/ControlPanel.h"
#include "ui/UnattendedScript.h"

namespace qbrix::ui {
namespace {

std::string ParseError(const std::string& text) {
    std::string error;
    EXPECT_FALSE(ParseScript(text, &error).has_value()) << text;
    return error;
}

TEST(UnattendedScriptParseTest, StepsTakeTheRestOfTheLineAsTheirLastWord) {
    std::string error;
    auto steps = ParseScript("# a day\n\n"
                             "answer browser.exe Internet Client\n"
                             "  wait rows 3 Internet Log  \r\n"
                             "menu Export /tmp/my zones/office.xml\n"
                             "menu Delete\n"
                             "clock -20\n"
                             "wait file /tmp/a b\n"
                             "exit\n",
                             &error);
    ASSERT_TRUE(steps.has_value()) << error;
    ASSERT_EQ(7u, steps->size());
    EXPECT_EQ(3, (*steps)[0].line);
    EXPECT_EQ((std::vector<std::string>{"browser.exe", "Internet Client"}), (*steps)[0].words);
    EXPECT_EQ("rows", (*steps)[1].what);
    EXPECT_EQ(3, (*steps)[1].number);
    EXPECT_EQ((std::vector<std::string>{"Internet Log"}), (*steps)[1].words);
    EXPECT_EQ((std::vector<std::string>{"Export", "/tmp/my zones/office.xml"}), (*steps)[2].words);
    EXPECT_EQ((std::vector<std::string>{"Delete", ""}), (*steps)[3].words);
    EXPECT_EQ(-20, (*steps)[4].number);
    EXPECT_EQ((std::vector<std::string>{"/tmp/a b"}), (*steps)[5].words);
}

TEST(UnattendedScriptParseTest, BadLinesNameTheirNumberAndWhatIsWrong) {
    EXPECT_EQ("line 2: answer needs a program and a zone", ParseError("exit\nanswer chat.exe\n"));
    EXPECT_EQ("line 1: wait rows needs a count and a page", ParseError("wait rows 3\n"));
    EXPECT_EQ("line 1: wait asked needs a count", ParseError("wait asked three\n"));
    EXPECT_EQ("line 1: wait for what? (asked, rows, file, ticks)", ParseError("wait 5\n"));
    EXPECT_EQ("line 1: timeout needs a number of seconds", ParseError("timeout 0\n"));
    EXPECT_EQ("line 1: clock needs a number of seconds", ParseError("clock 20s\n"));
    EXPECT_EQ("line 1: unknown step \"click\"", ParseError("click OK\n"));
    EXPECT_EQ("line 1: exit takes nothing more", ParseError("exit now\n"));
}

class UnattendedScriptRunTest : public ::testing::Test {
  protected:
    UnattendedScriptRunTest() {
        PanelParts parts;
        auto* page = new PropertyPage("Zones");
        auto* button = new QPushButton("&Save", page);
        auto* list = new QListWidget(page);
        list->addItems({"Office", "Home"});
        list->setContextMenuPolicy(Qt::CustomContextMenu);
        QObject::connect(list, &QListWidget::customContextMenuRequested, [this, list](QPoint at) {
            QMenu menu;
            menu.addAction("Export", [this, list] {
                m_exported.push_back(list->currentItem()->text().toStdString() + " to " +
                                     core::CurrentMessages().AskSaveFileName("Export", "", "", ""));
            });
            menu.exec(list->viewport()->mapToGlobal(at));
        });
        new QVBoxLayout(page);
        page->layout()->addWidget(list);
        page->layout()->addWidget(button);
        QObject::connect(button, &QPushButton::clicked, [this] { ++m_saved; });
        parts.pages.push_back(page);
        m_panel = std::make_unique<ControlPanel>(std::move(parts));
    }

    test::TempPlatform m_platform;
    test::ScriptedMessages m_messages;  // answers the Exit warning with its first button, Yes
    std::unique_ptr<ControlPanel> m_panel;
    int m_saved = 0;
    std::vector<std::string> m_exported;
};

TEST_F(UnattendedScriptRunTest, StepsRunInOrderAndTheLastOneExits) {
    QSignalSpy exits(m_panel.get(), &ControlPanel::ExitRequested);
    std::int64_t clock = UnattendedScript::ClockOffset();
    std::string error;
    UnattendedScript script(*m_panel, *ParseScript("page Zones\n"
                                                   "select Home\n"
                                                   "menu Export /tmp/home zone.xml\n"
                                                   "press Save\n"
                                                   "clock 40\n"
                                                   "exit\n",
                                                   &error));
    ASSERT_TRUE(QTest::qWaitFor([&] { return script.Finished(); }, 5000));
    EXPECT_FALSE(script.Failed());
    EXPECT_EQ((std::vector<std::string>{"Home to /tmp/home zone.xml"}), m_exported);
    EXPECT_EQ(1, m_saved);
    EXPECT_EQ(clock + 40, UnattendedScript::ClockOffset());
    EXPECT_TRUE(QTest::qWaitFor([&] { return exits.count() == 1; }, 1000));
}

TEST_F(UnattendedScriptRunTest, AStepThatCannotBeDoneOrWaitsTooLongEndsTheRun) {
    for (const char* text : {"page Zones\npress Load\nclock 40\nexit\n",
                             "page Zones\nselect Office\nmenu Import /tmp/a.xml\nclock 40\n",
                             "page Zones\nselect Work\nclock 40\n",
                             "timeout 1\nwait ticks 5\nclock 40\nexit\n"}) {
        QSignalSpy exits(m_panel.get(), &ControlPanel::ExitRequested);
        std::int64_t clock = UnattendedScript::ClockOffset();
        std::string error;
        UnattendedScript script(*m_panel, *ParseScript(text, &error));
        ASSERT_TRUE(QTest::qWaitFor([&] { return script.Failed(); }, 5000)) << text;
        EXPECT_FALSE(script.Finished());
        EXPECT_TRUE(QTest::qWaitFor([&] { return exits.count() == 1; }, 1000)) << text;
        EXPECT_EQ(clock, UnattendedScript::ClockOffset()) << "the steps after it never ran";
    }
    EXPECT_TRUE(m_exported.empty());
}

}  // namespace
}  // namespace qbrix::ui
