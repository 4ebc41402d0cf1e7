// The "Zone Editor" dialog: the widgets of `policy::ZoneEditorModel`. Every change the user
// makes goes into the model's fields at once; the model decides what is stored, what is
// enabled and what counts as a change.
#pragma once

#include <QDialog>
#include <string_view>

#include "policy/ZoneEditor.h"

class QCheckBox;
class QComboBox;
class QLineEdit;
class QListWidget;
class QPushButton;

namespace qbrix::ui {

class IpAddressEdit;

class ZoneEditorDialog : public QDialog {
    Q_OBJECT
  public:
    ZoneEditorDialog(policy::ZoneRecord& zone, std::string_view rulePrefix, const char* fixedName,
                     QWidget* parent = nullptr);

    policy::ZoneEditorModel& Model() { return m_model; }
    // Writes the zone back (once) and returns the editor's changed flag. An incomplete address
    // or mask leaves the rule's stored one in place.
    int Finish();
    bool Finished() const { return m_finished; }
    int ChangedFlag() const { return m_changedFlag; }

    // The list's commands, also on its context menu and keys.
    void NewRule();
    void DeleteRule();
    void ToggleRule();
    void UpdateRule();
    void AddressByName();

    void done(int result) override;

  protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

  private:
    void FillRows();
    void ShowFields();
    void ApplyStates();
    void ReadFields();
    // With "Address" ticked, the address and the mask must both be complete: otherwise beeps,
    // puts the cursor into the first blank field and answers false.
    bool AddressComplete();
    void RowChanged(int row);
    void ContextMenu(const QPoint& position);

    policy::ZoneEditorModel m_model;
    QLineEdit* m_zoneName = nullptr;
    QListWidget* m_rules = nullptr;
    QCheckBox* m_nameCheck = nullptr;
    QLineEdit* m_ruleName = nullptr;
    QCheckBox* m_protocolCheck = nullptr;
    QComboBox* m_protocol = nullptr;
    QLineEdit* m_host = nullptr;
    QPushButton* m_addressByName = nullptr;
    QCheckBox* m_addressCheck = nullptr;
    IpAddressEdit* m_address = nullptr;
    IpAddressEdit* m_mask = nullptr;
    QCheckBox* m_portCheck = nullptr;
    QLineEdit* m_port = nullptr;
    QCheckBox* m_directionCheck = nullptr;
    QComboBox* m_direction = nullptr;
    QComboBox* m_result = nullptr;
    QComboBox* m_zoneResult = nullptr;
    bool m_showing = false;
    bool m_finished = false;
    int m_changedFlag = 0;
};

// The launcher the program installs: the dialog, put in front of the user by the current
// presenter.
class QtZoneEditorLauncher : public policy::ZoneEditorLauncher {
  public:
    int Edit(policy::ZoneRecord& zone, std::string_view rulePrefix, void* parent,
             const char* fixedName) override;
};

}  // namespace qbrix::ui
