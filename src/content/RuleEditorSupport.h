// Small pieces of the content page and Rule Editor that are not drawing: the name a new rule
// gets, the image of a rule's list line, and the groups the editor's "Group" box offers.
#pragma once

#include <string>
#include <vector>

#include "content/ContentRule.h"
#include "content/LspSettings.h"

namespace qbrix::content {

// "Rule %d" with a process-wide counter, incremented before use (the first is "Rule 1").
// Existing names are not checked.
std::string NextNewRuleName();
void ResetNewRuleCounter();

// A rule made by "New": the defaults of a new rule with the given name.
std::unique_ptr<ContentRule> MakeNewRule(std::string name);

// Image index of a rule's list line: 0 incoming off, 1 outgoing off, 2 incoming on, 3 outgoing
// on.
int RuleLineImage(const ContentRule& rule);

// Every distinct non-empty Group of all rules of both protocols, in the order first met.
std::vector<std::string> DistinctGroups(LspSettings& settings);

}  // namespace qbrix::content
