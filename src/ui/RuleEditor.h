// The "Rule Editor": one content rule with its main unit, sub-rules and replace unit, and the
// buttons that try the rule or one unit out. Changes go into the rule object itself (the tests
// and "Close" apply them); only the content page's "Save" stores them.
#pragma once

#include <QDialog>
#include <functional>

#include "content/ContentRule.h"
#include "content/LspSettings.h"
#include "content/RuleTestReport.h"

class QCheckBox;
class QComboBox;
class QLineEdit;
class QPlainTextEdit;
class QPushButton;
class QRadioButton;
class QTreeWidget;
class QTreeWidgetItem;

namespace qbrix::ui {

// The edit fields of one unit. Any of them may be absent (the sub-rule has no Comment field:
// its "Name" is the comment).
struct UnitControls {
    QLineEdit* find = nullptr;
    QCheckBox* compareOn = nullptr;
    QLineEdit* compare = nullptr;
    QCheckBox* replaceOn = nullptr;
    QLineEdit* replace = nullptr;
    QLineEdit* comment = nullptr;

    content::UnitFields Read() const;
    void Show(const content::UnitFields& fields) const;
};

class RuleEditor : public QDialog {
    Q_OBJECT
  public:
    // The single-unit tester on a unit; returns the dialog result.
    using UnitTesterRunner = std::function<int(content::RegRuleMatcher& unit)>;
    // Shows a whole-rule report.
    using ReportRunner = std::function<void(const content::WholeRuleReport& report)>;

    RuleEditor(content::ContentRule& rule, content::LspSettings& settings,
               QWidget* parent = nullptr);

    // "Close": copies every field into the rule; accepts only when nothing failed to compile.
    void CloseEditor();
    // Applies the sub-rule fields to the selected sub-rule. 1 after a compile error.
    int UpdateSubRule();
    void NewSubRule();
    void DeleteSubRule();
    // The three single-unit testers and the whole-rule test.
    void TestMain();
    void TestSubRule();
    void TestReplace();
    void TestWholeRule();

    // Tests replace the modal dialogs.
    void SetUnitTesterRunner(UnitTesterRunner runner) { m_runUnitTester = std::move(runner); }
    void SetReportRunner(ReportRunner runner) { m_showReport = std::move(runner); }

    // The unit behind the selected sub-rule line, or null.
    content::RegRuleMatcher* SelectedSubRule() const;
    // Set when a tester changed a unit.
    bool UnitsChanged() const { return m_unitsChanged; }

  private:
    void Fill();
    void ShowSubRule(content::RegRuleMatcher* unit);
    void SetSubLine(QTreeWidgetItem* item, const content::RegRuleMatcher& unit);
    QTreeWidgetItem* AddSubLine(content::RegRuleMatcher& unit, QTreeWidgetItem* before);
    void CopyRuleFields();
    int ApplyMain();
    int ApplyReplace();
    int ApplySelectedSubRule();
    void FollowChecks();
    void RunTester(content::RegRuleMatcher& unit, const UnitControls& controls);

    content::ContentRule& m_rule;
    content::LspSettings& m_settings;
    UnitTesterRunner m_runUnitTester;
    ReportRunner m_showReport;
    bool m_unitsChanged = false;

    QCheckBox* m_enable = nullptr;
    QLineEdit* m_name = nullptr;
    QRadioButton* m_incoming = nullptr;
    QRadioButton* m_outgoing = nullptr;
    QCheckBox* m_fullContent = nullptr;
    QCheckBox* m_log = nullptr;
    QCheckBox* m_popUp = nullptr;
    QComboBox* m_group = nullptr;
    QComboBox* m_zone = nullptr;
    UnitControls m_main;
    QTreeWidget* m_subList = nullptr;
    QCheckBox* m_subEnable = nullptr;
    UnitControls m_sub;
    QCheckBox* m_replaceEnable = nullptr;
    UnitControls m_replace;
    QPlainTextEdit* m_sample = nullptr;
};

}  // namespace qbrix::ui
