// What every match of an expression must contain, so a search can be skipped on texts that lack
// it. Derived from the expression as the regex library parses it (extended syntax, letters
// without regard to case, single bytes): each requirement is a small set of literals of which
// every match contains at least one. A text in which some requirement has none of its literals
// cannot hold a match. Expressions the analysis does not fully understand (back-references,
// unknown escapes, repetition operators in odd places) get no requirement, so a wrong skip is
// impossible: the library stays the only matcher that produces positions and sub-matches.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace qbrix::content {

class RequiredLiterals {
  public:
    // One literal: its bytes with ASCII letters lowered, and per byte the bit that folds a letter
    // of the text onto its lower case (0x20 for a letter, 0 otherwise: other bytes compare
    // exactly, as letter case is ASCII only in the C locale).
    struct Literal {
        std::string folded;
        std::string foldMask;
    };
    using Alternatives = std::vector<Literal>;

    // The requirements of an expression as handed to the library (up to its first zero byte,
    // where the library's view of it ends).
    static RequiredLiterals Derive(const char* expression);

    // False only when the text holds no match of the expression for certain: some requirement
    // has none of its literals in text[0, length). Always true when the prefilter is switched off.
    bool MayMatch(const char* text, std::size_t length) const;

    bool Empty() const { return m_requirements.empty(); }
    const std::vector<Alternatives>& Requirements() const { return m_requirements; }
    // What every match begins with (empty when that is not known): the literal bytes the
    // expression starts with, up to its first operator, without a byte that operator repeats,
    // in an expression without alternatives at its top level. No match can begin before the
    // literal's first occurrence, so a search may start there: the library then skips nothing
    // it would not have skipped itself.
    const Literal& Lead() const { return m_lead; }

  private:
    std::vector<Alternatives> m_requirements;  // best first
    Literal m_lead;
};

// Where a literal first occurs in text[0, length) (length when it does not), letters compared
// without regard to ASCII case.
std::size_t FindFolded(const char* text, std::size_t length,
                       const RequiredLiterals::Literal& literal);
// Whether a literal occurs in text[0, length).
bool ContainsFolded(const char* text, std::size_t length, const RequiredLiterals::Literal& literal);

// Process-wide switch of the prefilter (on by default), so tests and the fuzz target can compare
// the engine's results with and without it.
void SetRequiredLiteralsEnabled(bool enabled);
bool RequiredLiteralsEnabled();

}  // namespace qbrix::content
