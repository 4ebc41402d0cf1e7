#include "ui/RuleReportDialog.h"

#include <QGroupBox>
#include <QHBoxLayout>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QVBoxLayout>

#include "core/StringTable.h"
#include "ui/AnsiText.h"

namespace qbrix::ui {

QString ShownText(const std::string& text) {
    QString shown = FromAnsi(text);
    shown.replace("\r\n", "\n");
    return shown;
}

RuleReportDialog::RuleReportDialog(const content::WholeRuleReport& report, QWidget* parent)
    : QDialog(parent) {
    setObjectName("RuleReport");
    setWindowTitle(FromAnsi(core::LoadString(5972)));
    auto* layout = new QVBoxLayout(this);
    auto addBox = [&](const QString& title, const char* name, const std::string& text) {
        auto* group = new QGroupBox(title, this);
        auto* box = new QPlainTextEdit(group);
        box->setObjectName(name);
        box->setReadOnly(true);
        box->setLineWrapMode(QPlainTextEdit::NoWrap);
        box->setPlainText(ShownText(text));
        (new QVBoxLayout(group))->addWidget(box);
        layout->addWidget(group, 1);
    };
    addBox("Rule Protocol", "protocol", report.trace);
    addBox("Result", "result", report.resultText);
    auto* buttons = new QHBoxLayout();
    buttons->addStretch(1);
    auto* close = new QPushButton(FromAnsi(core::LoadString(23)), this);
    close->setObjectName("close");
    close->setDefault(true);
    connect(close, &QPushButton::clicked, this, &QDialog::accept);
    buttons->addWidget(close);
    layout->addLayout(buttons);
    resize(520, 420);
}

}  // namespace qbrix::ui
