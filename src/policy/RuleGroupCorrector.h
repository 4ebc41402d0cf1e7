// The Zones page's "Rules" button: rules of the same name in different zones are meant to be
// one rule, so they are edited together in one zone editor and written back to every zone.
#pragma once

#include <vector>

#include "policy/ZoneList.h"

namespace qbrix::policy {

inline constexpr char kCorrectorCaption[] = "Repeated rules group corrector";

// The rules to edit together: per name (compared byte for byte) the first one met, walking the
// zones in order and each zone's slots up to its first empty name, LAN rules left out; in name
// order.
std::vector<ZoneRule> CollectRuleGroups();

// Writes every rule of `edited` (up to its first empty name) over each rule of g_zones that has
// the same name exactly.
void OverwriteRuleGroups(const ZoneRecord& edited);

// Collects, opens the editor on the first ten groups, asks "Update *ALL* the Rules?" and on Yes
// overwrites. 1 when the zones were updated (the page is then modified), else 0.
int CorrectRuleGroups(void* parent);

}  // namespace qbrix::policy
