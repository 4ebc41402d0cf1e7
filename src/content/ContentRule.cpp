#include "content/ContentRule.h"

#include <algorithm>
#include <utility>

namespace qbrix::content {

ContentRule::ContentRule(platform::DWORD enable_, platform::DWORD direction_, std::string name_,
                         const RegRule& mainRule, platform::DWORD recurse_,
                         const RegRule& replaceRule, const std::vector<RegRule>& subRules_,
                         platform::DWORD log_, platform::DWORD popUp_, std::string group_)
    : recurse(recurse_),
      name(std::move(name_)),
      log(log_),
      enable(enable_),
      direction(direction_),
      group(std::move(group_)),
      popUp(popUp_) {
    main.Assign(mainRule);
    replace.Assign(replaceRule);
    for (const RegRule& stored : subRules_) {
        AppendSubRule(stored);
    }
}

RegRuleMatcher& ContentRule::AppendSubRule(const RegRule& stored) {
    auto unit = std::make_unique<RegRuleMatcher>();
    unit->Assign(stored);
    subRules.push_back(std::move(unit));
    return *subRules.back();
}

RegRuleMatcher& ContentRule::InsertSubRule(const RegRuleMatcher* anchor) {
    auto place = std::find_if(subRules.begin(), subRules.end(),
                              [anchor](const auto& unit) { return unit.get() == anchor; });
    if (anchor == nullptr) {
        place = subRules.end();
    }
    return **subRules.insert(place, std::make_unique<RegRuleMatcher>());
}

void ContentRule::RemoveSubRule(const RegRuleMatcher* subRule) {
    auto place = std::find_if(subRules.begin(), subRules.end(),
                              [subRule](const auto& unit) { return unit.get() == subRule; });
    if (place != subRules.end()) {
        subRules.erase(place);
    }
}

}  // namespace qbrix::content
