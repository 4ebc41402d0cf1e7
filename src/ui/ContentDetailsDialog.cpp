#include "ui/ContentDetailsDialog.h"

#include <QFormLayout>
#include <QHBoxLayout>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

#include "core/StringTable.h"
#include "events/LogTexts.h"

namespace qbrix::ui {

ContentDetailsDialog::ContentDetailsDialog(const events::ContentEvent& event, QWidget* parent)
    : QDialog(parent) {
    setObjectName("ContentDetails");
    setWindowTitle("Internet Content Info");
    auto* layout = new QVBoxLayout(this);
    auto* form = new QFormLayout();
    auto add = [&](const char* label, const char* name, const std::string& text) {
        auto* field = new QLineEdit(QString::fromStdString(text), this);
        field->setObjectName(name);
        field->setReadOnly(true);
        field->setCursorPosition(0);
        form->addRow(label, field);
    };
    add("Type", "type", events::ContentKindLabel(event.type));
    add("Name", "name", events::EventName(event));
    add("Address", "address", events::EventAddress(event));
    add("Quarantine", "quarantine", events::EventQuarantine(event));
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
