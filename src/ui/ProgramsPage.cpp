#include "ui/ProgramsPage.h"

#include <QFile>
#include <QHeaderView>
#include <QKeyEvent>
#include <QMenu>
#include <QResizeEvent>
#include <QTabWidget>
#include <QTreeWidget>
#include <QVBoxLayout>
#include <cstring>

#include "core/DiagLog.h"
#include "core/Messages.h"
#include "driver/DriverControl.h"
#include "ui/AnsiText.h"
#include "ui/Icons.h"
#include "ui/PermissionDialog.h"

namespace qbrix::ui {

namespace {

enum Column { kName = 0, kZone = 1, kPath = 2, kImage = 3 };
constexpr int kZoneColumnWidth = 120;
// The name column leaves this much of the list's client width to the zone column and a margin.
constexpr int kNameColumnMargin = 240;

QString RecordText(const std::string& text) {
    return FromAnsi(text);
}

}  // namespace

ProgramsPage::ProgramsPage(QWidget* parent) : PropertyPage("Programs", parent) {
    setObjectName("ProgramsPage");
    auto* layout = new QVBoxLayout(this);
    m_list = new QTreeWidget(this);
    m_list->setObjectName("ProgramList");
    m_list->setColumnCount(4);
    m_list->setHeaderLabels({"Application Name", "Zone name", QString(), QString()});
    m_list->headerItem()->setTextAlignment(kZone, Qt::AlignCenter);
    m_list->setColumnHidden(kPath, true);
    m_list->setColumnHidden(kImage, true);
    m_list->setRootIsDecorated(false);
    m_list->setSelectionBehavior(QAbstractItemView::SelectRows);
    m_list->setIconSize(QSize(16, 16));
    m_list->setContextMenuPolicy(Qt::CustomContextMenu);
    m_list->header()->setStretchLastSection(false);
    m_list->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    m_list->installEventFilter(this);
    m_list->viewport()->installEventFilter(this);
    m_list->setColumnWidth(kZone, kZoneColumnWidth);
    layout->addWidget(m_list);

    connect(m_list, &QTreeWidget::itemDoubleClicked, this, [this] { EditProgram(); });
    connect(m_list, &QTreeWidget::currentItemChanged, this, &ProgramsPage::SelectionChanged);
    connect(m_list, &QTreeWidget::customContextMenuRequested, this, &ProgramsPage::ContextMenu);
    Fill();
}

void ProgramsPage::Fill() {
    m_model.Fill();
    ShowRows();
}

void ProgramsPage::ShowRows() {
    m_showing = true;
    const auto& rows = m_model.Rows();
    while (m_list->topLevelItemCount() > static_cast<int>(rows.size())) {
        delete m_list->takeTopLevelItem(m_list->topLevelItemCount() - 1);
    }
    for (int i = 0; i < static_cast<int>(rows.size()); ++i) {
        QTreeWidgetItem* item = m_list->topLevelItem(i);
        if (item == nullptr) {
            item = new QTreeWidgetItem(m_list);
        }
        const auto& row = rows[i];
        QString path = QFile::decodeName(row.path.c_str());
        if (item->text(kImage) != FromAnsi(row.imageName) || item->text(kPath) != path ||
            item->icon(kName).isNull()) {
            QIcon icon = ProgramFileIcon(row.path);
            item->setIcon(kName, icon.isNull() ? DefaultProgramIcon() : icon);
            ++m_iconsAdded;
        }
        item->setText(kName, RecordText(row.description));
        item->setText(kZone, RecordText(row.zoneName));
        item->setTextAlignment(kZone, Qt::AlignCenter);
        item->setText(kPath, path);
        item->setText(kImage, FromAnsi(row.imageName));
        item->setToolTip(kName, path.isEmpty() ? item->text(kImage) : path);
    }
    if (m_model.Selected() >= 0) {
        m_list->setCurrentItem(m_list->topLevelItem(m_model.Selected()));
    }
    m_showing = false;
}

void ProgramsPage::SelectionChanged() {
    if (!m_showing) {
        m_model.Select(m_list->indexOfTopLevelItem(m_list->currentItem()));
    }
}

int ProgramsPage::AddProgram(const policy::AppRecord& record) {
    int existed = m_model.AddProgram(record);
    ShowRows();
    std::string imageName(driver::FieldText(record.imageName));
    auto found = m_list->findItems(FromAnsi(imageName), Qt::MatchExactly, kImage);
    if (!found.isEmpty()) {
        m_list->scrollToItem(found[0]);
    }
    return existed;
}

void ProgramsPage::EditProgram() {
    if (m_model.EditProgram() != 0) {
        ShowRows();
    }
}

void ProgramsPage::DeleteProgram() {
    if (m_model.DeleteProgram() != 0) {
        ShowRows();
    }
}

void ProgramsPage::ContextMenu(const QPoint& position) {
    QMenu menu(this);
    menu.addAction("Edit", this, &ProgramsPage::EditProgram);
    menu.addAction("Delete", this, &ProgramsPage::DeleteProgram);
    menu.exec(m_list->viewport()->mapToGlobal(position));
}

bool ProgramsPage::eventFilter(QObject* watched, QEvent* event) {
    if (watched == m_list->viewport() && event->type() == QEvent::Resize) {
        // The name column follows the list's client width (with a floor for a tiny list).
        const int width = static_cast<QResizeEvent*>(event)->size().width();
        m_list->setColumnWidth(kName, qMax(kZoneColumnWidth, width - kNameColumnMargin));
    }
    if (watched == m_list && event->type() == QEvent::KeyPress) {
        int key = static_cast<QKeyEvent*>(event)->key();
        if (key == Qt::Key_Space) {
            EditProgram();
            return true;
        }
        if (key == Qt::Key_Delete) {
            DeleteProgram();
            return true;
        }
    }
    return PropertyPage::eventFilter(watched, event);
}

void ProgramsPage::BringPanelToFront(bool topmost) {
    QWidget* panel = window();
    if (panel == this) {
        return;  // not inside a panel
    }
    panel->setWindowFlag(Qt::WindowStaysOnTopHint, topmost);
    if (!topmost) {
        // Changing the flag hides a visible window; it stays where the prompt put it.
        panel->show();
        return;
    }
    panel->show();
    panel->raise();
    panel->activateWindow();
    for (QWidget* up = parentWidget(); up != nullptr; up = up->parentWidget()) {
        if (auto* tabs = qobject_cast<QTabWidget*>(up)) {
            tabs->setCurrentWidget(this);
            break;
        }
    }
}

void ProgramsPage::AskPendingApplication() {
    if (m_asking) {
        return;
    }
    m_asking = true;
    bool asked = false;
    bool taken = policy::AskPendingApplication(m_model, [this, &asked] {
        asked = true;
        ShowRows();
        core::CurrentMessages().Beep(core::MB_OK);
        BringPanelToFront(true);
    });
    if (asked) {
        BringPanelToFront(false);
    }
    if (taken) {
        ShowRows();
    }
    m_asking = false;
}

}  // namespace qbrix::ui
