#include "ui/ZonesPage.h"

#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QKeyEvent>
#include <QLabel>
#include <QMenu>
#include <QPushButton>
#include <QTreeWidget>
#include <QVBoxLayout>

#include "core/Messages.h"
#include "ui/AnsiText.h"

namespace qbrix::ui {

ZonesPage::ZonesPage(QWidget* parent) : PropertyPage("Zones", parent) {
    setObjectName("ZonesPage");
    auto* layout = new QVBoxLayout(this);
    auto* group = new QGroupBox("Zone List", this);
    auto* groupLayout = new QVBoxLayout(group);
    m_list = new QTreeWidget(group);
    m_list->setObjectName("ZoneList");
    m_list->setColumnCount(1);
    m_list->setHeaderLabels({"Zone name"});
    m_list->setRootIsDecorated(false);
    m_list->setContextMenuPolicy(Qt::CustomContextMenu);
    m_list->installEventFilter(this);
    groupLayout->addWidget(m_list, 1);
    auto* hint = new QLabel(
        "Double-click a zone to edit its rules; right-click for New, Delete, Import and Export.",
        group);
    hint->setWordWrap(true);
    groupLayout->addWidget(hint);

    auto* buttons = new QHBoxLayout();
    auto addButton = [&](const char* text, void (ZonesPage::*handler)()) {
        auto* button = new QPushButton(text, group);
        button->setObjectName(text);
        button->setAutoDefault(false);
        connect(button, &QPushButton::clicked, this, handler);
        buttons->addWidget(button);
    };
    addButton("LAN", &ZonesPage::Lan);
    addButton("Rules", &ZonesPage::Rules);
    buttons->addStretch(1);
    addButton("Save", &ZonesPage::Save);
    groupLayout->addLayout(buttons);
    layout->addWidget(group);

    connect(m_list, &QTreeWidget::itemDoubleClicked, this, [this] { EditZone(); });
    connect(m_list, &QTreeWidget::currentItemChanged, this, &ZonesPage::SelectionChanged);
    connect(m_list, &QTreeWidget::customContextMenuRequested, this, &ZonesPage::ContextMenu);

    m_model.Initialize();
    ShowRows();
}

void ZonesPage::ShowRows() {
    m_showing = true;
    m_list->clear();
    for (const auto& row : m_model.Rows()) {
        auto* item = new QTreeWidgetItem(m_list);
        item->setText(0, FromAnsi(row.text));
    }
    if (m_model.Selected() >= 0) {
        QTreeWidgetItem* item = m_list->topLevelItem(m_model.Selected());
        m_list->setCurrentItem(item);
        m_list->scrollToItem(item);
    }
    m_showing = false;
}

void ZonesPage::SelectionChanged() {
    if (!m_showing) {
        m_model.Select(m_list->indexOfTopLevelItem(m_list->currentItem()));
    }
}

void ZonesPage::SaveOrDiscard(bool save) {
    m_model.Leave(save);
    ShowRows();
}

void ZonesPage::NewZone() {
    m_model.New(this);
    ShowRows();
}

void ZonesPage::EditZone() {
    m_model.Edit(this);
    ShowRows();
}

void ZonesPage::DeleteZone() {
    if (m_model.Delete() != 0) {
        ShowRows();
    }
}

void ZonesPage::ImportZone() {
    std::string path = core::CurrentMessages().AskOpenFileName("Import", kFileFilter, "xml");
    if (!path.empty() && m_model.Import(path) != 0) {
        ShowRows();
    }
}

void ZonesPage::ExportZone() {
    if (m_model.Selected() < 0) {
        return;
    }
    std::string path = core::CurrentMessages().AskSaveFileName("Export", kFileFilter, "xml",
                                                               m_model.ExportFileName());
    if (!path.empty()) {
        m_model.Export(path);
    }
}

void ZonesPage::Lan() {
    m_model.Lan(this);
    ShowRows();
}

void ZonesPage::Rules() {
    m_model.Rules(this);
    ShowRows();
}

void ZonesPage::Save() {
    m_model.Save();
}

void ZonesPage::ContextMenu(const QPoint& position) {
    QMenu menu(this);
    menu.addAction("New", this, &ZonesPage::NewZone);
    menu.addAction("Edit", this, &ZonesPage::EditZone);
    menu.addAction("Delete", this, &ZonesPage::DeleteZone);
    menu.addSeparator();
    menu.addAction("Import", this, &ZonesPage::ImportZone);
    menu.addAction("Export", this, &ZonesPage::ExportZone);
    menu.exec(m_list->viewport()->mapToGlobal(position));
}

bool ZonesPage::eventFilter(QObject* watched, QEvent* event) {
    if (watched == m_list && event->type() == QEvent::KeyPress) {
        switch (static_cast<QKeyEvent*>(event)->key()) {
            case Qt::Key_Space:
                EditZone();
                return true;
            case Qt::Key_Insert:
                NewZone();
                return true;
            case Qt::Key_Delete:
                DeleteZone();
                return true;
            default:
                break;
        }
    }
    return PropertyPage::eventFilter(watched, event);
}

}  // namespace qbrix::ui
