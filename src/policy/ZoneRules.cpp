#include "policy/ZoneRules.h"

#include <cstdio>
#include <cstring>

namespace qbrix::policy {

int g_newRuleCounter = 0;

std::string_view RuleName(const ZoneRule& rule) {
    return driver::FieldText(rule.name);
}

bool IsLanRule(const ZoneRule& rule) {
    return std::strncmp(rule.name, kLanRulePrefix, 4) == 0;
}

bool IsEmptySlot(const ZoneRule& rule) {
    return rule.name[0] == '\0';
}

ZoneRule MakeNewRule(std::string_view prefix) {
    ZoneRule rule = EmptyRule();
    ++g_newRuleCounter;
    char text[64];
    std::snprintf(text, sizeof text, "%.*s %d", static_cast<int>(prefix.size()), prefix.data(),
                  g_newRuleCounter);
    // The name and the first reserved byte form one 16-byte run, padded like strncpy does.
    auto* bytes = reinterpret_cast<unsigned char*>(&rule) + offsetof(ZoneRule, name);
    std::size_t length = std::strlen(text);
    std::memcpy(bytes, text, length < 16 ? length : 16);
    return rule;
}

int RuleImageIndex(const ZoneRule& rule) {
    // Unsigned on purpose: imported rules may carry any value, and the index must not overflow.
    std::uint32_t direction = rule.direction > 1 ? rule.direction - 1 : 0;
    std::uint32_t disabled = rule.enabled == 0 ? 2 : 0;
    return static_cast<int>(direction + 2 * (rule.result + disabled));
}

ZoneRule EmptyRule() {
    ZoneRule rule;
    std::memset(&rule, 0, sizeof rule);
    return rule;
}

std::string_view VocabularyText(const char* const* texts, int count, std::uint32_t value) {
    return value < static_cast<std::uint32_t>(count) ? std::string_view(texts[value])
                                                     : std::string_view();
}

}  // namespace qbrix::policy
