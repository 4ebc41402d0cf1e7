// The "Programs" page: every application the driver knows with its bound zone, over
// `policy::ProgramList`, with Edit (double-click, Space) and Delete (the Delete key) and their
// context menu. It also runs the application prompt, the first step of every timer tick.
#pragma once

#include "policy/Permissions.h"
#include "ui/PropertyPage.h"

class QTreeWidget;

namespace qbrix::ui {

class ProgramsPage : public PropertyPage {
    Q_OBJECT
  public:
    // Reads the driver's application list.
    explicit ProgramsPage(QWidget* parent = nullptr);

    policy::ProgramList& Model() { return m_model; }
    QTreeWidget* List() const { return m_list; }
    // Icons added to the rows' image list so far (one per row refresh).
    int IconsAdded() const { return m_iconsAdded; }

    void Fill();
    // 1 when the application already had a row, 0 when one was added.
    int AddProgram(const policy::AppRecord& record);
    void EditProgram();
    void DeleteProgram();

    // One question from the driver: the program goes into the list; the product's own programs
    // get the allow-all zone, any other brings the panel to the front on this page with a beep
    // and asks the user; the answer goes back whatever the user did. A question that arrives
    // while one is being asked waits for the next tick.
    void AskPendingApplication();
    bool Asking() const { return m_asking; }

  protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

  private:
    void ShowRows();
    void SelectionChanged();
    void ContextMenu(const QPoint& position);
    void BringPanelToFront(bool topmost);

    policy::ProgramList m_model;
    QTreeWidget* m_list = nullptr;
    bool m_showing = false;
    bool m_asking = false;
    int m_iconsAdded = 0;
};

}  // namespace qbrix::ui
