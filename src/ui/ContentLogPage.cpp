#include "ui/ContentLogPage.h"

#include <QFile>
#include <QTabWidget>
#include <QTreeWidget>

#include "core/StringTable.h"
#include "events/LogSettings.h"
#include "ui/AnsiText.h"
#include "ui/ContentDetailsDialog.h"
#include "ui/DialogPresenter.h"
#include "ui/LogList.h"

namespace qbrix::ui {

namespace {

QString Str(int id) {
    return FromAnsi(core::LoadString(id));
}

}  // namespace

ContentLogPage::ContentLogPage(QWidget* parent) : PropertyPage(Str(112), parent) {
    setObjectName("ContentLogPage");
    m_runDetails = [this](const events::ContentEvent& event) {
        ContentDetailsDialog dialog(event, window());
        CurrentPresenter().Present(dialog);
    };
    m_list = MakeLogList(this, {Str(37), Str(39), Str(38), Str(40)}, {80, 150, 150, 200});
    AddDeleteLogMenu(m_list, [this] { DeleteLog(); });
}

void ContentLogPage::SetRedraw(bool on) {
    m_list->setUpdatesEnabled(on);
}

int ContentLogPage::RowCount() {
    return m_list->topLevelItemCount();
}

void ContentLogPage::DeleteLastRow() {
    DeleteBottomRow(m_list);
}

void ContentLogPage::InsertTopRow(const events::ContentRow& row) {
    auto* item = new QTreeWidgetItem();
    const std::string* texts[] = {&row.type, &row.name, &row.address, &row.quarantine};
    for (int column = 0; column < 4; ++column) {
        item->setText(column, column == 3 ? QFile::decodeName(texts[column]->c_str())
                                          : FromAnsi(*texts[column]));
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

void ContentLogPage::DeleteLog() {
    ui::DeleteLog(m_list, events::ReadContentLogSettings().fileName);
}

}  // namespace qbrix::ui
