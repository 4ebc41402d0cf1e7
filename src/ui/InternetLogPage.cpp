#include "ui/InternetLogPage.h"

#include <QTreeWidget>
#include <QVBoxLayout>

#include "core/StringTable.h"
#include "ui/Icons.h"

namespace qbrix::ui {

namespace {

QString Str(int id) {
    return QString::fromStdString(core::LoadString(id));
}

}  // namespace

InternetLogPage::InternetLogPage(QWidget* parent) : PropertyPage(Str(113), parent) {
    setObjectName("InternetLogPage");
    auto* layout = new QVBoxLayout(this);
    m_list = new QTreeWidget(this);
    m_list->setObjectName("list");
    m_list->setRootIsDecorated(false);
    m_list->setUniformRowHeights(true);
    m_list->setSelectionBehavior(QAbstractItemView::SelectRows);
    m_list->setHeaderLabels({Str(56), Str(65), Str(2), Str(4), Str(5)});
    const int widths[] = {150, 120, 120, 80, 80};
    for (int column = 0; column < 5; ++column) {
        m_list->setColumnWidth(column, widths[column]);
    }
    layout->addWidget(m_list);
}

void InternetLogPage::SetRedraw(bool on) {
    m_list->setUpdatesEnabled(on);
}

int InternetLogPage::RowCount() {
    return m_list->topLevelItemCount();
}

void InternetLogPage::DeleteLastRow() {
    if (m_list->topLevelItemCount() > 0) {
        delete m_list->takeTopLevelItem(m_list->topLevelItemCount() - 1);
    }
}

void InternetLogPage::InsertTopRow(const events::ActivityRow& row) {
    auto* item = new QTreeWidgetItem();
    const std::string* texts[] = {&row.application, &row.ruleName, &row.address, &row.date,
                                  &row.time};
    for (int column = 0; column < 5; ++column) {
        item->setText(column, QString::fromStdString(*texts[column]));
    }
    item->setToolTip(0, item->text(0));
    item->setIcon(0, ActivityIcon(row.icon));
    item->setData(0, kIconRole, row.icon);
    m_list->insertTopLevelItem(0, item);
}

}  // namespace qbrix::ui
