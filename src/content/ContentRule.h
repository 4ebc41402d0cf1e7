// One content rule: a main unit that locates and rewrites, sub-rules that test and rewrite inside
// what the main unit found, and a replace unit run once over the whole text afterwards.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "content/RegRule.h"
#include "content/RegRuleMatcher.h"
#include "platform/WinTypes.h"

namespace qbrix::content {

class ContentRule {
  public:
    // A rule as "New" makes it: empty name, off, incoming, logged, no sub-rules.
    ContentRule() = default;
    // A rule built from stored or imported data; every unit is compiled.
    ContentRule(platform::DWORD enable, platform::DWORD direction, std::string name,
                const RegRule& mainRule, platform::DWORD recurse, const RegRule& replaceRule,
                const std::vector<RegRule>& subRules, platform::DWORD log, platform::DWORD popUp,
                std::string group);
    ContentRule(const ContentRule&) = delete;
    ContentRule& operator=(const ContentRule&) = delete;

    // Appends a sub-rule built from stored data and returns it.
    RegRuleMatcher& AppendSubRule(const RegRule& stored);
    // Inserts a default sub-rule before `anchor` (at the end when absent) and returns it.
    RegRuleMatcher& InsertSubRule(const RegRuleMatcher* anchor);
    // Removes and deletes a sub-rule; one not owned by this rule is ignored.
    void RemoveSubRule(const RegRuleMatcher* subRule);

    RegRuleMatcher main;
    platform::DWORD recurse = 0;
    // Owned one by one so that a unit being edited keeps its address while the list changes.
    std::vector<std::unique_ptr<RegRuleMatcher>> subRules;
    std::string name;
    platform::DWORD log = 1;
    RegRuleMatcher replace;
    platform::DWORD enable = 0;
    platform::DWORD direction = 0;  // 0 incoming, 1 outgoing
    std::string group;              // tray-menu group
    platform::DWORD popUp = 0;      // shown in the tray pop-up menu
};

}  // namespace qbrix::content
