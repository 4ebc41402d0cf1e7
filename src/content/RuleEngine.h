// The rule engine: compiles the expressions of a unit and runs units and whole rules over a
// text. Expressions are POSIX extended, case-insensitive, without newline handling ("." and
// bracket lists match a line feed; "^" and "$" anchor at the ends of the searched text). They
// are compiled and run in the C locale whatever locale the rest of the process uses, so rules
// always work on single bytes.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "content/ContentRule.h"
#include "content/RegRuleMatcher.h"
#include "content/RulePattern.h"

namespace qbrix::content {

// Results of ApplyRegRule.
inline constexpr int kUnitNotFound = 0;  // no match, or the Compare failed
inline constexpr int kUnitSkipped = 1;   // disabled or ignored
inline constexpr int kUnitFound = 2;
inline constexpr int kUnitReplaced = 3;
inline constexpr int kUnitStopped = 4;  // a search ran out of its budget; the text is unchanged

// Results of ApplyContentRule: the largest outcome reached.
inline constexpr int kRuleNothing = 0;
inline constexpr int kRuleDisabled = 1;
inline constexpr int kRuleFound = 2;
inline constexpr int kRuleProcessed = 3;
inline constexpr int kRuleReplaceApplied = 4;
// The run was stopped at one of its limits (RunLimits): the text is left as it was given, and
// content should pass unchanged. Only runs that would never end, or would exceed the limits,
// stop; every other run gives the results above.
inline constexpr int kRuleStopped = 5;

// The bounds of one run of a rule or a unit over a text.
//  - Full content (Recurse) stops at a pass that ends where it began: that pass would repeat
//    forever (a Find that matches an empty stretch). So a run makes at most one pass per byte.
//  - The rewritten text may grow to growthFactor x its length + growthBytes.
//  - The run may take `time`, checked between passes. A search with a back-reference (\1 to
//    \9), whose cost the regex library does not bound (minutes on a few kilobytes), runs in a
//    child process under the time left and a 512 MB memory budget.
struct RunLimits {
    std::chrono::milliseconds time{5000};
    std::size_t growthFactor = 16;
    std::size_t growthBytes = std::size_t{16} << 20;
};

// The match slots of a search; the slot of a pattern's last group must lie inside them.
inline constexpr std::size_t kMatchSlots = 50;

// "\n", "\r", "\t", "\a", "\b" (backslash + letter) to their control characters, one kind after
// another over the whole text. There is no escape for the backslash itself.
std::string ExpandPatternEscapes(std::string_view text);
// For each (from, to) pair in order: replace every occurrence, continuing after the inserted text.
std::string ReplaceAllPairs(std::string_view text,
                            const std::vector<std::pair<std::string, std::string>>& pairs);
// "\n", "\r", "\t" of a Replace text to their control characters.
std::string ExpandReplaceEscapes(std::string_view text);

// 0 on success, else the regex library's code. Expressions with kMatchSlots or more groups are
// refused with REG_ESIZE. Expressions the library could only compile with unreasonable memory or
// time (nested bounded repetitions) are refused with REG_ESPACE: such expressions are compiled
// first in a child process under a memory and time budget.
int CompilePattern(RulePattern& pattern, std::string_view text);
// 0 and the range of the last group (the whole match without groups) when found, else 1; 2 when
// a search with a back-reference ran out of the default limits' time. The text is searched up
// to its first zero byte.
int SearchPattern(const RulePattern& pattern, std::string_view text, std::int32_t& start,
                  std::int32_t& end);

// A run stopped at its limits returns kUnitStopped / kRuleStopped, leaves the text unchanged,
// ends the trace with a "stopped (...)" line and gives the reason in *stopReason (when asked).
int ApplyRegRule(const RegRuleMatcher& unit, std::string& text, std::string& found,
                 std::int32_t& start, std::int32_t& end, const RunLimits& limits = {},
                 std::string* stopReason = nullptr);
int ApplyContentRule(const ContentRule& rule, std::string& text, const RunLimits& limits = {},
                     std::string* stopReason = nullptr);

}  // namespace qbrix::content
