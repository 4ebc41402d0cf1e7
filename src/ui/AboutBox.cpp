#include "ui/AboutBox.h"

#include <QDialogButtonBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QVBoxLayout>

#include "core/StringTable.h"
#include "ui/AnsiText.h"
#include "ui/Icons.h"

namespace qbrix::ui {

AboutBox::AboutBox(QWidget* parent) : QDialog(parent) {
    setObjectName("AboutBox");
    setWindowTitle(QString("About ") + FromAnsi(core::LoadString(19)));
    auto* layout = new QVBoxLayout(this);
    auto* top = new QHBoxLayout();
    auto* icon = new QLabel(this);
    icon->setPixmap(AppIcon(48).pixmap(48, 48));
    icon->setAlignment(Qt::AlignTop);
    top->addWidget(icon);
    auto* text = new QLabel(
        "<b>q-Brix Control</b> 3.1.091<br><br>"
        "Personal Internet protection: a firewall that binds every program to a zone of "
        "address rules, content rules for web and e-mail traffic, and antivirus scanning of "
        "downloaded content.<br><br>"
        "This program owns the policy and shows what the filters decide. While it runs, the "
        "filters apply the policy; when it exits, all Internet access is allowed.",
        this);
    text->setWordWrap(true);
    text->setMinimumWidth(320);
    top->addWidget(text, 1);
    layout->addLayout(top);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok, this);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    layout->addWidget(buttons);
}

}  // namespace qbrix::ui
