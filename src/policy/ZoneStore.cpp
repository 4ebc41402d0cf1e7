#include "policy/ZoneStore.h"

#include <cstring>
#include <string>
#include <vector>

#include "platform/Registry.h"

#include "core/Messages.h"
#include "core/RegistryPaths.h"
#include "driver/DriverControl.h"
#include "platform/Platform.h"
#include "policy/LanDiscovery.h"
#include "policy/PresetZones.h"
#include "policy/ZoneEditor.h"
#include "policy/ZoneRules.h"

namespace qbrix::policy {

int g_newZoneCounter = 0;

namespace {

constexpr platform::DWORD kZoneNameBufferSize = 999;

std::vector<std::string> ZoneValueNames(core::RegistryKey& key) {
    std::vector<std::string> names;
    for (platform::DWORD index = 0;; ++index) {
        char name[kZoneNameBufferSize];
        platform::DWORD nameSize = sizeof name;
        if (platform::Current().Reg().EnumValue(key.Handle(), index, name, &nameSize, nullptr,
                                                nullptr, nullptr) != platform::ERROR_SUCCESS) {
            break;
        }
        names.emplace_back(name, nameSize);
    }
    return names;
}

void StoreZone(core::RegistryKey& key, const ZoneRecord& zone) {
    platform::Current().Reg().SetValueEx(key.Handle(), ZoneName(zone), platform::REG_BINARY,
                                         reinterpret_cast<const platform::BYTE*>(&zone),
                                         sizeof zone);
}

}  // namespace

void LoadZones() {
    core::RegistryKey key(core::kZoneListSuffix, core::kGuiRootPath);
    std::vector<std::string> names = ZoneValueNames(key);
    if (names.empty()) {
        CreateFirstRunZones(key);
        names = ZoneValueNames(key);
    }
    g_zones.Clear();
    for (const std::string& name : names) {
        ZoneRecord zone = EmptyZone();
        platform::DWORD type = 0;
        platform::DWORD size = sizeof zone;
        platform::LONG rc = platform::Current().Reg().QueryValueEx(
            key.Handle(), name, &type, reinterpret_cast<platform::BYTE*>(&zone), &size);
        if (rc == platform::ERROR_SUCCESS && type == platform::REG_BINARY && size == sizeof zone) {
            g_zones.Append(zone);
        }
    }
}

void SaveZones() {
    // One change of the store: an interrupted save leaves the old list or the new one.
    platform::RegistryTransaction transaction;
    {
        core::RegistryKey gui("", core::kGuiRootPath);
        if (gui.IsOpen()) {
            platform::Current().Reg().DeleteKey(gui.Handle(), core::kZoneListSuffix + 1);
        }
        core::RegistryKey key(core::kZoneListSuffix, core::kGuiRootPath);
        if (!key.IsOpen()) {
            return;
        }
        for (std::size_t i = 0; i < g_zones.Size(); ++i) {
            StoreZone(key, g_zones.At(i));
        }
    }
    transaction.Commit();
}

void ComposeZone(core::RegistryKey& key, const char* zoneName, const ZoneRecord& lanZone,
                 const ZoneRule& rule1, const ZoneRule& rule2, const ZoneRule& rule3,
                 const ZoneRule& rule4) {
    ZoneRecord zone = EmptyZone();
    driver::SetFieldText(zone.name, zoneName);
    zone.result = 1;
    int count = 0;
    for (const ZoneRule& rule : lanZone.rules) {
        if (rule.enabled != 0 && count < driver::kZoneRuleSlots) {
            zone.rules[count++] = rule;
        }
    }
    for (const ZoneRule* extra : {&rule1, &rule2, &rule3, &rule4}) {
        if (extra->enabled != 0 && count < driver::kZoneRuleSlots) {
            zone.rules[count++] = *extra;
        }
    }
    StoreZone(key, zone);
}

void CreateFirstRunZones(core::RegistryKey& key) {
    ZoneRecord lan = EmptyZone();
    if (DetectLan(lan) == 0) {
        int answer =
            core::CurrentMessages().MessageBox("Run Zone Wizard to configure Trusted Zone?",
                                               "q-Brix", core::MB_YESNO | core::MB_ICONQUESTION);
        if (answer == core::IDYES) {
            ZoneEditor(lan, kLanRulePrefix, nullptr, nullptr);
        }
        ZoneRule none = EmptyRule();
        ComposeZone(key, kLanOnlyZone, lan, LocalEnableRule(), none, none, none);
        ComposeZone(key, kLanInternetZone, lan, LocalEnableRule(), DnsEnableRule(),
                    DhcpEnableRule(), EnableOutRule());
        ZoneRecord download = EmptyZone();
        driver::SetFieldText(download.name, kLanDownloadZone);
        StoreZone(key, download);
    }
    const auto& presets = PresetZones();
    for (std::size_t i = 1; i < presets.size(); ++i) {
        StoreZone(key, presets[i]);
    }
}

int CommitZones() {
    SaveZones();
    std::vector<unsigned char> buffer(driver::kAppListBufferSize);
    int count =
        driver::ListAppRecords(driver::g_hDriver, buffer.data(), driver::kAppListBufferSize);
    int sent = 0;
    for (int i = 0; i < count; ++i) {
        AppRecord record;
        std::memcpy(&record, buffer.data() + i * sizeof(AppRecord), sizeof record);
        const ZoneRecord* zone = FindZone(ZoneName(record.zone));
        if (zone == nullptr) {
            continue;
        }
        std::memcpy(&record.zone, zone, sizeof(ZoneRecord));
        driver::SetAppRecord(driver::g_hDriver, record);
        ++sent;
    }
    return sent;
}

}  // namespace qbrix::policy
