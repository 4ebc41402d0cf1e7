#include "content/RuleEditorSupport.h"

#include <algorithm>

namespace qbrix::content {

namespace {
int g_newRuleCounter = 0;
}  // namespace

std::string NextNewRuleName() {
    return "Rule " + std::to_string(++g_newRuleCounter);
}

void ResetNewRuleCounter() {
    g_newRuleCounter = 0;
}

std::unique_ptr<ContentRule> MakeNewRule(std::string name) {
    auto rule = std::make_unique<ContentRule>();
    rule->name = std::move(name);
    return rule;
}

int RuleLineImage(const ContentRule& rule) {
    return static_cast<int>(rule.direction + 2 * rule.enable);
}

std::vector<std::string> DistinctGroups(LspSettings& settings) {
    std::vector<std::string> groups;
    for (std::size_t row = 0; row < kProtocolCount; ++row) {
        const RuleList& rules = OptionsOf(settings, row).rules;
        for (std::size_t index = 0; index < rules.Size(); ++index) {
            const std::string& group = rules.At(index).group;
            if (!group.empty() && std::find(groups.begin(), groups.end(), group) == groups.end()) {
                groups.push_back(group);
            }
        }
    }
    return groups;
}

}  // namespace qbrix::content
