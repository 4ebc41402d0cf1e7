#include "policy/LanDiscovery.h"

#include <cstring>
#include <string>
#include <vector>

#include "core/Messages.h"
#include "platform/IpHelper.h"
#include "policy/ZoneEditor.h"
#include "policy/ZoneRules.h"

namespace qbrix::policy {

int DetectLan(ZoneRecord& zone) {
    driver::SetFieldText(zone.name, kLanZoneName);
    zone.result = 1;
    // The table is read into one fixed buffer; no second attempt is made when it is too small.
    alignas(platform::MIB_IPADDRTABLE) unsigned char buffer[kAddressTableBufferSize] = {};
    auto* table = reinterpret_cast<platform::MIB_IPADDRTABLE*>(buffer);
    platform::ULONG size = sizeof buffer;
    if (platform::GetIpAddrTable(table, &size, 1) != platform::ERROR_SUCCESS) {
        return 1;
    }
    platform::DWORD rows = 0;
    std::memcpy(&rows, buffer, sizeof rows);
    constexpr std::size_t kRowRoom =
        (kAddressTableBufferSize - offsetof(platform::MIB_IPADDRTABLE, table)) /
        sizeof(platform::MIB_IPADDRROW);
    if (rows == 0 || rows > kRowRoom) {
        return 1;
    }
    int count = 0;
    for (platform::DWORD i = 0; i < rows; ++i) {
        platform::MIB_IPADDRROW row;
        std::memcpy(&row, buffer + offsetof(platform::MIB_IPADDRTABLE, table) + i * sizeof row,
                    sizeof row);
        if (row.dwAddr == 0) {
            continue;
        }
        std::string description = std::to_string(i + 1);
        platform::MIB_IFROW entry;
        std::memset(&entry, 0, sizeof entry);
        entry.dwIndex = row.dwIndex;
        if (platform::GetIfEntry(&entry) == platform::ERROR_SUCCESS) {
            std::size_t length = entry.dwDescrLen < 255 ? entry.dwDescrLen : 255;
            description.assign(reinterpret_cast<const char*>(entry.bDescr),
                               strnlen(reinterpret_cast<const char*>(entry.bDescr), length));
        }
        if (AddLanRule(zone, count, description, row.dwAddr, row.dwMask) == 1) {
            break;
        }
    }
    return count > 0 ? 0 : 1;
}

int AddLanRule(ZoneRecord& zone, int& count, std::string_view description, std::uint32_t address,
               std::uint32_t mask) {
    ZoneRule rule = EmptyRule();
    rule.enabled = 1;
    rule.address = platform::NetworkToHost(address);
    rule.mask = platform::NetworkToHost(mask);
    if (rule.address == 0) {
        return 0;
    }
    if (count >= driver::kZoneRuleSlots) {
        return 1;
    }
    std::string name = kLanRulePrefix;
    name.append(description.substr(0, kRuleNameLength - name.size()));
    driver::SetFieldText(rule.name, name);
    zone.rules[count++] = rule;
    return 0;
}

ZoneRecord MergeLanRules(const ZoneRecord& zone, const ZoneRecord& lanZone) {
    ZoneRecord merged = EmptyZone();
    std::memcpy(merged.name, zone.name, sizeof merged.name);
    merged.result = zone.result;
    int count = 0;
    for (const ZoneRule& rule : lanZone.rules) {
        if (!IsEmptySlot(rule) && count < driver::kZoneRuleSlots) {
            merged.rules[count++] = rule;
        }
    }
    // The zone's own slots keep their places relative to each other, empty ones included.
    for (const ZoneRule& rule : zone.rules) {
        if (!IsLanRule(rule) && count < driver::kZoneRuleSlots) {
            merged.rules[count++] = rule;
        }
    }
    return merged;
}

int UpdateLanZones(void* parent) {
    ZoneRecord lan = EmptyZone();
    if (DetectLan(lan) == 1) {
        core::CurrentMessages().MessageBox("No Lan found", "q-Brix",
                                           core::MB_OK | core::MB_ICONINFORMATION);
        return 0;
    }
    ZoneEditor(lan, kLanRulePrefix, parent, nullptr);
    int answer = core::CurrentMessages().MessageBox("Update *ALL* zones in the LAN?", "q-Brix",
                                                    core::MB_YESNO | core::MB_ICONQUESTION);
    if (answer != core::IDYES) {
        return 0;
    }
    for (std::size_t i = 0; i < g_zones.Size(); ++i) {
        ZoneRecord& zone = g_zones.At(i);
        bool hasLanRule = false;
        for (const ZoneRule& rule : zone.rules) {
            hasLanRule = hasLanRule || IsLanRule(rule);
        }
        if (hasLanRule) {
            zone = MergeLanRules(zone, lan);
        }
    }
    return 1;
}

}  // namespace qbrix::policy
