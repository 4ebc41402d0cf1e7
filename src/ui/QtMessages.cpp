#include "ui/QtMessages.h"

#include <QApplication>
#include <QCheckBox>
#include <QDialogButtonBox>
#include <QFile>
#include <QFileDialog>
#include <QLabel>
#include <QMessageBox>
#include <QVBoxLayout>

#include "ui/AnsiText.h"

namespace qbrix::ui {

namespace {

QString FromView(std::string_view text) {
    return FromAnsi(text);
}

QMessageBox::Icon IconOf(unsigned style) {
    switch (style & 0xF0) {
        case core::MB_ICONERROR:
            return QMessageBox::Critical;
        case core::MB_ICONQUESTION:
            return QMessageBox::Question;
        case core::MB_ICONWARNING:
            return QMessageBox::Warning;
        case core::MB_ICONINFORMATION:
            return QMessageBox::Information;
        default:
            return QMessageBox::NoIcon;
    }
}

}  // namespace

int QtMessages::MessageBox(std::string_view text, std::string_view caption, unsigned style) {
    QMessageBox box(IconOf(style), FromView(caption), FromView(text));
    struct Choice {
        QMessageBox::StandardButton button;
        int id;
    };
    std::vector<Choice> choices;
    switch (style & 0xF) {
        case core::MB_OKCANCEL:
            choices = {{QMessageBox::Ok, core::IDOK}, {QMessageBox::Cancel, core::IDCANCEL}};
            break;
        case core::MB_YESNOCANCEL:
            choices = {{QMessageBox::Yes, core::IDYES},
                       {QMessageBox::No, core::IDNO},
                       {QMessageBox::Cancel, core::IDCANCEL}};
            break;
        case core::MB_YESNO:
            choices = {{QMessageBox::Yes, core::IDYES}, {QMessageBox::No, core::IDNO}};
            break;
        default:
            choices = {{QMessageBox::Ok, core::IDOK}};
            break;
    }
    QMessageBox::StandardButtons buttons;
    for (const Choice& choice : choices) {
        buttons |= choice.button;
    }
    box.setStandardButtons(buttons);
    std::size_t defaultIndex = (style & core::MB_DEFBUTTON2) != 0 && choices.size() > 1 ? 1 : 0;
    box.setDefaultButton(choices[defaultIndex].button);
    auto pressed = static_cast<QMessageBox::StandardButton>(box.exec());
    for (const Choice& choice : choices) {
        if (choice.button == pressed) {
            return choice.id;
        }
    }
    // Closed with Escape: the Cancel or No answer, as the platform's box gives.
    return choices.back().id;
}

core::NoAskAnswer QtMessages::AskNoAsk(std::string_view title, std::string_view message) {
    NoAskWindow window(FromView(title), FromView(message));
    bool ok = window.exec() == QDialog::Accepted;
    return core::NoAskAnswer{ok, ok && window.DontAskAgain()};
}

void QtMessages::Beep(unsigned /*type*/) {
    QApplication::beep();
}

QString QtFilter(std::string_view filter) {
    QStringList parts = FromView(filter).split('|', Qt::SkipEmptyParts);
    QStringList entries;
    for (int i = 0; i + 1 < parts.size(); i += 2) {
        const QString patterns = QString(parts[i + 1]).replace(';', ' ');
        const QString shown = "(" + patterns + ")";
        // A description usually names its patterns already ("Rule Files (*.xml)").
        entries << (parts[i].contains(shown) ? parts[i] : parts[i] + " " + shown);
    }
    return entries.join(";;");
}

namespace {

std::string Chosen(QFileDialog& dialog, std::string_view defaultExtension) {
    if (!defaultExtension.empty()) {
        dialog.setDefaultSuffix(FromView(defaultExtension));
    }
    if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty()) {
        return std::string();
    }
    return QFile::encodeName(dialog.selectedFiles().first()).toStdString();
}

}  // namespace

std::string QtMessages::AskSaveFileName(std::string_view title, std::string_view filter,
                                        std::string_view defaultExtension,
                                        std::string_view initialName) {
    QFileDialog dialog(nullptr, FromView(title), FromView(initialName), QtFilter(filter));
    dialog.setAcceptMode(QFileDialog::AcceptSave);
    dialog.setFileMode(QFileDialog::AnyFile);
    return Chosen(dialog, defaultExtension);
}

std::string QtMessages::AskOpenFileName(std::string_view title, std::string_view filter,
                                        std::string_view defaultExtension) {
    QFileDialog dialog(nullptr, FromView(title), QString(), QtFilter(filter));
    dialog.setAcceptMode(QFileDialog::AcceptOpen);
    dialog.setFileMode(QFileDialog::ExistingFile);
    return Chosen(dialog, defaultExtension);
}

NoAskWindow::NoAskWindow(const QString& title, const QString& message, QWidget* parent)
    : QDialog(parent) {
    setObjectName("NoAskDialog");
    setWindowTitle(title);
    auto* layout = new QVBoxLayout(this);
    auto* text = new QLabel(message, this);
    text->setWordWrap(true);
    text->setMinimumWidth(300);
    layout->addWidget(text);
    m_dontAsk = new QCheckBox("Don't ask me again", this);
    layout->addWidget(m_dontAsk);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    layout->addWidget(buttons);
}

bool NoAskWindow::DontAskAgain() const {
    return m_dontAsk->isChecked();
}

}  // namespace qbrix::ui
