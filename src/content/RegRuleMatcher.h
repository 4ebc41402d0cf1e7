// The runnable form of a unit: its texts, its two compiled patterns and its switches. Built from
// a stored RegRule and turned back into one for saving and export.
#pragma once

#include <string>

#include "content/RegRule.h"
#include "content/RulePattern.h"
#include "platform/WinTypes.h"

namespace qbrix::content {

struct RegRuleMatcher {
    std::string findText;  // as typed, escapes not expanded
    RulePattern findPattern;
    platform::DWORD compareSwitch = 0;
    std::string compareText;
    RulePattern comparePattern;
    platform::DWORD replaceSwitch = 0;
    std::string replacement;     // after ExpandReplaceEscapes
    std::string rawReplacement;  // as typed
    std::string comment;
    platform::DWORD enable = 0;

    RegRuleMatcher() = default;
    RegRuleMatcher(const RegRuleMatcher&) = delete;
    RegRuleMatcher& operator=(const RegRuleMatcher&) = delete;

    // Rebuilds the unit from stored values. Texts of parts that are switched off are dropped,
    // and a Find that does not compile leaves compare, replace and comment empty.
    void Assign(const RegRule& stored);
    // The stored values. FindFlag is always 1: a saved unit always searches.
    RegRule ToRegRule() const;
    // Back to the state of a default unit: everything empty, off and uncompiled.
    void Reset();
};

}  // namespace qbrix::content
