// The two filtered protocols and where each keeps its rules below the content-processor root.
// Every loop over protocols walks the table from the first row to the last.
#pragma once

#include <cstddef>

namespace qbrix::content {

struct ProtocolRow {
    const char* displayName;  // protocol combo box text
    const char* rulesKey;     // holds one key per rule
    const char* protocolKey;  // holds the protocol options and the rules key
    const char* rulesSubkey;  // the rules key's name below the protocol key
    // The translation rules are carried for the content processor only: nothing in this
    // program loads, saves, exports or edits them.
    const char* translationRulesKey;
    const char* translationSubkey;
    // Index of the protocol's options block in LspSettings.
    std::size_t optionsIndex;
};

inline constexpr std::size_t kProtocolCount = 2;
inline constexpr std::size_t kHttpRow = 0;
inline constexpr std::size_t kPop3Row = 1;

inline constexpr ProtocolRow kProtocolTable[kProtocolCount] = {
    {"WEB (HTTP)", "\\Protocols\\HTTP\\Rules", "\\Protocols\\HTTP", "Rules",
     "\\Protocols\\HTTP\\TranslationRules", "TranslationRules", 0},
    {"E-mail (POP3)", "\\Protocols\\POP3\\Rules", "\\Protocols\\POP3", "Rules",
     "\\Protocols\\POP3\\TranslationRules", "TranslationRules", 1},
};

}  // namespace qbrix::content
