// The single-unit "Rule Tester": runs one unit of a rule (main, sub-rule or replace unit) on a
// sample and shows the found or changed range. It works on the unit itself, so what it applies
// stays in the rule.
#pragma once

#include <QDialog>

#include "content/RegRuleMatcher.h"
#include "ui/RuleEditor.h"

class QLineEdit;
class QPlainTextEdit;

namespace qbrix::ui {

class UnitTesterDialog : public QDialog {
    Q_OBJECT
  public:
    explicit UnitTesterDialog(content::RegRuleMatcher& unit, QWidget* parent = nullptr);

    // "Test": applies the fields to the unit and runs it on the input text.
    void RunTest();
    // "Close": applies the fields; stays open after a compile error.
    void CloseTester();

  private:
    content::RegRuleMatcher& m_unit;
    UnitControls m_fields;
    QPlainTextEdit* m_input = nullptr;
    QPlainTextEdit* m_output = nullptr;
    QLineEdit* m_results = nullptr;
};

}  // namespace qbrix::ui
