// The "Content Options" page, offscreen: the rule commands with their keys and menu, the
// enable rules of the switches, the protocol switch, save and reload (stored numbers out of range
// kept), import and export, and the tray's "Content Rules" entries.
#include <gtest/gtest.h>

#include <QAction>
#include <QCheckBox>
#include <QComboBox>
#include <QDialog>
#include <QLineEdit>
#include <QMenu>
#include <QPushButton>
#include <QTest>
#include <QTreeWidget>
#include <cstdio>
#include <memory>

#include "content/ContentStore.h"
#include "content/ProtocolTable.h"
#include "content/RuleEditorSupport.h"
#include "content/TrayRuleMenu.h"
#include "core/Messages.h"
#include "support/TempPlatform.h"
#include "ui/ContentPage.h"
#include "ui/NumericEdit.h"

namespace qbrix::ui {
namespace {

class ContentPageTest : public ::testing::Test {
  protected:
    void SetUp() override { content::ResetNewRuleCounter(); }

    // Stores rules for a protocol the way an earlier run would have left them.
    void StoreRule(std::size_t row, const std::string& name, int enable, int direction,
                   const std::string& group = "", int popUp = 0) {
        content::LspSettings stored;
        content::LoadLspSettings(stored, 0);
        for (std::size_t each = 0; each < content::kProtocolCount; ++each) {
            content::LoadContentRules(content::kProtocolTable[each].rulesKey,
                                      content::OptionsOf(stored, each).rules);
        }
        auto rule = content::MakeNewRule(name);
        rule->enable = enable;
        rule->direction = direction;
        rule->group = group;
        rule->popUp = popUp;
        content::OptionsOf(stored, row).rules.Append(std::move(rule));
        content::SaveAllContent(stored);
    }

    std::unique_ptr<ContentPage> MakePage() {
        auto page = std::make_unique<ContentPage>(m_settings);
        page->SetEditorRunner([this](content::ContentRule& rule) {
            m_edited.push_back(rule.name);
            return m_editorAnswer;
        });
        return page;
    }

    template <typename T>
    T* Find(QWidget& page, const char* id) {
        T* widget = page.findChild<T*>(id);
        EXPECT_NE(nullptr, widget) << id;
        return widget;
    }

    static QStringList Lines(ContentPage& page) {
        QStringList names;
        for (int i = 0; i < page.RuleListView()->topLevelItemCount(); ++i) {
            names << page.RuleListView()->topLevelItem(i)->text(0);
        }
        return names;
    }
    static int Image(ContentPage& page, int line) {
        return page.RuleListView()->topLevelItem(line)->data(0, ContentPage::kImageRole).toInt();
    }
    static void Key(ContentPage& page, Qt::Key key) { QTest::keyClick(page.RuleListView(), key); }

    test::TempPlatform m_platform;
    test::ScriptedMessages m_messages;
    content::LspSettings m_settings;
    std::vector<std::string> m_edited;
    int m_editorAnswer = QDialog::Rejected;
};

TEST_F(ContentPageTest, NewNamesRulesFromOneCounterAndAddsTheLineLast) {
    StoreRule(content::kHttpRow, "alpha", 1, 0);
    StoreRule(content::kHttpRow, "beta", 0, 1);
    auto page = MakePage();
    ASSERT_EQ(Lines(*page), (QStringList{"alpha", "beta"}));
    EXPECT_FALSE(page->HasUnsavedChanges());

    Key(*page, Qt::Key_Insert);  // "alpha" is selected: the rule goes before it
    Key(*page, Qt::Key_Insert);
    EXPECT_EQ(m_edited, (std::vector<std::string>{"Rule 1", "Rule 2"}));
    EXPECT_EQ(Lines(*page), (QStringList{"alpha", "beta", "Rule 1", "Rule 2"}));
    EXPECT_EQ(page->SelectedRule()->name, "Rule 2");
    EXPECT_TRUE(page->HasUnsavedChanges());
    // The list holds the stored order; the line order differs until the next reload.
    content::RuleList& rules = page->ShownRules();
    ASSERT_EQ(rules.Size(), 4u);
    EXPECT_EQ(rules.At(0).name, "Rule 2");  // went before the selected "Rule 1"
    EXPECT_EQ(rules.At(1).name, "Rule 1");

    page->Save();
    page->SaveOrDiscard(false);
    EXPECT_EQ(Lines(*page), (QStringList{"alpha", "beta", "Rule 1", "Rule 2"}));
}

TEST_F(ContentPageTest, EnableKeyAndMenuFollowTheSelectedRule) {
    StoreRule(content::kHttpRow, "in", 0, 0);
    StoreRule(content::kHttpRow, "out", 0, 1);
    auto page = MakePage();
    EXPECT_EQ(Image(*page, 0), 0);
    EXPECT_EQ(Image(*page, 1), 1);

    std::unique_ptr<QMenu> menu(page->BuildContextMenu());
    QStringList texts;
    for (QAction* action : menu->actions()) {
        texts << (action->isSeparator() ? "-" : action->text());
    }
    EXPECT_EQ(texts,
              (QStringList{"New", "Edit", "Delete", "-", "Enable\tF3", "-", "Import", "Export"}));
    EXPECT_FALSE(menu->actions()[4]->isChecked());

    Key(*page, Qt::Key_F3);
    EXPECT_EQ(Image(*page, 0), 2);
    EXPECT_TRUE(page->HasUnsavedChanges());
    menu.reset(page->BuildContextMenu());
    EXPECT_TRUE(menu->actions()[4]->isChecked());

    page->RuleListView()->setCurrentItem(page->RuleListView()->topLevelItem(1));
    menu->actions()[4]->trigger();  // the menu's Enable works on the line now selected
    EXPECT_EQ(Image(*page, 1), 3);
}

TEST_F(ContentPageTest, EditOnlyMarksTheDialogsOk) {
    StoreRule(content::kHttpRow, "alpha", 1, 0);
    auto page = MakePage();
    Key(*page, Qt::Key_Space);
    EXPECT_EQ(m_edited, std::vector<std::string>{"alpha"});
    EXPECT_FALSE(page->HasUnsavedChanges());

    m_editorAnswer = QDialog::Accepted;
    QTreeWidget* list = page->RuleListView();
    emit list->itemDoubleClicked(list->topLevelItem(0), 0);
    EXPECT_EQ(m_edited.size(), 2u);
    EXPECT_TRUE(page->HasUnsavedChanges());
}

TEST_F(ContentPageTest, DeleteAsksAndSelectsTheLineThatTookItsPlace) {
    for (const char* name : {"a", "b", "c"}) {
        StoreRule(content::kHttpRow, name, 1, 0);
    }
    auto page = MakePage();
    page->RuleListView()->setCurrentItem(page->RuleListView()->topLevelItem(1));

    m_messages.QueueBoxAnswer(core::IDNO);
    Key(*page, Qt::Key_Delete);
    ASSERT_EQ(m_messages.shown.size(), 1u);
    EXPECT_EQ(m_messages.shown[0].text, "Delete Rule?");
    EXPECT_EQ(m_messages.shown[0].caption, "q-Brix");
    EXPECT_EQ(m_messages.shown[0].style, core::MB_YESNO | core::MB_ICONQUESTION);
    EXPECT_EQ(Lines(*page).size(), 3);

    m_messages.QueueBoxAnswer(core::IDYES);
    Key(*page, Qt::Key_Delete);
    EXPECT_EQ(Lines(*page), (QStringList{"a", "c"}));
    EXPECT_EQ(page->SelectedRule()->name, "c");
    EXPECT_EQ(page->ShownRules().Size(), 2u);

    m_messages.QueueBoxAnswer(core::IDYES);
    Key(*page, Qt::Key_Delete);  // the last line goes: the one before it is selected
    EXPECT_EQ(page->SelectedRule()->name, "a");
}

TEST_F(ContentPageTest, SwitchesEnableTheirDependentControls) {
    auto page = MakePage();
    auto* avEnable = Find<QCheckBox>(*page, "avEnable");
    avEnable->setChecked(false);
    EXPECT_FALSE(Find<QCheckBox>(*page, "blockVirus")->isEnabled());
    EXPECT_FALSE(Find<QCheckBox>(*page, "avLog")->isEnabled());
    EXPECT_TRUE(page->HasUnsavedChanges());
    avEnable->setChecked(true);
    EXPECT_TRUE(Find<QCheckBox>(*page, "blockVirus")->isEnabled());

    Find<QCheckBox>(*page, "filterEnable")->setChecked(false);
    EXPECT_FALSE(page->RuleListView()->isEnabled());
    for (int command = ContentPage::kNewCommand; command <= ContentPage::kExportCommand;
         ++command) {
        EXPECT_FALSE(Find<QPushButton>(*page, QString::number(command).toLatin1())->isEnabled());
    }
}

TEST_F(ContentPageTest, ProtocolSwitchKeepsUnsavedOptionsOfBoth) {
    StoreRule(content::kPop3Row, "mail rule", 1, 0);
    auto page = MakePage();
    auto* protocol = Find<QComboBox>(*page, "protocol");
    auto* maxSize = Find<NumericEdit>(*page, "maxSize");
    auto* timeout = Find<NumericEdit>(*page, "avTimeout");
    EXPECT_EQ(protocol->itemText(0), "WEB (HTTP)");
    EXPECT_EQ(protocol->itemText(1), "E-mail (POP3)");
    EXPECT_TRUE(Lines(*page).isEmpty());

    maxSize->SetValue(1234);
    protocol->setCurrentIndex(1);
    EXPECT_EQ(Lines(*page), QStringList{"mail rule"});
    EXPECT_EQ(page->SelectedRule()->name, "mail rule");
    EXPECT_EQ(maxSize->Value(), 100000u);
    timeout->SetValue(777);
    Find<QCheckBox>(*page, "filterEnable")->setChecked(false);

    protocol->setCurrentIndex(0);
    EXPECT_EQ(maxSize->Value(), 1234u);
    EXPECT_EQ(timeout->Value(), 5000u);
    EXPECT_TRUE(Find<QCheckBox>(*page, "filterEnable")->isChecked());
    protocol->setCurrentIndex(1);
    EXPECT_EQ(timeout->Value(), 777u);
    EXPECT_FALSE(Find<QCheckBox>(*page, "filterEnable")->isChecked());

    // Save stores both blocks; a fresh run reads them back.
    Find<QPushButton>(*page, "save")->click();
    EXPECT_FALSE(page->HasUnsavedChanges());
    content::LspSettings again;
    content::LoadLspSettings(again, 0);
    EXPECT_EQ(content::OptionsOf(again, content::kHttpRow).maxSize, 1234u);
    EXPECT_EQ(content::OptionsOf(again, content::kPop3Row).maxAvTimeout, 777u);
    EXPECT_EQ(content::OptionsOf(again, content::kPop3Row).enableREG, 0u);
}

// A stored MaxSize or MaxAvTimeout outside the fields' range is shown as it is, and neither a
// protocol switch nor Save changes it or carries it into the other protocol.
class ContentPageStoredNumberTest : public ContentPageTest,
                                    public ::testing::WithParamInterface<unsigned> {};

TEST_P(ContentPageStoredNumberTest, SaveKeepsStoredNumbersNobodyEdited) {
    const unsigned stored = GetParam();
    {
        content::LspSettings earlier;
        content::LoadLspSettings(earlier, 0);
        content::OptionsOf(earlier, content::kHttpRow).maxSize = stored;
        content::OptionsOf(earlier, content::kHttpRow).maxAvTimeout = stored;
        content::SaveProtocolOptions(earlier);
    }
    auto page = MakePage();
    auto* maxSize = Find<NumericEdit>(*page, "maxSize");
    auto* timeout = Find<NumericEdit>(*page, "avTimeout");
    EXPECT_EQ(maxSize->text(), QString::number(stored));
    EXPECT_EQ(timeout->text(), QString::number(stored));
    Find<QComboBox>(*page, "protocol")->setCurrentIndex(1);
    EXPECT_EQ(maxSize->text(), "100000");
    EXPECT_EQ(timeout->text(), "5000");
    Find<QPushButton>(*page, "save")->click();

    content::LspSettings again;
    content::LoadLspSettings(again, 0);
    EXPECT_EQ(content::OptionsOf(again, content::kHttpRow).maxSize, stored);
    EXPECT_EQ(content::OptionsOf(again, content::kHttpRow).maxAvTimeout, stored);
    EXPECT_EQ(content::OptionsOf(again, content::kPop3Row).maxSize, 100000u);
    EXPECT_EQ(content::OptionsOf(again, content::kPop3Row).maxAvTimeout, 5000u);
}

INSTANTIATE_TEST_SUITE_P(OutOfRange, ContentPageStoredNumberTest,
                         ::testing::Values(0u, 7u, 0x80000000u, 3000000000u, 0xffffffffu));

TEST_F(ContentPageTest, DiscardReloadsRulesAndKeepsTheProtocol) {
    StoreRule(content::kPop3Row, "kept", 1, 0);
    auto page = MakePage();
    Find<QComboBox>(*page, "protocol")->setCurrentIndex(1);
    m_messages.QueueBoxAnswer(core::IDYES);
    Key(*page, Qt::Key_Delete);
    EXPECT_TRUE(page->HasUnsavedChanges());
    page->SaveOrDiscard(false);
    EXPECT_FALSE(page->HasUnsavedChanges());
    EXPECT_EQ(Find<QComboBox>(*page, "protocol")->currentIndex(), 1);
    EXPECT_EQ(Lines(*page), QStringList{"kept"});
}

TEST_F(ContentPageTest, ExportProposesTheNameAndImportAsksBeforeOverwriting) {
    StoreRule(content::kHttpRow, "a b:c/d", 1, 1);
    auto page = MakePage();
    test::TempDirectory dir;
    const std::string path = dir.Path() + "/rule.xml";
    m_messages.QueueFileAnswer(path);
    page->ExportRule();
    ASSERT_EQ(m_messages.shown.size(), 1u);
    EXPECT_EQ(m_messages.shown[0].kind, "save");
    EXPECT_EQ(m_messages.shown[0].text, "a_b.c-d");

    // Same name in another case: the overwrite question; No leaves the page as it was.
    page->ShownRules().At(0).name = "A B:C/D";
    m_messages.QueueFileAnswer(path);
    m_messages.QueueBoxAnswer(core::IDNO);
    page->ImportRule();
    EXPECT_EQ(m_messages.shown.back().text, "Overwrite existing Rule?");
    EXPECT_EQ(Lines(*page), QStringList{"a b:c/d"});
    EXPECT_FALSE(page->HasUnsavedChanges());

    m_messages.QueueFileAnswer(path);
    m_messages.QueueBoxAnswer(core::IDYES);
    page->ImportRule();
    EXPECT_EQ(page->ShownRules().Size(), 1u);
    EXPECT_EQ(page->RuleListView()->topLevelItemCount(), 1);
    EXPECT_EQ(page->SelectedRule()->name, "a b:c/d");
    EXPECT_TRUE(page->HasUnsavedChanges());

    // Files that are not a rule change nothing and say nothing: one with a node after the
    // root, and one that is missing.
    const std::size_t shown = m_messages.shown.size();
    const std::string hostile = dir.File("hostile.xml");
    {
        std::FILE* file = std::fopen(hostile.c_str(), "w");
        ASSERT_NE(file, nullptr);
        std::fputs("<MASTER_RULE NAME=\"evil\" ENABLE=\"1\"/><!-- after the root -->", file);
        std::fclose(file);
    }
    m_messages.QueueFileAnswer(hostile);
    page->ImportRule();
    EXPECT_EQ(page->RuleListView()->topLevelItemCount(), 1);
    m_messages.QueueFileAnswer(dir.Path() + "/missing.xml");
    page->ImportRule();
    EXPECT_EQ(m_messages.shown.size(), shown + 2);  // only the two open dialogs
    EXPECT_EQ(page->RuleListView()->topLevelItemCount(), 1);
}

TEST_F(ContentPageTest, TrayGroupEntrySwitchesTheWholeGroupAndSaves) {
    StoreRule(content::kHttpRow, "ads", 1, 0, "Block", 1);
    StoreRule(content::kPop3Row, "spam", 0, 0, "Block", 1);
    StoreRule(content::kHttpRow, "single", 0, 0, "", 1);
    auto page = MakePage();

    QMenu greyed;
    page->FillTrayMenu(&greyed, true);
    for (QAction* action : greyed.actions()) {
        EXPECT_TRUE(action->isSeparator() || !action->isEnabled()) << action->text().toStdString();
    }

    QMenu menu;
    page->FillTrayMenu(&menu, false);
    QStringList texts;
    for (QAction* action : menu.actions()) {
        texts << (action->isSeparator() ? "-" : action->text());
    }
    ASSERT_EQ(texts, (QStringList{"Disable All", "-", "single", "Block"}));
    EXPECT_FALSE(menu.actions()[3]->isChecked());  // one of the two is off
    menu.actions()[3]->trigger();

    content::LspSettings stored;
    content::LoadContentRules(content::kProtocolTable[0].rulesKey,
                              content::OptionsOf(stored, 0).rules);
    content::LoadContentRules(content::kProtocolTable[1].rulesKey,
                              content::OptionsOf(stored, 1).rules);
    EXPECT_EQ(content::OptionsOf(stored, 0).rules.At(0).enable, 1u);  // ads
    EXPECT_EQ(content::OptionsOf(stored, 1).rules.At(0).enable, 1u);  // spam
    EXPECT_EQ(Image(*page, 0), 2);
    EXPECT_FALSE(page->HasUnsavedChanges());

    QMenu after;
    page->FillTrayMenu(&after, false);
    after.actions()[0]->trigger();  // Disable All, unchecked: every protocol's rules go off
    EXPECT_FALSE(Find<QCheckBox>(*page, "filterEnable")->isChecked());
    content::LspSettings reread;
    content::LoadLspSettings(reread, 0);
    EXPECT_EQ(content::OptionsOf(reread, 1).enableREG, 0u);
}

}  // namespace
}  // namespace qbrix::ui
