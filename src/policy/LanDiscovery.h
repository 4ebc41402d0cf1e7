// LAN discovery: one "NET " rule per configured IPv4 address, gathered into the zone "Local Area
// Network", and the merge of those rules into every zone that holds LAN rules.
#pragma once

#include <cstdint>
#include <string_view>

#include "policy/ZoneList.h"

namespace qbrix::policy {

inline constexpr char kLanZoneName[] = "Local Area Network";
// Room for the row count and 20 rows of 24 bytes: more addresses do not fit and give no LAN.
inline constexpr std::uint32_t kAddressTableBufferSize = 484;

// Fills an all-zero zone with the LAN rules; 0 when at least one rule was made, else 1.
int DetectLan(ZoneRecord& zone);
// Adds the LAN rule of one address (address and mask in network order) at slot `count`. An
// address of 0 adds nothing. 1 when the zone already holds ten rules, else 0.
int AddLanRule(ZoneRecord& zone, int& count, std::string_view description, std::uint32_t address,
               std::uint32_t mask);
// The new LAN rules first, then the zone's own rules that are not LAN rules, at most ten; the
// zone keeps its name and result.
ZoneRecord MergeLanRules(const ZoneRecord& zone, const ZoneRecord& lanZone);
// The Zones page's "LAN": detect, edit in the zone editor, ask "Update *ALL* zones in the LAN?"
// and on Yes merge into every zone of g_zones that holds a LAN rule. 1 when the zones were
// updated (the page is then modified), 0 otherwise.
int UpdateLanZones(void* parent);

}  // namespace qbrix::policy
