#include "content/RequiredLiterals.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <optional>
#include <string_view>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace qbrix::content {

namespace {

std::atomic<bool> g_enabled{true};

// Bounds of the analysis: larger sets and longer literals are cut into separate requirements.
constexpr std::size_t kMaxAlternatives = 16;
constexpr std::size_t kMaxLiteral = 64;
constexpr std::size_t kMaxRequirements = 4;
constexpr std::size_t kMaxKeptBytes = 512;  // literal bytes kept per expression
constexpr int kMaxDepth = 64;

using Set = std::vector<std::string>;  // folded literals

// What is known about a part of the expression: either the complete set of (folded) strings it
// matches, or requirements of which each match meets every one (a set of which the match holds
// at least one literal). A part that matches a single unknown byte has neither.
struct Info {
    bool exact = false;
    Set strings;            // when exact
    std::vector<Set> sets;  // when not exact

    static Info Exact(Set strings) {
        Info info;
        info.exact = true;
        info.strings = std::move(strings);
        return info;
    }
    static Info Unknown() { return Info(); }
};

bool HoldsEmpty(const Set& set) {
    return std::any_of(set.begin(), set.end(), [](const std::string& s) { return s.empty(); });
}

std::size_t ShortestLength(const Set& set) {
    std::size_t shortest = kMaxLiteral + 1;
    for (const std::string& s : set)
        shortest = std::min(shortest, s.size());
    return shortest;
}

// Longer literals first (rarer, and a miss ends the check sooner), then fewer alternatives.
bool Better(const Set& a, const Set& b) {
    std::size_t la = ShortestLength(a);
    std::size_t lb = ShortestLength(b);
    return la != lb ? la > lb : a.size() < b.size();
}

// The requirements of a part as sets of literals (a set holding the empty string requires
// nothing).
std::vector<Set> AsRequirements(const Info& info) {
    if (!info.exact)
        return info.sets;
    if (info.strings.empty() || HoldsEmpty(info.strings))
        return {};
    return {info.strings};
}

std::optional<Set> Cross(const Set& left, const Set& right) {
    if (left.size() * right.size() > kMaxAlternatives)
        return std::nullopt;
    Set result;
    for (const std::string& l : left) {
        for (const std::string& r : right) {
            if (l.size() + r.size() > kMaxLiteral)
                return std::nullopt;
            std::string joined = l + r;
            if (std::find(result.begin(), result.end(), joined) == result.end())
                result.push_back(std::move(joined));
        }
    }
    return result;
}

char Fold(char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

bool IsAlnum(unsigned char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// A recursive-descent reading of the expression with the library's extended syntax. Anything
// outside the understood subset sets `failed`, and the whole expression gets no requirement.
class Analyzer {
  public:
    explicit Analyzer(std::string_view text) : m_text(text) {}

    std::optional<Info> Run() {
        Info info = Alternation(0);
        if (m_failed || m_at != m_text.size())
            return std::nullopt;
        // Anchored at the start in every branch, the expression is tried by the library at one
        // position only: scanning the whole text for its literals would cost more than the
        // search it could save.
        if (m_everyBranchAnchored)
            return Info::Unknown();
        return info;
    }

  private:
    bool AtEnd() const { return m_at >= m_text.size(); }
    char Peek() const { return m_text[m_at]; }

    Info Alternation(int depth) {
        std::vector<Info> branches;
        branches.push_back(Branch(depth));
        while (!m_failed && !AtEnd() && Peek() == '|') {
            ++m_at;
            branches.push_back(Branch(depth));
        }
        if (m_failed || branches.size() == 1)
            return branches.front();
        if (std::all_of(branches.begin(), branches.end(), [](const Info& b) { return b.exact; })) {
            Set all;
            for (const Info& branch : branches) {
                for (const std::string& s : branch.strings) {
                    if (std::find(all.begin(), all.end(), s) == all.end())
                        all.push_back(s);
                }
            }
            if (all.size() <= kMaxAlternatives)
                return Info::Exact(std::move(all));
        }
        // Every match goes through one branch: the union of one requirement of each branch.
        Set all;
        for (const Info& branch : branches) {
            std::vector<Set> sets = AsRequirements(branch);
            if (sets.empty())
                return Info::Unknown();
            const Set& best = *std::min_element(sets.begin(), sets.end(), Better);
            for (const std::string& s : best) {
                if (std::find(all.begin(), all.end(), s) == all.end())
                    all.push_back(s);
            }
        }
        Info info;
        if (all.size() <= kMaxAlternatives)
            info.sets.push_back(std::move(all));
        return info;
    }

    // A run of atoms up to "|", ")" or the end. Adjacent exact parts join into longer literals.
    Info Branch(int depth) {
        if (depth == 0) {
            std::string_view rest = m_text.substr(m_at);
            bool anchored = rest.starts_with("^") || rest.starts_with("\\`");
            m_everyBranchAnchored = m_everyBranchAnchored && anchored;
        }
        Set run{""};
        std::vector<Set> sets;
        bool exact = true;
        auto flush = [&] {
            if (!HoldsEmpty(run))
                sets.push_back(run);
            run = Set{""};
        };
        while (!m_failed && !AtEnd() && Peek() != '|') {
            if (Peek() == ')') {
                if (depth == 0)
                    m_failed = true;  // an unmatched ")" is an ordinary character to the library
                break;
            }
            Info atom = Piece(depth);
            if (m_failed)
                break;
            if (atom.exact) {
                if (std::optional<Set> joined = Cross(run, atom.strings)) {
                    run = std::move(*joined);
                } else {
                    // Too long or too many to join: the part is no longer known exactly.
                    exact = false;
                    flush();
                    run = atom.strings;
                }
            } else {
                exact = false;
                flush();
                for (Set& set : atom.sets)
                    sets.push_back(std::move(set));
            }
        }
        if (exact)
            return Info::Exact(run);
        flush();
        Info info;
        info.sets = std::move(sets);
        return info;
    }

    // One atom with its repetition operators.
    Info Piece(int depth) {
        bool assertion = false;
        Info atom = Atom(depth, assertion);
        while (!m_failed && !AtEnd()) {
            char c = Peek();
            std::size_t low = 0;
            std::size_t high = 0;  // 0 with `unbounded`
            bool unbounded = false;
            if (c == '*') {
                unbounded = true;
                ++m_at;
            } else if (c == '+') {
                low = 1;
                unbounded = true;
                ++m_at;
            } else if (c == '?') {
                high = 1;
                ++m_at;
            } else if (c == '{') {
                if (!Interval(low, high, unbounded))
                    m_failed = true;
            } else {
                break;
            }
            if (m_failed || assertion) {
                // A repeated anchor is not what it looks like to the library.
                m_failed = true;
                break;
            }
            atom = Repeat(atom, low, high, unbounded);
        }
        return atom;
    }

    // "{n}", "{n,}", "{n,m}", "{,m}" (a missing lower bound is 0, as the library reads it).
    bool Interval(std::size_t& low, std::size_t& high, bool& unbounded) {
        ++m_at;
        auto number = [&](std::size_t& value) {
            bool any = false;
            value = 0;
            while (!AtEnd() && Peek() >= '0' && Peek() <= '9') {
                value = std::min<std::size_t>(value * 10 + static_cast<std::size_t>(Peek() - '0'),
                                              1u << 20);
                any = true;
                ++m_at;
            }
            return any;
        };
        bool hasLow = number(low);
        if (!AtEnd() && Peek() == ',') {
            ++m_at;
            unbounded = !number(high);
        } else {
            if (!hasLow)
                return false;
            high = low;
        }
        if (AtEnd() || Peek() != '}')
            return false;
        ++m_at;
        return true;
    }

    static Info Repeat(const Info& atom, std::size_t low, std::size_t high, bool unbounded) {
        if (low == 0) {
            // Optional: an exact part may also be absent; anything else requires nothing.
            if (atom.exact && !unbounded && high == 1 && atom.strings.size() < kMaxAlternatives) {
                Set strings = atom.strings;
                if (!HoldsEmpty(strings))
                    strings.push_back("");
                return Info::Exact(std::move(strings));
            }
            return Info::Unknown();
        }
        if (atom.exact && !unbounded && high == low && low <= kMaxLiteral) {
            Set strings{""};
            bool fits = true;
            for (std::size_t i = 0; i < low && fits; ++i) {
                std::optional<Set> joined = Cross(strings, atom.strings);
                fits = joined.has_value();
                if (fits)
                    strings = std::move(*joined);
            }
            if (fits)
                return Info::Exact(std::move(strings));
        }
        // At least one copy: what one copy requires, every match requires.
        Info info;
        info.sets = AsRequirements(atom);
        return info;
    }

    Info Atom(int depth, bool& assertion) {
        char c = Peek();
        switch (c) {
            case '(': {
                if (depth >= kMaxDepth) {
                    m_failed = true;
                    return Info::Unknown();
                }
                ++m_at;
                Info inner = Alternation(depth + 1);
                if (m_failed || AtEnd() || Peek() != ')') {
                    m_failed = true;
                    return Info::Unknown();
                }
                ++m_at;
                return inner;
            }
            case '[':
                if (!SkipBracket())
                    m_failed = true;
                return Info::Unknown();
            case '.':
                ++m_at;
                return Info::Unknown();
            case '^':
            case '$':
                ++m_at;
                assertion = true;
                return Info::Exact({""});
            case '\\':
                return Escape(assertion);
            case '*':
            case '+':
            case '?':
            case '{':
            case '}':
                // A repetition without an atom, or a stray "}": read differently by the library.
                m_failed = true;
                return Info::Unknown();
            default:
                ++m_at;
                return Info::Exact({std::string(1, Fold(c))});
        }
    }

    Info Escape(bool& assertion) {
        ++m_at;
        if (AtEnd()) {
            m_failed = true;
            return Info::Unknown();
        }
        auto c = static_cast<unsigned char>(Peek());
        ++m_at;
        switch (c) {
            case 'w':
            case 'W':
            case 's':
            case 'S':
                return Info::Unknown();  // one byte of a class
            case '<':
            case '>':
            case 'B':
            case '`':
            case '\'':
                assertion = true;  // word and text boundaries take no byte
                return Info::Exact({""});
            default:
                break;
        }
        if (IsAlnum(c) || c >= 0x80) {
            // Back-references and escapes this reading does not know.
            m_failed = true;
            return Info::Unknown();
        }
        return Info::Exact({std::string(1, static_cast<char>(c))});
    }

    // A bracket list as the library delimits it: a "]" right after "[" or "[^" belongs to the
    // list, "[:", "[." and "[=" open a name that ends at ":]", ".]" or "=]", and a backslash is
    // an ordinary member. The list matches one byte.
    bool SkipBracket() {
        std::size_t i = m_at + 1;
        if (i < m_text.size() && m_text[i] == '^')
            ++i;
        bool first = true;
        while (i < m_text.size()) {
            char c = m_text[i];
            if (c == ']' && !first) {
                m_at = i + 1;
                return true;
            }
            if (c == '[' && i + 1 < m_text.size() &&
                (m_text[i + 1] == ':' || m_text[i + 1] == '.' || m_text[i + 1] == '=')) {
                char close[] = {m_text[i + 1], ']'};
                std::size_t end = m_text.find(std::string_view(close, 2), i + 2);
                if (end == std::string_view::npos)
                    return false;
                i = end + 2;
            } else {
                ++i;
            }
            first = false;
        }
        return false;
    }

    std::string_view m_text;
    std::size_t m_at = 0;
    bool m_failed = false;
    bool m_everyBranchAnchored = true;  // so far, at the top level
};

RequiredLiterals::Literal MakeLiteral(const std::string& folded) {
    RequiredLiterals::Literal literal;
    literal.folded = folded;
    literal.foldMask.resize(folded.size());
    for (std::size_t i = 0; i < folded.size(); ++i)
        literal.foldMask[i] = (folded[i] >= 'a' && folded[i] <= 'z') ? '\x20' : '\0';
    return literal;
}

bool SameFolded(const unsigned char* text, const RequiredLiterals::Literal& literal,
                std::size_t from, std::size_t to) {
    const auto* folded = reinterpret_cast<const unsigned char*>(literal.folded.data());
    const auto* mask = reinterpret_cast<const unsigned char*>(literal.foldMask.data());
    for (std::size_t i = from; i < to; ++i) {
        if ((text[i] | mask[i]) != folded[i])
            return false;
    }
    return true;
}

}  // namespace

namespace {

// The literal bytes an expression begins with (see Lead). Conservative: any operator, escape or
// group ends it, and an expression with a "|" outside bracket lists has none.
std::string LeadingBytes(std::string_view expression) {
    constexpr std::string_view kSpecial = ".[]()*+?{}|^$\\";
    int depth = 0;
    for (std::size_t i = 0; i < expression.size(); ++i) {
        char c = expression[i];
        if (c == '\\') {
            ++i;  // an escaped byte is no operator here
        } else if (c == '[') {
            // Skip the bracket list: "]" right after "[" or "[^" belongs to it, "[:...:]" nests.
            std::size_t j = i + 1;
            if (j < expression.size() && expression[j] == '^') {
                ++j;
            }
            if (j < expression.size() && expression[j] == ']') {
                ++j;
            }
            while (j < expression.size() && expression[j] != ']') {
                if (expression[j] == '[' && j + 1 < expression.size() &&
                    (expression[j + 1] == ':' || expression[j + 1] == '.' ||
                     expression[j + 1] == '=')) {
                    std::size_t close = expression.find(std::string{expression[j + 1], ']'}, j + 2);
                    if (close == std::string_view::npos) {
                        return {};
                    }
                    j = close + 1;
                } else {
                    ++j;
                }
            }
            if (j >= expression.size()) {
                return {};
            }
            i = j;
        } else if (c == '(') {
            ++depth;
        } else if (c == ')') {
            --depth;
        } else if (c == '|' && depth <= 0) {
            return {};
        }
    }
    std::size_t end = 0;
    while (end < expression.size() && end < kMaxLiteral &&
           kSpecial.find(expression[end]) == std::string_view::npos) {
        ++end;
    }
    if (end < expression.size() &&
        std::string_view("*+?{").find(expression[end]) != std::string_view::npos && end > 0) {
        --end;  // the operator repeats the last byte (or makes it optional)
    }
    std::string lead(expression.substr(0, end));
    for (char& c : lead) {
        c = Fold(c);
    }
    return lead;
}

}  // namespace

RequiredLiterals RequiredLiterals::Derive(const char* expression) {
    RequiredLiterals result;
    if (std::string lead = LeadingBytes(expression); !lead.empty()) {
        result.m_lead = MakeLiteral(lead);
    }
    std::optional<Info> info = Analyzer(expression).Run();
    if (!info)
        return result;
    std::vector<Set> sets = AsRequirements(*info);
    std::stable_sort(sets.begin(), sets.end(), Better);
    std::size_t kept = 0;
    for (const Set& set : sets) {
        if (set.empty() || HoldsEmpty(set))
            continue;
        if (result.m_requirements.size() == kMaxRequirements)
            break;
        std::size_t bytes = 0;
        for (const std::string& s : set)
            bytes += s.size();
        if (kept + bytes > kMaxKeptBytes)
            continue;
        kept += bytes;
        Alternatives alternatives;
        for (const std::string& s : set)
            alternatives.push_back(MakeLiteral(s));
        result.m_requirements.push_back(std::move(alternatives));
    }
    return result;
}

bool RequiredLiterals::MayMatch(const char* text, std::size_t length) const {
    if (m_requirements.empty() || !g_enabled.load(std::memory_order_relaxed))
        return true;
    for (const Alternatives& alternatives : m_requirements) {
        bool any = false;
        for (const Literal& literal : alternatives) {
            if (ContainsFolded(text, length, literal)) {
                any = true;
                break;
            }
        }
        if (!any)
            return false;
    }
    return true;
}

// Candidates are positions where the literal's first and last bytes match (sixteen positions at
// a time where SSE2 is available); each candidate is then compared in full.
bool ContainsFolded(const char* text, std::size_t length,
                    const RequiredLiterals::Literal& literal) {
    return FindFolded(text, length, literal) != length || literal.folded.empty();
}

std::size_t FindFolded(const char* text, std::size_t length,
                       const RequiredLiterals::Literal& literal) {
    const std::size_t size = literal.folded.size();
    if (size == 0)
        return 0;
    if (size > length)
        return length;
    const auto* bytes = reinterpret_cast<const unsigned char*>(text);
    const std::size_t last = size - 1;
    const auto firstByte = static_cast<unsigned char>(literal.folded[0]);
    const auto firstMask = static_cast<unsigned char>(literal.foldMask[0]);
    const auto lastByte = static_cast<unsigned char>(literal.folded[last]);
    const auto lastMask = static_cast<unsigned char>(literal.foldMask[last]);
    const std::size_t starts = length - size + 1;  // candidate start positions
    std::size_t at = 0;
#if defined(__SSE2__)
    const __m128i wantFirst = _mm_set1_epi8(static_cast<char>(firstByte));
    const __m128i foldFirst = _mm_set1_epi8(static_cast<char>(firstMask));
    const __m128i wantLast = _mm_set1_epi8(static_cast<char>(lastByte));
    const __m128i foldLast = _mm_set1_epi8(static_cast<char>(lastMask));
    for (; at + 16 <= starts; at += 16) {
        __m128i head = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + at));
        __m128i tail = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + at + last));
        __m128i hits = _mm_and_si128(_mm_cmpeq_epi8(_mm_or_si128(head, foldFirst), wantFirst),
                                     _mm_cmpeq_epi8(_mm_or_si128(tail, foldLast), wantLast));
        auto mask = static_cast<unsigned>(_mm_movemask_epi8(hits));
        while (mask != 0) {
            auto bit = static_cast<std::size_t>(__builtin_ctz(mask));
            if (SameFolded(bytes + at + bit, literal, 1, last))
                return at + bit;
            mask &= mask - 1;
        }
    }
#endif
    for (; at < starts; ++at) {
        if ((bytes[at] | firstMask) == firstByte && (bytes[at + last] | lastMask) == lastByte &&
            SameFolded(bytes + at, literal, 1, last)) {
            return at;
        }
    }
    return length;
}

void SetRequiredLiteralsEnabled(bool enabled) {
    g_enabled.store(enabled, std::memory_order_relaxed);
}

bool RequiredLiteralsEnabled() {
    return g_enabled.load(std::memory_order_relaxed);
}

}  // namespace qbrix::content
