#include "ui/RuleReportDialog.h"

#include <QGroupBox>
#include <QHBoxLayout>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QVBoxLayout>
#include <algorithm>

#include "core/StringTable.h"
#include "ui/AnsiText.h"

namespace qbrix::ui {

QString ShownText(const std::string& text) {
    QString shown = FromAnsi(text);
    shown.replace("\r\n", "\n");
    return shown;
}

std::string EngineText(const QString& shown) {
    const std::string text = ToAnsi(shown);
    std::string engine;
    engine.reserve(text.size() + text.size() / 16);
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\n' && (i == 0 || text[i - 1] != '\r')) {
            engine.push_back('\r');
        }
        engine.push_back(text[i]);
    }
    return engine;
}

int ShownOffset(const std::string& text, std::int32_t byteOffset) {
    if (byteOffset <= 0) {
        return 0;
    }
    const std::size_t bytes =
        std::min<std::size_t>(static_cast<std::size_t>(byteOffset), text.size());
    return static_cast<int>(ShownText(text.substr(0, bytes)).size());
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
