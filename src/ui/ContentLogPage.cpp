#include "ui/ContentLogPage.h"

#include <QTabWidget>
#include <QTreeWidget>
#include <QVBoxLayout>

#include "core/StringTable.h"
#include "ui/ContentDetailsDialog.h"

namespace qbrix::ui {

namespace {

QString Str(int id) {
    return QString::fromStdString(core::LoadString(id));
}

}  // namespace

ContentLogPage::ContentLogPage(QWidget* parent) : PropertyPage(Str(112), parent) {
    setObjectName("ContentLogPage");
    m_runDetails = [this](const events::ContentEvent& event) {
        ContentDetailsDialog dialog(event, window());
        dialog.exec();
    };
    auto* layout = new QVBoxLayout(this);
    m_list = new QTreeWidget(this);
    m_list->setObjectName("list");
    m_list->setRootIsDecorated(false);
    m_list->setUniformRowHeights(true);
    m_list->setSelectionBehavior(QAbstractItemView::SelectRows);
    m_list->setHeaderLabels({Str(37), Str(39), Str(38), Str(40)});
    const int widths[] = {80, 150, 150, 200};
    for (int column = 0; column < 4; ++column) {
        m_list->setColumnWidth(column, widths[column]);
    }
    layout->addWidget(m_list);
}

void ContentLogPage::SetRedraw(bool on) {
    m_list->setUpdatesEnabled(on);
}

int ContentLogPage::RowCount() {
    return m_list->topLevelItemCount();
}

void ContentLogPage::DeleteLastRow() {
    if (m_list->topLevelItemCount() > 0) {
        delete m_list->takeTopLevelItem(m_list->topLevelItemCount() - 1);
    }
}

void ContentLogPage::InsertTopRow(const events::ContentRow& row) {
    auto* item = new QTreeWidgetItem();
    const std::string* texts[] = {&row.type, &row.name, &row.address, &row.quarantine};
    for (int column = 0; column < 4; ++column) {
        item->setText(column, QString::fromStdString(*texts[column]));
        item->setToolTip(column, item->text(column));
    }
    m_list->insertTopLevelItem(0, item);
}

void ContentLogPage::ShowDetails(const events::ContentEvent& event) {
    QWidget* panel = window();
    // The panel comes to the front with this page showing while the details are up.
    for (QWidget* ancestor = parentWidget(); ancestor; ancestor = ancestor->parentWidget()) {
        if (auto* tabs = qobject_cast<QTabWidget*>(ancestor)) {
            tabs->setCurrentWidget(this);
            break;
        }
    }
    panel->setWindowFlag(Qt::WindowStaysOnTopHint, true);
    panel->show();
    panel->raise();
    panel->activateWindow();
    m_runDetails(event);
    panel->setWindowFlag(Qt::WindowStaysOnTopHint, false);
    panel->show();
}

}  // namespace qbrix::ui
