#include "ui/InternetLogPage.h"

#include <QTreeWidget>

#include "core/StringTable.h"
#include "events/LogSettings.h"
#include "ui/AnsiText.h"
#include "ui/Icons.h"
#include "ui/LogList.h"

namespace qbrix::ui {

namespace {

QString Str(int id) {
    return FromAnsi(core::LoadString(id));
}

}  // namespace

InternetLogPage::InternetLogPage(QWidget* parent) : PropertyPage(Str(113), parent) {
    setObjectName("InternetLogPage");
    m_list = MakeLogList(this, {Str(56), Str(65), Str(2), Str(4), Str(5)}, {150, 120, 120, 80, 80});
    AddDeleteLogMenu(m_list, [this] { DeleteLog(); });
}

void InternetLogPage::SetRedraw(bool on) {
    m_list->setUpdatesEnabled(on);
}

int InternetLogPage::RowCount() {
    return m_list->topLevelItemCount();
}

void InternetLogPage::DeleteLastRow() {
    DeleteBottomRow(m_list);
}

void InternetLogPage::InsertTopRow(const events::ActivityRow& row) {
    auto* item = new QTreeWidgetItem();
    const std::string* texts[] = {&row.application, &row.ruleName, &row.address, &row.date,
                                  &row.time};
    for (int column = 0; column < 5; ++column) {
        item->setText(column, FromAnsi(*texts[column]));
    }
    item->setToolTip(0, item->text(0));
    item->setIcon(0, ActivityIcon(row.icon));
    item->setData(0, kIconRole, row.icon);
    m_list->insertTopLevelItem(0, item);
}

void InternetLogPage::DeleteLog() {
    ui::DeleteLog(m_list, events::ReadInternetLogSettings().fileName);
}

}  // namespace qbrix::ui
