// The "Content Log" page: what the content processor found in Web and mail traffic, newest
// first. The content poll fills it through ContentLogView; the page only shows rows and, for
// the kinds that ask for it, pops the panel up with the event's details.
#pragma once

#include <functional>

#include "events/PollContent.h"
#include "ui/PropertyPage.h"

class QTreeWidget;

namespace qbrix::ui {

class ContentLogPage : public PropertyPage, public events::ContentLogView {
    Q_OBJECT
  public:
    // Shows the details dialog modally.
    using DetailsRunner = std::function<void(const events::ContentEvent& event)>;

    explicit ContentLogPage(QWidget* parent = nullptr);

    void SetRedraw(bool on) override;
    int RowCount() override;
    void DeleteLastRow() override;
    void InsertTopRow(const events::ContentRow& row) override;
    void ShowDetails(const events::ContentEvent& event) override;

    // Tests replace the modal dialog.
    void SetDetailsRunner(DetailsRunner runner) { m_runDetails = std::move(runner); }
    // The list's "Delete": after a confirmation, empties the page's log file and the list.
    void DeleteLog();

    QTreeWidget* List() const { return m_list; }

  private:
    QTreeWidget* m_list = nullptr;
    DetailsRunner m_runDetails;
};

}  // namespace qbrix::ui
