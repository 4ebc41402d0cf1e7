// The whole-rule "Rule Tester" report: the engine's trace and the text the rule produced.
#pragma once

#include <QDialog>
#include <cstdint>
#include <string>

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
// A sample typed or pasted into a box, as the engine gets it: with CR LF line ends, as traffic
// and a multi-line box of the platform carry them.
std::string EngineText(const QString& shown);
// The character position in the shown text of a byte offset into the engine's text.
int ShownOffset(const std::string& text, std::int32_t byteOffset);

}  // namespace qbrix::ui
