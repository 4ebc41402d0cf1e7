// Throughput of the rule engine on a realistic web page and mail, against a plain regexec scan
// of the same expressions measured in the same run, so results read as ratios.
#include <benchmark/benchmark.h>
#include <regex.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "content/ContentRule.h"
#include "content/RequiredLiterals.h"
#include "content/RuleEngine.h"
#include "content/TestLog.h"
#include "platform/Platform.h"

namespace {

using qbrix::content::ApplyContentRule;
using qbrix::content::ContentRule;
using qbrix::content::RegRule;

RegRule Unit(const std::string& find, const std::string& replace = "", bool replaceOn = false,
             const std::string& compare = "") {
    RegRule stored;
    stored.find = find;
    stored.findFlag = 1;
    stored.replace = replace;
    stored.replaceFlag = replaceOn ? 1 : 0;
    stored.compare = compare;
    stored.compareFlag = compare.empty() ? 0 : 1;
    stored.comment = "bench";
    stored.enable = 1;
    return stored;
}

RegRule Off() {
    RegRule stored;
    stored.enable = 0;
    return stored;
}

struct BenchRule {
    const char* label;
    std::unique_ptr<ContentRule> rule;
};

std::unique_ptr<ContentRule> MakeRule(const RegRule& main, int recurse,
                                      std::vector<RegRule> subs = {}) {
    return std::make_unique<ContentRule>(1, 0, "bench", main, recurse, Off(), subs, 1, 0, "");
}

// About 100 KB of a news-like page: navigation, articles with links, banner images from an ad
// server, tracker scripts and pixels, and an inline script now and then.
std::string MakePage(std::size_t size) {
    std::string page =
        "<!DOCTYPE html>\r\n<html><head><title>Daily News</title>\r\n"
        "<meta http-equiv=\"Content-Type\" content=\"text/html; charset=iso-8859-1\">\r\n"
        "<link rel=\"stylesheet\" href=\"/css/site.css\"></head>\r\n<body onload=\"init()\">\r\n";
    for (int item = 0; page.size() < size; ++item) {
        page += "<div class=\"article\"><h2><a href=\"http://news.example.com/story/" +
                std::to_string(item) + ".html\">Headline number " + std::to_string(item) +
                "</a></h2>\r\n<p>Lorem ipsum dolor sit amet, consectetur adipiscing elit, sed do "
                "eiusmod tempor incididunt ut labore et dolore magna aliqua. Ut enim ad minim "
                "veniam, quis nostrud exercitation ullamco laboris nisi ut aliquip.</p>\r\n";
        if (item % 5 == 0) {
            page += "<a href=\"http://ads.example.net/click?id=" + std::to_string(item) +
                    "\"><img src=\"http://ads.example.net/banner" + std::to_string(item) +
                    ".gif\" width=468 height=60 border=0></a>\r\n";
        }
        if (item % 7 == 0) {
            page += "<script type=\"text/javascript\" src=\"http://track.example.org/t.js?p=" +
                    std::to_string(item) + "\"></script>\r\n";
        }
        if (item % 11 == 0) {
            page += "<img src=\"http://pixel.example.org/p.gif\" width=1 height=1>\r\n";
        }
        if (item % 13 == 0) {
            page += "<script>var s = " + std::to_string(item) +
                    "; document.write('<p>' + s + '</p>');</script>\r\n";
        }
        page += "</div>\r\n";
    }
    page += "</body></html>\r\n";
    return page;
}

std::string MakeMail(std::size_t size) {
    std::string mail =
        "Return-Path: <news@lists.example.com>\r\nReceived: from mx.example.com\r\n"
        "From: \"Example News\" <news@lists.example.com>\r\nTo: reader@example.org\r\n"
        "Subject: Weekly digest\r\nMIME-Version: 1.0\r\n"
        "Content-Type: multipart/mixed; boundary=\"XYZ\"\r\n\r\n--XYZ\r\n"
        "Content-Type: text/plain; charset=iso-8859-1\r\n\r\n";
    for (int line = 0; mail.size() < size; ++line) {
        mail += "> " + std::to_string(line) +
                " quoted text of an earlier message, with a link http://www.example.com/a/" +
                std::to_string(line) + " and some more words\r\n";
    }
    mail +=
        "\r\n--XYZ\r\nContent-Type: application/octet-stream; name=\"setup.exe\"\r\n"
        "Content-Disposition: attachment; filename=\"setup.exe\"\r\n\r\nTVqQAAMAAAAEAAAA\r\n"
        "--XYZ--\r\n";
    return mail;
}

std::vector<BenchRule> PageRules() {
    std::vector<BenchRule> rules;
    rules.push_back(
        {"banner-img", MakeRule(Unit("<img[^>]*ads\\.example\\.net[^>]*>", "", true), 0)});
    rules.push_back(
        {"tracker-script", MakeRule(Unit("<script[^>]*track\\.[^>]*></script>", " ", true), 0)});
    rules.push_back(
        {"inline-script", MakeRule(Unit("<script>[^<]*</script>", "<!-- -->", true), 0)});
    rules.push_back({"web-bug", MakeRule(Unit("<img[^>]*width=1 height=1[^>]*>", " ", true), 0)});
    rules.push_back(
        {"ad-link", MakeRule(Unit("href=\"(http://ads\\.[^\"]*)\"", "about:blank", true), 0)});
    rules.push_back({"onload", MakeRule(Unit("<body[^>]*(onload=\"[^\"]*\")", " ", true), 0)});
    rules.push_back({"popup", MakeRule(Unit("window\\.open\\(", "void(", true), 0)});
    rules.push_back({"iframe", MakeRule(Unit("<iframe[^>]*>", "", true), 0)});
    rules.push_back(
        {"meta-refresh", MakeRule(Unit("<meta http-equiv=\"refresh\"[^>]*>", " ", true), 0)});
    rules.push_back({"charset", MakeRule(Unit("charset=(iso-8859-1)", "windows-1252", true), 0)});
    rules.push_back(
        {"sub-rules", MakeRule(Unit("<a [^>]*>"), 0,
                               {Unit("href"), Unit("ads\\."), Unit("", "", false, "href,")})});
    rules.push_back({"title", MakeRule(Unit("<title>([^<]*)</title>", "Filtered", true), 0)});
    return rules;
}

std::vector<BenchRule> MailRules() {
    std::vector<BenchRule> rules;
    rules.push_back(
        {"spam-subject", MakeRule(Unit("^Subject: [^\r]*(viagra|casino)", "", true), 0)});
    rules.push_back({"spam-flag", MakeRule(Unit("X-Spam-Flag: YES"), 0)});
    rules.push_back(
        {"exe-attachment", MakeRule(Unit("filename=\"[^\"]*\\.(exe|scr|pif)\"", "txt", true), 0)});
    rules.push_back({"html-part", MakeRule(Unit("Content-Type: text/html"), 0)});
    rules.push_back({"from-spammer", MakeRule(Unit("From: [^\r]*@spam\\."), 0)});
    rules.push_back({"web-bug-mail", MakeRule(Unit("<img[^>]*width=\"?1\"?[^>]*>", "", true), 0)});
    rules.push_back({"unsubscribe", MakeRule(Unit("List-Unsubscribe: [^\r]*"), 0)});
    rules.push_back({"boundary", MakeRule(Unit("boundary=\"([^\"]*)\""), 0)});
    return rules;
}

// What a plain scan of the same expression costs: one regexec, and for a Recurse rule one per
// match, restarting after each match.
void BaselineScan(const ContentRule& rule, const std::string& text) {
    const regex_t* regex = rule.main.findPattern.Regex();
    regmatch_t slots[qbrix::content::kMatchSlots];
    std::size_t pos = 0;
    do {
        slots[0].rm_so = 0;
        slots[0].rm_eo = static_cast<regoff_t>(text.size() - pos);
        if (regexec(regex, text.data() + pos, qbrix::content::kMatchSlots, slots, REG_STARTEND) !=
            0) {
            break;
        }
        pos += slots[rule.main.findPattern.GroupCount()].rm_eo;
        benchmark::DoNotOptimize(slots);
    } while (rule.recurse == 1 && pos < text.size());
}

// A rule that rewrites, as plain glibc applies it: regexec, then the last group's slot spliced
// with the replacement (std::string::replace), again after it for a Recurse rule.
void BaselineSplice(const ContentRule& rule, std::string& text) {
    const regex_t* regex = rule.main.findPattern.Regex();
    regmatch_t slots[qbrix::content::kMatchSlots];
    const std::string& replacement = rule.main.replacement;
    std::size_t pos = 0;
    do {
        slots[0].rm_so = 0;
        slots[0].rm_eo = static_cast<regoff_t>(text.size() - pos);
        if (regexec(regex, text.data() + pos, qbrix::content::kMatchSlots, slots, REG_STARTEND) !=
            0) {
            break;
        }
        const regmatch_t& slot = slots[rule.main.findPattern.GroupCount()];
        text.replace(pos + slot.rm_so, slot.rm_eo - slot.rm_so, replacement);
        pos += slot.rm_so + replacement.size();
    } while (rule.recurse == 1 && pos < text.size());
}

const std::string& Page() {
    static const std::string page = MakePage(100 * 1024);
    return page;
}
const std::string& Mail() {
    static const std::string mail = MakeMail(100 * 1024);
    return mail;
}

void RunEngine(benchmark::State& state, const std::vector<BenchRule>& rules,
               const std::string& input) {
    const ContentRule& rule = *rules[state.range(0)].rule;
    for (auto _ : state) {
        std::string text = input;
        benchmark::DoNotOptimize(ApplyContentRule(rule, text));
        benchmark::DoNotOptimize(text.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * input.size()));
}

void RunBaseline(benchmark::State& state, const std::vector<BenchRule>& rules,
                 const std::string& input) {
    const ContentRule& rule = *rules[state.range(0)].rule;
    for (auto _ : state) {
        std::string text = input;
        BaselineScan(rule, text);
        benchmark::DoNotOptimize(text.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * input.size()));
}

// The baseline of a rewriting rule: regexec and splice. Before timing, its output must be the
// engine's, byte for byte.
void RunSpliceBaseline(benchmark::State& state, const std::vector<BenchRule>& rules,
                       const std::string& input) {
    const ContentRule& rule = *rules[state.range(0)].rule;
    std::string byEngine = input;
    ApplyContentRule(rule, byEngine);
    std::string byGlibc = input;
    BaselineSplice(rule, byGlibc);
    if (byEngine != byGlibc) {
        state.SkipWithError("engine and glibc outputs differ");
        return;
    }
    for (auto _ : state) {
        std::string text = input;
        BaselineSplice(rule, text);
        benchmark::DoNotOptimize(text.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * input.size()));
}

const std::vector<BenchRule>& SharedPageRules() {
    static const std::vector<BenchRule> rules = PageRules();
    return rules;
}
const std::vector<BenchRule>& SharedMailRules() {
    static const std::vector<BenchRule> rules = MailRules();
    return rules;
}

// A Recurse rule over 1 MB with 10,000 matches: the case the copy-per-pass engine made
// quadratic.
const std::string& Megabyte() {
    static const std::string text = [] {
        std::string result;
        result.reserve(1 << 20);
        const std::string filler(90, 'x');
        for (int i = 0; i < 10000; ++i) {
            result += filler;
            result += "ads.example.net";
        }
        result.resize(1 << 20, 'y');
        return result;
    }();
    return text;
}

const std::vector<BenchRule>& RecurseRules() {
    static const std::vector<BenchRule> rules = [] {
        std::vector<BenchRule> list;
        list.push_back(
            {"recurse-10000", MakeRule(Unit("ads\\.example\\.net", "0.0.0.0", true), 1)});
        list.push_back({"recurse-found-only", MakeRule(Unit("ads\\.example\\.net"), 1)});
        return list;
    }();
    return rules;
}

// The same literal found with memmem: what any search at all costs.
void BM_RecurseMemmem(benchmark::State& state) {
    const std::string& input = Megabyte();
    const char needle[] = "ads.example.net";
    for (auto _ : state) {
        std::string text = input;
        std::size_t count = 0;
        const char* at = text.data();
        const char* end = text.data() + text.size();
        while (const void* hit = memmem(at, end - at, needle, sizeof(needle) - 1)) {
            at = static_cast<const char*>(hit) + sizeof(needle) - 1;
            ++count;
        }
        benchmark::DoNotOptimize(count);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * input.size()));
}

// The rules of one protocol over one page: 2 rules that match (the title, rewritten once, and
// every ad-server image, removed with Recurse) and 48 ad and tracker expressions that cannot
// match the page. The engine runs them one after another on the same text; the baseline compiles
// the same expressions with plain regcomp and applies them with regexec and a splice per match.
struct ProtocolRule {
    std::string find;
    std::string replacement;
    int recurse;
};

std::vector<ProtocolRule> ProtocolRules() {
    std::vector<ProtocolRule> rules = {{"<title>([^<]*)</title>", "Filtered", 0},
                                       {"<img[^>]*ads\\.example\\.net[^>]*>", "", 1}};
    const char* names[] = {"doubleclick", "adserver", "sponsor",    "popunder",
                           "affiliate",   "adfarm",   "clicktrack", "webbug",
                           "counter",     "hitbox",   "statcount",  "flashad"};
    const char* shapes[] = {"<img[^>]*%[^>]*>", "<script[^>]*%[^>]*></script>",
                            "<a [^>]*href=\"[^\"]*%[^\"]*\"[^>]*>", "<iframe[^>]*%[^>]*>"};
    for (const char* shape : shapes) {
        for (const char* name : names) {
            std::string find = shape;
            find.replace(find.find('%'), 1, name);
            rules.push_back({find, " ", 0});
        }
    }
    return rules;
}

struct ProtocolSet {
    std::vector<std::unique_ptr<ContentRule>> engine;
    std::vector<regex_t> plain;
    std::vector<ProtocolRule> rules;
};

const ProtocolSet& SharedProtocolSet() {
    static const ProtocolSet set = [] {
        ProtocolSet built;
        built.rules = ProtocolRules();
        built.plain.resize(built.rules.size());
        for (std::size_t i = 0; i < built.rules.size(); ++i) {
            const ProtocolRule& rule = built.rules[i];
            built.engine.push_back(MakeRule(Unit(rule.find, rule.replacement, true), rule.recurse));
            regcomp(&built.plain[i], rule.find.c_str(), REG_EXTENDED | REG_ICASE);
        }
        return built;
    }();
    return set;
}

// One rule as plain glibc applies it: regexec from the current position, the last group's slot
// spliced with the replacement, again after it for a Recurse rule.
bool PlainApply(const regex_t& regex, const ProtocolRule& rule, std::string& text) {
    regmatch_t slots[qbrix::content::kMatchSlots];
    std::size_t pos = 0;
    bool found = false;
    do {
        slots[0].rm_so = 0;
        slots[0].rm_eo = static_cast<regoff_t>(text.size() - pos);
        if (regexec(&regex, text.data() + pos, qbrix::content::kMatchSlots, slots, REG_STARTEND) !=
            0) {
            break;
        }
        const regmatch_t& slot = slots[regex.re_nsub];
        if (slot.rm_so == -1) {
            break;
        }
        found = true;
        text.replace(pos + slot.rm_so, slot.rm_eo - slot.rm_so, rule.replacement);
        pos += slot.rm_so + rule.replacement.size();
    } while (rule.recurse == 1 && pos < text.size());
    return found;
}

std::string ProtocolByEngine(const std::string& page, std::size_t& found) {
    std::string text = page;
    found = 0;
    for (const auto& rule : SharedProtocolSet().engine) {
        found += ApplyContentRule(*rule, text) >= qbrix::content::kRuleFound ? 1 : 0;
    }
    return text;
}

std::string ProtocolByGlibc(const std::string& page, std::size_t& found) {
    const ProtocolSet& set = SharedProtocolSet();
    std::string text = page;
    found = 0;
    for (std::size_t i = 0; i < set.rules.size(); ++i) {
        found += PlainApply(set.plain[i], set.rules[i], text) ? 1 : 0;
    }
    return text;
}

// Both sides once before timing: the outputs must be byte-identical and 2 of the 50 rules match.
bool ProtocolOutputsAgree(benchmark::State& state) {
    std::size_t engineFound = 0;
    std::size_t plainFound = 0;
    bool same = ProtocolByEngine(Page(), engineFound) == ProtocolByGlibc(Page(), plainFound);
    qbrix::content::ResetTestLog();
    if (!same || engineFound != 2 || plainFound != 2) {
        state.SkipWithError("engine and glibc outputs differ");
        return false;
    }
    return true;
}

void BM_ProtocolEngine(benchmark::State& state) {
    if (!ProtocolOutputsAgree(state)) {
        return;
    }
    std::size_t found = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(ProtocolByEngine(Page(), found));
    }
    qbrix::content::ResetTestLog();
}

// The same run with the prefilter switched off: what the engine costs on its own.
void BM_ProtocolEngineUnfiltered(benchmark::State& state) {
    if (!ProtocolOutputsAgree(state)) {
        return;
    }
    qbrix::content::SetRequiredLiteralsEnabled(false);
    std::size_t found = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(ProtocolByEngine(Page(), found));
    }
    qbrix::content::SetRequiredLiteralsEnabled(true);
    qbrix::content::ResetTestLog();
}

// Loading 1,000 rules: the engine's compilation (with the derivation of the required literals)
// against plain regcomp of the same expressions.
void BM_CompileEngine(benchmark::State& state) {
    const std::vector<ProtocolRule> rules = ProtocolRules();
    for (auto _ : state) {
        std::vector<qbrix::content::RulePattern> patterns(1000);
        for (std::size_t i = 0; i < patterns.size(); ++i) {
            qbrix::content::CompilePattern(patterns[i], rules[i % rules.size()].find);
        }
        benchmark::DoNotOptimize(patterns.data());
    }
}

void BM_CompileGlibc(benchmark::State& state) {
    const std::vector<ProtocolRule> rules = ProtocolRules();
    for (auto _ : state) {
        std::vector<regex_t> patterns(1000);
        for (std::size_t i = 0; i < patterns.size(); ++i) {
            regcomp(&patterns[i], rules[i % rules.size()].find.c_str(), REG_EXTENDED | REG_ICASE);
        }
        for (regex_t& regex : patterns) {
            regfree(&regex);
        }
    }
}

void BM_ProtocolGlibc(benchmark::State& state) {
    if (!ProtocolOutputsAgree(state)) {
        return;
    }
    std::size_t found = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(ProtocolByGlibc(Page(), found));
    }
}

// A rule that cannot match: "banner" is nowhere on this page, so the prefilter answers without
// the library. The text is not changed, so no copy is timed on either side.
const std::string& PageWithoutBanner() {
    static const std::string page = [] {
        std::string text = Page();
        for (std::size_t at = text.find("banner"); at != std::string::npos;
             at = text.find("banner", at)) {
            text.replace(at, 6, "promo_");
        }
        return text;
    }();
    return page;
}

constexpr const char* kBannerFind = "<img[^>]*banner[^>]*>";

void BM_CannotMatchEngine(benchmark::State& state) {
    auto rule = MakeRule(Unit(kBannerFind, "", true), 0);
    std::string text = PageWithoutBanner();
    for (auto _ : state) {
        benchmark::DoNotOptimize(ApplyContentRule(*rule, text));
    }
    if (text != PageWithoutBanner()) {
        state.SkipWithError("the engine changed a text it cannot match");
    }
    qbrix::content::ResetTestLog();
}

void BM_CannotMatchGlibc(benchmark::State& state) {
    regex_t regex;
    regcomp(&regex, kBannerFind, REG_EXTENDED | REG_ICASE);
    const std::string& text = PageWithoutBanner();
    regmatch_t slots[qbrix::content::kMatchSlots];
    for (auto _ : state) {
        slots[0].rm_so = 0;
        slots[0].rm_eo = static_cast<regoff_t>(text.size());
        benchmark::DoNotOptimize(
            regexec(&regex, text.data(), qbrix::content::kMatchSlots, slots, REG_STARTEND));
    }
    regfree(&regex);
}

// Each engine run is registered right beside its baseline so both see the same machine load.
void RegisterPair(const std::string& family, const std::vector<BenchRule>& rules,
                  const std::string& (*input)(), benchmark::TimeUnit unit) {
    for (std::size_t index = 0; index < rules.size(); ++index) {
        std::string name = family + "/" + rules[index].label;
        benchmark::RegisterBenchmark((name + "/engine").c_str(),
                                     [&rules, input](benchmark::State& state) {
                                         RunEngine(state, rules, input());
                                         qbrix::content::ResetTestLog();
                                     })
            ->Arg(static_cast<std::int64_t>(index))
            ->Unit(unit);
        benchmark::RegisterBenchmark(
            (name + "/regexec").c_str(),
            [&rules, input](benchmark::State& state) { RunBaseline(state, rules, input()); })
            ->Arg(static_cast<std::int64_t>(index))
            ->Unit(unit);
        const ContentRule& rule = *rules[index].rule;
        if (rule.main.replaceSwitch != 0 && rule.subRules.empty() && rule.replace.enable == 0) {
            benchmark::RegisterBenchmark((name + "/regexec+splice").c_str(),
                                         [&rules, input](benchmark::State& state) {
                                             RunSpliceBaseline(state, rules, input());
                                         })
                ->Arg(static_cast<std::int64_t>(index))
                ->Unit(unit);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    // The allocator as every program of the product sets it; the baselines share it.
    qbrix::platform::KeepLargeBuffersInHeap();
    // Nothing here reads the trace.
    qbrix::content::SetTestLogEnabled(false);
    RegisterPair("page", SharedPageRules(), Page, benchmark::kMicrosecond);
    RegisterPair("mail", SharedMailRules(), Mail, benchmark::kMicrosecond);
    RegisterPair("recurse1MB", RecurseRules(), Megabyte, benchmark::kMillisecond);
    benchmark::RegisterBenchmark("recurse1MB/memmem", BM_RecurseMemmem)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("protocol50/engine", BM_ProtocolEngine)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("protocol50/engine-unfiltered", BM_ProtocolEngineUnfiltered)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("protocol50/regexec", BM_ProtocolGlibc)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("compile1000/engine", BM_CompileEngine)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("compile1000/regcomp", BM_CompileGlibc)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("cannot-match/engine", BM_CannotMatchEngine)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("cannot-match/regexec", BM_CannotMatchGlibc)
        ->Unit(benchmark::kMicrosecond);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
