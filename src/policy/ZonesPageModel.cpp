#include "policy/ZonesPageModel.h"

#include <memory>

#include "core/Messages.h"
#include "core/RegistryKey.h"
#include "platform/Text.h"
#include "policy/LanDiscovery.h"
#include "policy/RuleGroupCorrector.h"
#include "policy/ZoneEditor.h"
#include "policy/ZoneExchange.h"
#include "policy/ZoneRules.h"
#include "policy/ZoneStore.h"

namespace qbrix::policy {

namespace {

bool Ask(const char* question) {
    return core::CurrentMessages().MessageBox(
               question, "q-Brix", core::MB_YESNO | core::MB_ICONQUESTION) == core::IDYES;
}

}  // namespace

void ZonesPageModel::Initialize() {
    LoadZones();
    Refill();
    Select(0);
}

void ZonesPageModel::Refill() {
    m_rows.clear();
    for (std::size_t i = 0; i < g_zones.Size(); ++i) {
        m_rows.push_back({std::string(ZoneName(g_zones.At(i))), &g_zones.At(i)});
    }
    Select(m_selected < 0 && Count() > 0 ? 0 : m_selected);
}

void ZonesPageModel::Edit(void* parent) {
    if (m_selected < 0) {
        return;
    }
    Row& row = m_rows[m_selected];
    if (ZoneEditor(*row.zone, kRulePrefix, parent, nullptr) != 0) {
        m_modified = true;
    }
    row.text = std::string(ZoneName(*row.zone));
}

void ZonesPageModel::New(void* parent) {
    ZoneRecord zone = EmptyZone();
    ++g_newZoneCounter;
    driver::SetFieldText(zone.name, "Zone " + std::to_string(g_newZoneCounter));
    ZoneRecord& added = g_zones.Append(zone);
    ZoneEditor(added, kRulePrefix, parent, nullptr);
    m_rows.push_back({std::string(ZoneName(added)), &added});
    Select(Count() - 1);
    m_modified = true;
}

int ZonesPageModel::Delete() {
    if (m_selected < 0 || !Ask("Delete Zone?")) {
        return 0;
    }
    int index = m_selected;
    g_zones.Remove(m_rows[index].zone);
    m_rows.erase(m_rows.begin() + index);
    Select(index < Count() ? index : Count() - 1);
    m_modified = true;
    return 1;
}

int ZonesPageModel::Import(const std::string& path) {
    auto zone = std::make_unique<ZoneRecord>(EmptyZone());
    if (ImportZone(*zone, path) != 0) {
        return 0;
    }
    int index = -1;
    for (int i = 0; i < Count() && index < 0; ++i) {
        if (platform::EqualsIgnoreCase(m_rows[i].text, ZoneName(*zone))) {
            index = i;
        }
    }
    if (index >= 0) {
        if (!Ask("Overwrite existing Rule?")) {
            return 0;
        }
        g_zones.Remove(m_rows[index].zone);
    } else {
        m_rows.push_back({std::string(ZoneName(*zone)), nullptr});
        index = Count() - 1;
    }
    m_rows[index].zone = &g_zones.Append(std::move(zone));
    Select(index);
    m_modified = true;
    return 1;
}

std::string ZonesPageModel::ExportFileName() const {
    return m_selected < 0 ? std::string() : MakeExportFileName(ZoneName(*m_rows[m_selected].zone));
}

int ZonesPageModel::Export(const std::string& path) const {
    if (m_selected < 0) {
        return 0;
    }
    ExportZone(*m_rows[m_selected].zone, path);
    return 1;
}

void ZonesPageModel::Lan(void* parent) {
    if (UpdateLanZones(parent) != 0) {
        Refill();
        m_modified = true;
    }
}

void ZonesPageModel::Rules(void* parent) {
    if (CorrectRuleGroups(parent) != 0) {
        Refill();
        m_modified = true;
    }
}

void ZonesPageModel::Save() {
    platform::LONG saved = 0;
    CommitZones(&saved);
    if (saved != 0) {
        // The zones stay as shown and still count as changed.
        core::CurrentMessages().MessageBox(
            "The zones could not be saved: " + core::StoreFailureText(saved) + ".", "q-Brix",
            core::MB_OK | core::MB_ICONERROR);
        return;
    }
    m_modified = false;
}

void ZonesPageModel::Leave(bool save) {
    if (save) {
        Save();
        return;
    }
    LoadZones();
    m_selected = -1;
    Refill();
    m_modified = false;
}

}  // namespace qbrix::policy
