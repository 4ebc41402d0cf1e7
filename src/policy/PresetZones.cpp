#include "policy/PresetZones.h"

#include <initializer_list>

#include "policy/ZoneRules.h"

namespace qbrix::policy {

namespace {

ZoneRule MakeRule(const char* name, std::uint32_t address, std::uint32_t mask,
                  std::uint16_t remotePort, std::uint32_t protocol, std::uint32_t direction) {
    ZoneRule rule = EmptyRule();
    rule.enabled = 1;
    driver::SetFieldText(rule.name, name);
    rule.address = address;
    rule.mask = mask;
    rule.remotePort = remotePort;
    rule.protocol = protocol;
    rule.direction = direction;
    return rule;
}

ZoneRecord MakeZone(const char* name, std::uint32_t result, std::initializer_list<ZoneRule> rules) {
    ZoneRecord zone = EmptyZone();
    driver::SetFieldText(zone.name, name);
    zone.result = result;
    int slot = 0;
    for (const ZoneRule& rule : rules) {
        zone.rules[slot++] = rule;
    }
    return zone;
}

}  // namespace

ZoneRule LocalEnableRule() {
    return MakeRule("Local Enable", 0x7F000001, 0xFFFFFF00, 0, 0, 0);
}
ZoneRule DnsEnableRule() {
    return MakeRule("DNS Enable ", 0, 0, 53, 0, 0);
}
ZoneRule DhcpEnableRule() {
    return MakeRule("DHCP Enable", 0, 0, 67, 2, 0);
}
ZoneRule EnableOutRule() {
    return MakeRule("EnableOut", 0, 0, 0, 0, 2);
}
ZoneRule EnableInRule() {
    return MakeRule("EnableIn", 0, 0, 0, 0, 1);
}

const std::array<ZoneRecord, kPresetCount>& PresetZones() {
    static const std::array<ZoneRecord, kPresetCount> presets = {
        MakeZone("EnableAll", 0, {}),
        MakeZone("EnableAll", 0, {}),
        MakeZone("Internet Download", 0, {}),
        MakeZone("DisableAll", 1, {}),
        MakeZone("Disable External", 1, {LocalEnableRule()}),
        MakeZone("Internet Client", 1,
                 {LocalEnableRule(), DnsEnableRule(), DhcpEnableRule(), EnableOutRule()}),
        MakeZone("OnlyIncoming", 1, {LocalEnableRule(), EnableInRule()}),
        MakeZone("OnlyOutgoing", 1, {LocalEnableRule(), EnableOutRule()}),
    };
    return presets;
}

}  // namespace qbrix::policy
