// Registry storage of the rule lists below the content-processor root. A rule key, named by the
// rule, holds Recurse, Log, Enable, Direction, PopUp (REG_DWORD), Group (REG_SZ) and the unit
// keys Main, Subst\<i> and Replace. Loading and saving report the store's failures; single
// values that cannot be read fall back to their defaults.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "content/RuleList.h"
#include "platform/WinTypes.h"

namespace qbrix::content {

// The longest rule name the rule listing can read back (its name buffer holds 99 bytes with the
// terminator) and the longest text a unit or Group can hold (a 999-byte read buffer).
inline constexpr std::size_t kMaxRuleNameLength = 98;
inline constexpr std::size_t kMaxRuleTextLength = 998;

// Why the rule cannot be stored and read back as it is (an over-long name or text), as a
// sentence for the user; empty when it can.
std::string RuleStoreProblem(const ContentRule& rule);

// Replaces the list's content by what the rules key holds, rules in registry (name) order, and
// remembers their names as the list's stored names. 0, or the store's error (the list is then
// empty).
platform::LONG LoadContentRules(std::string_view rulesKey, RuleList& list);
// Writes every rule in list order as one change of the store: first the keys of the list's
// stored names and of the rules' own names are deleted with everything below them (never other
// rules), then every rule is written. All of it or nothing reaches the store; 0 or the error.
// A rule that cannot be stored (RuleStoreProblem) fails the save with ERROR_INVALID_PARAMETER
// before anything is written.
platform::LONG SaveContentRules(std::string_view rulesKey, RuleList& list);

}  // namespace qbrix::content
