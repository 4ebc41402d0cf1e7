#include "content/RuleEngine.h"

#include <locale.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "content/TestLog.h"

namespace qbrix::content {

namespace {

// Rules work on bytes: the C locale keeps "." and bracket lists at one byte whatever locale the
// interface runs in, and spares every search the multi-byte decoding. The switch is per thread
// and only around the library calls.
locale_t ByteLocale() {
    static const locale_t locale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
    return locale;
}

class ScopedByteLocale {
  public:
    ScopedByteLocale() : m_previous(uselocale(ByteLocale())) {}
    ~ScopedByteLocale() { uselocale(m_previous); }
    ScopedByteLocale(const ScopedByteLocale&) = delete;
    ScopedByteLocale& operator=(const ScopedByteLocale&) = delete;

  private:
    locale_t m_previous;
};

// Length of the text a search sees: up to its first zero byte, and within the 32-bit offsets
// the engine reports.
std::size_t SearchLength(std::string_view text) {
    const void* zero = text.empty() ? nullptr : std::memchr(text.data(), 0, text.size());
    std::size_t length =
        zero == nullptr ? text.size() : static_cast<const char*>(zero) - text.data();
    return std::min<std::size_t>(length, INT_MAX);
}

// Searches data[0, length) as a whole text ("^" at data, "$" at data + length) without needing
// a terminator there, so the main loop can search the rest of a text in place.
int SearchBytes(const RulePattern& pattern, const char* data, std::size_t length,
                std::int32_t& start, std::int32_t& end) {
    if (!pattern.IsCompiled()) {
        return 1;
    }
    static const char kEmpty[] = "";
    regmatch_t slots[kMatchSlots];
    std::memset(slots, 0, sizeof(slots));
    slots[0].rm_so = 0;
    slots[0].rm_eo = static_cast<regoff_t>(length);
    int rc;
    {
        ScopedByteLocale byteLocale;
        rc =
            regexec(pattern.Regex(), length == 0 ? kEmpty : data, kMatchSlots, slots, REG_STARTEND);
    }
    if (rc != 0) {
        return 1;
    }
    const regmatch_t& slot = slots[pattern.GroupCount()];
    if (slot.rm_so == -1 || slot.rm_eo == -1) {
        return 1;
    }
    start = static_cast<std::int32_t>(slot.rm_so);
    end = static_cast<std::int32_t>(slot.rm_eo);
    return 0;
}

struct UnitRun {
    int result = kUnitNotFound;
    std::int32_t start = 0;
    std::int32_t end = 0;     // end of the found stretch before any replacement
    bool positioned = false;  // start and end were set
};

// One unit over `piece` (searched up to searchLength), trace appended to the test log. The
// piece itself is not changed: the caller applies the replacement, so the main loop can build
// its output once instead of copying the rest of the text on every pass.
UnitRun RunUnit(const RegRuleMatcher& unit, std::string_view piece, std::size_t searchLength) {
    std::string& log = TestLog();
    UnitRun run;
    if (unit.enable == 0) {
        log.append("\r\n  disabled: ").append(unit.comment);
        run.result = kUnitSkipped;
        return run;
    }
    if (SearchBytes(unit.findPattern, piece.data(), searchLength, run.start, run.end) != 0) {
        if (unit.replaceSwitch != 0 && unit.rawReplacement.empty()) {
            log.append("\r\n  ignored: ").append(unit.comment);
            run.start = 0;
            run.end = 0;
            run.positioned = true;
            run.result = kUnitSkipped;
            return run;
        }
        log.append("\r\n  not found: ").append(unit.comment);
        run.result = kUnitNotFound;
        return run;
    }
    run.positioned = true;
    if (unit.findText.empty()) {
        // A blank Find takes the whole text, zero bytes and all.
        run.start = 0;
        run.end = static_cast<std::int32_t>(std::min<std::size_t>(piece.size(), INT_MAX));
    }
    std::string_view found = piece.substr(run.start, run.end - run.start);
    log.append("\r\n  found ");
    int outcome = kUnitFound;
    if (unit.compareSwitch != 0) {
        std::int32_t compareStart = 0;
        std::int32_t compareEnd = 0;
        if (SearchBytes(unit.comparePattern, found.data(), SearchLength(found), compareStart,
                        compareEnd) == 0) {
            log.append("-compared ");
        } else {
            outcome = kUnitNotFound;
        }
    }
    if (unit.replaceSwitch != 0 && outcome == kUnitFound) {
        log.append("-modified ");
        outcome = kUnitReplaced;
    }
    log.append(" :").append(unit.comment);
    run.result = outcome;
    return run;
}

// One rewrite of the main loop: source range [start, end) becomes the replacement.
struct TextEdit {
    std::size_t start;
    std::size_t end;
    const std::string* shared;  // the unit's replacement, or null for `owned`
    std::string owned;          // a region as the sub-rules left it
    std::string_view Text() const { return shared != nullptr ? *shared : owned; }
};

// Applies ordered, non-overlapping edits. While the text never grows ahead of what is still to
// be read, it is rewritten in place; otherwise it is built once in a new buffer.
void ApplyEdits(std::string& text, const std::vector<TextEdit>& edits) {
    if (edits.empty()) {
        return;
    }
    if (edits.size() == 1) {
        text.replace(edits[0].start, edits[0].end - edits[0].start, edits[0].Text());
        return;
    }
    bool inPlace = true;
    std::ptrdiff_t delta = 0;
    for (const TextEdit& edit : edits) {
        delta += static_cast<std::ptrdiff_t>(edit.Text().size()) -
                 static_cast<std::ptrdiff_t>(edit.end - edit.start);
        if (delta > 0) {
            inPlace = false;
        }
    }
    std::size_t finalSize =
        static_cast<std::size_t>(static_cast<std::ptrdiff_t>(text.size()) + delta);
    if (inPlace) {
        char* data = text.data();
        std::size_t write = 0;
        std::size_t read = 0;
        for (const TextEdit& edit : edits) {
            std::memmove(data + write, data + read, edit.start - read);
            write += edit.start - read;
            std::string_view replacement = edit.Text();
            std::memcpy(data + write, replacement.data(), replacement.size());
            write += replacement.size();
            read = edit.end;
        }
        std::memmove(data + write, data + read, text.size() - read);
        text.resize(finalSize);
        return;
    }
    std::string output;
    output.reserve(finalSize);
    std::size_t read = 0;
    for (const TextEdit& edit : edits) {
        output.append(text, read, edit.start - read).append(edit.Text());
        read = edit.end;
    }
    output.append(text, read, std::string::npos);
    text.swap(output);
}

}  // namespace

std::string ReplaceAllPairs(std::string_view text,
                            const std::vector<std::pair<std::string, std::string>>& pairs) {
    std::string result(text);
    for (const auto& [from, to] : pairs) {
        if (from.empty()) {
            continue;
        }
        std::size_t at = result.find(from);
        while (at != std::string::npos) {
            result.replace(at, from.size(), to);
            at = result.find(from, at + to.size());
        }
    }
    return result;
}

std::string ExpandPatternEscapes(std::string_view text) {
    static const std::vector<std::pair<std::string, std::string>> kPairs = {
        {"\\n", "\n"}, {"\\r", "\r"}, {"\\t", "\t"}, {"\\a", "\a"}, {"\\b", "\b"}};
    return ReplaceAllPairs(text, kPairs);
}

std::string ExpandReplaceEscapes(std::string_view text) {
    static const std::vector<std::pair<std::string, std::string>> kPairs = {
        {"\\n", "\n"}, {"\\r", "\r"}, {"\\t", "\t"}};
    return ReplaceAllPairs(text, kPairs);
}

int CompilePattern(RulePattern& pattern, std::string_view text) {
    pattern.Free();
    std::string expanded = ExpandPatternEscapes(text);
    int rc;
    {
        ScopedByteLocale byteLocale;
        rc = regcomp(pattern.MutableRegex(), expanded.c_str(), REG_EXTENDED | REG_ICASE);
    }
    if (rc != 0) {
        // The library frees what it built when compilation fails.
        pattern.SetCompiled(false);
        return rc;
    }
    pattern.SetCompiled(true);
    if (pattern.GroupCount() >= kMatchSlots) {
        // The last group's slot would lie outside the match slots.
        pattern.Free();
        return REG_ESIZE;
    }
    return 0;
}

int SearchPattern(const RulePattern& pattern, std::string_view text, std::int32_t& start,
                  std::int32_t& end) {
    return SearchBytes(pattern, text.data(), SearchLength(text), start, end);
}

int ApplyRegRule(const RegRuleMatcher& unit, std::string& text, std::string& found,
                 std::int32_t& start, std::int32_t& end) {
    UnitRun run = RunUnit(unit, text, SearchLength(text));
    if (!run.positioned) {
        return run.result;
    }
    start = run.start;
    end = run.end;
    if (run.result == kUnitSkipped) {
        found.clear();
        return run.result;
    }
    found.assign(text, run.start, run.end - run.start);
    if (run.result == kUnitReplaced) {
        text.replace(run.start, run.end - run.start, unit.replacement);
        end = run.start + static_cast<std::int32_t>(unit.replacement.size());
    }
    return run.result;
}

int ApplyContentRule(const ContentRule& rule, std::string& text) {
    std::string& log = TestLog();
    log.clear();
    if (rule.enable == 0) {
        log.append(" -- disabled: ").append(rule.name);
        return kRuleDisabled;
    }

    // Every pass searches the rest of the caller's text in place (from `rest` on it is still
    // untouched) and only records what it rewrites; the edits are applied once at the end, so
    // the cost stays linear in the length of the text however many passes there are.
    const std::string& source = text;
    std::vector<TextEdit> edits;
    std::size_t rest = 0;
    std::size_t zero = source.find('\0');
    int best = kRuleNothing;
    unsigned count = 0;
    while (true) {
        if (!log.empty()) {
            log.append("\r\n\r\n");
        }
        log.append("Main Rule:");
        std::string_view piece(source.data() + rest, source.size() - rest);
        if (zero != std::string::npos && zero < rest) {
            zero = source.find('\0', rest);
        }
        std::size_t searchLength = std::min<std::size_t>(
            (zero == std::string::npos ? source.size() : zero) - rest, INT_MAX);
        UnitRun run = RunUnit(rule.main, piece, searchLength);
        if (run.result == kUnitNotFound || run.result == kUnitSkipped) {
            break;
        }
        best = std::max(best, run.result);
        std::size_t editStart = rest + run.start;
        std::size_t editEnd = rest + run.end;
        bool replaced = run.result == kUnitReplaced;
        if (rule.subRules.empty()) {
            if (replaced) {
                edits.push_back({editStart, editEnd, &rule.main.replacement, {}});
            }
            ++count;
        } else {
            log.append("\r\nSubRules :");
            std::string region = replaced
                                     ? rule.main.replacement
                                     : std::string(piece.substr(run.start, run.end - run.start));
            std::string collected;
            bool any = false;
            bool abandoned = false;
            for (const auto& subRule : rule.subRules) {
                std::string found;
                std::int32_t subStart = 0;
                std::int32_t subEnd = 0;
                int subResult;
                if (!subRule->findText.empty()) {
                    subResult = ApplyRegRule(*subRule, region, found, subStart, subEnd);
                    collected.append(found).append(",");
                } else {
                    // A blank Find tests what the earlier sub-rules found, not the traffic.
                    subResult = ApplyRegRule(*subRule, collected, found, subStart, subEnd);
                }
                if (subResult == kUnitNotFound) {
                    abandoned = !any;
                    break;
                }
                any = true;
            }
            if (abandoned) {
                if (replaced) {
                    edits.push_back({editStart, editEnd, &rule.main.replacement, {}});
                }
            } else {
                edits.push_back({editStart, editEnd, nullptr, std::move(region)});
                ++count;
                best = kRuleProcessed;
            }
        }
        rest = editEnd;
        if (rule.recurse != 1 || rest >= source.size()) {
            break;
        }
    }
    ApplyEdits(text, edits);

    if (rule.replace.enable != 0 && count > 0) {
        log.append("\r\nReplace Rule :");
        std::string found;
        std::int32_t start = 0;
        std::int32_t end = 0;
        int result = ApplyRegRule(rule.replace, text, found, start, end);
        if (result != kUnitNotFound && result != kUnitSkipped) {
            best = kRuleReplaceApplied;
        }
    }

    switch (best) {
        case kRuleNothing:
            log.append("\r\n\r\n -- not found :");
            break;
        case kRuleDisabled:
            log.append("\r\n\r\n -- disabled :");
            break;
        case kRuleFound:
            log.append("\r\n\r\n -- found :");
            break;
        default:
            log.append("\r\n\r\n -- processed :");
            break;
    }
    log.append(rule.name);
    return best;
}

}  // namespace qbrix::content
