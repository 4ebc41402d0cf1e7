// The zone selector: a drop-down list of zone names bound to one registry value under the GUI
// key. The list itself is an abstract `ComboItems` so that the same logic drives the user
// interface's combo boxes and the tests. Three variants: the application zone (permissions
// dialog), the default zone (settings) and the override zone (control panel).
#pragma once

#include <string>
#include <string_view>

#include "platform/Handles.h"
#include "policy/ZoneList.h"

namespace qbrix::policy {

// The items of a drop-down list, by position.
class ComboItems {
  public:
    virtual ~ComboItems() = default;
    virtual void Clear() = 0;
    virtual void Add(std::string_view text) = 0;
    virtual int Count() const = 0;
    virtual std::string Text(int index) const = 0;
    // -1 selects nothing.
    virtual void Select(int index) = 0;
    // -1 when nothing is selected.
    virtual int Selected() const = 0;
};

// A plain in-memory list, for callers without a widget.
class ComboItemList : public ComboItems {
  public:
    void Clear() override;
    void Add(std::string_view text) override;
    int Count() const override { return static_cast<int>(m_items.size()); }
    std::string Text(int index) const override;
    void Select(int index) override;
    int Selected() const override { return m_selected; }

  private:
    std::vector<std::string> m_items;
    int m_selected = -1;
};

class ZoneCombo {
  public:
    explicit ZoneCombo(ComboItems& items) : m_items(items) {}
    virtual ~ZoneCombo() = default;

    // Hands the chosen zone to its consumer.
    virtual int Apply(platform::HANDLE driver, const ZoneRecord& zone) = 0;
    // The REG_SZ value under the GUI key that remembers the choice.
    virtual std::string ValueName() const = 0;

    // Refills the list: the extra item (when given), then every zone name in list order (the
    // zones are loaded first when the list is empty); then selects the first item equal,
    // ignoring case, to `nameToSelect` or, without one, to the stored choice. Nothing is
    // selected when no item equals it.
    void Fill(const char* extraItem, const char* nameToSelect);
    // 0 and the zone copied out when an item is selected and FindZone finds its text exactly.
    int GetSelectedZone(ZoneRecord& zone) const;
    // Applies the selected zone (an all-zero one when there is none) with g_hDriver and stores
    // its name under ValueName().
    void ApplySelection();

    ComboItems& Items() { return m_items; }

  private:
    ComboItems& m_items;
};

// "Permissions for Application": applies nothing.
class AppZoneCombo : public ZoneCombo {
  public:
    using ZoneCombo::ZoneCombo;
    int Apply(platform::HANDLE driver, const ZoneRecord& zone) override;
    std::string ValueName() const override { return "DefZone"; }
};

// Settings, "Default Zone": SetDefaultZone.
class DefaultZoneCombo : public ZoneCombo {
  public:
    using ZoneCombo::ZoneCombo;
    int Apply(platform::HANDLE driver, const ZoneRecord& zone) override;
    std::string ValueName() const override { return "DefZone"; }
};

// Control panel, "Zone Override": SetOverrideZone; filled with one empty first item that means
// no override.
class OverrideZoneCombo : public ZoneCombo {
  public:
    using ZoneCombo::ZoneCombo;
    int Apply(platform::HANDLE driver, const ZoneRecord& zone) override;
    std::string ValueName() const override { return "OvrZone"; }
};

}  // namespace qbrix::policy
