#include "ui/ContentPage.h"

#include <QCheckBox>
#include <QComboBox>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QKeyEvent>
#include <QLabel>
#include <QMenu>
#include <QPushButton>
#include <QTreeWidget>
#include <QVBoxLayout>
#include <memory>

#include "content/ContentStore.h"
#include "content/ProtocolTable.h"
#include "content/RuleEditorSupport.h"
#include "content/RuleXml.h"
#include "content/TrayRuleMenu.h"
#include "core/Messages.h"
#include "core/RegistryKey.h"
#include "core/StringTable.h"
#include "ui/AnsiText.h"
#include "ui/Icons.h"
#include "ui/NumericEdit.h"
#include "ui/RuleEditor.h"

namespace qbrix::ui {

namespace {

QString Str(int id) {
    return FromAnsi(core::LoadString(id));
}

constexpr unsigned kNumberBound = 0x7fffffff;
constexpr char kRuleFilter[] = "Rule Files (*.xml)|*.xml|All Files (*.*)|*.*||";

content::ContentRule* RuleOf(const QTreeWidgetItem* item) {
    return item ? reinterpret_cast<content::ContentRule*>(
                      item->data(0, ContentPage::kRuleRole).value<quintptr>())
                : nullptr;
}

}  // namespace

ContentPage::ContentPage(content::LspSettings& settings, QWidget* parent)
    : PropertyPage(Str(5966), parent), m_settings(settings) {
    setObjectName("ContentPage");
    m_runEditor = [this](content::ContentRule& rule) {
        RuleEditor editor(rule, m_settings, this);
        const int result = editor.exec();
        // A tester closed with OK changed a unit of the rule, whatever the editor ends with.
        if (editor.UnitsChanged()) {
            m_modified = true;
        }
        return result;
    };
    auto* layout = new QVBoxLayout(this);

    auto* top = new QGridLayout();
    top->addWidget(new QLabel("Protocol", this), 0, 0);
    m_protocol = new QComboBox(this);
    m_protocol->setObjectName("protocol");
    for (const content::ProtocolRow& row : content::kProtocolTable) {
        m_protocol->addItem(row.displayName);
    }
    top->addWidget(m_protocol, 0, 1);
    top->addWidget(new QLabel("    Max Size", this), 0, 2, Qt::AlignRight);
    m_maxSize = new NumericEdit(kNumberBound, this);
    m_maxSize->setObjectName("maxSize");
    m_maxSize->setMaximumWidth(100);
    top->addWidget(m_maxSize, 0, 3);
    top->addWidget(new QLabel("bytes", this), 0, 4);
    top->addItem(new QSpacerItem(0, 0, QSizePolicy::Expanding), 0, 5);
    top->setColumnStretch(5, 1);
    layout->addLayout(top);

    auto* antivirus = new QGroupBox("Antivirus", this);
    auto* avRow = new QHBoxLayout(antivirus);
    m_avEnable = new QCheckBox("Enable", antivirus);
    m_avEnable->setObjectName("avEnable");
    m_blockVirus = new QCheckBox("Block virus", antivirus);
    m_blockVirus->setObjectName("blockVirus");
    m_avLog = new QCheckBox("Log", antivirus);
    m_avLog->setObjectName("avLog");
    m_avTimeout = new NumericEdit(kNumberBound, antivirus);
    m_avTimeout->setObjectName("avTimeout");
    m_avTimeout->setMaximumWidth(80);
    avRow->addWidget(m_avEnable);
    avRow->addWidget(m_blockVirus);
    avRow->addWidget(m_avLog);
    avRow->addStretch(1);
    avRow->addWidget(new QLabel("AV timeout", antivirus));
    avRow->addWidget(m_avTimeout);
    avRow->addWidget(new QLabel("ms", antivirus));
    layout->addWidget(antivirus);

    auto* filter = new QGroupBox("Filter Rules", this);
    auto* filterLayout = new QVBoxLayout(filter);
    m_filterEnable = new QCheckBox("Enable", filter);
    m_filterEnable->setObjectName("filterEnable");
    filterLayout->addWidget(m_filterEnable);
    m_rules = new QTreeWidget(filter);
    m_rules->setObjectName("rules");
    m_rules->setRootIsDecorated(false);
    m_rules->setColumnCount(3);
    m_rules->setHeaderLabels({Str(5967), Str(5968), Str(5969)});
    m_rules->header()->setStretchLastSection(false);
    m_rules->header()->setSectionResizeMode(0, QHeaderView::Stretch);
    m_rules->setColumnWidth(1, 70);
    m_rules->setColumnWidth(2, 70);
    m_rules->setContextMenuPolicy(Qt::CustomContextMenu);
    m_rules->installEventFilter(this);
    filterLayout->addWidget(m_rules, 1);
    auto* bar = new QHBoxLayout();
    for (int command = kNewCommand; command <= kExportCommand; ++command) {
        QString text = Str(command);
        text = text.left(text.indexOf('\t') < 0 ? text.size() : text.indexOf('\t'));
        auto* button = new QPushButton(text, filter);
        button->setObjectName(QString::number(command));
        connect(button, &QPushButton::clicked, this, [this, command] { RunCommand(command); });
        bar->addWidget(button);
        m_commandBar.push_back(button);
    }
    bar->addStretch(1);
    filterLayout->addLayout(bar);
    layout->addWidget(filter, 1);

    auto* buttons = new QHBoxLayout();
    buttons->addStretch(1);
    auto* save = new QPushButton("Save", this);
    save->setObjectName("save");
    connect(save, &QPushButton::clicked, this, [this] { Save(); });
    buttons->addWidget(save);
    layout->addLayout(buttons);

    connect(m_protocol, &QComboBox::currentIndexChanged, this, [this](int row) {
        if (!m_filling) {
            StoreShownFields();
            ShowProtocol(row);
        }
    });
    connect(m_avEnable, &QCheckBox::toggled, this, [this] {
        FollowAntivirusEnable();
        SetModified();
    });
    connect(m_filterEnable, &QCheckBox::toggled, this, [this] {
        FollowFilterEnable();
        SetModified();
    });
    for (QCheckBox* box : {m_blockVirus, m_avLog}) {
        connect(box, &QCheckBox::toggled, this, [this] { SetModified(); });
    }
    for (NumericEdit* edit : {m_maxSize, m_avTimeout}) {
        connect(edit, &QLineEdit::textEdited, this, [this] { SetModified(); });
    }
    connect(m_rules, &QTreeWidget::itemDoubleClicked, this, [this] { EditRule(); });
    connect(m_rules, &QTreeWidget::customContextMenuRequested, this, [this](const QPoint& pos) {
        std::unique_ptr<QMenu> menu(BuildContextMenu());
        menu->exec(m_rules->viewport()->mapToGlobal(pos));
    });

    Reload();
}

void ContentPage::SaveOrDiscard(bool save) {
    if (save) {
        Save();
    } else {
        Reload();
    }
}

void ContentPage::Reload() {
    content::LoadLspSettings(m_settings, 0);
    for (std::size_t row = 0; row < content::kProtocolCount; ++row) {
        content::LoadContentRules(content::kProtocolTable[row].rulesKey,
                                  content::OptionsOf(m_settings, row).rules);
    }
    m_filling = true;
    if (m_protocol->currentIndex() < 0) {
        m_protocol->setCurrentIndex(0);
    }
    m_filling = false;
    m_shown = -1;
    ShowProtocol(m_protocol->currentIndex());
    m_modified = false;
}

void ContentPage::Save() {
    StoreShownFields();
    if (platform::LONG rc = content::SaveAllContent(m_settings); rc != 0) {
        // The rules stay as shown and still count as changed.
        core::CurrentMessages().MessageBox(
            "The rules could not be saved: " + core::StoreFailureText(rc) + ".", "q-Brix",
            core::MB_OK | core::MB_ICONERROR);
        return;
    }
    m_modified = false;
}

content::RuleList& ContentPage::ShownRules() {
    return content::OptionsOf(m_settings, static_cast<std::size_t>(m_shown < 0 ? 0 : m_shown))
        .rules;
}

void ContentPage::StoreShownFields() {
    if (m_shown < 0) {
        return;
    }
    content::ProtocolOptions& block = content::OptionsOf(m_settings, m_shown);
    block.maxSize = m_maxSize->Value();
    block.enableAV = m_avEnable->isChecked() ? 1 : 0;
    block.blockAV = m_blockVirus->isChecked() ? 1 : 0;
    block.enableAVLOG = m_avLog->isChecked() ? 1 : 0;
    block.maxAvTimeout = m_avTimeout->Value();
    block.enableREG = m_filterEnable->isChecked() ? 1 : 0;
}

void ContentPage::ShowProtocol(int row) {
    if (row < 0 || row >= static_cast<int>(content::kProtocolCount)) {
        return;
    }
    m_shown = row;
    const content::ProtocolOptions& block = content::OptionsOf(m_settings, row);
    m_filling = true;
    m_maxSize->SetValue(block.maxSize);
    m_avEnable->setChecked(block.enableAV != 0);
    m_blockVirus->setChecked(block.blockAV != 0);
    m_avLog->setChecked(block.enableAVLOG != 0);
    m_avTimeout->SetValue(block.maxAvTimeout);
    m_filterEnable->setChecked(block.enableREG != 0);
    FollowAntivirusEnable();
    FollowFilterEnable();
    m_rules->clear();
    content::RuleList& rules = ShownRules();
    for (std::size_t i = 0; i < rules.Size(); ++i) {
        AddLine(rules.At(i));
    }
    SelectLine(m_rules->topLevelItem(0));
    m_filling = false;
}

void ContentPage::FollowAntivirusEnable() {
    m_blockVirus->setEnabled(m_avEnable->isChecked());
    m_avLog->setEnabled(m_avEnable->isChecked());
}

void ContentPage::FollowFilterEnable() {
    m_rules->setEnabled(m_filterEnable->isChecked());
    for (QPushButton* button : m_commandBar) {
        button->setEnabled(m_filterEnable->isChecked());
    }
}

void ContentPage::SetLine(QTreeWidgetItem* item, const content::ContentRule& rule) {
    const int image = content::RuleLineImage(rule);
    item->setText(0, FromAnsi(rule.name));
    item->setIcon(0, RuleLineIcon(image));
    item->setData(0, kImageRole, image);
    item->setText(1, FromAnsi(rule.group));
    item->setText(2, QString());
}

QTreeWidgetItem* ContentPage::AddLine(content::ContentRule& rule) {
    auto* item = new QTreeWidgetItem(m_rules);
    item->setData(0, kRuleRole, QVariant::fromValue(reinterpret_cast<quintptr>(&rule)));
    SetLine(item, rule);
    return item;
}

void ContentPage::SelectLine(QTreeWidgetItem* item) {
    m_rules->setCurrentItem(item);
    if (item) {
        item->setSelected(true);
        m_rules->scrollToItem(item);
    }
}

content::ContentRule* ContentPage::SelectedRule() const {
    QList<QTreeWidgetItem*> selected = m_rules->selectedItems();
    return selected.isEmpty() ? nullptr : RuleOf(selected.front());
}

void ContentPage::RunCommand(int command) {
    switch (command) {
        case kNewCommand:
            NewRule();
            break;
        case kEditCommand:
            EditRule();
            break;
        case kDeleteCommand:
            DeleteRule();
            break;
        case kEnableCommand:
            ToggleEnable();
            break;
        case kImportCommand:
            ImportRule();
            break;
        case kExportCommand:
            ExportRule();
            break;
        default:
            break;
    }
}

void ContentPage::NewRule() {
    content::RuleList& rules = ShownRules();
    content::ContentRule& rule =
        rules.InsertBefore(content::MakeNewRule(content::NextNewRuleName()), SelectedRule());
    m_runEditor(rule);
    // The new line goes last even when the rule went before the selected one; a reload shows
    // the stored order.
    SelectLine(AddLine(rule));
    m_modified = true;
}

void ContentPage::EditRule() {
    QList<QTreeWidgetItem*> selected = m_rules->selectedItems();
    if (selected.isEmpty()) {
        return;
    }
    QTreeWidgetItem* item = selected.front();
    content::ContentRule* rule = RuleOf(item);
    if (m_runEditor(*rule) == QDialog::Accepted) {
        m_modified = true;
    }
    SetLine(item, *rule);
}

void ContentPage::DeleteRule() {
    QList<QTreeWidgetItem*> selected = m_rules->selectedItems();
    if (selected.isEmpty()) {
        return;
    }
    if (core::CurrentMessages().MessageBox(core::LoadString(5970), core::LoadString(19),
                                           core::MB_YESNO | core::MB_ICONQUESTION) != core::IDYES) {
        return;
    }
    QTreeWidgetItem* item = selected.front();
    const int index = m_rules->indexOfTopLevelItem(item);
    ShownRules().Remove(RuleOf(item));
    delete item;
    const int count = m_rules->topLevelItemCount();
    SelectLine(count == 0 ? nullptr : m_rules->topLevelItem(index < count ? index : count - 1));
    m_modified = true;
}

void ContentPage::ToggleEnable() {
    QList<QTreeWidgetItem*> selected = m_rules->selectedItems();
    if (selected.isEmpty()) {
        return;
    }
    content::ContentRule* rule = RuleOf(selected.front());
    rule->enable = rule->enable ? 0 : 1;
    SetLine(selected.front(), *rule);
    m_modified = true;
}

void ContentPage::ExportRule() {
    const content::ContentRule* rule = SelectedRule();
    if (!rule) {
        return;
    }
    std::string path = core::CurrentMessages().AskSaveFileName(
        core::LoadString(5965), kRuleFilter, "xml", content::ProposeExportFileName(rule->name));
    if (!path.empty()) {
        content::ExportContentRule(*rule, path);
    }
}

void ContentPage::ImportRule() {
    std::string path =
        core::CurrentMessages().AskOpenFileName(core::LoadString(5964), kRuleFilter, "xml");
    if (path.empty()) {
        return;
    }
    content::RuleList& rules = ShownRules();
    content::ContentRule* added = nullptr;
    if (content::ImportRuleIntoList(rules, path, &added) != content::kImportAdded) {
        return;
    }
    // An overwritten rule is gone from the list: drop its line. Only addresses are compared.
    for (int i = m_rules->topLevelItemCount() - 1; i >= 0; --i) {
        if (rules.IndexOf(RuleOf(m_rules->topLevelItem(i))) == rules.Size()) {
            delete m_rules->takeTopLevelItem(i);
        }
    }
    SelectLine(AddLine(*added));
    m_modified = true;
}

QMenu* ContentPage::BuildContextMenu() {
    auto* menu = new QMenu();
    auto add = [&](int command) {
        QAction* action = menu->addAction(Str(command));
        action->setData(command);
        connect(action, &QAction::triggered, this, [this, command] { RunCommand(command); });
        return action;
    };
    add(kNewCommand);
    add(kEditCommand);
    add(kDeleteCommand);
    menu->addSeparator();
    QAction* enable = add(kEnableCommand);
    enable->setCheckable(true);
    const content::ContentRule* rule = SelectedRule();
    enable->setChecked(rule && rule->enable != 0);
    menu->addSeparator();
    add(kImportCommand);
    add(kExportCommand);
    return menu;
}

bool ContentPage::eventFilter(QObject* watched, QEvent* event) {
    if (watched == m_rules && event->type() == QEvent::KeyPress) {
        switch (static_cast<QKeyEvent*>(event)->key()) {
            case Qt::Key_Insert:
                RunCommand(kNewCommand);
                return true;
            case Qt::Key_Space:
                RunCommand(kEditCommand);
                return true;
            case Qt::Key_Delete:
                RunCommand(kDeleteCommand);
                return true;
            case Qt::Key_F3:
                RunCommand(kEnableCommand);
                return true;
            default:
                break;
        }
    }
    return PropertyPage::eventFilter(watched, event);
}

void ContentPage::FillTrayMenu(QMenu* menu, bool greyed) {
    for (const content::TrayMenuEntry& entry : content::BuildContentRulesMenu(
             m_settings, content::kFirstRuleCommand, content::kEndRuleCommand, greyed)) {
        if (entry.separator) {
            menu->addSeparator();
            continue;
        }
        QAction* action = menu->addAction(FromAnsi(entry.text));
        action->setData(entry.id);
        action->setCheckable(true);
        action->setChecked(entry.checked);
        action->setEnabled(!entry.greyed);
        // The command works with the check mark as it was before the click.
        const bool wasChecked = entry.checked;
        const unsigned id = entry.id;
        const std::string text = entry.text;
        connect(action, &QAction::triggered, this, [this, id, text, wasChecked] {
            if (id == content::kDisableAllCommand) {
                content::RunDisableAllCommand(m_settings, wasChecked);
            } else {
                content::RunRuleEntryCommand(m_settings, text, wasChecked);
            }
            Reload();
        });
    }
}

}  // namespace qbrix::ui
