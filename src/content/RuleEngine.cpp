#include "content/RuleEngine.h"

#include <fcntl.h>
#include <locale.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <optional>
#include <unordered_map>

#include "content/TestLog.h"

namespace qbrix::content {

namespace {

// Rules work on bytes: the C locale keeps "." and bracket lists at one byte whatever locale the
// interface runs in, and spares every search the multi-byte decoding. The switch is per thread,
// once around each run of a rule or unit, search or compilation.
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

// The trace of a run, written only while the test log is switched on.
class Trace {
  public:
    Trace() : m_log(TestLogEnabled() ? &TestLog() : nullptr) {}
    Trace& Add(std::string_view text) {
        if (m_log != nullptr) {
            m_log->append(text);
        }
        return *this;
    }
    bool Empty() const { return m_log == nullptr || m_log->empty(); }
    void Clear() {
        if (m_log != nullptr) {
            m_log->clear();
        }
    }

  private:
    std::string* m_log;
};

std::size_t Capped(std::size_t length) {
    return std::min<std::size_t>(length, INT_MAX);
}

// Outcomes of one search.
constexpr int kSearchFound = 0;
constexpr int kSearchMissed = 1;
constexpr int kSearchStopped = 2;  // out of the run's budget; the reason is in the Budget

std::string DurationText(std::chrono::milliseconds time) {
    if (time.count() % 1000 == 0) {
        std::int64_t seconds = time.count() / 1000;
        return std::to_string(seconds) + (seconds == 1 ? " second" : " seconds");
    }
    return std::to_string(time.count()) + " ms";
}

// Milliseconds of the coarse monotonic clock: read on every pass of a run, and a few
// milliseconds of resolution are plenty for a budget of seconds, at a fraction of the cost.
std::int64_t CoarseNowMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// One run's limits as it goes: its deadline and, once it stopped, why.
class Budget {
  public:
    explicit Budget(const RunLimits& limits)
        : m_limits(limits), m_deadline(CoarseNowMs() + limits.time.count()) {}

    const RunLimits& Limits() const { return m_limits; }
    std::chrono::milliseconds Left() const {
        return std::chrono::milliseconds(m_deadline - CoarseNowMs());
    }
    const std::string& Reason() const { return m_reason; }
    // The first reason stays.
    void Stop(std::string reason) {
        if (m_reason.empty()) {
            m_reason = std::move(reason);
        }
    }
    std::string TimeText() const { return DurationText(m_limits.time); }

  private:
    RunLimits m_limits;
    std::int64_t m_deadline;  // CoarseNowMs
    std::string m_reason;
};

// What a search with a back-reference may take in its child besides the time left.
constexpr std::uint64_t kSearchMemoryBudget = std::uint64_t{512} << 20;

void KeepOnlyDescriptor(int fd);
void LimitChild(rlim_t cpuSeconds, std::uint64_t memoryBudget);

// What the searching child sends back: the library's code and the match slots.
struct SearchAnswer {
    int code;
    regmatch_t slots[kMatchSlots];
};

// glibc matches back-references by backtracking, at a cost it does not bound ("(.+)(.+)\2\1z"
// takes 13 s on 200 bytes; more groups are worse still, even on a few dozen bytes) and cannot be
// interrupted: such a search runs in a forked child, which has the run's time left (then it is
// killed) and 512 MB more memory than it inherited. The child searches the very same compiled
// expression and text, so when it finishes its answer is the one the process would have found.
int SearchInChild(const RulePattern& pattern, const char* data, std::size_t length,
                  regmatch_t (&slots)[kMatchSlots], Budget& budget) {
    const std::string late = "a search with a back-reference ran longer than " + budget.TimeText();
    std::chrono::milliseconds left = budget.Left();
    if (left.count() <= 0) {
        budget.Stop(late);
        return kSearchStopped;
    }
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        budget.Stop("no process could be started for a search with a back-reference");
        return kSearchStopped;
    }
    pid_t child = fork();
    if (child < 0) {
        close(fds[0]);
        close(fds[1]);
        budget.Stop("no process could be started for a search with a back-reference");
        return kSearchStopped;
    }
    if (child == 0) {
        KeepOnlyDescriptor(fds[1]);
        LimitChild(static_cast<rlim_t>(left.count() / 1000 + 1), kSearchMemoryBudget);
        SearchAnswer answer{};
        answer.slots[0] = slots[0];
        {
            ScopedByteLocale byteLocale;
            answer.code = regexec(pattern.Regex(), length == 0 ? "" : data,
                                  pattern.GroupCount() + 1, answer.slots, REG_STARTEND);
        }
        _exit(write(fds[1], &answer, sizeof(answer)) == sizeof(answer) ? 0 : 1);
    }
    close(fds[1]);
    SearchAnswer answer{};
    std::size_t got = 0;
    bool outOfTime = false;
    while (got < sizeof(answer)) {
        std::chrono::milliseconds wait = budget.Left();
        if (wait.count() <= 0) {
            outOfTime = true;
            break;
        }
        pollfd ready{fds[0], POLLIN, 0};
        int events =
            poll(&ready, 1, static_cast<int>(std::min<std::int64_t>(wait.count(), INT_MAX)));
        if (events < 0 && errno == EINTR) {
            continue;
        }
        if (events == 0) {
            outOfTime = true;
            break;
        }
        ssize_t bytes =
            events < 0 ? -1
                       : read(fds[0], reinterpret_cast<char*>(&answer) + got, sizeof(answer) - got);
        if (bytes < 0 && errno == EINTR) {
            continue;
        }
        if (bytes <= 0) {
            break;
        }
        got += static_cast<std::size_t>(bytes);
    }
    close(fds[0]);
    if (got < sizeof(answer)) {
        kill(child, SIGKILL);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (got < sizeof(answer)) {
        outOfTime = outOfTime || (WIFSIGNALED(status) && WTERMSIG(status) == SIGXCPU);
        budget.Stop(outOfTime ? late : "a search with a back-reference failed (out of memory?)");
        return kSearchStopped;
    }
    if (answer.code == REG_ESPACE) {
        budget.Stop("a search with a back-reference needed more than 512 MB");
        return kSearchStopped;
    }
    std::memcpy(slots, answer.slots, sizeof(answer.slots));
    return answer.code == 0 ? kSearchFound : kSearchMissed;
}

// Searches data[0, length) as a whole text ("^" at data, "$" at data + length) without needing
// a terminator there, so the main loop can search the rest of a text in place. Only the slots of
// the whole match and of the pattern's groups are set; the caller has switched to the C locale.
int RunSearch(const RulePattern& pattern, const char* data, std::size_t length,
              regmatch_t (&slots)[kMatchSlots], Budget& budget) {
    static const char kEmpty[] = "";
    slots[0].rm_so = 0;
    slots[0].rm_eo = static_cast<regoff_t>(length);
    if (pattern.HasBackReferences()) {
        if (!pattern.Literals().MayMatch(data, length)) {
            return kSearchMissed;
        }
        return SearchInChild(pattern, data, length, slots, budget);
    }
    // No match begins before the first occurrence of what every match begins with: the library
    // starts there (the bytes before stay visible to it, as context).
    std::size_t from = 0;
    if (const RequiredLiterals::Literal& lead = pattern.Literals().Lead();
        !lead.folded.empty() && RequiredLiteralsEnabled()) {
        from = FindFolded(data, length, lead);
        if (from == length) {
            return kSearchMissed;
        }
        slots[0].rm_so = static_cast<regoff_t>(from);
    }
    if (!pattern.Literals().MayMatch(data + from, length - from)) {
        return kSearchMissed;  // something every match holds is not in the searched bytes
    }
    return regexec(pattern.Regex(), length == 0 ? kEmpty : data, pattern.GroupCount() + 1, slots,
                   REG_STARTEND) == 0
               ? kSearchFound
               : kSearchMissed;
}

// The range of the pattern's last group (the whole match without groups).
int TakeLastGroup(const RulePattern& pattern, const regmatch_t (&slots)[kMatchSlots],
                  std::int32_t& start, std::int32_t& end) {
    const regmatch_t& slot = slots[pattern.GroupCount()];
    if (slot.rm_so == -1 || slot.rm_eo == -1) {
        return kSearchMissed;
    }
    start = static_cast<std::int32_t>(slot.rm_so);
    end = static_cast<std::int32_t>(slot.rm_eo);
    return kSearchFound;
}

int SearchBytes(const RulePattern& pattern, const char* data, std::size_t length,
                std::int32_t& start, std::int32_t& end, Budget& budget) {
    if (!pattern.IsCompiled()) {
        return kSearchMissed;
    }
    regmatch_t slots[kMatchSlots];
    if (int searched = RunSearch(pattern, data, length, slots, budget); searched != kSearchFound) {
        return searched;
    }
    return TakeLastGroup(pattern, slots, start, end);
}

// Searches text[offset, ...) up to its first zero byte, as if that stretch were the whole text.
// An expression that cannot look past its match is first run over everything: when no zero
// byte lies before the match it found, the limited search gives the same match, and the zero
// byte is only looked for up to there. Otherwise the limit is found first.
// (An expression with a back-reference is limited first: each of its searches costs a child.)
int SearchUpToZero(const RulePattern& pattern, std::string_view text, std::size_t offset,
                   ZeroScan& zeros, std::int32_t& start, std::int32_t& end, Budget& budget) {
    if (!pattern.IsCompiled()) {
        return kSearchMissed;
    }
    const char* data = text.data() + offset;
    std::size_t length = Capped(text.size() - offset);
    if (!pattern.LooksPastMatchEnd() && !pattern.HasBackReferences()) {
        regmatch_t slots[kMatchSlots];
        if (RunSearch(pattern, data, length, slots, budget) != kSearchFound) {
            return kSearchMissed;
        }
        auto wholeEnd = static_cast<std::size_t>(slots[0].rm_eo);
        if (std::memchr(data, 0, wholeEnd) == nullptr) {
            return TakeLastGroup(pattern, slots, start, end);
        }
    }
    length = Capped(zeros.FirstFrom(offset) - offset);
    return SearchBytes(pattern, data, length, start, end, budget);
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

// The position of the "]" that closes the bracket list opened at `open` (the length when none
// does): a "]" right after the opening "[" or "[^" belongs to the list, and "[:...:]" and the
// like are nested.
std::size_t BracketListEnd(std::string_view expression, std::size_t open) {
    std::size_t j = open + 1;
    if (j < expression.size() && expression[j] == '^')
        ++j;
    if (j < expression.size() && expression[j] == ']')
        ++j;
    while (j < expression.size() && expression[j] != ']') {
        if (expression[j] == '[' && j + 1 < expression.size() &&
            (expression[j + 1] == ':' || expression[j + 1] == '.' || expression[j + 1] == '=')) {
            std::size_t close = expression.find(']', j + 2);
            j = close == std::string_view::npos ? expression.size() : close + 1;
        } else {
            ++j;
        }
    }
    return j;
}

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
            // A bracket list is one atom.
            std::size_t j = BracketListEnd(expression, i);
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
    unsigned long long fields[6] = {};
    if (std::sscanf(buffer, "%llu %llu %llu %llu %llu %llu", &fields[0], &fields[1], &fields[2],
                    &fields[3], &fields[4], &fields[5]) != 6) {
        return 0;
    }
    return fields[5] * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

// Under AddressSanitizer every allocation carries red zones and freed blocks wait in its
// quarantine (256 MB), all counted in the data segment: the same work needs several times the
// memory there.
#if defined(__SANITIZE_ADDRESS__)
constexpr std::uint64_t kMemoryFactor = 4;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr std::uint64_t kMemoryFactor = 4;
#else
constexpr std::uint64_t kMemoryFactor = 1;
#endif
#else
constexpr std::uint64_t kMemoryFactor = 1;
#endif

// In the child: the budget as resource limits (the data limit counts from what the child
// inherited), and no core file when a limit ends it.
void LimitChild(rlim_t cpuSeconds, std::uint64_t memoryBudget) {
    rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
    rlimit cpu{cpuSeconds, cpuSeconds + 1};
    setrlimit(RLIMIT_CPU, &cpu);
    rlimit data{};
    if (getrlimit(RLIMIT_DATA, &data) == 0) {
        std::uint64_t limit = DataSegmentBytes() + memoryBudget * kMemoryFactor;
        if (data.rlim_max == RLIM_INFINITY || limit < data.rlim_max) {
            data.rlim_cur = static_cast<rlim_t>(limit);
            data.rlim_max = static_cast<rlim_t>(limit);
            setrlimit(RLIMIT_DATA, &data);
        }
    }
}

// In a child: only `fd` (its end of the answer pipe) and the standard streams stay open, so no
// socket, lock or file of the program stays open in it while it works.
void KeepOnlyDescriptor(int fd) {
    const auto answer = static_cast<unsigned>(fd);
    if (answer > 3) {
        close_range(3, answer - 1, 0);
    }
    close_range(answer + 1, ~0u, 0);
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
        KeepOnlyDescriptor(fds[1]);
        LimitChild(kCompileSeconds, kCompileMemoryBudget);
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

// Whether the expression holds a back-reference ("\1" to "\9" outside bracket lists; a false
// alarm only costs speed).
bool HasBackReferences(std::string_view expression) {
    for (std::size_t i = 0; i < expression.size(); ++i) {
        if (expression[i] == '[') {
            i = BracketListEnd(expression, i);
        } else if (expression[i] == '\\' && i + 1 < expression.size()) {
            if (expression[i + 1] >= '1' && expression[i + 1] <= '9') {
                return true;
            }
            ++i;
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
                ZeroScan& zeros, Budget& budget) {
    std::string_view piece = text.substr(offset);
    Trace log;
    UnitRun run;
    if (unit.enable == 0) {
        log.Add("\r\n  disabled: ").Add(unit.comment);
        run.result = kUnitSkipped;
        return run;
    }
    int searched =
        SearchUpToZero(unit.findPattern, text, offset, zeros, run.start, run.end, budget);
    if (searched == kSearchStopped) {
        log.Add("\r\n  stopped (").Add(budget.Reason()).Add(") :").Add(unit.comment);
        run.result = kUnitStopped;
        return run;
    }
    if (searched != kSearchFound) {
        if (unit.replaceSwitch != 0 && unit.rawReplacement.empty()) {
            log.Add("\r\n  ignored: ").Add(unit.comment);
            run.start = 0;
            run.end = 0;
            run.positioned = true;
            run.result = kUnitSkipped;
            return run;
        }
        log.Add("\r\n  not found: ").Add(unit.comment);
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
    log.Add("\r\n  found ");
    int outcome = kUnitFound;
    if (unit.compareSwitch != 0) {
        std::int32_t compareStart = 0;
        std::int32_t compareEnd = 0;
        ZeroScan foundZeros(found);
        int compared = SearchUpToZero(unit.comparePattern, found, 0, foundZeros, compareStart,
                                      compareEnd, budget);
        if (compared == kSearchStopped) {
            log.Add("stopped (").Add(budget.Reason()).Add(") :").Add(unit.comment);
            run.result = kUnitStopped;
            return run;
        }
        if (compared == kSearchFound) {
            log.Add("-compared ");
        } else {
            outcome = kUnitNotFound;
        }
    }
    if (unit.replaceSwitch != 0 && outcome == kUnitFound) {
        log.Add("-modified ");
        outcome = kUnitReplaced;
    }
    log.Add(" :").Add(unit.comment);
    run.result = outcome;
    return run;
}

// Applies the main loop's rewrites as they come, in order and without overlap. While no
// replacement outgrows what has been read so far, the text is compacted in place (the part not
// yet searched is never touched); after that the rest is built once in a new buffer. Until
// Finish the text as given can be restored: the source bytes overwritten in place are kept as
// they are consumed, so the guarantee costs nothing before the first rewrite and a copy of the
// consumed stretch only, not of the whole text.
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
            m_undo.append(m_text, m_read, end - m_read);
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

    // The only rewrite of a run that makes one pass: spliced into the text where it stands, as a
    // plain std::string::replace, without a second page-sized buffer.
    void ReplaceOnly(std::size_t start, std::size_t end, std::string_view replacement) {
        if (m_changed) {
            Replace(start, end, replacement);
            return;
        }
        m_undo.assign(m_text, start, end - start);
        m_spliceStart = start;
        m_spliceLength = replacement.size();
        m_text.replace(start, end - start, replacement);
        m_spliced = true;
        m_changed = true;
    }

    // The text as given (before Finish).
    std::string Original() const {
        if (m_spliced) {
            std::string original(m_text);
            original.replace(m_spliceStart, m_spliceLength, m_undo);
            return original;
        }
        if (!m_changed) {
            return m_text;
        }
        std::string original(m_undo);
        original.append(m_text, m_undo.size(), std::string::npos);
        return original;
    }

    // Gives the text back as it was given (before Finish).
    void Undo() {
        if (m_spliced) {
            m_text.replace(m_spliceStart, m_spliceLength, m_undo);
        } else if (m_changed) {
            std::memcpy(m_text.data(), m_undo.data(), m_undo.size());
        }
    }

    void Finish() {
        if (!m_changed || m_spliced) {
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
    std::string m_undo;  // the source bytes [0, m_read) while compacting in place, or the
                         // spliced bytes
    std::size_t m_spliceStart = 0;
    std::size_t m_spliceLength = 0;  // of the replacement, for ReplaceOnly
    bool m_spliced = false;
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
    pattern.SetHasBackReferences(HasBackReferences(expanded));
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
    ScopedByteLocale byteLocale;
    ZeroScan zeros(text);
    Budget budget{RunLimits{}};
    return SearchUpToZero(pattern, text, 0, zeros, start, end, budget);
}

namespace {

int ApplyUnit(const RegRuleMatcher& unit, std::string& text, std::string& found,
              std::int32_t& start, std::int32_t& end, Budget& budget) {
    ZeroScan zeros(text);
    UnitRun run = RunUnit(unit, text, 0, zeros, budget);
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

// The end of a stopped rule run: the caller's text as it was given, and the verdict line.
// Before the rewriter finished, it restores the text; after that `original` holds it when the
// rest of the run could stop.
int StopRule(const ContentRule& rule, std::string& text, TextRewriter* rewriter,
             std::optional<std::string>& original, const Budget& budget, std::string* stopReason) {
    if (rewriter != nullptr) {
        rewriter->Undo();
    } else if (original) {
        text.swap(*original);
    }
    Trace()
        .Add("\r\n\r\n -- stopped (")
        .Add(budget.Reason())
        .Add("), the text is left unchanged :")
        .Add(rule.name);
    if (stopReason != nullptr) {
        *stopReason = budget.Reason();
    }
    return kRuleStopped;
}

}  // namespace

int ApplyRegRule(const RegRuleMatcher& unit, std::string& text, std::string& found,
                 std::int32_t& start, std::int32_t& end, const RunLimits& limits,
                 std::string* stopReason) {
    ScopedByteLocale byteLocale;
    Budget budget(limits);
    int result = ApplyUnit(unit, text, found, start, end, budget);
    if (result == kUnitStopped && stopReason != nullptr) {
        *stopReason = budget.Reason();
    }
    return result;
}

int ApplyContentRule(const ContentRule& rule, std::string& text, const RunLimits& limits,
                     std::string* stopReason) {
    Trace log;
    log.Clear();
    if (rule.enable == 0) {
        log.Add(" -- disabled: ").Add(rule.name);
        return kRuleDisabled;
    }
    ScopedByteLocale byteLocale;
    Budget budget(limits);
    // The text as given, kept once the rewriter finished when the Replace Rule could still stop
    // the run (a search with a back-reference).
    std::optional<std::string> original;

    // Every pass searches the rest of the caller's text in place (from `rest` on it is still
    // untouched) and hands what it rewrites to the rewriter, so the cost stays linear in the
    // length of the text however many passes there are.
    const std::string& source = text;
    TextRewriter rewriter(text);
    std::size_t rest = 0;
    ZeroScan zeros(source);
    int best = kRuleNothing;
    unsigned count = 0;
    // The rewritten text's length, and how long it may grow.
    std::size_t length = source.size();
    const std::size_t maxLength = limits.growthFactor * source.size() + limits.growthBytes;
    auto rewrite = [&](std::size_t start, std::size_t end, std::string_view replacement) {
        if (rule.recurse != 1) {
            rewriter.ReplaceOnly(start, end, replacement);
        } else {
            rewriter.Replace(start, end, replacement);
        }
        length = length - (end - start) + replacement.size();
    };
    while (true) {
        if (!log.Empty()) {
            log.Add("\r\n\r\n");
        }
        log.Add("Main Rule:");
        std::string_view piece(source.data() + rest, source.size() - rest);
        UnitRun run = RunUnit(rule.main, source, rest, zeros, budget);
        if (run.result == kUnitStopped) {
            return StopRule(rule, text, &rewriter, original, budget, stopReason);
        }
        if (run.result == kUnitNotFound || run.result == kUnitSkipped) {
            break;
        }
        best = std::max(best, run.result);
        std::size_t editStart = rest + run.start;
        std::size_t editEnd = rest + run.end;
        bool replaced = run.result == kUnitReplaced;
        if (rule.subRules.empty()) {
            if (replaced) {
                rewrite(editStart, editEnd, rule.main.replacement);
            }
            ++count;
        } else {
            log.Add("\r\nSubRules :");
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
                    subResult = ApplyUnit(*subRule, region, found, subStart, subEnd, budget);
                    collected.append(found).append(",");
                } else {
                    // A blank Find tests what the earlier sub-rules found, not the traffic.
                    subResult = ApplyUnit(*subRule, collected, found, subStart, subEnd, budget);
                }
                if (subResult == kUnitStopped) {
                    return StopRule(rule, text, &rewriter, original, budget, stopReason);
                }
                if (subResult == kUnitNotFound) {
                    abandoned = !any;
                    break;
                }
                any = true;
            }
            if (abandoned) {
                if (replaced) {
                    rewrite(editStart, editEnd, rule.main.replacement);
                }
            } else {
                rewrite(editStart, editEnd, region);
                ++count;
                best = kRuleProcessed;
            }
        }
        bool again = rule.recurse == 1 && editEnd < source.size();
        if (again && editEnd == rest) {
            // The next pass would search the same rest of the text and do the same, forever.
            budget.Stop(
                "full content would repeat forever: the Find matches an empty stretch at "
                "offset " +
                std::to_string(rest));
            return StopRule(rule, text, &rewriter, original, budget, stopReason);
        }
        rest = editEnd;
        if (!again) {
            break;
        }
        if (length > maxLength) {
            budget.Stop("the text grew past " + std::to_string(maxLength) + " bytes, " +
                        std::to_string(limits.growthFactor) + " times its length plus " +
                        std::to_string(limits.growthBytes >> 20) + " MB");
            return StopRule(rule, text, &rewriter, original, budget, stopReason);
        }
        if (budget.Left().count() <= 0) {
            budget.Stop("the rule ran longer than " + budget.TimeText());
            return StopRule(rule, text, &rewriter, original, budget, stopReason);
        }
    }
    bool replaceRuleRuns = rule.replace.enable != 0 && count > 0;
    if (replaceRuleRuns && (rule.replace.findPattern.HasBackReferences() ||
                            rule.replace.comparePattern.HasBackReferences())) {
        original = rewriter.Original();
    }
    rewriter.Finish();

    if (replaceRuleRuns) {
        log.Add("\r\nReplace Rule :");
        std::string found;
        std::int32_t start = 0;
        std::int32_t end = 0;
        int result = ApplyUnit(rule.replace, text, found, start, end, budget);
        if (result == kUnitStopped) {
            return StopRule(rule, text, nullptr, original, budget, stopReason);
        }
        if (result != kUnitNotFound && result != kUnitSkipped) {
            best = kRuleReplaceApplied;
        }
    }

    switch (best) {
        case kRuleNothing:
            log.Add("\r\n\r\n -- not found :");
            break;
        case kRuleDisabled:
            log.Add("\r\n\r\n -- disabled :");
            break;
        case kRuleFound:
            log.Add("\r\n\r\n -- found :");
            break;
        default:
            log.Add("\r\n\r\n -- processed :");
            break;
    }
    log.Add(rule.name);
    return best;
}

}  // namespace qbrix::content
