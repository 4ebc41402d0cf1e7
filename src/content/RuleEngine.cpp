#include "content/RuleEngine.h"

#include <fcntl.h>
#include <locale.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <mutex>
#include <unordered_map>

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

// Finds the first zero byte of a text once and remembers it, so that passes over the rest of a
// long text do not scan it again.
class ZeroScan {
  public:
    explicit ZeroScan(std::string_view text) : m_text(text) {}
    // Offset of the first zero byte at or after `from`, or the text's size when there is none.
    std::size_t FirstFrom(std::size_t from) {
        if (!m_known || m_zero < from) {
            const void* zero = from >= m_text.size()
                                   ? nullptr
                                   : std::memchr(m_text.data() + from, 0, m_text.size() - from);
            m_zero = zero == nullptr
                         ? m_text.size()
                         : static_cast<std::size_t>(static_cast<const char*>(zero) - m_text.data());
            m_known = true;
        }
        return m_zero;
    }

  private:
    std::string_view m_text;
    std::size_t m_zero = 0;
    bool m_known = false;
};

std::size_t Capped(std::size_t length) {
    return std::min<std::size_t>(length, INT_MAX);
}

// Searches data[0, length) as a whole text ("^" at data, "$" at data + length) without needing
// a terminator there, so the main loop can search the rest of a text in place.
int RunSearch(const RulePattern& pattern, const char* data, std::size_t length,
              regmatch_t (&slots)[kMatchSlots]) {
    static const char kEmpty[] = "";
    std::memset(slots, 0, sizeof(slots));
    slots[0].rm_so = 0;
    slots[0].rm_eo = static_cast<regoff_t>(length);
    if (!pattern.Literals().MayMatch(data, length)) {
        return REG_NOMATCH;  // something every match holds is not in the searched bytes
    }
    ScopedByteLocale byteLocale;
    return regexec(pattern.Regex(), length == 0 ? kEmpty : data, kMatchSlots, slots, REG_STARTEND);
}

// The range of the pattern's last group (the whole match without groups).
int TakeLastGroup(const RulePattern& pattern, const regmatch_t (&slots)[kMatchSlots],
                  std::int32_t& start, std::int32_t& end) {
    const regmatch_t& slot = slots[pattern.GroupCount()];
    if (slot.rm_so == -1 || slot.rm_eo == -1) {
        return 1;
    }
    start = static_cast<std::int32_t>(slot.rm_so);
    end = static_cast<std::int32_t>(slot.rm_eo);
    return 0;
}

int SearchBytes(const RulePattern& pattern, const char* data, std::size_t length,
                std::int32_t& start, std::int32_t& end) {
    if (!pattern.IsCompiled()) {
        return 1;
    }
    regmatch_t slots[kMatchSlots];
    if (RunSearch(pattern, data, length, slots) != 0) {
        return 1;
    }
    return TakeLastGroup(pattern, slots, start, end);
}

// Searches text[offset, ...) up to its first zero byte, as if that stretch were the whole text.
// An expression that cannot look past its match is first run over everything: when no zero
// byte lies before the match it found, the limited search gives the same match, and the zero
// byte is only looked for up to there. Otherwise the limit is found first.
int SearchUpToZero(const RulePattern& pattern, std::string_view text, std::size_t offset,
                   ZeroScan& zeros, std::int32_t& start, std::int32_t& end) {
    if (!pattern.IsCompiled()) {
        return 1;
    }
    const char* data = text.data() + offset;
    std::size_t length = Capped(text.size() - offset);
    if (!pattern.LooksPastMatchEnd()) {
        regmatch_t slots[kMatchSlots];
        if (RunSearch(pattern, data, length, slots) != 0) {
            return 1;
        }
        auto wholeEnd = static_cast<std::size_t>(slots[0].rm_eo);
        if (std::memchr(data, 0, wholeEnd) == nullptr) {
            return TakeLastGroup(pattern, slots, start, end);
        }
    }
    length = Capped(zeros.FirstFrom(offset) - offset);
    return SearchBytes(pattern, data, length, start, end);
}

// The library builds a repeated part once per repetition ("x+" holds x twice, "x{1,50}" fifty
// times), so stacked repetitions grow the compiled form geometrically ("x+++...+" with a few dozen
// "+", "((a{1,100}){1,100}){1,100}"), and a long bounded repetition costs memory in the square of
// its bound (".{0,8000}" takes about 500 MB). This upper estimate of the parse-tree size, counted
// the same way, only decides which expressions are cheap enough to compile directly: the others
// are first compiled in a child process under a budget of memory and processor time, and that
// measurement decides.
constexpr std::uint64_t kMeasureAbove = 1u << 10;
constexpr std::uint64_t kHuge = std::uint64_t{1} << 40;  // saturation of the estimate

std::uint64_t EstimatePatternSize(std::string_view expression) {
    auto clamp = [](std::uint64_t value) { return std::min(value, kHuge); };
    std::vector<std::uint64_t> groups{0};  // size of each open group so far
    std::uint64_t last = 0;                // size of the last atom, what a repetition copies
    std::size_t i = 0;
    while (i < expression.size()) {
        char c = expression[i];
        std::uint64_t& size = groups.back();
        if (c == '(') {
            groups.push_back(0);
            last = 0;
            ++i;
        } else if (c == ')' && groups.size() > 1) {
            std::uint64_t inner = groups.back() + 1;
            groups.pop_back();
            groups.back() = clamp(groups.back() + inner);
            last = inner;
            ++i;
        } else if (c == '*' || c == '?') {
            size = clamp(size + 1);
            last = clamp(last + 1);
            ++i;
        } else if (c == '+') {
            size = clamp(size + last + 1);
            last = clamp(2 * last + 1);
            ++i;
        } else if (c == '{') {
            std::uint64_t low = 0;
            std::uint64_t high = 0;
            bool comma = false;
            std::size_t j = i + 1;
            for (; j < expression.size() && expression[j] != '}'; ++j) {
                if (expression[j] == ',') {
                    comma = true;
                } else if (expression[j] >= '0' && expression[j] <= '9') {
                    std::uint64_t& bound = comma ? high : low;
                    bound = clamp(bound * 10 + static_cast<std::uint64_t>(expression[j] - '0'));
                }
            }
            std::uint64_t copies = std::max(low, high) + 1;
            size = clamp(size + clamp(last * copies));
            last = clamp(last * (copies + 1));
            i = j + 1;
        } else if (c == '[') {
            // A bracket list is one atom: skip to its closing bracket ("]" right after the
            // opening "[" or "[^" belongs to the list; "[:...:]" and the like are nested).
            std::size_t j = i + 1;
            if (j < expression.size() && expression[j] == '^')
                ++j;
            if (j < expression.size() && expression[j] == ']')
                ++j;
            while (j < expression.size() && expression[j] != ']') {
                if (expression[j] == '[' && j + 1 < expression.size() &&
                    (expression[j + 1] == ':' || expression[j + 1] == '.' ||
                     expression[j + 1] == '=')) {
                    std::size_t close = expression.find(']', j + 2);
                    j = close == std::string_view::npos ? expression.size() : close + 1;
                } else {
                    ++j;
                }
            }
            size = clamp(size + 1);
            last = 1;
            i = j + 1;
        } else {
            size = clamp(size + 1);
            last = 1;
            i += (c == '\\') ? 2 : 1;
        }
        if (groups.back() > kMeasureAbove || last > kMeasureAbove) {
            return groups.back() > last ? groups.back() : last;
        }
    }
    std::uint64_t total = 0;
    for (std::uint64_t size : groups)
        total = clamp(total + size);
    return total;
}

// The budget of a measured compilation: growth of the child's data segment (heap and anonymous
// mappings) and processor time. Within it glibc compiles "<script.{0,5000}</script>" (about
// 200 MB, a quarter of a second); nested bounded repetitions run out of it within a second.
constexpr std::uint64_t kCompileMemoryBudget = std::uint64_t{512} << 20;
constexpr rlim_t kCompileSeconds = 2;

constexpr int kCompileFlags = REG_EXTENDED | REG_ICASE;

// Bytes of the calling process's data segment (the sixth field of /proc/self/statm, in pages),
// read without allocating; 0 when unknown.
std::uint64_t DataSegmentBytes() {
    int fd = open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return 0;
    }
    char buffer[256];
    ssize_t got = read(fd, buffer, sizeof(buffer) - 1);
    close(fd);
    if (got <= 0) {
        return 0;
    }
    buffer[got] = '\0';
    std::uint64_t value = 0;
    int field = 0;
    for (const char* c = buffer; *c != '\0' && field < 6; ++c) {
        if (*c == ' ') {
            ++field;
            value = 0;
        } else if (*c >= '0' && *c <= '9') {
            value = value * 10 + static_cast<std::uint64_t>(*c - '0');
        }
    }
    return field >= 5 ? value * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE)) : 0;
}

// In the child: the budget as resource limits (the data limit counts from what the child
// inherited), and no core file when a limit ends it.
void LimitMeasuringChild() {
    rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
    rlimit cpu{kCompileSeconds, kCompileSeconds + 1};
    setrlimit(RLIMIT_CPU, &cpu);
    rlimit data{};
    if (getrlimit(RLIMIT_DATA, &data) == 0) {
        std::uint64_t limit = DataSegmentBytes() + kCompileMemoryBudget;
        if (data.rlim_max == RLIM_INFINITY || limit < data.rlim_max) {
            data.rlim_cur = static_cast<rlim_t>(limit);
            data.rlim_max = static_cast<rlim_t>(limit);
            setrlimit(RLIMIT_DATA, &data);
        }
    }
}

constexpr int kNotMeasured = -1;

// Compiles the expression in a child process under the budget and gives the library's code:
// REG_ESPACE also when the child was ended by the processor-time limit or otherwise died
// without an answer. kNotMeasured when no child could be started.
int MeasureCompile(const std::string& expression) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        return kNotMeasured;
    }
    pid_t child = fork();
    if (child < 0) {
        close(fds[0]);
        close(fds[1]);
        return kNotMeasured;
    }
    if (child == 0) {
        // The child keeps only its end of the pipe, so no socket, lock or file of the program
        // stays open in it while it compiles.
        const auto answer = static_cast<unsigned>(fds[1]);
        if (answer > 3) {
            close_range(3, answer - 1, 0);
        }
        close_range(answer + 1, ~0u, 0);
        LimitMeasuringChild();
        regex_t regex;
        int rc;
        {
            ScopedByteLocale byteLocale;
            rc = regcomp(&regex, expression.c_str(), kCompileFlags);
        }
        auto code = static_cast<unsigned char>(rc);
        _exit(write(fds[1], &code, 1) == 1 ? 0 : 1);
    }
    close(fds[1]);
    unsigned char code = 0;
    ssize_t got;
    do {
        got = read(fds[0], &code, 1);
    } while (got < 0 && errno == EINTR);
    close(fds[0]);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return got == 1 ? static_cast<int>(code) : static_cast<int>(REG_ESPACE);
}

// Measured verdicts by expression, so loading the same rules again does not measure again. An
// expression that could not be measured (no process to spare) is refused as out of memory and
// measured again next time.
int MeasuredVerdict(const std::string& expression) {
    static std::mutex mutex;
    static std::unordered_map<std::string, int> verdicts;
    constexpr std::size_t kRemembered = 256;
    {
        std::lock_guard<std::mutex> lock(mutex);
        auto known = verdicts.find(expression);
        if (known != verdicts.end()) {
            return known->second;
        }
    }
    int verdict = MeasureCompile(expression);
    if (verdict == kNotMeasured) {
        return REG_ESPACE;
    }
    std::lock_guard<std::mutex> lock(mutex);
    if (verdicts.size() >= kRemembered) {
        verdicts.clear();
    }
    verdicts.emplace(expression, verdict);
    return verdict;
}

// Whether the expression may test what follows its match: an end anchor or a word-boundary
// operator anywhere (in a bracket list too; a false alarm only costs speed).
bool LooksPastMatchEnd(std::string_view expression) {
    for (std::size_t i = 0; i < expression.size(); ++i) {
        if (expression[i] == '$') {
            return true;
        }
        if (expression[i] == '\\' && i + 1 < expression.size() &&
            std::string_view("<>bB'").find(expression[i + 1]) != std::string_view::npos) {
            return true;
        }
    }
    return false;
}

struct UnitRun {
    int result = kUnitNotFound;
    std::int32_t start = 0;
    std::int32_t end = 0;     // end of the found stretch before any replacement
    bool positioned = false;  // start and end were set
};

// One unit over text[offset, ...) (searched up to its first zero byte), trace appended to the test
// log. The piece itself is not changed: the caller applies the replacement, so the main loop can
// build its output once instead of copying the rest of the text on every pass.
UnitRun RunUnit(const RegRuleMatcher& unit, std::string_view text, std::size_t offset,
                ZeroScan& zeros) {
    std::string_view piece = text.substr(offset);
    std::string& log = TestLog();
    UnitRun run;
    if (unit.enable == 0) {
        log.append("\r\n  disabled: ").append(unit.comment);
        run.result = kUnitSkipped;
        return run;
    }
    if (SearchUpToZero(unit.findPattern, text, offset, zeros, run.start, run.end) != 0) {
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
        ZeroScan foundZeros(found);
        if (SearchUpToZero(unit.comparePattern, found, 0, foundZeros, compareStart, compareEnd) ==
            0) {
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

// Applies the main loop's rewrites as they come, in order and without overlap. While no
// replacement outgrows what has been read so far, the text is compacted in place (the part not
// yet searched is never touched); after that the rest is built once in a new buffer.
class TextRewriter {
  public:
    explicit TextRewriter(std::string& text) : m_text(text) {}

    // Source range [start, end) becomes `replacement`.
    void Replace(std::size_t start, std::size_t end, std::string_view replacement) {
        std::size_t gap = start - m_read;
        if (!m_building && m_write + gap + replacement.size() > end) {
            m_building = true;
            m_output.reserve(m_text.size() + replacement.size());
            m_output.append(m_text, 0, m_write);
        }
        if (m_building) {
            m_output.append(m_text, m_read, gap).append(replacement);
        } else {
            char* data = m_text.data();
            if (m_write != m_read) {
                std::memmove(data + m_write, data + m_read, gap);
            }
            m_write += gap;
            std::memcpy(data + m_write, replacement.data(), replacement.size());
            m_write += replacement.size();
        }
        m_read = end;
        m_changed = true;
    }

    void Finish() {
        if (!m_changed) {
            return;
        }
        if (m_building) {
            m_output.append(m_text, m_read, std::string::npos);
            m_text.swap(m_output);
        } else if (m_write != m_read) {
            std::size_t tail = m_text.size() - m_read;
            std::memmove(m_text.data() + m_write, m_text.data() + m_read, tail);
            m_text.resize(m_write + tail);
        }
    }

  private:
    std::string& m_text;
    std::string m_output;
    std::size_t m_write = 0;  // end of the settled text in place
    std::size_t m_read = 0;   // end of the source consumed so far
    bool m_building = false;
    bool m_changed = false;
};

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
    if (EstimatePatternSize(expanded) > kMeasureAbove) {
        int measured = MeasuredVerdict(expanded);
        if (measured != 0) {
            return measured;
        }
    }
    int rc;
    {
        ScopedByteLocale byteLocale;
        rc = regcomp(pattern.MutableRegex(), expanded.c_str(), kCompileFlags);
    }
    if (rc != 0) {
        // The library frees what it built when compilation fails.
        pattern.SetCompiled(false);
        return rc;
    }
    pattern.SetCompiled(true);
    pattern.SetLooksPastMatchEnd(LooksPastMatchEnd(expanded));
    pattern.SetLiterals(RequiredLiterals::Derive(expanded.c_str()));
    if (pattern.GroupCount() >= kMatchSlots) {
        // The last group's slot would lie outside the match slots.
        pattern.Free();
        return REG_ESIZE;
    }
    return 0;
}

int SearchPattern(const RulePattern& pattern, std::string_view text, std::int32_t& start,
                  std::int32_t& end) {
    ZeroScan zeros(text);
    return SearchUpToZero(pattern, text, 0, zeros, start, end);
}

int ApplyRegRule(const RegRuleMatcher& unit, std::string& text, std::string& found,
                 std::int32_t& start, std::int32_t& end) {
    ZeroScan zeros(text);
    UnitRun run = RunUnit(unit, text, 0, zeros);
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
    // untouched) and hands what it rewrites to the rewriter, so the cost stays linear in the
    // length of the text however many passes there are.
    const std::string& source = text;
    TextRewriter rewriter(text);
    std::size_t rest = 0;
    ZeroScan zeros(source);
    int best = kRuleNothing;
    unsigned count = 0;
    while (true) {
        if (!log.empty()) {
            log.append("\r\n\r\n");
        }
        log.append("Main Rule:");
        std::string_view piece(source.data() + rest, source.size() - rest);
        UnitRun run = RunUnit(rule.main, source, rest, zeros);
        if (run.result == kUnitNotFound || run.result == kUnitSkipped) {
            break;
        }
        best = std::max(best, run.result);
        std::size_t editStart = rest + run.start;
        std::size_t editEnd = rest + run.end;
        bool replaced = run.result == kUnitReplaced;
        if (rule.subRules.empty()) {
            if (replaced) {
                rewriter.Replace(editStart, editEnd, rule.main.replacement);
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
                    rewriter.Replace(editStart, editEnd, rule.main.replacement);
                }
            } else {
                rewriter.Replace(editStart, editEnd, region);
                ++count;
                best = kRuleProcessed;
            }
        }
        rest = editEnd;
        if (rule.recurse != 1 || rest >= source.size()) {
            break;
        }
    }
    rewriter.Finish();

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
