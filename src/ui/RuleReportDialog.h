// The whole-rule "Rule Tester" report: the engine's trace and the text the rule produced.
#pragma once

#include <QDialog>

#include "content/RuleTestReport.h"

namespace qbrix::ui {

class RuleReportDialog : public QDialog {
    Q_OBJECT
  public:
    explicit RuleReportDialog(const content::WholeRuleReport& report, QWidget* parent = nullptr);
};

// Texts of the rule engine are narrow byte strings with CR LF line ends; the boxes show them
// with plain line feeds.
QString ShownText(const std::string& text);

}  // namespace qbrix::ui
