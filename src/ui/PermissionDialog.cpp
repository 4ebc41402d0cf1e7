#include "ui/PermissionDialog.h"

#include <QApplication>
#include <QDialogButtonBox>
#include <QFileIconProvider>
#include <QFileInfo>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QVBoxLayout>

#include "platform/PathNames.h"
#include "ui/AnsiText.h"
#include "ui/DialogPresenter.h"
#include "ui/Icons.h"

namespace qbrix::ui {

namespace {

// Record texts are bytes of the program's code page.
QString RecordText(const std::string& text) {
    return FromAnsi(text);
}

QLineEdit* ReadOnly(QWidget* parent, const char* id, const QString& text) {
    auto* field = new QLineEdit(text, parent);
    field->setObjectName(id);
    field->setReadOnly(true);
    field->setCursorPosition(0);
    return field;
}

}  // namespace

void RefillingComboBox::showPopup() {
    if (beforePopup) {
        beforePopup();
    }
    QComboBox::showPopup();
}

QIcon ProgramFileIcon(const std::string& path) {
    // A process path comes in capitals: the file is looked up whatever the case of its name.
    const std::string found = path.empty() ? std::string() : platform::FindFileIgnoringCase(path);
    QFileInfo file(QFile::decodeName(found.c_str()));
    if (found.empty() || !file.isFile()) {
        return QIcon();
    }
    return QFileIconProvider().icon(file);
}

PermissionDialog::PermissionDialog(policy::AppRecord& record, bool askMode, QWidget* parent)
    : QDialog(parent), m_zone(new RefillingComboBox(this)), m_items(m_zone) {
    setObjectName("PermissionDialog");
    setWindowTitle("Permissions for Application");
    setWindowIcon(AppIcon());
    m_zone->setObjectName("Zone");
    m_zone->setMinimumContentsLength(24);
    m_model = std::make_unique<policy::PermissionDialogModel>(record, askMode, m_items);
    m_zone->beforePopup = [this] { m_model->Refill(); };

    auto* layout = new QVBoxLayout(this);
    auto* top = new QHBoxLayout();
    auto* form = new QFormLayout();
    form->addRow("Application",
                 ReadOnly(this, "Application", QFile::decodeName(m_model->Application().c_str())));
    form->addRow("Description", ReadOnly(this, "Description", RecordText(m_model->Description())));
    QLineEdit* connect = ReadOnly(this, "Connect", RecordText(m_model->Connect()));
    form->addRow("Connect", connect);
    if (!askMode) {
        // Only a pending question has a connection attempt to show.
        form->labelForField(connect)->hide();
        connect->hide();
    }
    form->addRow("Zone", m_zone);
    top->addLayout(form, 1);
    auto* icon = new QLabel(this);
    icon->setObjectName("Icon");
    icon->setFixedSize(40, 40);
    icon->setAlignment(Qt::AlignCenter);
    QIcon fileIcon = ProgramFileIcon(m_model->IconPath());
    if (!fileIcon.isNull()) {
        icon->setPixmap(fileIcon.pixmap(32, 32));
    }
    top->addWidget(icon, 0, Qt::AlignTop);
    layout->addLayout(top);

    auto* detailsGroup = new QGroupBox("Application's details", this);
    auto* detailsLayout = new QVBoxLayout(detailsGroup);
    auto* details = new QPlainTextEdit(RecordText(m_model->Details()), detailsGroup);
    details->setObjectName("Details");
    details->setReadOnly(true);
    details->setMinimumHeight(80);
    detailsLayout->addWidget(details);
    layout->addWidget(detailsGroup, 1);

    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    buttons->button(QDialogButtonBox::Ok)->setObjectName("OK");
    buttons->button(QDialogButtonBox::Cancel)->setObjectName("Cancel");
    QObject::connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    QObject::connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    layout->addWidget(buttons);
    resize(480, 300);
}

void PermissionDialog::done(int result) {
    if (result == QDialog::Accepted && !m_accepted) {
        m_accepted = true;
        m_model->Accept();
    }
    QDialog::done(result);
}

bool QtPermissionDialogLauncher::Run(policy::AppRecord& record, bool askMode) {
    QWidget* parent = QApplication::activeWindow();
    PermissionDialog dialog(record, askMode, parent);
    return CurrentPresenter().Present(dialog) == QDialog::Accepted;
}

}  // namespace qbrix::ui
