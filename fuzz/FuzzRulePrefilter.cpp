// libFuzzer target: the rule engine with and without the required-literal prefilter must give
// the same result, text and trace. The input is split at the first zero byte into the Find
// expression and the text (the text keeps any further zero bytes); the first byte picks Recurse,
// a replacement and a sub-rule searching the same expression. Recurse is used only when the
// expression can never match an empty stretch, as such a Recurse rule never ends by design.
// Expressions with a back-reference or more than 12 repetition operators are left out.
#include <regex.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "content/ContentRule.h"
#include "content/RequiredLiterals.h"
#include "content/RuleEngine.h"
#include "content/TestLog.h"

namespace {

using qbrix::content::RegRule;

RegRule Unit(const std::string& find, bool replace) {
    RegRule stored;
    stored.find = find;
    stored.findFlag = 1;
    stored.replace = replace ? "<>" : "";
    stored.replaceFlag = replace ? 1 : 0;
    stored.enable = 1;
    stored.comment = "f";
    return stored;
}

RegRule Off() {
    RegRule stored;
    stored.enable = 0;
    return stored;
}

// No group (the found stretch is the whole match), no assertion that could let an empty match
// depend on its place, and no match of "".
bool NeverMatchesEmpty(const qbrix::content::RulePattern& pattern, const std::string& find) {
    if (!pattern.IsCompiled() || find.find_first_of("^$\\()") != std::string::npos)
        return false;
    std::int32_t start = 0;
    std::int32_t end = 0;
    return qbrix::content::SearchPattern(pattern, "", start, end) != 0;
}

struct Outcome {
    int result;
    std::string text;
    std::string trace;
};

Outcome Run(const qbrix::content::ContentRule& rule, const std::string& input, bool prefilter) {
    qbrix::content::SetRequiredLiteralsEnabled(prefilter);
    Outcome outcome{0, input, ""};
    outcome.result = qbrix::content::ApplyContentRule(rule, outcome.text);
    outcome.trace = qbrix::content::TestLog();
    qbrix::content::SetRequiredLiteralsEnabled(true);
    return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1 || size > 4096) {
        return 0;
    }
    unsigned flags = data[0];
    std::string input(reinterpret_cast<const char*>(data) + 1, size - 1);
    std::size_t zero = input.find('\0');
    if (zero == std::string::npos) {
        return 0;
    }
    std::string find = input.substr(0, zero);
    std::string text = input.substr(zero + 1);
    // Back-references leave an expression without a prefilter (the unit tests show it), and the
    // library can take minutes over them or over many stacked repetitions even on a short text
    // (the search without the prefilter), which would only slow the comparison down.
    std::string expanded = qbrix::content::ExpandPatternEscapes(find);
    std::size_t repetitions = 0;
    for (std::size_t at = 0; at < expanded.size(); ++at) {
        char c = expanded[at];
        repetitions += (c == '*' || c == '+' || c == '?' || c == '{') ? 1 : 0;
        if (c == '\\' && at + 1 < expanded.size() && expanded[at + 1] >= '1' &&
            expanded[at + 1] <= '9') {
            return 0;
        }
    }
    if (repetitions > 12) {
        return 0;
    }

    std::vector<RegRule> subs;
    if ((flags & 4u) != 0) {
        subs.push_back(Unit(find, (flags & 8u) != 0));
    }
    qbrix::content::ContentRule rule(1, 0, "fuzz", Unit(find, (flags & 2u) != 0), 0, Off(), subs, 1,
                                     0, "");
    if ((flags & 1u) != 0 && NeverMatchesEmpty(rule.main.findPattern, find)) {
        rule.recurse = 1;
    }
    Outcome with = Run(rule, text, true);
    Outcome without = Run(rule, text, false);
    if (with.result != without.result || with.text != without.text || with.trace != without.trace) {
        std::abort();
    }
    qbrix::content::ResetTestLog();
    return 0;
}
