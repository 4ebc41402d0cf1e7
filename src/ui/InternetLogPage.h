// The "Internet Log" page: the firewall's connection decisions, newest first. The activity poll
// fills it through ActivityLogView.
#pragma once

#include "events/PollActivity.h"
#include "ui/PropertyPage.h"

class QTreeWidget;

namespace qbrix::ui {

class InternetLogPage : public PropertyPage, public events::ActivityLogView {
    Q_OBJECT
  public:
    // Item data of a row's first column: the icon index.
    static constexpr int kIconRole = Qt::UserRole;

    explicit InternetLogPage(QWidget* parent = nullptr);

    void SetRedraw(bool on) override;
    int RowCount() override;
    void DeleteLastRow() override;
    void InsertTopRow(const events::ActivityRow& row) override;

    // The list's "Delete": after a confirmation, empties the page's log file and the list.
    void DeleteLog();

    QTreeWidget* List() const { return m_list; }

  private:
    QTreeWidget* m_list = nullptr;
};

}  // namespace qbrix::ui
