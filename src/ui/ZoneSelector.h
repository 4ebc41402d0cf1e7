// The zone selectors on screen: a combo box seen through the policy's `ComboItems`, and the
// bindings of the panel's "Zone Override" and the Settings page's "Default Zone".
#pragma once

#include <memory>

#include "policy/ZoneCombo.h"
#include "ui/SettingsPage.h"

class QComboBox;

namespace qbrix::ui {

// A combo box as the item list of a `ZoneCombo`.
class ComboBoxItems : public policy::ComboItems {
  public:
    explicit ComboBoxItems(QComboBox* box) : m_box(box) {}
    void Clear() override;
    void Add(std::string_view text) override;
    int Count() const override;
    std::string Text(int index) const override;
    void Select(int index) override;
    int Selected() const override;

  private:
    QComboBox* m_box;
};

// Binds the "Zone Override" selector: filled with its empty first item and the stored choice,
// refilled whenever it drops down, and every choice is sent to the driver and stored at once.
// The binding lives as long as the combo box.
void BindOverrideSelector(QComboBox* box);

// The Settings page's default-zone list over the default-zone selector.
DefaultZoneBinding MakeDefaultZoneBinding();

}  // namespace qbrix::ui
