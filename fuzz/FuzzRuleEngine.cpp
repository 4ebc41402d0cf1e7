// libFuzzer target: the rule engine on arbitrary expressions, replacements and texts. The input
// is split at zero bytes into find, compare, replace, sub-rule find and text (the text keeps any
// further zero bytes). Any Find may recurse: a run that would never end is stopped, and the run
// has a short time limit, so back-reference searches do not hold the fuzzer up.
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "content/ContentRule.h"
#include "content/RuleEngine.h"
#include "content/TestLog.h"

namespace {

using qbrix::content::RegRule;

RegRule Unit(const std::string& find, const std::string& compare, const std::string& replace,
             unsigned flags) {
    RegRule stored;
    stored.find = find;
    stored.findFlag = 1;
    stored.compare = compare;
    stored.compareFlag = flags & 1u;
    stored.replace = replace;
    stored.replaceFlag = (flags >> 1) & 1u;
    stored.enable = 1;
    stored.comment = "f";
    return stored;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) {
        return 0;
    }
    unsigned flags = data[0];
    std::string input(reinterpret_cast<const char*>(data) + 1, size - 1);
    std::vector<std::string> parts;
    std::size_t at = 0;
    while (parts.size() < 4) {
        std::size_t zero = input.find('\0', at);
        if (zero == std::string::npos) {
            break;
        }
        parts.push_back(input.substr(at, zero - at));
        at = zero + 1;
    }
    parts.resize(4);
    std::string text = input.substr(std::min(at, input.size()));

    RegRule mainRule = Unit(parts[0], parts[1], parts[2], flags);
    std::vector<RegRule> subs;
    if (flags & 4u) {
        subs.push_back(Unit(parts[3], parts[1], parts[2], flags >> 3));
    }
    qbrix::content::ContentRule rule(1, 0, "fuzz", mainRule, 0, Unit(parts[3], "", "x", flags >> 5),
                                     subs, 1, 0, "");
    if ((flags & 0x80u) != 0) {
        rule.recurse = 1;
    }
    std::string given = text;
    qbrix::content::RunLimits limits{std::chrono::milliseconds(1000)};
    if (qbrix::content::ApplyContentRule(rule, text, limits) == qbrix::content::kRuleStopped &&
        text != given) {
        __builtin_trap();  // a stopped run gives the text back as it was
    }
    qbrix::content::ResetTestLog();
    return 0;
}
