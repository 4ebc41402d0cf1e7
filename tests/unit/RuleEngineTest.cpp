#include "content/RuleEngine.h"

#include <gtest/gtest.h>
#include <locale.h>

#include <functional>
#include <random>
#include <string>

#include "content/RequiredLiterals.h"
#include "content/TestLog.h"

namespace qbrix::content {
namespace {

using platform::DWORD;

RegRule Unit(std::string find, std::string comment = "c") {
    RegRule stored;
    stored.find = std::move(find);
    stored.findFlag = 1;
    stored.comment = std::move(comment);
    stored.enable = 1;
    return stored;
}

RegRule WithCompare(RegRule stored, std::string compare) {
    stored.compare = std::move(compare);
    stored.compareFlag = 1;
    return stored;
}

RegRule WithReplace(RegRule stored, std::string replace) {
    stored.replace = std::move(replace);
    stored.replaceFlag = 1;
    return stored;
}

RegRule Off() {
    RegRule stored;
    stored.enable = 0;
    return stored;
}

std::unique_ptr<ContentRule> MakeRule(const RegRule& mainRule, DWORD recurse = 0,
                                      std::vector<RegRule> subRules = {},
                                      const RegRule& replaceRule = Off(), std::string name = "R") {
    return std::make_unique<ContentRule>(1, 0, std::move(name), mainRule, recurse, replaceRule,
                                         subRules, 1, 0, "");
}

// The search as first written: the text up to its first zero byte, as a C string.
int ReferenceSearch(const RulePattern& pattern, const std::string& text, std::int32_t& start,
                    std::int32_t& end) {
    if (!pattern.IsCompiled())
        return 1;
    std::string terminated(text.c_str());
    regmatch_t slots[kMatchSlots] = {};
    if (regexec(pattern.Regex(), terminated.c_str(), kMatchSlots, slots, 0) != 0)
        return 1;
    const regmatch_t& slot = slots[pattern.GroupCount()];
    if (slot.rm_so == -1 || slot.rm_eo == -1)
        return 1;
    start = slot.rm_so;
    end = slot.rm_eo;
    return 0;
}

int ReferenceApplyRegRule(const RegRuleMatcher& unit, std::string& text, std::string& found,
                          std::int32_t& start, std::int32_t& end) {
    std::string& log = TestLog();
    if (unit.enable == 0) {
        log += "\r\n  disabled: " + unit.comment;
        return 1;
    }
    if (ReferenceSearch(unit.findPattern, text, start, end) != 0) {
        if (unit.replaceSwitch != 0 && unit.rawReplacement.empty()) {
            log += "\r\n  ignored: " + unit.comment;
            start = 0;
            end = 0;
            found.clear();
            return 1;
        }
        log += "\r\n  not found: " + unit.comment;
        return 0;
    }
    if (!unit.findText.empty()) {
        found = text.substr(start, end - start);
    } else {
        found = text;
        start = 0;
        end = static_cast<std::int32_t>(text.size());
    }
    log += "\r\n  found ";
    int outcome = 2;
    if (unit.compareSwitch != 0) {
        std::int32_t s = 0;
        std::int32_t e = 0;
        if (ReferenceSearch(unit.comparePattern, found, s, e) == 0) {
            log += "-compared ";
        } else {
            outcome = 0;
        }
    }
    if (unit.replaceSwitch != 0 && outcome == 2) {
        text.replace(start, end - start, unit.replacement);
        end = start + static_cast<std::int32_t>(unit.replacement.size());
        log += "-modified ";
        outcome = 3;
    }
    log += " :" + unit.comment;
    return outcome;
}

constexpr int kLoopedForever = -1;

// The engine as first written: every pass copies the rest of the text and writes the modified
// piece back. The fast engine must give the same result, text and trace byte for byte. After
// `maxPasses` passes the run is taken as one that never ends (kLoopedForever).
int ReferenceApplyContentRule(const ContentRule& rule, std::string& text, int maxPasses = 1000) {
    std::string& log = TestLog();
    log.clear();
    if (rule.enable == 0) {
        log += " -- disabled: " + rule.name;
        return 1;
    }
    std::size_t pos = 0;
    int best = 0;
    int count = 0;
    for (int passes = 0;; ++passes) {
        if (passes == maxPasses)
            return kLoopedForever;
        if (!log.empty())
            log += "\r\n\r\n";
        log += "Main Rule:";
        std::string piece = text.substr(pos);
        std::string found;
        std::int32_t start = 0;
        std::int32_t end = 0;
        int r = ReferenceApplyRegRule(rule.main, piece, found, start, end);
        if (r == 0 || r == 1)
            break;
        if (r == 3)
            text = text.substr(0, pos) + piece;
        best = std::max(best, r);
        if (rule.subRules.empty()) {
            pos += end;
            ++count;
        } else {
            log += "\r\nSubRules :";
            std::string collected;
            bool any = false;
            bool abandoned = false;
            std::string region = text.substr(pos + start, end - start);
            for (const auto& sub : rule.subRules) {
                std::string piece2;
                std::int32_t s2 = 0;
                std::int32_t e2 = 0;
                int r2;
                if (!sub->findText.empty()) {
                    r2 = ReferenceApplyRegRule(*sub, region, piece2, s2, e2);
                    collected += piece2 + ",";
                } else {
                    r2 = ReferenceApplyRegRule(*sub, collected, piece2, s2, e2);
                }
                if (r2 == 0) {
                    abandoned = !any;
                    break;
                }
                any = true;
            }
            if (abandoned) {
                pos += end;
            } else {
                text.replace(pos + start, end - start, region);
                pos += start + region.size();
                ++count;
                best = 3;
            }
        }
        if (!(rule.recurse == 1 && pos < text.size()))
            break;
    }
    if (rule.replace.enable != 0 && count > 0) {
        log += "\r\nReplace Rule :";
        std::string found;
        std::int32_t s = 0;
        std::int32_t e = 0;
        int r = ReferenceApplyRegRule(rule.replace, text, found, s, e);
        if (r != 0 && r != 1)
            best = 4;
    }
    static const char* const kVerdicts[] = {
        "\r\n\r\n -- not found :", "\r\n\r\n -- disabled :", "\r\n\r\n -- found :",
        "\r\n\r\n -- processed :", "\r\n\r\n -- processed :"};
    log += kVerdicts[best];
    log += rule.name;
    return best;
}

class RuleEngineTest : public ::testing::Test {
  protected:
    void SetUp() override { ResetTestLog(); }
};

// What every match must contain, as requirements (best first, ";" between them) of alternatives
// ("|" between them); "" where the expression gets no prefilter.
std::string Requirements(const char* expression) {
    std::string text;
    RequiredLiterals literals = RequiredLiterals::Derive(expression);
    for (const auto& alternatives : literals.Requirements()) {
        text += text.empty() ? "" : ";";
        for (std::size_t i = 0; i < alternatives.size(); ++i)
            text += (i == 0 ? "" : "|") + alternatives[i].folded;
    }
    return text;
}

TEST(RequiredLiteralsTest, DerivesWhatEveryMatchHolds) {
    const std::vector<std::pair<const char*, const char*>> cases = {
        {"<img[^>]*banner[^>]*>", "banner;<img;>"},
        {"charset=(ISO-8859-1)", "charset=iso-8859-1"},
        {"filename=\"[^\"]*\\.(exe|scr|pif)\"", "filename=\";.exe\"|.scr\"|.pif\""},
        {"(ab)+c", "ab;c"},
        {"a(b|c)?d", "abd|acd|ad"},
        {"x*abc|yz{2}", "abc|yzz"},
        {"(^|x)ab\\>", "ab|xab"},
        {"[]ab]cd[[:alpha:]]ef[a-]]g", "cd;ef;]g"},
        // No prefilter: back-references, unknown escapes, empty or optional alternatives,
        // repetitions of anchors.
        {"(a)\\1", ""},
        {"\\d+xyz", ""},
        {"abc|", ""},
        {"abc|x?", ""},
        {"a{0,3}", ""},
        {"x^*abc", ""},
        // Anchored at the start in every branch: the library tries one position, no scan pays.
        {"^Subject: [^\r]*(viagra|casino)", ""},
        {"^ab|\\`cd", ""},
        {"^ab|cd", "ab|cd"},
    };
    for (const auto& [expression, expected] : cases)
        EXPECT_EQ(Requirements(expression), expected) << expression;
}

// What every match begins with: the literal bytes up to the first operator, less a byte the
// operator repeats; none with an alternative at the top level or an operator first.
TEST(RequiredLiteralsTest, LeadIsWhatEveryMatchBeginsWith) {
    const std::vector<std::pair<const char*, const char*>> cases = {
        {"<IMG[^>]*banner", "<img"},
        {"banner", "banner"},
        {"ab*c", "a"},
        {"ab{2}", "a"},
        {"ab?", "a"},
        {"a(b|c)", "a"},
        {"a[|]b", "a"},
        {"a\\.b", "a"},
        {"a|b", ""},
        {"x(a|b)|c", ""},
        {"^ab", ""},
        {"(ab)c", ""},
        {".ab", ""},
        {"*ab", ""},
    };
    for (const auto& [expression, expected] : cases)
        EXPECT_EQ(RequiredLiterals::Derive(expression).Lead().folded, expected) << expression;
    // The search starts at the lead's first occurrence, with the bytes before it as context.
    RulePattern pattern;
    ASSERT_EQ(0, CompilePattern(pattern, "ab\\>"));
    std::int32_t start = 0, end = 0;
    EXPECT_EQ(0, SearchPattern(pattern, "xxabc ab!", start, end));
    EXPECT_EQ(6, start);
    ASSERT_EQ(0, CompilePattern(pattern, "b\\<"));
    EXPECT_EQ(1, SearchPattern(pattern, "ab cd", start, end));
}

// Bytes a literal is compared with: ASCII letters without regard to case, every other byte
// (above 0x7F too) exactly.
TEST(RequiredLiteralsTest, ScanFoldsAsciiLettersOnly) {
    auto literal = RequiredLiterals::Derive("ab@\xC4z").Requirements().at(0).at(0);
    const std::string padding(40, '-');
    EXPECT_TRUE(ContainsFolded((padding + "AB@\xC4Z").data(), padding.size() + 5, literal));
    EXPECT_FALSE(ContainsFolded((padding + "AB`\xC4Z").data(), padding.size() + 5, literal));
    EXPECT_FALSE(ContainsFolded((padding + "AB@\xE4Z").data(), padding.size() + 5, literal));
    EXPECT_FALSE(ContainsFolded((padding + "AB@\xC4Z").data(), padding.size() + 4, literal));
}

TEST(EscapesTest, PatternEscapesExpandFiveKindsWithoutBackslashEscape) {
    EXPECT_EQ(ExpandPatternEscapes("a\\nb\\rc\\td\\ae\\bf"), "a\nb\rc\td\ae\bf");
    // A doubled backslash is no escape: the second one still pairs with the n.
    EXPECT_EQ(ExpandPatternEscapes("\\\\n"), "\\\n");
    EXPECT_EQ(ExpandPatternEscapes("\\w\\"), "\\w\\");
}

TEST(EscapesTest, ReplaceEscapesLeaveBellAndBackspaceAlone) {
    EXPECT_EQ(ExpandReplaceEscapes("x\\n\\r\\t\\a\\b"), "x\n\r\t\\a\\b");
}

TEST(EscapesTest, ReplaceAllPairsContinuesAfterInsertedText) {
    // The inserted "aa" is not searched again, so this terminates.
    EXPECT_EQ(ReplaceAllPairs("aXa", {{"a", "aa"}}), "aaXaa");
    EXPECT_EQ(ReplaceAllPairs("a b:c/d\\e", {{" ", "_"}, {":", "."}, {"\\", "-"}, {"/", "-"}}),
              "a_b.c-d-e");
    EXPECT_EQ(ReplaceAllPairs("abc", {{"", "x"}}), "abc");
}

TEST(CompileTest, FailsWithLibraryCodeAndNeverMatches) {
    RulePattern pattern;
    EXPECT_EQ(CompilePattern(pattern, "a(b"), REG_EPAREN);
    EXPECT_FALSE(pattern.IsCompiled());
    std::int32_t start = -5;
    std::int32_t end = -5;
    EXPECT_EQ(SearchPattern(pattern, "a(b", start, end), 1);
    EXPECT_EQ(start, -5);
    EXPECT_EQ(CompilePattern(pattern, "[z-a]"), REG_ERANGE);
    // Recompiling a compiled pattern frees the old buffer (checked by the sanitizer build).
    EXPECT_EQ(CompilePattern(pattern, "x"), 0);
    EXPECT_EQ(CompilePattern(pattern, "y"), 0);
    EXPECT_EQ(SearchPattern(pattern, "xy", start, end), 0);
    EXPECT_EQ(start, 1);
}

TEST(CompileTest, FiftyGroupsAreRefusedFortyNineAccepted) {
    std::string fortyNine;
    for (int i = 0; i < 49; ++i)
        fortyNine += "(a)";
    RulePattern pattern;
    ASSERT_EQ(CompilePattern(pattern, fortyNine), 0);
    std::int32_t start = 0;
    std::int32_t end = 0;
    std::string text = "x" + std::string(49, 'a');
    ASSERT_EQ(SearchPattern(pattern, text, start, end), 0);
    EXPECT_EQ(start, 49);
    EXPECT_EQ(end, 50);
    EXPECT_EQ(CompilePattern(pattern, fortyNine + "(b)"), REG_ESIZE);
    EXPECT_FALSE(pattern.IsCompiled());
}

TEST(CompileTest, ExpressionsTooCostlyToCompileAreOutOfMemory) {
    RulePattern pattern;
    // Nested bounded repetitions: the library would build millions of nodes (gigabytes).
    for (const std::string& costly :
         {std::string("((a{1,100}){1,100}){1,100}"), std::string("(a{1,1000}){1,1000}"),
          "x" + std::string(35, '+')}) {
        EXPECT_EQ(CompilePattern(pattern, costly), REG_ESPACE) << costly;
        EXPECT_FALSE(pattern.IsCompiled());
    }
    // The library's own refusals keep their codes.
    EXPECT_EQ(CompilePattern(pattern, "a{0,32768}"), REG_ESIZE);
    for (const char* fine : {"x+++", "a{1,1000}", "[[:alpha:]]{1,50}(b+|c?)*", "<a [^>]*>",
                             "(x|y){2}z{3,}", "[]a]+\\{", "(x{1,1900})+", "x{1,1000}y{1,1000}"}) {
        EXPECT_EQ(CompilePattern(pattern, fine), 0) << fine;
    }
}

// Long expressions the library compiles are accepted and find what the library finds; a unit
// loaded with one keeps its Compare, Replace and Comment.
struct LongExpression {
    const char* find;
    std::string text;
};

class LongExpressionTest : public ::testing::TestWithParam<LongExpression> {};

TEST_P(LongExpressionTest, CompilesAndMatchesAsTheLibraryDoes) {
    const LongExpression& param = GetParam();
    regex_t direct;
    ASSERT_EQ(regcomp(&direct, ExpandPatternEscapes(param.find).c_str(), REG_EXTENDED | REG_ICASE),
              0);
    regmatch_t slots[kMatchSlots]{};
    ASSERT_EQ(regexec(&direct, param.text.c_str(), kMatchSlots, slots, 0), 0);
    const regmatch_t expected = slots[direct.re_nsub];
    regfree(&direct);

    RegRule stored = WithCompare(Unit(param.find, "kept"), "[a-z]");
    stored.replace = "R";
    stored.replaceFlag = 1;
    RegRuleMatcher unit;
    unit.Assign(stored);
    ASSERT_TRUE(unit.findPattern.IsCompiled());
    RegRule again = unit.ToRegRule();
    EXPECT_EQ(again.compare, "[a-z]");
    EXPECT_EQ(again.replace, "R");
    EXPECT_EQ(again.comment, "kept");
    std::int32_t start = 0;
    std::int32_t end = 0;
    ASSERT_EQ(SearchPattern(unit.findPattern, param.text, start, end), 0);
    EXPECT_EQ(start, expected.rm_so);
    EXPECT_EQ(end, expected.rm_eo);
}

std::string Lines(int count) {
    std::string text;
    for (int i = 0; i < count; ++i)
        text += "line " + std::to_string(i) + "\n";
    return text;
}

INSTANTIATE_TEST_SUITE_P(Accepted, LongExpressionTest,
                         ::testing::Values(LongExpression{"<script.{0,5000}</script>",
                                                          "<p><SCRIPT>" + std::string(200, 'x') +
                                                              "</script></p>"},
                                           LongExpression{"(.{1,80}\\n){1,100}", Lines(12)},
                                           LongExpression{"[a-z]{1,2000}=([0-9]{1,50})",
                                                          std::string(300, 'k') + "=123;"}));

TEST(CompileTest, DoubleBackslashNCompilesAsBackslashAndLineFeed) {
    RulePattern pattern;
    ASSERT_EQ(CompilePattern(pattern, "\\\\n"), 0);
    std::int32_t start = 0;
    std::int32_t end = 0;
    // Backslash + line feed is an escaped line feed to the library: it matches the line feed.
    EXPECT_EQ(SearchPattern(pattern, "x\\\ny", start, end), 0);
    EXPECT_EQ(start, 2);
    EXPECT_EQ(end, 3);
    EXPECT_EQ(SearchPattern(pattern, "x\\ny", start, end), 1);
}

TEST(SearchTest, LastGroupIsTheFoundRange) {
    RulePattern pattern;
    ASSERT_EQ(CompilePattern(pattern, "a(b)c"), 0);
    std::int32_t start = 0;
    std::int32_t end = 0;
    ASSERT_EQ(SearchPattern(pattern, "xabcx", start, end), 0);
    EXPECT_EQ(start, 2);
    EXPECT_EQ(end, 3);
    // The last group did not take part in the match.
    ASSERT_EQ(CompilePattern(pattern, "b|(x)"), 0);
    EXPECT_EQ(SearchPattern(pattern, "b", start, end), 1);
}

TEST(SearchTest, IgnoresCaseAndLetsDotAndListsMatchLineFeed) {
    RulePattern pattern;
    ASSERT_EQ(CompilePattern(pattern, "<SCRIPT>.*</script>"), 0);
    std::int32_t start = 0;
    std::int32_t end = 0;
    EXPECT_EQ(SearchPattern(pattern, "a<script>\nx\n</SCRIPT>b", start, end), 0);
    EXPECT_EQ(start, 1);
    EXPECT_EQ(end, 21);
    ASSERT_EQ(CompilePattern(pattern, "^b[^x]c$"), 0);
    EXPECT_EQ(SearchPattern(pattern, "B\nC", start, end), 0);
    // "^" and "$" anchor only at the ends of the text, not at line breaks.
    EXPECT_EQ(SearchPattern(pattern, "a\nb\nc", start, end), 1);
}

TEST(SearchTest, StopsAtFirstZeroByte) {
    RulePattern pattern;
    ASSERT_EQ(CompilePattern(pattern, "needle"), 0);
    std::int32_t start = 0;
    std::int32_t end = 0;
    std::string text("hay\0needle", 10);
    EXPECT_EQ(SearchPattern(pattern, text, start, end), 1);
    ASSERT_EQ(CompilePattern(pattern, "y$"), 0);
    EXPECT_EQ(SearchPattern(pattern, text, start, end), 0);
    EXPECT_EQ(start, 2);
}

TEST(SearchTest, WorksOnBytesWhateverTheProcessLocale) {
    const char* previous = setlocale(LC_ALL, nullptr);
    std::string saved = previous != nullptr ? previous : "C";
    if (setlocale(LC_ALL, "C.UTF-8") == nullptr) {
        GTEST_SKIP() << "no UTF-8 locale on this machine";
    }
    RulePattern one;
    RulePattern two;
    int oneRc = CompilePattern(one, "a.b");
    int twoRc = CompilePattern(two, "a..b");
    std::int32_t start = 0;
    std::int32_t end = 0;
    // "\xC3\xA9" is one character in UTF-8 but two bytes to a rule.
    int oneFound = SearchPattern(one,
                                 "xa\xC3\xA9"
                                 "b",
                                 start, end);
    int twoFound = SearchPattern(two,
                                 "xa\xC3\xA9"
                                 "b",
                                 start, end);
    setlocale(LC_ALL, saved.c_str());
    EXPECT_EQ(oneRc, 0);
    EXPECT_EQ(twoRc, 0);
    EXPECT_EQ(oneFound, 1);
    EXPECT_EQ(twoFound, 0);
    EXPECT_EQ(start, 1);
    EXPECT_EQ(end, 5);
}

TEST_F(RuleEngineTest, UnitOutcomesAndTraceLines) {
    RegRuleMatcher unit;
    std::string found;
    std::int32_t start = 7;
    std::int32_t end = 7;

    unit.Assign(Off());
    unit.comment = "off";
    std::string text = "abc";
    EXPECT_EQ(ApplyRegRule(unit, text, found, start, end), kUnitSkipped);
    EXPECT_EQ(TestLog(), "\r\n  disabled: off");

    TestLog().clear();
    unit.Assign(Unit("zzz", "miss"));
    EXPECT_EQ(ApplyRegRule(unit, text, found, start, end), kUnitNotFound);
    EXPECT_EQ(TestLog(), "\r\n  not found: miss");
    EXPECT_EQ(start, 7);

    TestLog().clear();
    unit.Assign(WithReplace(Unit("zzz", "ign"), ""));
    found = "old";
    EXPECT_EQ(ApplyRegRule(unit, text, found, start, end), kUnitSkipped);
    EXPECT_EQ(TestLog(), "\r\n  ignored: ign");
    EXPECT_EQ(found, "");
    EXPECT_EQ(start, 0);
    EXPECT_EQ(end, 0);

    TestLog().clear();
    unit.Assign(WithCompare(Unit("b+", "cmp"), "x"));
    text = "abbc";
    EXPECT_EQ(ApplyRegRule(unit, text, found, start, end), kUnitNotFound);
    EXPECT_EQ(TestLog(), "\r\n  found  :cmp");
    EXPECT_EQ(found, "bb");

    TestLog().clear();
    unit.Assign(WithReplace(WithCompare(Unit("b+", "all"), "B"), "[\\n]"));
    EXPECT_EQ(ApplyRegRule(unit, text, found, start, end), kUnitReplaced);
    EXPECT_EQ(TestLog(), "\r\n  found -compared -modified  :all");
    EXPECT_EQ(text, "a[\n]c");
    EXPECT_EQ(found, "bb");
    EXPECT_EQ(start, 1);
    EXPECT_EQ(end, 4);
}

TEST_F(RuleEngineTest, BlankFindTakesTheWholeText) {
    RegRuleMatcher unit;
    unit.Assign(Unit(""));
    std::string text("ab\0cd", 5);
    std::string found;
    std::int32_t start = 3;
    std::int32_t end = 3;
    EXPECT_EQ(ApplyRegRule(unit, text, found, start, end), kUnitFound);
    EXPECT_EQ(start, 0);
    EXPECT_EQ(end, 5);
    EXPECT_EQ(found, text);
}

TEST_F(RuleEngineTest, DisabledRuleTracesOnlyItsName) {
    auto rule = MakeRule(Unit("a"));
    rule->enable = 0;
    std::string text = "aaa";
    EXPECT_EQ(ApplyContentRule(*rule, text), kRuleDisabled);
    EXPECT_EQ(TestLog(), " -- disabled: R");
    EXPECT_EQ(text, "aaa");
}

TEST_F(RuleEngineTest, IgnoredMainUnitEndsWithNotFound) {
    auto rule = MakeRule(WithReplace(Unit("zzz", "c"), ""), 1);
    std::string text = "abc";
    EXPECT_EQ(ApplyContentRule(*rule, text), kRuleNothing);
    EXPECT_EQ(TestLog(), "Main Rule:\r\n  ignored: c\r\n\r\n -- not found :R");
}

TEST_F(RuleEngineTest, RecurseRewritesEveryMatchOnce) {
    auto rule = MakeRule(WithReplace(Unit("o", "c"), "0"), 1);
    std::string text = "foo";
    EXPECT_EQ(ApplyContentRule(*rule, text), kRuleProcessed);
    EXPECT_EQ(text, "f00");
    EXPECT_EQ(TestLog(),
              "Main Rule:\r\n  found -modified  :c\r\n\r\nMain Rule:\r\n  found -modified  :c"
              "\r\n\r\n -- processed :R");

    rule->recurse = 0;
    text = "foo";
    EXPECT_EQ(ApplyContentRule(*rule, text), kRuleProcessed);
    EXPECT_EQ(text, "f0o");
    // Only exactly 1 means "keep going".
    rule->recurse = 65537;
    text = "foo";
    ApplyContentRule(*rule, text);
    EXPECT_EQ(text, "f0o");
}

TEST_F(RuleEngineTest, RecurseAnchorsAtTheCurrentPosition) {
    auto rule = MakeRule(WithReplace(Unit("^a", "c"), "b"), 1);
    std::string text = "aaxa";
    ApplyContentRule(*rule, text);
    EXPECT_EQ(text, "bbxa");
}

TEST_F(RuleEngineTest, SubRulesSeeWhatEarlierSubRulesCollected) {
    RegRule blank = WithCompare(Unit("", "list"), "href,");
    auto rule = MakeRule(Unit("a [^>]*", "tag"), 0, {Unit("href", "h"), blank});
    std::string text = "<a href=x>";
    EXPECT_EQ(ApplyContentRule(*rule, text), kRuleProcessed);
    EXPECT_EQ(TestLog(),
              "Main Rule:\r\n  found  :tag\r\nSubRules :\r\n  found  :h\r\n  found -compared  "
              ":list\r\n\r\n -- processed :R");
}

TEST_F(RuleEngineTest, FirstSubRuleMissAbandonsTheMatchWithoutCounting) {
    auto rule = MakeRule(WithReplace(Unit("b", "m"), "B"), 1, {Unit("zzz", "s")},
                         WithReplace(Unit("a", "r"), "A"));
    std::string text = "abab";
    // The main unit rewrote, so best is 3, but nothing counted: the replace unit does not run.
    EXPECT_EQ(ApplyContentRule(*rule, text), kRuleProcessed);
    EXPECT_EQ(text, "aBaB");
    EXPECT_EQ(TestLog().find("Replace Rule"), std::string::npos);
}

TEST_F(RuleEngineTest, ReplaceUnitRunsOnceAfterCountedPasses) {
    auto rule = MakeRule(Unit("x", "m"), 1, {}, WithReplace(Unit("y", "r"), "Y"));
    std::string text = "xyxy";
    EXPECT_EQ(ApplyContentRule(*rule, text), kRuleReplaceApplied);
    EXPECT_EQ(text, "xYxy");
    EXPECT_NE(TestLog().find("\r\nReplace Rule :\r\n  found -modified  :r\r\n\r\n -- processed :R"),
              std::string::npos);
}

TEST_F(RuleEngineTest, FoundOnlyRuleReportsFound) {
    auto rule = MakeRule(Unit("b"));
    std::string text = "abc";
    EXPECT_EQ(ApplyContentRule(*rule, text), kRuleFound);
    EXPECT_EQ(text, "abc");
    EXPECT_EQ(TestLog(), "Main Rule:\r\n  found  :c\r\n\r\n -- found :R");
}

TEST_F(RuleEngineTest, TextAfterZeroByteIsNotSearched) {
    auto rule = MakeRule(WithReplace(Unit("x"), "Y"), 1);
    std::string text("x\0x", 3);
    ApplyContentRule(*rule, text);
    EXPECT_EQ(text, std::string("Y\0x", 3));
}

// Random rules and texts over a small alphabet, so matches, misses, empty matches and zero bytes
// all occur; the fast engine must agree with the copy-per-pass one exactly, and stop exactly the
// runs that never end.
TEST_F(RuleEngineTest, MatchesCopyPerPassEngineOnGeneratedInputs) {
    std::mt19937 random(12345);
    const std::vector<std::string> finds = {
        "a",     "ab",  "b+", "(a)b", "a(b)?", "",        "^a",       "b$", "a|(c)",
        "[ab]c", "c.a", "x",  "a\\>", "[^c]+", "c[^a]*a", "(x|\\<c)", "x*", "(b*)"};
    const std::vector<std::string> replaces = {"", "Z", "zz", "\\n", "abc"};
    auto pick = [&](const std::vector<std::string>& from) { return from[random() % from.size()]; };
    auto text = [&] {
        std::string result;
        std::size_t length = random() % 24;
        for (std::size_t i = 0; i < length; ++i)
            result += "abcx\0"[random() % 5];
        return result;
    };
    auto unit = [&] {
        RegRule stored = Unit(pick(finds), "u" + std::to_string(random() % 10));
        if (random() % 3 == 0)
            stored = WithCompare(stored, pick(finds));
        if (random() % 2 == 0)
            stored = WithReplace(stored, pick(replaces));
        if (random() % 8 == 0)
            stored.enable = 0;
        return stored;
    };
    int stopped = 0;
    for (int round = 0; round < 10000; ++round) {
        RegRule mainRule = unit();
        DWORD recurse = random() % 2;
        std::vector<RegRule> subs;
        for (std::size_t i = random() % 3; i > 0; --i)
            subs.push_back(unit());
        auto rule = MakeRule(mainRule, recurse, subs, unit());
        std::string input = text();
        std::string fast = input;
        std::string slow = input;
        int fastResult = ApplyContentRule(*rule, fast);
        std::string fastLog = TestLog();
        if (round % 4 == 0) {
            // With the trace switched off: the same result and text, and the trace untouched.
            SetTestLogEnabled(false);
            std::string quiet = input;
            int quietResult = ApplyContentRule(*rule, quiet);
            SetTestLogEnabled(true);
            ASSERT_EQ(quietResult, fastResult) << "round " << round;
            ASSERT_EQ(quiet, fast) << "round " << round;
            ASSERT_EQ(TestLog(), fastLog) << "round " << round;
        }
        // A run either ends within a pass per byte or never: the engine stops exactly those.
        int slowResult = ReferenceApplyContentRule(*rule, slow, 100);
        if (slowResult == kLoopedForever) {
            ++stopped;
            ASSERT_EQ(fastResult, kRuleStopped) << "round " << round << " find " << mainRule.find;
            ASSERT_EQ(fast, input) << "round " << round;
            continue;
        }
        ASSERT_EQ(fastResult, slowResult) << "round " << round << " find " << mainRule.find;
        ASSERT_EQ(fast, slow) << "round " << round;
        ASSERT_EQ(fastLog, TestLog()) << "round " << round;
    }
    EXPECT_GT(stopped, 100);
}

// Runs that would never end, or that pass their limits, stop: the text is given back as it was
// (also after earlier passes rewrote it), and the trace ends with the reason.
struct StoppedCase {
    const char* label;
    RegRule main;
    std::string text;
    RunLimits limits;
    std::string reason;
    std::string trace;  // the trace's beginning, before the verdict
};

class StoppedRunTest : public ::testing::TestWithParam<StoppedCase> {
  protected:
    void SetUp() override { ResetTestLog(); }
};

TEST_P(StoppedRunTest, LeavesTheTextAndSaysWhy) {
    const StoppedCase& param = GetParam();
    auto rule = MakeRule(param.main, 1);
    std::string text = param.text;
    std::string reason;
    EXPECT_EQ(ApplyContentRule(*rule, text, param.limits, &reason), kRuleStopped);
    EXPECT_EQ(text, param.text);
    EXPECT_EQ(reason, param.reason);
    EXPECT_EQ(TestLog(), param.trace + "\r\n\r\n -- stopped (" + param.reason +
                             "), the text is left unchanged :R");
}

const std::string kPass = "Main Rule:\r\n  found -modified  :c";
const std::string kFoundPass = "Main Rule:\r\n  found  :c";

INSTANTIATE_TEST_SUITE_P(
    Limits, StoppedRunTest,
    ::testing::Values(
        StoppedCase{"EmptyMatchOnThreeBytes",
                    WithReplace(Unit("x*"), "X"),
                    "abc",
                    {},
                    "full content would repeat forever: the Find matches an empty stretch at "
                    "offset 0",
                    kPass},
        StoppedCase{"EmptyMatchFoundOnly",
                    Unit("b*"),
                    "abc",
                    {},
                    "full content would repeat forever: the Find matches an empty stretch at "
                    "offset 0",
                    kFoundPass},
        StoppedCase{"EmptyMatchAfterRewrites",
                    WithReplace(Unit("c|x*"), "Z"),
                    "ccab",
                    {},
                    "full content would repeat forever: the Find matches an empty stretch at "
                    "offset 2",
                    kPass + "\r\n\r\n" + kPass + "\r\n\r\n" + kPass},
        StoppedCase{"Growth", WithReplace(Unit("."), "0123456789"), std::string(100, 'a'),
                    RunLimits{std::chrono::milliseconds(5000), 2, 0},
                    "the text grew past 200 bytes, 2 times its length plus 0 MB",
                    [] {
                        std::string trace = kPass;
                        for (int i = 1; i < 12; ++i)
                            trace += "\r\n\r\n" + kPass;
                        return trace;
                    }()},
        // Shrinking rewrites compacted in place, then growing ones built in a new buffer.
        StoppedCase{"GrowthAfterRewritesInPlace", WithReplace(Unit("abc|d"), "XY"),
                    "abcabcabcdddddd", RunLimits{std::chrono::milliseconds(5000), 1, 0},
                    "the text grew past 15 bytes, 1 times its length plus 0 MB",
                    [] {
                        std::string trace = kPass;
                        for (int i = 1; i < 7; ++i)
                            trace += "\r\n\r\n" + kPass;
                        return trace;
                    }()},
        StoppedCase{"Time", WithReplace(Unit("a"), "b"), "aaa",
                    RunLimits{std::chrono::milliseconds(0)}, "the rule ran longer than 0 seconds",
                    kPass}),
    [](const auto& info) { return std::string(info.param.label); });

// Back-references: a search that finishes gives what the library gives in the process; one that
// would run for minutes (here on 5 KB) is stopped at the time limit.
TEST_F(RuleEngineTest, BackReferenceSearchesRunWithinTheTimeLimit) {
    RulePattern pattern;
    ASSERT_EQ(CompilePattern(pattern, "(a|b)x\\1"), 0);
    EXPECT_TRUE(pattern.HasBackReferences());
    std::int32_t start = 0;
    std::int32_t end = 0;
    EXPECT_EQ(SearchPattern(pattern, "axbbxbyy", start, end), 0);
    EXPECT_EQ(start, 3);
    EXPECT_EQ(end, 4);
    EXPECT_EQ(SearchPattern(pattern, "axb", start, end), 1);
    ASSERT_EQ(CompilePattern(pattern, "[\\1]x"), 0);
    EXPECT_FALSE(pattern.HasBackReferences());

    auto rule = MakeRule(WithReplace(Unit("(.)\\1"), "#"), 1);
    std::string fast = "aabcdd";
    std::string slow = fast;
    EXPECT_EQ(ApplyContentRule(*rule, fast), ReferenceApplyContentRule(*rule, slow));
    EXPECT_EQ(fast, "#abc#d");
    EXPECT_EQ(fast, slow);

    rule = MakeRule(WithReplace(Unit("(.+)(.+)\\2\\1z"), "#"), 1);
    std::string text;
    while (text.size() < 5000)
        text += "ab";
    std::string given = text;
    std::string reason;
    RunLimits limits{std::chrono::milliseconds(300)};
    EXPECT_EQ(ApplyContentRule(*rule, text, limits, &reason), kRuleStopped);
    EXPECT_EQ(text, given);
    EXPECT_EQ(reason, "a search with a back-reference ran longer than 300 ms");
    EXPECT_EQ(TestLog().rfind("Main Rule:\r\n  stopped (" + reason + ") :c", 0), 0u);

    // The Replace Rule's search stops after the main rule rewrote the text (once, or on every
    // pass).
    for (DWORD recurse : {0u, 1u}) {
        std::string rewritten = given;
        auto replaced =
            MakeRule(WithReplace(Unit("ba"), "abc"), recurse, {}, Unit("(.+)(.+)\\2\\1z"));
        EXPECT_EQ(ApplyContentRule(*replaced, rewritten, limits, &reason), kRuleStopped);
        EXPECT_EQ(rewritten, given) << recurse;
    }

    RegRuleMatcher unit;
    unit.Assign(Unit("(.+)(.+)\\2\\1z"));
    std::string found;
    EXPECT_EQ(ApplyRegRule(unit, text, found, start, end, limits, &reason), kUnitStopped);
    EXPECT_EQ(text, given);
}

// Random expressions (literals, bracket lists holding the literals' letters, groups, repetitions,
// alternations, anchors, back-references) over texts from a small alphabet with zero bytes: the
// engine gives the same result, text and trace with the prefilter as without it.
TEST_F(RuleEngineTest, PrefilterNeverChangesResultsOnGeneratedInputs) {
    std::mt19937 random(2024);
    const std::vector<std::string> atoms = {"a",    "b",    "B",           "ab",  "x",   ".",
                                            "[ab]", "[^a]", "[]b]",        "\\.", "^",   "$",
                                            "\\<",  "\\>",  "[[:upper:]]", "\\1", "\\w", "ba"};
    const std::vector<std::string> repeats = {"", "", "", "*", "+", "?", "{2}", "{1,}", "{0,2}"};
    auto pick = [&](const std::vector<std::string>& from) { return from[random() % from.size()]; };
    std::function<std::string(int)> expression = [&](int depth) {
        std::string result;
        for (std::size_t i = 1 + random() % 3; i > 0; --i) {
            std::string piece =
                depth < 2 && random() % 4 == 0 ? "(" + expression(depth + 1) + ")" : pick(atoms);
            result += piece + pick(repeats);
        }
        if (random() % 4 == 0)
            result += "|" + (random() % 5 == 0 ? std::string() : expression(depth + 1));
        return result;
    };
    auto text = [&] {
        std::string result;
        for (std::size_t length = random() % 30; length > 0; --length)
            result += "abAB.x \0"[random() % 8];
        return result;
    };
    for (int round = 0; round < 4000; ++round) {
        std::string find = expression(0);
        RegRule mainRule = random() % 2 == 0 ? WithReplace(Unit(find), "Z") : Unit(find);
        std::vector<RegRule> subs;
        if (random() % 4 == 0)
            subs.push_back(WithCompare(Unit(expression(0)), find));
        auto rule = MakeRule(mainRule, 0, subs);
        std::string input = text();
        std::string with = input;
        std::string without = input;
        int withResult = ApplyContentRule(*rule, with);
        std::string withLog = TestLog();
        SetRequiredLiteralsEnabled(false);
        int withoutResult = ApplyContentRule(*rule, without);
        SetRequiredLiteralsEnabled(true);
        ASSERT_EQ(withResult, withoutResult) << "find " << find << " text " << input;
        ASSERT_EQ(with, without) << "find " << find;
        ASSERT_EQ(withLog, TestLog()) << "find " << find;
    }
}

}  // namespace
}  // namespace qbrix::content
