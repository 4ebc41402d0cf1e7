// One compiled regular expression of a rule unit. The compiled buffer belongs to the object and
// is freed with it; a pattern whose compiled flag is 0 never matches. The buffer may hold
// pointers into itself, so the object is neither copied nor moved.
#pragma once

#include <regex.h>

#include <cstddef>
#include <utility>

#include "content/RequiredLiterals.h"
#include "platform/WinTypes.h"

namespace qbrix::content {

class RulePattern {
  public:
    RulePattern() = default;
    ~RulePattern() { Free(); }
    RulePattern(const RulePattern&) = delete;
    RulePattern& operator=(const RulePattern&) = delete;

    bool IsCompiled() const { return m_compiled != 0; }
    // Number of parenthesised groups of the compiled expression.
    std::size_t GroupCount() const { return m_compiled != 0 ? m_regex.re_nsub : 0; }
    const regex_t* Regex() const { return &m_regex; }
    regex_t* MutableRegex() { return &m_regex; }
    void SetCompiled(bool compiled) { m_compiled = compiled ? 1 : 0; }
    // Whether a match can depend on what follows it ("$", word boundaries): such expressions
    // need the zero-byte limit of the text before they are searched.
    bool LooksPastMatchEnd() const { return m_looksPastMatchEnd; }
    void SetLooksPastMatchEnd(bool value) { m_looksPastMatchEnd = value; }
    // Whether the expression holds a back-reference: its searches run under a budget.
    bool HasBackReferences() const { return m_hasBackReferences; }
    void SetHasBackReferences(bool value) { m_hasBackReferences = value; }
    // What every match must contain; a search of a text without it is skipped.
    const RequiredLiterals& Literals() const { return m_literals; }
    void SetLiterals(RequiredLiterals literals) { m_literals = std::move(literals); }
    void Free() {
        if (m_compiled != 0) {
            regfree(&m_regex);
            m_compiled = 0;
        }
        m_literals = RequiredLiterals();
    }

  private:
    platform::DWORD m_compiled = 0;
    regex_t m_regex{};
    bool m_looksPastMatchEnd = true;
    bool m_hasBackReferences = false;
    RequiredLiterals m_literals;
};

}  // namespace qbrix::content
