// The "Zones" page: the zone list with its context menu and keys (New, Edit, Delete, Import,
// Export) and the buttons "LAN", "Rules" and "Save", over `policy::ZonesPageModel`. The page is
// modified only where the model says so; leaving it with changes saves or reloads the zones.
#pragma once

#include "policy/ZonesPageModel.h"
#include "ui/PropertyPage.h"

class QTreeWidget;

namespace qbrix::ui {

class ZonesPage : public PropertyPage {
    Q_OBJECT
  public:
    // The filter of the exchange-file dialogs.
    static constexpr char kFileFilter[] = "Rule Files (*.xml)|*.xml|All Files (*.*)|*.*||";

    explicit ZonesPage(QWidget* parent = nullptr);

    bool HasUnsavedChanges() override { return m_model.Modified(); }
    void SaveOrDiscard(bool save) override;

    policy::ZonesPageModel& Model() { return m_model; }
    QTreeWidget* List() const { return m_list; }

    void NewZone();
    void EditZone();
    void DeleteZone();
    void ImportZone();
    void ExportZone();
    void Lan();
    void Rules();
    void Save();

  protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

  private:
    void ShowRows();
    void SelectionChanged();
    void ContextMenu(const QPoint& position);

    policy::ZonesPageModel m_model;
    QTreeWidget* m_list = nullptr;
    bool m_showing = false;
};

}  // namespace qbrix::ui
