// libFuzzer target: the rule engine on arbitrary expressions, replacements and texts. The input
// is split at zero bytes into find, compare, replace, sub-rule find and text (the text keeps any
// further zero bytes). Recurse is used only with a plain-word Find, as a Recurse rule whose Find
// can match an empty stretch never ends by design.
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
    // Every pass of a Recurse rule must find a non-empty stretch: only plain words qualify.
    bool plainWord =
        !parts[0].empty() &&
        parts[0].find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789") == std::string::npos;
    if ((flags & 0x80u) != 0 && plainWord) {
        rule.recurse = 1;
    }
    qbrix::content::ApplyContentRule(rule, text);
    qbrix::content::ResetTestLog();
    return 0;
}
