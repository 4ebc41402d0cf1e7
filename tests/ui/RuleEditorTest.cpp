// The Rule Editor and the two Rule Tester dialogs, offscreen: fields to rule and back, the
// compile-error stops, the sub-rule list, the group box and the testers' results.
#include <gtest/gtest.h>

#include <QCheckBox>
#include <QComboBox>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QTreeWidget>

#include "content/ProtocolTable.h"
#include "content/RuleEditorSupport.h"
#include "core/Messages.h"
#include "support/TempPlatform.h"
#include "ui/RuleEditor.h"
#include "ui/RuleReportDialog.h"
#include "ui/UnitTesterDialog.h"

namespace qbrix::ui {
namespace {

class RuleEditorTest : public ::testing::Test {
  protected:
    content::ContentRule& AddRule(std::size_t row, const std::string& name,
                                  const std::string& group) {
        auto rule = content::MakeNewRule(name);
        rule->group = group;
        return content::OptionsOf(m_settings, row).rules.Append(std::move(rule));
    }
    template <typename T>
    static T* Find(QWidget& dialog, const char* id) {
        T* widget = dialog.findChild<T*>(id);
        EXPECT_NE(nullptr, widget) << id;
        return widget;
    }
    static void Type(QWidget& dialog, const char* id, const char* text) {
        Find<QLineEdit>(dialog, id)->setText(text);
    }

    test::TempPlatform m_platform;
    test::ScriptedMessages m_messages;
    content::LspSettings m_settings;
};

TEST_F(RuleEditorTest, CloseCopiesEveryFieldIntoTheRule) {
    AddRule(content::kPop3Row, "other", "Mail");
    content::ContentRule& rule = AddRule(content::kHttpRow, "Rule 1", "Ads");
    RuleEditor editor(rule, m_settings);
    auto* group = Find<QComboBox>(editor, "group");
    ASSERT_EQ(group->count(), 2);
    EXPECT_EQ(group->itemText(0), "Ads");
    EXPECT_EQ(group->itemText(1), "Mail");
    EXPECT_EQ(group->currentText(), "Ads");
    EXPECT_FALSE(group->isEnabled());  // "Show" is off

    Find<QCheckBox>(editor, "enable")->setChecked(true);
    Type(editor, "name", "banner");
    Find<QRadioButton>(editor, "outgoing")->setChecked(true);
    Find<QCheckBox>(editor, "fullContent")->setChecked(true);
    Find<QCheckBox>(editor, "log")->setChecked(false);
    Find<QCheckBox>(editor, "popUp")->setChecked(true);
    EXPECT_TRUE(group->isEnabled());
    group->setCurrentText("Banners");
    Type(editor, "mainFind", "<img[^>]*>");
    Find<QCheckBox>(editor, "mainReplaceOn")->setChecked(true);
    EXPECT_TRUE(Find<QLineEdit>(editor, "mainReplace")->isEnabled());
    EXPECT_FALSE(Find<QLineEdit>(editor, "mainCompare")->isEnabled());
    Type(editor, "mainReplace", "[ad]");
    Type(editor, "mainComment", "images");
    Type(editor, "replaceFind", "x");
    EXPECT_FALSE(Find<QLineEdit>(editor, "replaceFind")->isEnabled());

    editor.CloseEditor();
    EXPECT_EQ(editor.result(), QDialog::Accepted);
    EXPECT_EQ(rule.enable, 1u);
    EXPECT_EQ(rule.name, "banner");
    EXPECT_EQ(rule.direction, 1u);
    EXPECT_EQ(rule.recurse, 1u);
    EXPECT_EQ(rule.log, 0u);
    EXPECT_EQ(rule.popUp, 1u);
    EXPECT_EQ(rule.group, "Banners");
    EXPECT_EQ(rule.main.findText, "<img[^>]*>");
    EXPECT_EQ(rule.main.enable, 1u);
    EXPECT_EQ(rule.main.replaceSwitch, 1u);
    EXPECT_EQ(rule.main.rawReplacement, "[ad]");
    EXPECT_EQ(rule.main.comment, "images");
    // The replace group's "Find" box is the replace unit's enable, whatever its Find says.
    EXPECT_EQ(rule.replace.findText, "x");
    EXPECT_EQ(rule.replace.enable, 0u);

    RuleEditor again(rule, m_settings);
    EXPECT_EQ(Find<QLineEdit>(again, "name")->text(), "banner");
    EXPECT_TRUE(Find<QRadioButton>(again, "outgoing")->isChecked());
    EXPECT_EQ(Find<QLineEdit>(again, "mainReplace")->text(), "[ad]");
    EXPECT_EQ(Find<QComboBox>(again, "group")->currentText(), "Banners");
}

TEST_F(RuleEditorTest, CompileErrorsKeepTheEditorOpenUnderTheUnitsCaption) {
    content::ContentRule& rule = AddRule(content::kHttpRow, "r", "");
    RuleEditor editor(rule, m_settings);
    editor.show();
    Type(editor, "mainFind", "a(");
    editor.CloseEditor();
    EXPECT_TRUE(editor.isVisible());
    EXPECT_NE(editor.result(), QDialog::Accepted);
    ASSERT_EQ(m_messages.shown.size(), 1u);
    EXPECT_EQ(m_messages.shown[0].text, "Compile Find Error");
    EXPECT_EQ(m_messages.shown[0].caption, "Main Rule");

    Type(editor, "mainFind", "a");
    Find<QCheckBox>(editor, "replaceEnable")->setChecked(true);
    Type(editor, "replaceCompare", "[");
    Find<QPushButton>(editor, "close")->click();
    ASSERT_EQ(m_messages.shown.size(), 2u);
    EXPECT_EQ(m_messages.shown[1].text, "Compile Compare Error");
    EXPECT_EQ(m_messages.shown[1].caption, "Replace Rule");
    EXPECT_TRUE(editor.isVisible());

    Type(editor, "replaceCompare", "");
    Find<QPushButton>(editor, "close")->click();
    EXPECT_FALSE(editor.isVisible());
    EXPECT_EQ(editor.result(), QDialog::Accepted);
}

TEST_F(RuleEditorTest, SubRuleListNewUpdateAndDelete) {
    content::ContentRule& rule = AddRule(content::kHttpRow, "r", "");
    RuleEditor editor(rule, m_settings);
    auto* list = Find<QTreeWidget>(editor, "subList");
    editor.NewSubRule();
    editor.NewSubRule();  // goes before the selected one
    ASSERT_EQ(rule.subRules.size(), 2u);
    EXPECT_EQ(editor.SelectedSubRule(), rule.subRules[0].get());

    Find<QCheckBox>(editor, "subEnable")->setChecked(true);
    Type(editor, "subName", "first");
    Type(editor, "subFind", "b+");
    Find<QPushButton>(editor, "subUpdate")->click();
    EXPECT_EQ(rule.subRules[0]->comment, "first");
    EXPECT_EQ(rule.subRules[0]->findText, "b+");
    EXPECT_EQ(list->topLevelItem(0)->text(0), "first");
    EXPECT_EQ(list->topLevelItem(0)->checkState(0), Qt::Checked);

    Type(editor, "subFind", "(");
    EXPECT_EQ(editor.UpdateSubRule(), 1);
    EXPECT_EQ(m_messages.shown.back().caption, "Sub Rule");

    list->setCurrentItem(list->topLevelItem(1));
    EXPECT_EQ(Find<QLineEdit>(editor, "subFind")->text(), "");
    list->setCurrentItem(list->topLevelItem(0));
    EXPECT_EQ(Find<QLineEdit>(editor, "subName")->text(), "first");

    m_messages.QueueBoxAnswer(core::IDYES);
    editor.DeleteSubRule();
    EXPECT_EQ(m_messages.shown.back().text, "Delete Rule?");
    ASSERT_EQ(rule.subRules.size(), 1u);
    EXPECT_EQ(list->topLevelItemCount(), 1);
}

TEST_F(RuleEditorTest, UnitTesterShowsAndSelectsTheFoundRange) {
    content::RegRuleMatcher unit;
    UnitTesterDialog tester(unit);
    Type(tester, "find", "a(b)c");
    Find<QPlainTextEdit>(tester, "input")->setPlainText("xabcx");
    Find<QPushButton>(tester, "test")->click();
    EXPECT_EQ(Find<QLineEdit>(tester, "results")->text(), "Found from 2 to 3 (b)");
    EXPECT_EQ(Find<QPlainTextEdit>(tester, "output")->toPlainText(), "b");
    QTextCursor cursor = Find<QPlainTextEdit>(tester, "input")->textCursor();
    EXPECT_EQ(cursor.selectionStart(), 2);
    EXPECT_EQ(cursor.selectionEnd(), 3);

    Find<QCheckBox>(tester, "replaceOn")->setChecked(true);
    Type(tester, "replace", "YY");
    tester.RunTest();
    EXPECT_EQ(Find<QLineEdit>(tester, "results")->text(), "Changed from 2 to 4 (b)");
    EXPECT_EQ(Find<QPlainTextEdit>(tester, "output")->toPlainText(), "xaYYcx");
    cursor = Find<QPlainTextEdit>(tester, "output")->textCursor();
    EXPECT_EQ(cursor.selectedText(), "YY");

    Find<QCheckBox>(tester, "compareOn")->setChecked(true);
    Type(tester, "compare", "z");
    tester.RunTest();
    EXPECT_EQ(Find<QLineEdit>(tester, "results")->text(), "Not Found");
    EXPECT_EQ(Find<QPlainTextEdit>(tester, "output")->toPlainText(), "");
}

TEST_F(RuleEditorTest, TestersGiveTheEngineCrLfLineEnds) {
    content::RegRuleMatcher unit;
    UnitTesterDialog tester(unit);
    Type(tester, "find", "b\\r\\nc");
    Find<QPlainTextEdit>(tester, "input")->setPlainText("ab\ncd\ne");
    tester.RunTest();
    EXPECT_EQ(Find<QLineEdit>(tester, "results")->text(), "Found from 1 to 5 (b\r\nc)");
    EXPECT_EQ(Find<QPlainTextEdit>(tester, "output")->toPlainText(), "b\nc");
    EXPECT_EQ(Find<QPlainTextEdit>(tester, "input")->textCursor().selectedText(),
              QString("b") + QChar::ParagraphSeparator + "c");
    Find<QCheckBox>(tester, "replaceOn")->setChecked(true);
    Type(tester, "replace", "X");
    tester.RunTest();
    EXPECT_EQ(Find<QPlainTextEdit>(tester, "output")->toPlainText(), "aXd\ne");

    content::ContentRule& rule = AddRule(content::kHttpRow, "r", "");
    RuleEditor editor(rule, m_settings);
    content::WholeRuleReport shown;
    editor.SetReportRunner([&](const content::WholeRuleReport& report) { shown = report; });
    Find<QCheckBox>(editor, "enable")->setChecked(true);
    Type(editor, "mainFind", "\\r\\n");
    Find<QCheckBox>(editor, "mainReplaceOn")->setChecked(true);
    Type(editor, "mainReplace", "|");
    Find<QPlainTextEdit>(editor, "sample")->setPlainText("a\nb");
    editor.TestWholeRule();
    EXPECT_EQ(shown.resultText, "a|b");
}

TEST_F(RuleEditorTest, UnitTesterTakesAMegabyteSample) {
    content::RegRuleMatcher unit;
    UnitTesterDialog tester(unit);
    Type(tester, "find", "needle");
    const QString sample = QString(1024 * 1024, 'x') + "needle";
    Find<QPlainTextEdit>(tester, "input")->setPlainText(sample);
    tester.RunTest();
    EXPECT_EQ(Find<QLineEdit>(tester, "results")->text(),
              QString("Found from %1 to %2 (needle)").arg(1024 * 1024).arg(1024 * 1024 + 6));
    EXPECT_EQ(Find<QPlainTextEdit>(tester, "input")->textCursor().selectedText(), "needle");
}

TEST_F(RuleEditorTest, TesterCloseAppliesItsFieldsAndTheEditorReloadsThem) {
    content::ContentRule& rule = AddRule(content::kHttpRow, "r", "");
    RuleEditor editor(rule, m_settings);
    Type(editor, "mainFind", "abc");
    QStringList openedOn;
    editor.SetUnitTesterRunner([&](content::RegRuleMatcher& unit) {
        UnitTesterDialog tester(unit);
        openedOn << Find<QLineEdit>(tester, "find")->text();
        Type(tester, "find", "a(");
        tester.CloseTester();  // compile error: stays open, always under "Main Rule"
        EXPECT_NE(tester.result(), QDialog::Accepted);
        Type(tester, "find", "xyz");
        Type(tester, "comment", "from tester");
        tester.CloseTester();
        return tester.result();
    });
    // The replace unit's tester still reports under the main unit's caption.
    Find<QCheckBox>(editor, "replaceEnable")->setChecked(true);
    Find<QPushButton>(editor, "replaceTest")->click();
    ASSERT_EQ(m_messages.shown.size(), 1u);
    EXPECT_EQ(m_messages.shown[0].text, "Compile Find Error");
    EXPECT_EQ(m_messages.shown[0].caption, "Main Rule");
    EXPECT_EQ(rule.replace.findText, "xyz");
    EXPECT_EQ(Find<QLineEdit>(editor, "replaceComment")->text(), "from tester");
    EXPECT_TRUE(editor.UnitsChanged());

    Find<QPushButton>(editor, "mainTest")->click();
    EXPECT_EQ(openedOn, (QStringList{"", "abc"}));  // the editor applied its fields first
    EXPECT_EQ(Find<QLineEdit>(editor, "mainFind")->text(), "xyz");

    // Without a selected sub-rule the sub-rule tester does not open.
    int opened = 0;
    editor.SetUnitTesterRunner([&](content::RegRuleMatcher&) { return ++opened, 0; });
    Find<QPushButton>(editor, "subTest")->click();
    EXPECT_EQ(opened, 0);
}

TEST_F(RuleEditorTest, WholeRuleTestReportsTheTraceAndTheResult) {
    content::ContentRule& rule = AddRule(content::kHttpRow, "r", "");
    RuleEditor editor(rule, m_settings);
    content::WholeRuleReport shown;
    int reports = 0;
    editor.SetReportRunner([&](const content::WholeRuleReport& report) {
        shown = report;
        ++reports;
    });
    Type(editor, "name", "quiet");
    Type(editor, "mainFind", "b");
    Find<QPlainTextEdit>(editor, "sample")->setPlainText("abc");
    Find<QPushButton>(editor, "ruleTest")->click();
    ASSERT_EQ(reports, 1);
    EXPECT_EQ(shown.trace, " -- disabled: quiet");
    EXPECT_EQ(shown.resultText, "abc");
    EXPECT_EQ(rule.name, "quiet");  // the test copies the rule-level fields

    Find<QCheckBox>(editor, "enable")->setChecked(true);
    Find<QCheckBox>(editor, "mainReplaceOn")->setChecked(true);
    Type(editor, "mainReplace", "B");
    editor.TestWholeRule();
    EXPECT_EQ(shown.resultText, "aBc");

    RuleReportDialog dialog(shown);
    EXPECT_EQ(Find<QPlainTextEdit>(dialog, "result")->toPlainText(), "aBc");
    EXPECT_FALSE(Find<QPlainTextEdit>(dialog, "protocol")->toPlainText().contains('\r'));

    Type(editor, "mainFind", "(");
    editor.TestWholeRule();
    EXPECT_EQ(reports, 2);  // no report after a compile error
}

}  // namespace
}  // namespace qbrix::ui
