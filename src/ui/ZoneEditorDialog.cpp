#include "ui/ZoneEditorDialog.h"

#include <QCheckBox>
#include <QComboBox>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QIntValidator>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMenu>
#include <QPushButton>
#include <QStringList>
#include <QVBoxLayout>

#include "core/Messages.h"
#include "ui/AnsiText.h"
#include "ui/DialogPresenter.h"
#include "ui/Icons.h"
#include "ui/IpAddressEdit.h"

namespace qbrix::ui {

namespace {

QComboBox* Combo(QWidget* parent, const char* id, const QStringList& items) {
    auto* box = new QComboBox(parent);
    box->setObjectName(id);
    box->addItems(items);
    return box;
}

QLineEdit* Field(QWidget* parent, const char* id) {
    auto* field = new QLineEdit(parent);
    field->setObjectName(id);
    return field;
}

QCheckBox* Check(QWidget* parent, const char* id, const char* text) {
    auto* box = new QCheckBox(text, parent);
    box->setObjectName(id);
    return box;
}

}  // namespace

ZoneEditorDialog::ZoneEditorDialog(policy::ZoneRecord& zone, std::string_view rulePrefix,
                                   const char* fixedName, QWidget* parent)
    : QDialog(parent), m_model(zone, rulePrefix, fixedName) {
    setObjectName("ZoneEditor");
    setWindowTitle("Zone Editor");
    setWindowIcon(AppIcon());
    const QStringList results{"Enable", "Disable"};

    auto* layout = new QVBoxLayout(this);
    auto* nameRow = new QHBoxLayout();
    nameRow->addWidget(new QLabel("Name", this));
    m_zoneName = Field(this, "ZoneName");
    m_zoneName->setMaxLength(259);
    nameRow->addWidget(m_zoneName, 1);
    layout->addLayout(nameRow);

    auto* body = new QHBoxLayout();
    auto* listGroup = new QGroupBox("Rule List", this);
    auto* listLayout = new QVBoxLayout(listGroup);
    m_rules = new QListWidget(listGroup);
    m_rules->setObjectName("RuleList");
    m_rules->setContextMenuPolicy(Qt::CustomContextMenu);
    m_rules->setMinimumWidth(170);
    m_rules->installEventFilter(this);
    listLayout->addWidget(m_rules);
    auto* hint = new QLabel("Insert: new rule, Del: delete, F3: on/off", listGroup);
    hint->setEnabled(false);
    listLayout->addWidget(hint);
    body->addWidget(listGroup, 2);

    auto* details = new QGroupBox("Rule Details", this);
    auto* grid = new QGridLayout(details);
    m_nameCheck = Check(details, "NameCheck", "Name");
    m_ruleName = Field(details, "RuleName");
    grid->addWidget(m_nameCheck, 0, 0);
    grid->addWidget(m_ruleName, 0, 1, 1, 3);
    m_protocolCheck = Check(details, "ProtocolCheck", "Protocol");
    m_protocol = Combo(details, "Protocol", {"TCP+UDP", "TCP", "UDP"});
    grid->addWidget(m_protocolCheck, 1, 0);
    grid->addWidget(m_protocol, 1, 1, 1, 3);
    m_host = Field(details, "Host");
    m_addressByName = new QPushButton("Address by name", details);
    m_addressByName->setObjectName("AddressByName");
    grid->addWidget(new QLabel("Host", details), 2, 0);
    grid->addWidget(m_host, 2, 1, 1, 2);
    grid->addWidget(m_addressByName, 2, 3);
    m_addressCheck = Check(details, "AddressCheck", "Address");
    m_address = new IpAddressEdit(details);
    m_address->setObjectName("Address");
    m_mask = new IpAddressEdit(details);
    m_mask->setObjectName("Mask");
    grid->addWidget(m_addressCheck, 3, 0);
    grid->addWidget(m_address, 3, 1);
    grid->addWidget(new QLabel("Mask", details), 3, 2, Qt::AlignRight);
    grid->addWidget(m_mask, 3, 3);
    m_portCheck = Check(details, "PortCheck", "Port");
    m_port = Field(details, "Port");
    m_port->setValidator(new QIntValidator(0, 65535, m_port));
    grid->addWidget(m_portCheck, 4, 0);
    grid->addWidget(m_port, 4, 1);
    m_directionCheck = Check(details, "DirectionCheck", "Direction");
    m_direction = Combo(details, "Direction", {"Incoming+Outgoing", "Incoming", "Outgoing"});
    grid->addWidget(m_directionCheck, 5, 0);
    grid->addWidget(m_direction, 5, 1, 1, 3);
    m_result = Combo(details, "Result", results);
    grid->addWidget(new QLabel("Result", details), 6, 0);
    grid->addWidget(m_result, 6, 1);
    auto* update = new QPushButton("Update", details);
    update->setObjectName("Update");
    grid->addWidget(update, 6, 3);
    grid->setColumnStretch(1, 1);
    grid->setColumnStretch(3, 1);
    body->addWidget(details, 3);
    layout->addLayout(body, 1);

    auto* bottom = new QHBoxLayout();
    bottom->addWidget(new QLabel("Zone Result", this));
    m_zoneResult = Combo(this, "ZoneResult", results);
    bottom->addWidget(m_zoneResult);
    bottom->addStretch(1);
    auto* close = new QPushButton("Close", this);
    close->setObjectName("Close");
    bottom->addWidget(close);
    layout->addLayout(bottom);
    for (QPushButton* button : {update, close, m_addressByName}) {
        button->setAutoDefault(false);
    }

    m_zoneName->setText(FromAnsi(m_model.ZoneNameText()));
    m_zoneResult->setCurrentIndex(m_model.ZoneResultIndex());
    m_zoneResult->setEnabled(m_model.ZoneResultEnabled());
    FillRows();
    ShowFields();

    // What the user types or picks goes into the model's fields at once.
    auto read = [this] { ReadFields(); };
    for (QLineEdit* field : {m_ruleName, m_port}) {
        connect(field, &QLineEdit::textEdited, this, read);
    }
    for (IpAddressEdit* field : {m_address, m_mask}) {
        connect(field, &IpAddressEdit::Edited, this, read);
    }
    for (QComboBox* box : {m_protocol, m_direction, m_result}) {
        connect(box, &QComboBox::activated, this, read);
    }
    for (QCheckBox* box :
         {m_nameCheck, m_protocolCheck, m_addressCheck, m_portCheck, m_directionCheck}) {
        connect(box, &QCheckBox::clicked, this, [this] {
            ReadFields();
            m_model.CheckBoxClicked();
            ApplyStates();
        });
    }
    connect(m_zoneName, &QLineEdit::textEdited, this,
            [this](const QString& text) { m_model.SetZoneNameText(ToAnsi(text)); });
    connect(m_zoneResult, &QComboBox::activated, this,
            [this](int index) { m_model.SetZoneResultIndex(index); });
    connect(m_rules, &QListWidget::currentRowChanged, this, &ZoneEditorDialog::RowChanged);
    connect(m_rules, &QListWidget::customContextMenuRequested, this,
            &ZoneEditorDialog::ContextMenu);
    connect(update, &QPushButton::clicked, this, &ZoneEditorDialog::UpdateRule);
    connect(m_addressByName, &QPushButton::clicked, this, &ZoneEditorDialog::AddressByName);
    connect(close, &QPushButton::clicked, this, &QDialog::accept);
}

void ZoneEditorDialog::FillRows() {
    m_showing = true;
    m_rules->clear();
    for (std::size_t i = 0; i < m_model.RowCount(); ++i) {
        m_rules->addItem(
            new QListWidgetItem(RuleImage(m_model.RowImage(i)), FromAnsi(m_model.RowText(i))));
    }
    m_rules->setCurrentRow(m_model.Selected());
    m_showing = false;
}

void ZoneEditorDialog::ShowFields() {
    m_showing = true;
    const policy::RuleFields& fields = m_model.Fields();
    m_nameCheck->setChecked(fields.nameChecked);
    m_ruleName->setText(FromAnsi(fields.name));
    m_protocolCheck->setChecked(fields.protocolChecked);
    m_protocol->setCurrentIndex(fields.protocolIndex);
    m_addressCheck->setChecked(fields.addressChecked);
    m_address->SetAddress(fields.address);
    m_mask->SetAddress(fields.mask);
    m_portCheck->setChecked(fields.portChecked);
    m_port->setText(QString::number(fields.port));
    m_directionCheck->setChecked(fields.directionChecked);
    m_direction->setCurrentIndex(fields.directionIndex);
    m_result->setCurrentIndex(fields.resultIndex);
    if (m_model.Selected() < 0) {
        for (QLineEdit* field : {m_ruleName, m_port}) {
            field->clear();
        }
        m_address->Clear();
        m_mask->Clear();
    }
    m_showing = false;
    ApplyStates();
}

void ZoneEditorDialog::ApplyStates() {
    policy::RuleFieldStates states = m_model.States();
    m_ruleName->setEnabled(states.name);
    for (QWidget* widget : std::initializer_list<QWidget*>{
             m_protocolCheck, m_addressCheck, m_portCheck, m_directionCheck, m_result}) {
        widget->setEnabled(states.criteria);
    }
    m_protocol->setEnabled(states.protocol);
    m_address->setEnabled(states.address);
    m_mask->setEnabled(states.address);
    m_port->setEnabled(states.port);
    m_direction->setEnabled(states.direction);
}

void ZoneEditorDialog::ReadFields() {
    if (m_showing) {
        return;
    }
    policy::RuleFields& fields = m_model.Fields();
    fields.nameChecked = m_nameCheck->isChecked();
    fields.name = ToAnsi(m_ruleName->text());
    fields.protocolChecked = m_protocolCheck->isChecked();
    fields.protocolIndex = m_protocol->currentIndex();
    fields.addressChecked = m_addressCheck->isChecked();
    // An incomplete address or mask is not taken: the fields keep the rule's own until the
    // user completes it (Update and Close refuse it meanwhile).
    const int selected = m_model.Selected();
    const policy::ZoneRule* stored = selected >= 0 ? &m_model.Row(selected) : nullptr;
    fields.address =
        m_address->IsComplete() ? m_address->Address() : (stored ? stored->address : 0);
    fields.mask = m_mask->IsComplete() ? m_mask->Address() : (stored ? stored->mask : 0);
    fields.portChecked = m_portCheck->isChecked();
    fields.port = static_cast<std::uint16_t>(m_port->text().toUInt());
    fields.directionChecked = m_directionCheck->isChecked();
    fields.directionIndex = m_direction->currentIndex();
    fields.resultIndex = m_result->currentIndex();
}

void ZoneEditorDialog::RowChanged(int row) {
    if (m_showing) {
        return;
    }
    m_model.Select(row);
    ShowFields();
}

void ZoneEditorDialog::NewRule() {
    m_model.NewRule();
    FillRows();
    ShowFields();
}

void ZoneEditorDialog::DeleteRule() {
    if (m_model.DeleteRule() != 0) {
        FillRows();
        ShowFields();
    }
}

void ZoneEditorDialog::ToggleRule() {
    m_model.Toggle();
    FillRows();
    ShowFields();
}

bool ZoneEditorDialog::AddressComplete() {
    if (!m_addressCheck->isChecked()) {
        return true;
    }
    for (IpAddressEdit* field : {m_address, m_mask}) {
        if (!field->IsComplete()) {
            core::CurrentMessages().Beep(core::MB_OK);
            field->FocusFirstBlank();
            return false;
        }
    }
    return true;
}

void ZoneEditorDialog::UpdateRule() {
    ReadFields();
    if (!AddressComplete()) {
        return;
    }
    m_model.Update();
    FillRows();
}

void ZoneEditorDialog::AddressByName() {
    ReadFields();
    if (m_model.AddressByName(ToAnsi(m_host->text())) == 0) {
        m_showing = true;
        m_address->SetAddress(m_model.Fields().address);
        m_showing = false;
    }
}

void ZoneEditorDialog::ContextMenu(const QPoint& position) {
    QMenu menu(this);
    menu.addAction("New", this, &ZoneEditorDialog::NewRule);
    menu.addAction("Delete", this, &ZoneEditorDialog::DeleteRule);
    menu.addSeparator();
    QAction* enable = menu.addAction("Enable\tF3", this, &ZoneEditorDialog::ToggleRule);
    enable->setCheckable(true);
    int selected = m_model.Selected();
    enable->setChecked(selected >= 0 && m_model.Row(selected).enabled != 0);
    menu.exec(m_rules->viewport()->mapToGlobal(position));
}

bool ZoneEditorDialog::eventFilter(QObject* watched, QEvent* event) {
    if (watched == m_rules && event->type() == QEvent::KeyPress) {
        switch (static_cast<QKeyEvent*>(event)->key()) {
            case Qt::Key_Insert:
                NewRule();
                return true;
            case Qt::Key_Delete:
                DeleteRule();
                return true;
            case Qt::Key_F3:
                ToggleRule();
                return true;
            default:
                break;
        }
    }
    return QDialog::eventFilter(watched, event);
}

int ZoneEditorDialog::Finish() {
    if (!m_finished) {
        m_finished = true;
        ReadFields();
        m_model.SetZoneNameText(ToAnsi(m_zoneName->text()));
        m_model.SetZoneResultIndex(m_zoneResult->currentIndex());
        m_changedFlag = m_model.Close();
    }
    return m_changedFlag;
}

void ZoneEditorDialog::done(int result) {
    // Close, Escape and the window's close button all store the zone the same way, and all
    // stay open on an incomplete address.
    if (!m_finished && !AddressComplete()) {
        return;
    }
    Finish();
    QDialog::done(result);
}

int QtZoneEditorLauncher::Edit(policy::ZoneRecord& zone, std::string_view rulePrefix, void* parent,
                               const char* fixedName) {
    ZoneEditorDialog dialog(zone, rulePrefix, fixedName, static_cast<QWidget*>(parent));
    CurrentPresenter().Present(dialog);
    return dialog.Finish();
}

}  // namespace qbrix::ui
