// The built-in zones: the "EnableAll" template given to the product's own programs, and the
// seven presets written to an empty zone store, in their order.
#pragma once

#include <array>

#include "policy/ZoneList.h"

namespace qbrix::policy {

inline constexpr int kPresetCount = 8;  // the template and the seven stored presets

// Entry 0 is the template; entries 1 to 7 are stored on first run.
const std::array<ZoneRecord, kPresetCount>& PresetZones();

// The preset rules, as they appear in the presets and in the first-run LAN zones.
ZoneRule LocalEnableRule();  // "Local Enable": 127.0.0.1 / 255.255.255.0
ZoneRule DnsEnableRule();    // "DNS Enable " (with its trailing space): remote port 53
ZoneRule DhcpEnableRule();   // "DHCP Enable": remote port 67, UDP
ZoneRule EnableOutRule();    // "EnableOut": outgoing
ZoneRule EnableInRule();     // "EnableIn": incoming

}  // namespace qbrix::policy
