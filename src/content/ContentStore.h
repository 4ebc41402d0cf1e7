// Registry storage of the rule lists below the content-processor root. A rule key, named by the
// rule, holds Recurse, Log, Enable, Direction, PopUp (REG_DWORD), Group (REG_SZ) and the unit
// keys Main, Subst\<i> and Replace. Registry failures are silent.
#pragma once

#include <string_view>

#include "content/RuleList.h"

namespace qbrix::content {

// Replaces the list's content by what the rules key holds, rules in registry (name) order.
void LoadContentRules(std::string_view rulesKey, RuleList& list);
// Deletes the rules key with everything below it, then writes every rule in list order.
void SaveContentRules(std::string_view rulesKey, const RuleList& list, std::string_view protocolKey,
                      std::string_view rulesSubkey);

}  // namespace qbrix::content
