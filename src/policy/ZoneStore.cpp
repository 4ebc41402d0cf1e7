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

// The zone names in index order; the enumeration ends at the end of the values or at a name
// that does not fit. 0, or the store's error.
platform::LONG ZoneValueNames(core::RegistryKey& key, std::vector<std::string>& names) {
    names.clear();
    for (platform::DWORD index = 0;; ++index) {
        char name[kZoneNameBufferSize];
        platform::DWORD nameSize = sizeof name;
        platform::LONG rc = platform::Current().Reg().EnumValue(
            key.Handle(), index, name, &nameSize, nullptr, nullptr, nullptr);
        if (rc == static_cast<platform::LONG>(platform::ERROR_NO_MORE_ITEMS) ||
            rc == static_cast<platform::LONG>(platform::ERROR_MORE_DATA)) {
            return 0;
        }
        if (rc != 0) {
            return rc;
        }
        names.emplace_back(name, nameSize);
    }
}

platform::LONG StoreZone(core::RegistryKey& key, const ZoneRecord& zone) {
    return platform::Current().Reg().SetValueEx(key.Handle(), ZoneName(zone), platform::REG_BINARY,
                                                reinterpret_cast<const platform::BYTE*>(&zone),
                                                sizeof zone);
}

}  // namespace

platform::LONG LoadZones(FirstRun firstRun) {
    g_zones.Clear();
    core::RegistryKey key;
    std::vector<std::string> names;
    platform::LONG rc = key.Open(core::kZoneListSuffix, core::kGuiRootPath);
    if (rc == 0) {
        rc = ZoneValueNames(key, names);
    }
    if (rc == 0 && names.empty()) {
        CreateFirstRunZones(key, firstRun);
        rc = ZoneValueNames(key, names);
    }
    if (rc != 0) {
        return rc;
    }
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
    return 0;
}

platform::LONG SaveZones() {
    // One change of the store: an interrupted or failed save leaves the old list.
    platform::RegistryTransaction transaction;
    if (!transaction.Active()) {
        return transaction.BeginResult();
    }
    {
        core::RegistryKey gui;
        platform::LONG rc = gui.Open("", core::kGuiRootPath);
        if (rc == 0) {
            rc = platform::Current().Reg().DeleteKey(gui.Handle(), core::kZoneListSuffix + 1);
            if (rc == static_cast<platform::LONG>(platform::ERROR_FILE_NOT_FOUND)) {
                rc = 0;
            }
        }
        core::RegistryKey key;
        rc = rc != 0 ? rc : key.Open(core::kZoneListSuffix, core::kGuiRootPath);
        for (std::size_t i = 0; rc == 0 && i < g_zones.Size(); ++i) {
            rc = StoreZone(key, g_zones.At(i));
        }
        if (rc != 0) {
            return rc;  // the transaction rolls back
        }
    }
    return transaction.Commit();
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

void CreateFirstRunZones(core::RegistryKey& key, FirstRun firstRun) {
    ZoneRecord lan = EmptyZone();
    if (DetectLan(lan) == 0) {
        int answer = firstRun == FirstRun::NoWizard
                         ? core::IDNO
                         : core::CurrentMessages().MessageBox(
                               "Run Zone Wizard to configure Trusted Zone?", "q-Brix",
                               core::MB_YESNO | core::MB_ICONQUESTION);
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

int CommitZones(platform::LONG* saved) {
    platform::LONG rc = SaveZones();
    if (saved != nullptr) {
        *saved = rc;
    }
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
