// What a rule's fields mean to the program: the vocabularies of the editor's combo boxes (a
// value is the position of its text), LAN rules, generated rule names and row images.
#pragma once

#include <string>
#include <string_view>

#include "policy/ZoneList.h"

namespace qbrix::policy {

// Each prefix already ends in a space, so a generated name has two spaces before its number.
inline constexpr char kLanRulePrefix[] = "NET ";
inline constexpr char kRulePrefix[] = "Rule ";

inline constexpr const char* kResultTexts[] = {"Enable", "Disable"};
inline constexpr const char* kProtocolTexts[] = {"TCP+UDP", "TCP", "UDP"};
inline constexpr const char* kDirectionTexts[] = {"Incoming+Outgoing", "Incoming", "Outgoing"};

inline constexpr int kRuleNameLength = 15;

// The name counter of new rules: starts at 0, is incremented before each use, shared by every
// editor and never reset while the program runs (tests reset it).
extern int g_newRuleCounter;

std::string_view RuleName(const ZoneRule& rule);
// A rule produced by LAN detection: its name begins with "NET ".
bool IsLanRule(const ZoneRule& rule);
// Empty name: an unused slot.
bool IsEmptySlot(const ZoneRule& rule);

// A new all-zero (so disabled) rule named "%s %d" from the prefix and the next counter value;
// at most 16 bytes of the name are copied, the last into the reserved field.
ZoneRule MakeNewRule(std::string_view prefix);

// The row image: max(direction - 1, 0) + 2 * (result + (2 when disabled)). Indices 0 to 7 for
// the values the editor produces.
int RuleImageIndex(const ZoneRule& rule);

// An all-zero rule.
ZoneRule EmptyRule();

// The position-coded text of a value, or empty when the value lies outside the vocabulary.
std::string_view VocabularyText(const char* const* texts, int count, std::uint32_t value);

}  // namespace qbrix::policy
