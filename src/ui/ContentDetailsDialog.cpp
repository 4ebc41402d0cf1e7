#include "ui/ContentDetailsDialog.h"

#include <QFile>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

#include "core/StringTable.h"
#include "events/LogTexts.h"
#include "ui/AnsiText.h"

namespace qbrix::ui {

ContentDetailsDialog::ContentDetailsDialog(const events::ContentEvent& event, QWidget* parent)
    : QDialog(parent) {
    setObjectName("ContentDetails");
    setWindowTitle("Internet Content Info");
    auto* layout = new QVBoxLayout(this);
    auto* form = new QFormLayout();
    auto add = [&](const char* label, const char* name, const QString& text) {
        auto* field = new QLineEdit(text, this);
        field->setObjectName(name);
        field->setReadOnly(true);
        field->setCursorPosition(0);
        form->addRow(label, field);
    };
    add("Type", "type", FromAnsi(events::ContentKindLabel(event.type)));
    add("Name", "name", FromAnsi(events::EventName(event)));
    add("Address", "address", FromAnsi(events::EventAddress(event)));
    add("Quarantine", "quarantine", QFile::decodeName(events::EventQuarantine(event).c_str()));
    layout->addLayout(form);
    auto* buttons = new QHBoxLayout();
    buttons->addStretch(1);
    auto* ok = new QPushButton("OK", this);
    ok->setObjectName("ok");
    ok->setDefault(true);
    connect(ok, &QPushButton::clicked, this, &QDialog::accept);
    buttons->addWidget(ok);
    layout->addLayout(buttons);
    setMinimumWidth(460);
}

}  // namespace qbrix::ui
