#include "ui/RuleEditor.h"

#include <QCheckBox>
#include <QComboBox>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QTreeWidget>
#include <QVBoxLayout>
#include <memory>

#include "content/ContentStore.h"
#include "content/RuleEditorSupport.h"
#include "core/Messages.h"
#include "core/StringTable.h"
#include "ui/AnsiText.h"
#include "ui/RuleReportDialog.h"
#include "ui/UnitTesterDialog.h"

namespace qbrix::ui {

namespace {

QString Str(int id) {
    return FromAnsi(core::LoadString(id));
}
QString FromStd(const std::string& text) {
    return FromAnsi(text);
}
std::string ToStd(const QString& text) {
    return ToAnsi(text);
}

constexpr int kSubRuleRole = Qt::UserRole;

content::RegRuleMatcher* SubRuleOf(const QTreeWidgetItem* item) {
    return item ? reinterpret_cast<content::RegRuleMatcher*>(
                      item->data(0, kSubRuleRole).value<quintptr>())
                : nullptr;
}

// Adds the Find, Compare and Replace lines of a unit to a grid from `row` on; returns the
// next free row. Names are `prefix` + the field.
int AddUnitRows(QGridLayout* grid, int row, QWidget* owner, const QString& prefix,
                UnitControls& unit, bool withFind) {
    if (withFind) {
        grid->addWidget(new QLabel("Find", owner), row, 0);
        unit.find = new QLineEdit(owner);
        unit.find->setObjectName(prefix + "Find");
        grid->addWidget(unit.find, row++, 1);
    }
    unit.compareOn = new QCheckBox("Compare", owner);
    unit.compareOn->setObjectName(prefix + "CompareOn");
    grid->addWidget(unit.compareOn, row, 0);
    unit.compare = new QLineEdit(owner);
    unit.compare->setObjectName(prefix + "Compare");
    grid->addWidget(unit.compare, row++, 1);
    unit.replaceOn = new QCheckBox("Replace", owner);
    unit.replaceOn->setObjectName(prefix + "ReplaceOn");
    grid->addWidget(unit.replaceOn, row, 0);
    unit.replace = new QLineEdit(owner);
    unit.replace->setObjectName(prefix + "Replace");
    grid->addWidget(unit.replace, row++, 1);
    return row;
}

QPushButton* TestButton(QWidget* owner, const QString& name) {
    auto* button = new QPushButton("Test", owner);
    button->setObjectName(name);
    return button;
}

}  // namespace

content::UnitFields UnitControls::Read() const {
    content::UnitFields fields;
    fields.find = find ? ToStd(find->text()) : std::string();
    fields.compareOn = compareOn && compareOn->isChecked();
    fields.compare = compare ? ToStd(compare->text()) : std::string();
    fields.replaceOn = replaceOn && replaceOn->isChecked();
    fields.replace = replace ? ToStd(replace->text()) : std::string();
    fields.comment = comment ? ToStd(comment->text()) : std::string();
    return fields;
}

void UnitControls::Show(const content::UnitFields& fields) const {
    if (find)
        find->setText(FromStd(fields.find));
    if (compareOn)
        compareOn->setChecked(fields.compareOn);
    if (compare)
        compare->setText(FromStd(fields.compare));
    if (replaceOn)
        replaceOn->setChecked(fields.replaceOn);
    if (replace)
        replace->setText(FromStd(fields.replace));
    if (comment)
        comment->setText(FromStd(fields.comment));
}

RuleEditor::RuleEditor(content::ContentRule& rule, content::LspSettings& settings, QWidget* parent)
    : QDialog(parent), m_rule(rule), m_settings(settings) {
    setObjectName("RuleEditor");
    setWindowTitle(Str(5971));
    m_runUnitTester = [this](content::RegRuleMatcher& unit) {
        UnitTesterDialog tester(unit, this);
        return tester.exec();
    };
    m_showReport = [this](const content::WholeRuleReport& report) {
        RuleReportDialog dialog(report, this);
        dialog.exec();
    };

    auto* layout = new QVBoxLayout(this);
    auto* head = new QGridLayout();
    m_enable = new QCheckBox("Name", this);
    m_enable->setObjectName("enable");
    m_name = new QLineEdit(this);
    m_name->setObjectName("name");
    head->addWidget(m_enable, 0, 0);
    head->addWidget(m_name, 0, 1, 1, 4);
    m_incoming = new QRadioButton("Incoming", this);
    m_incoming->setObjectName("incoming");
    m_outgoing = new QRadioButton("Outgoing", this);
    m_outgoing->setObjectName("outgoing");
    m_fullContent = new QCheckBox("full content", this);
    m_fullContent->setObjectName("fullContent");
    m_log = new QCheckBox("log", this);
    m_log->setObjectName("log");
    auto* switches = new QHBoxLayout();
    for (QWidget* each :
         std::initializer_list<QWidget*>{m_incoming, m_outgoing, m_fullContent, m_log}) {
        switches->addWidget(each);
        switches->addSpacing(8);
    }
    switches->addStretch(1);
    head->addLayout(switches, 1, 1, 1, 4);
    head->setColumnStretch(1, 1);
    layout->addLayout(head);

    auto* popup = new QGroupBox("Tray popup", this);
    auto* popupRow = new QHBoxLayout(popup);
    m_popUp = new QCheckBox("Show", popup);
    m_popUp->setObjectName("popUp");
    m_group = new QComboBox(popup);
    m_group->setObjectName("group");
    m_group->setEditable(true);
    m_group->setMinimumWidth(140);
    // Offered but never stored with the rule: a rule is not bound to a zone.
    m_zone = new QComboBox(popup);
    m_zone->setObjectName("zone");
    m_zone->addItem("Any");
    popupRow->addWidget(m_popUp);
    popupRow->addWidget(new QLabel("Group", popup));
    popupRow->addWidget(m_group, 1);
    popupRow->addWidget(new QLabel("Zone", popup));
    popupRow->addWidget(m_zone);
    layout->addWidget(popup);

    auto* mainGroup = new QGroupBox("Main", this);
    auto* mainGrid = new QGridLayout(mainGroup);
    int row = AddUnitRows(mainGrid, 0, mainGroup, "main", m_main, true);
    mainGrid->addWidget(new QLabel("Comment", mainGroup), row, 0);
    m_main.comment = new QLineEdit(mainGroup);
    m_main.comment->setObjectName("mainComment");
    mainGrid->addWidget(m_main.comment, row, 1);
    auto* mainTest = TestButton(mainGroup, "mainTest");
    mainGrid->addWidget(mainTest, 0, 2);
    layout->addWidget(mainGroup);

    auto* subGroup = new QGroupBox("Sub Rules", this);
    auto* subRow = new QHBoxLayout(subGroup);
    m_subList = new QTreeWidget(subGroup);
    m_subList->setObjectName("subList");
    m_subList->setRootIsDecorated(false);
    m_subList->setHeaderLabels({Str(5967)});
    m_subList->setContextMenuPolicy(Qt::CustomContextMenu);
    m_subList->setMaximumWidth(180);
    m_subList->setMinimumHeight(90);
    subRow->addWidget(m_subList);
    auto* subGrid = new QGridLayout();
    m_subEnable = new QCheckBox("Name", subGroup);
    m_subEnable->setObjectName("subEnable");
    subGrid->addWidget(m_subEnable, 0, 0);
    m_sub.comment = new QLineEdit(subGroup);
    m_sub.comment->setObjectName("subName");
    subGrid->addWidget(m_sub.comment, 0, 1);
    AddUnitRows(subGrid, 1, subGroup, "sub", m_sub, true);
    auto* subButtons = new QVBoxLayout();
    auto* update = new QPushButton("Update", subGroup);
    update->setObjectName("subUpdate");
    auto* subTest = TestButton(subGroup, "subTest");
    subButtons->addWidget(update);
    subButtons->addWidget(subTest);
    subButtons->addStretch(1);
    subGrid->addLayout(subButtons, 0, 2, 4, 1);
    subRow->addLayout(subGrid, 1);
    layout->addWidget(subGroup);

    auto* replaceGroup = new QGroupBox("Replace", this);
    auto* replaceGrid = new QGridLayout(replaceGroup);
    m_replaceEnable = new QCheckBox("Find", replaceGroup);
    m_replaceEnable->setObjectName("replaceEnable");
    replaceGrid->addWidget(m_replaceEnable, 0, 0);
    m_replace.find = new QLineEdit(replaceGroup);
    m_replace.find->setObjectName("replaceFind");
    replaceGrid->addWidget(m_replace.find, 0, 1);
    row = AddUnitRows(replaceGrid, 1, replaceGroup, "replace", m_replace, false);
    replaceGrid->addWidget(new QLabel("Comment", replaceGroup), row, 0);
    m_replace.comment = new QLineEdit(replaceGroup);
    m_replace.comment->setObjectName("replaceComment");
    replaceGrid->addWidget(m_replace.comment, row, 1);
    auto* replaceTest = TestButton(replaceGroup, "replaceTest");
    replaceGrid->addWidget(replaceTest, row, 2);
    layout->addWidget(replaceGroup);

    auto* sampleGroup = new QGroupBox("Text for test", this);
    auto* sampleRow = new QHBoxLayout(sampleGroup);
    m_sample = new QPlainTextEdit(sampleGroup);
    m_sample->setObjectName("sample");
    m_sample->setMaximumHeight(70);
    sampleRow->addWidget(m_sample, 1);
    auto* ruleTest = TestButton(sampleGroup, "ruleTest");
    sampleRow->addWidget(ruleTest, 0, Qt::AlignTop);
    layout->addWidget(sampleGroup);

    auto* buttons = new QHBoxLayout();
    buttons->addStretch(1);
    auto* close = new QPushButton(Str(23), this);
    close->setObjectName("close");
    close->setDefault(true);
    buttons->addWidget(close);
    layout->addLayout(buttons);

    Fill();

    for (QCheckBox* box :
         {m_main.compareOn, m_main.replaceOn, m_sub.compareOn, m_sub.replaceOn, m_replace.compareOn,
          m_replace.replaceOn, m_replaceEnable, m_subEnable, m_popUp}) {
        connect(box, &QCheckBox::toggled, this, [this] { FollowChecks(); });
    }
    connect(m_subList, &QTreeWidget::currentItemChanged, this,
            [this](QTreeWidgetItem* item) { ShowSubRule(SubRuleOf(item)); });
    connect(m_subList, &QTreeWidget::customContextMenuRequested, this, [this](const QPoint& pos) {
        QMenu menu;
        connect(menu.addAction(Str(5960)), &QAction::triggered, this, [this] { NewSubRule(); });
        connect(menu.addAction(Str(5962)), &QAction::triggered, this, [this] { DeleteSubRule(); });
        menu.exec(m_subList->viewport()->mapToGlobal(pos));
    });
    connect(update, &QPushButton::clicked, this, [this] { UpdateSubRule(); });
    connect(mainTest, &QPushButton::clicked, this, [this] { TestMain(); });
    connect(subTest, &QPushButton::clicked, this, [this] { TestSubRule(); });
    connect(replaceTest, &QPushButton::clicked, this, [this] { TestReplace(); });
    connect(ruleTest, &QPushButton::clicked, this, [this] { TestWholeRule(); });
    connect(close, &QPushButton::clicked, this, [this] { CloseEditor(); });
}

void RuleEditor::Fill() {
    m_enable->setChecked(m_rule.enable != 0);
    m_name->setText(FromStd(m_rule.name));
    (m_rule.direction ? m_outgoing : m_incoming)->setChecked(true);
    m_fullContent->setChecked(m_rule.recurse != 0);
    m_log->setChecked(m_rule.log != 0);
    m_popUp->setChecked(m_rule.popUp != 0);
    for (const std::string& group : content::DistinctGroups(m_settings)) {
        m_group->addItem(FromStd(group));
    }
    m_group->setCurrentText(FromStd(m_rule.group));
    m_main.Show(content::FieldsOfUnit(m_rule.main));
    m_replace.Show(content::FieldsOfUnit(m_rule.replace));
    m_replaceEnable->setChecked(m_rule.replace.enable != 0);
    for (const auto& subRule : m_rule.subRules) {
        AddSubLine(*subRule, nullptr);
    }
    m_subList->setCurrentItem(m_subList->topLevelItem(0));
    ShowSubRule(SubRuleOf(m_subList->topLevelItem(0)));
    FollowChecks();
}

void RuleEditor::FollowChecks() {
    auto follow = [](const UnitControls& unit) {
        unit.compare->setEnabled(unit.compareOn->isChecked() && unit.compareOn->isEnabled());
        unit.replace->setEnabled(unit.replaceOn->isChecked() && unit.replaceOn->isEnabled());
    };
    follow(m_main);
    // The replace group's "Find" switches the whole replace unit.
    const bool replaceOn = m_replaceEnable->isChecked();
    for (QWidget* field : std::initializer_list<QWidget*>{m_replace.find, m_replace.compareOn,
                                                          m_replace.replaceOn, m_replace.comment}) {
        field->setEnabled(replaceOn);
    }
    follow(m_replace);
    m_sub.comment->setEnabled(m_subEnable->isChecked());
    follow(m_sub);
    m_group->setEnabled(m_popUp->isChecked());
}

void RuleEditor::SetSubLine(QTreeWidgetItem* item, const content::RegRuleMatcher& unit) {
    item->setText(0, FromStd(unit.comment));
    item->setCheckState(0, unit.enable ? Qt::Checked : Qt::Unchecked);
}

QTreeWidgetItem* RuleEditor::AddSubLine(content::RegRuleMatcher& unit, QTreeWidgetItem* before) {
    auto* item = new QTreeWidgetItem();
    item->setData(0, kSubRuleRole, QVariant::fromValue(reinterpret_cast<quintptr>(&unit)));
    SetSubLine(item, unit);
    const int index = before ? m_subList->indexOfTopLevelItem(before) : -1;
    if (index < 0) {
        m_subList->addTopLevelItem(item);
    } else {
        m_subList->insertTopLevelItem(index, item);
    }
    return item;
}

content::RegRuleMatcher* RuleEditor::SelectedSubRule() const {
    return SubRuleOf(m_subList->currentItem());
}

void RuleEditor::ShowSubRule(content::RegRuleMatcher* unit) {
    if (!unit) {
        m_sub.Show(content::UnitFields{});
        m_subEnable->setChecked(false);
        return;
    }
    m_sub.Show(content::FieldsOfUnit(*unit));
    m_subEnable->setChecked(unit->enable != 0);
}

void RuleEditor::NewSubRule() {
    QTreeWidgetItem* selected = m_subList->currentItem();
    content::RegRuleMatcher& unit = m_rule.InsertSubRule(SubRuleOf(selected));
    m_subList->setCurrentItem(AddSubLine(unit, selected));
}

void RuleEditor::DeleteSubRule() {
    QTreeWidgetItem* selected = m_subList->currentItem();
    if (!selected) {
        return;
    }
    if (core::CurrentMessages().MessageBox(core::LoadString(5970), core::LoadString(19),
                                           core::MB_YESNO | core::MB_ICONQUESTION) != core::IDYES) {
        return;
    }
    content::RegRuleMatcher* unit = SubRuleOf(selected);
    delete selected;  // the selection moves on before the unit goes
    m_rule.RemoveSubRule(unit);
}

int RuleEditor::ApplyMain() {
    return content::ApplyUnitFields(m_rule.main, m_main.Read(), content::kMainRuleCaption);
}

int RuleEditor::ApplyReplace() {
    content::UnitFields fields = m_replace.Read();
    if (content::ApplyUnitFields(m_rule.replace, fields, content::kReplaceRuleCaption) != 0) {
        return 1;
    }
    m_rule.replace.enable = m_replaceEnable->isChecked() ? 1 : 0;
    return 0;
}

int RuleEditor::ApplySelectedSubRule() {
    content::RegRuleMatcher* unit = SelectedSubRule();
    if (!unit) {
        return 0;
    }
    if (content::ApplyUnitFields(*unit, m_sub.Read(), content::kSubRuleCaption) != 0) {
        return 1;
    }
    unit->enable = m_subEnable->isChecked() ? 1 : 0;
    SetSubLine(m_subList->currentItem(), *unit);
    return 0;
}

int RuleEditor::UpdateSubRule() {
    return ApplySelectedSubRule();
}

void RuleEditor::CopyRuleFields() {
    m_rule.enable = m_enable->isChecked() ? 1 : 0;
    m_rule.name = ToStd(m_name->text());
    m_rule.direction = m_outgoing->isChecked() ? 1 : 0;
    m_rule.recurse = m_fullContent->isChecked() ? 1 : 0;
    m_rule.log = m_log->isChecked() ? 1 : 0;
    m_rule.replace.enable = m_replaceEnable->isChecked() ? 1 : 0;
    m_rule.popUp = m_popUp->isChecked() ? 1 : 0;
    m_rule.group = ToStd(m_group->currentText());
}

void RuleEditor::CloseEditor() {
    CopyRuleFields();
    if (ApplyMain() != 0 || ApplyReplace() != 0 || ApplySelectedSubRule() != 0) {
        return;
    }
    // A rule the store could not read back as it is stays in the editor.
    if (std::string problem = content::RuleStoreProblem(m_rule); !problem.empty()) {
        core::CurrentMessages().MessageBox(problem, "q-Brix", core::MB_OK | core::MB_ICONERROR);
        return;
    }
    accept();
}

void RuleEditor::RunTester(content::RegRuleMatcher& unit, const UnitControls& controls) {
    if (m_runUnitTester(unit) != QDialog::Accepted) {
        return;
    }
    m_unitsChanged = true;
    controls.Show(content::FieldsOfUnit(unit));
}

void RuleEditor::TestMain() {
    if (ApplyMain() == 0) {
        RunTester(m_rule.main, m_main);
    }
}

void RuleEditor::TestSubRule() {
    content::RegRuleMatcher* unit = SelectedSubRule();
    if (!unit || ApplySelectedSubRule() != 0) {
        return;
    }
    RunTester(*unit, m_sub);
    SetSubLine(m_subList->currentItem(), *unit);
    m_subEnable->setChecked(unit->enable != 0);
}

void RuleEditor::TestReplace() {
    if (ApplyReplace() == 0) {
        RunTester(m_rule.replace, m_replace);
        m_replaceEnable->setChecked(m_rule.replace.enable != 0);
    }
}

void RuleEditor::TestWholeRule() {
    content::RuleTestFields fields;
    fields.enable = m_enable->isChecked();
    fields.name = ToStd(m_name->text());
    fields.outgoing = m_outgoing->isChecked();
    fields.fullContent = m_fullContent->isChecked();
    fields.log = m_log->isChecked();
    fields.replaceEnable = m_replaceEnable->isChecked();
    fields.main = m_main.Read();
    fields.replace = m_replace.Read();
    content::WholeRuleReport report;
    if (content::RunWholeRuleTest(m_rule, fields, EngineText(m_sample->toPlainText()), report) ==
        0) {
        m_showReport(report);
    }
}

}  // namespace qbrix::ui
