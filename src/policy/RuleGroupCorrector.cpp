#include "policy/RuleGroupCorrector.h"

#include <map>
#include <string>

#include "core/Messages.h"
#include "policy/ZoneEditor.h"
#include "policy/ZoneRules.h"

namespace qbrix::policy {

std::vector<ZoneRule> CollectRuleGroups() {
    std::map<std::string, ZoneRule> byName;  // std::string orders bytes as memcmp does
    for (std::size_t z = 0; z < g_zones.Size(); ++z) {
        for (const ZoneRule& rule : g_zones.At(z).rules) {
            if (IsEmptySlot(rule)) {
                break;
            }
            if (!IsLanRule(rule)) {
                byName.emplace(std::string(RuleName(rule)), rule);
            }
        }
    }
    std::vector<ZoneRule> rules;
    for (const auto& [name, rule] : byName) {
        rules.push_back(rule);
    }
    return rules;
}

void OverwriteRuleGroups(const ZoneRecord& edited) {
    for (const ZoneRule& group : edited.rules) {
        if (IsEmptySlot(group)) {
            break;
        }
        for (std::size_t z = 0; z < g_zones.Size(); ++z) {
            for (ZoneRule& rule : g_zones.At(z).rules) {
                if (RuleName(rule) == RuleName(group)) {
                    rule = group;
                }
            }
        }
    }
}

int CorrectRuleGroups(void* parent) {
    ZoneRecord groups = EmptyZone();
    std::vector<ZoneRule> rules = CollectRuleGroups();
    for (std::size_t i = 0; i < rules.size() && i < driver::kZoneRuleSlots; ++i) {
        groups.rules[i] = rules[i];
    }
    ZoneEditor(groups, kRulePrefix, parent, kCorrectorCaption);
    int answer = core::CurrentMessages().MessageBox("Update *ALL* the Rules?", "q-Brix",
                                                    core::MB_YESNO | core::MB_ICONQUESTION);
    if (answer != core::IDYES) {
        return 0;
    }
    OverwriteRuleGroups(groups);
    return 1;
}

}  // namespace qbrix::policy
