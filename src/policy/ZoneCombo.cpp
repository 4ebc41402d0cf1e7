#include "policy/ZoneCombo.h"

#include <cstring>

#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "driver/DriverControl.h"
#include "platform/Text.h"
#include "policy/ZoneStore.h"

namespace qbrix::policy {

void ComboItemList::Clear() {
    m_items.clear();
    m_selected = -1;
}

void ComboItemList::Add(std::string_view text) {
    m_items.emplace_back(text);
}

std::string ComboItemList::Text(int index) const {
    return index >= 0 && index < Count() ? m_items[index] : std::string();
}

void ComboItemList::Select(int index) {
    m_selected = index >= 0 && index < Count() ? index : -1;
}

void ZoneCombo::Fill(const char* extraItem, const char* nameToSelect) {
    m_items.Clear();
    if (extraItem != nullptr) {
        m_items.Add(extraItem);
    }
    if (g_zones.Empty()) {
        LoadZones();
    }
    for (std::size_t i = 0; i < g_zones.Size(); ++i) {
        m_items.Add(ZoneName(g_zones.At(i)));
    }
    std::string wanted;
    if (nameToSelect != nullptr) {
        wanted = nameToSelect;
    } else {
        core::RegistryKey key("", core::kGuiRootPath);
        wanted = key.GetString(ValueName(), nullptr);
    }
    int selected = -1;
    for (int i = 0; i < m_items.Count() && selected < 0; ++i) {
        if (platform::EqualsIgnoreCase(m_items.Text(i), wanted)) {
            selected = i;
        }
    }
    m_items.Select(selected);
}

int ZoneCombo::GetSelectedZone(ZoneRecord& zone) const {
    int selected = m_items.Selected();
    if (selected < 0) {
        return 1;
    }
    const ZoneRecord* found = FindZone(m_items.Text(selected));
    if (found == nullptr) {
        return 1;
    }
    std::memcpy(&zone, found, sizeof zone);
    return 0;
}

void ZoneCombo::ApplySelection() {
    ZoneRecord zone = EmptyZone();
    if (GetSelectedZone(zone) != 0) {
        zone = EmptyZone();
    }
    Apply(driver::g_hDriver, zone);
    core::RegistryKey key("", core::kGuiRootPath);
    key.SetString(ValueName(), ZoneName(zone));
}

int AppZoneCombo::Apply(platform::HANDLE, const ZoneRecord&) {
    return 1;
}

int DefaultZoneCombo::Apply(platform::HANDLE driver, const ZoneRecord& zone) {
    return driver::SetDefaultZone(driver, zone);
}

int OverrideZoneCombo::Apply(platform::HANDLE driver, const ZoneRecord& zone) {
    return driver::SetOverrideZone(driver, zone);
}

}  // namespace qbrix::policy
