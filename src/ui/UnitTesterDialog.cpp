#include "ui/UnitTesterDialog.h"

#include <QCheckBox>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QTextCursor>
#include <QVBoxLayout>

#include "content/RuleTestReport.h"
#include "core/StringTable.h"
#include "ui/AnsiText.h"
#include "ui/RuleReportDialog.h"

namespace qbrix::ui {

namespace {

QLineEdit* AddLine(QGridLayout* grid, int row, QWidget* label, QWidget* owner, const char* name) {
    grid->addWidget(label, row, 0);
    auto* edit = new QLineEdit(owner);
    edit->setObjectName(name);
    grid->addWidget(edit, row, 1);
    return edit;
}

// The engine counts bytes of its CR LF text; the box counts characters of what it shows.
void Select(QPlainTextEdit* box, const std::string& text, std::int32_t start, std::int32_t end) {
    QTextCursor cursor = box->textCursor();
    cursor.setPosition(ShownOffset(text, start));
    cursor.setPosition(ShownOffset(text, end), QTextCursor::KeepAnchor);
    box->setTextCursor(cursor);
}

}  // namespace

UnitTesterDialog::UnitTesterDialog(content::RegRuleMatcher& unit, QWidget* parent)
    : QDialog(parent), m_unit(unit) {
    setObjectName("UnitTester");
    setWindowTitle(FromAnsi(core::LoadString(5972)));
    auto* layout = new QVBoxLayout(this);

    auto* ruleGroup = new QGroupBox("Rule to Test", this);
    auto* grid = new QGridLayout(ruleGroup);
    m_fields.find = AddLine(grid, 0, new QLabel("Find", ruleGroup), ruleGroup, "find");
    m_fields.compareOn = new QCheckBox("Compare", ruleGroup);
    m_fields.compareOn->setObjectName("compareOn");
    m_fields.compare = AddLine(grid, 1, m_fields.compareOn, ruleGroup, "compare");
    m_fields.replaceOn = new QCheckBox("Replace", ruleGroup);
    m_fields.replaceOn->setObjectName("replaceOn");
    m_fields.replace = AddLine(grid, 2, m_fields.replaceOn, ruleGroup, "replace");
    m_fields.comment = AddLine(grid, 3, new QLabel("Comment", ruleGroup), ruleGroup, "comment");
    layout->addWidget(ruleGroup);

    auto addText = [&](const QString& title, const char* name, bool readOnly) {
        auto* group = new QGroupBox(title, this);
        auto* box = new QPlainTextEdit(group);
        box->setObjectName(name);
        box->setReadOnly(readOnly);
        (new QVBoxLayout(group))->addWidget(box);
        layout->addWidget(group, 1);
        return box;
    };
    m_input = addText("Input Text", "input", false);
    m_output = addText("Output Text", "output", true);

    auto* resultRow = new QHBoxLayout();
    resultRow->addWidget(new QLabel("Results", this));
    m_results = new QLineEdit(this);
    m_results->setObjectName("results");
    m_results->setReadOnly(true);
    resultRow->addWidget(m_results, 1);
    auto* test = new QPushButton("Test", this);
    test->setObjectName("test");
    auto* close = new QPushButton(FromAnsi(core::LoadString(23)), this);
    close->setObjectName("close");
    resultRow->addWidget(test);
    resultRow->addWidget(close);
    layout->addLayout(resultRow);
    connect(test, &QPushButton::clicked, this, [this] { RunTest(); });
    connect(close, &QPushButton::clicked, this, [this] { CloseTester(); });

    m_fields.Show(content::FieldsOfUnit(m_unit));
    resize(480, 460);
}

void UnitTesterDialog::RunTest() {
    const std::string input = EngineText(m_input->toPlainText());
    content::UnitTestReport report;
    if (content::RunUnitTest(m_unit, m_fields.Read(), input, report) != 0) {
        return;
    }
    m_results->setText(FromAnsi(report.results));
    m_output->setPlainText(ShownText(report.output));
    if (report.selectInput) {
        Select(m_input, input, report.selectionStart, report.selectionEnd);
    }
    if (report.selectOutput) {
        Select(m_output, report.output, report.selectionStart, report.selectionEnd);
    }
}

void UnitTesterDialog::CloseTester() {
    if (content::ApplyUnitFields(m_unit, m_fields.Read(), content::kMainRuleCaption) == 0) {
        accept();
    }
}

}  // namespace qbrix::ui
