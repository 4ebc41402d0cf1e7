#include "content/RuleTestReport.h"

#include <cstring>

#include "content/RuleEngine.h"
#include "content/TestLog.h"
#include "core/Messages.h"

namespace qbrix::content {

namespace {

// A "%s" argument: the text up to its first zero byte.
std::string_view AsFormatArgument(const std::string& text) {
    return std::string_view(text.c_str(), std::strlen(text.c_str()));
}

std::string RangeText(const char* verb, std::int32_t start, std::int32_t end,
                      const std::string& found) {
    std::string text(verb);
    text.append(" from ")
        .append(std::to_string(start))
        .append(" to ")
        .append(std::to_string(end))
        .append(" (")
        .append(AsFormatArgument(found))
        .append(")");
    return text;
}

}  // namespace

UnitFields FieldsOfUnit(const RegRuleMatcher& unit) {
    UnitFields fields;
    fields.find = unit.findText;
    fields.compareOn = unit.compareSwitch != 0;
    fields.replaceOn = unit.replaceSwitch != 0;
    fields.compare = unit.compareText;
    fields.replace = unit.rawReplacement;
    fields.comment = unit.comment;
    return fields;
}

int ApplyUnitFields(RegRuleMatcher& unit, const UnitFields& fields, std::string_view caption) {
    unit.findText = fields.find;
    if (!fields.find.empty()) {
        unit.enable = 1;
    }
    unit.compareSwitch = fields.compareOn ? 1 : 0;
    unit.replaceSwitch = fields.replaceOn ? 1 : 0;
    unit.compareText = fields.compare;
    unit.rawReplacement = fields.replace;
    unit.replacement = ExpandReplaceEscapes(fields.replace);
    unit.comment = fields.comment;
    if (CompilePattern(unit.findPattern, unit.findText) != 0) {
        core::CurrentMessages().MessageBox("Compile Find Error", caption,
                                           core::MB_OK | core::MB_ICONQUESTION);
        return 1;
    }
    if (CompilePattern(unit.comparePattern, unit.compareText) != 0) {
        core::CurrentMessages().MessageBox("Compile Compare Error", caption,
                                           core::MB_OK | core::MB_ICONQUESTION);
        return 1;
    }
    return 0;
}

int RunWholeRuleTest(ContentRule& rule, const RuleTestFields& fields, std::string_view sample,
                     WholeRuleReport& report, const RunLimits& limits) {
    rule.enable = fields.enable ? 1 : 0;
    rule.name = fields.name;
    rule.direction = fields.outgoing ? 1 : 0;
    rule.recurse = fields.fullContent ? 1 : 0;
    rule.log = fields.log ? 1 : 0;
    rule.replace.enable = fields.replaceEnable ? 1 : 0;
    if (ApplyUnitFields(rule.main, fields.main, kMainRuleCaption) != 0) {
        return 1;
    }
    if (ApplyUnitFields(rule.replace, fields.replace, kReplaceRuleCaption) != 0) {
        return 1;
    }
    // The replace group's "Find" box decides, whatever the apply did with a non-blank Find.
    rule.replace.enable = fields.replaceEnable ? 1 : 0;
    std::string text(sample);
    report.result = ApplyContentRule(rule, text, limits);
    report.trace = TestLog();
    report.resultText = std::move(text);
    return 0;
}

int RunUnitTest(RegRuleMatcher& unit, const UnitFields& fields, std::string_view input,
                UnitTestReport& report, const RunLimits& limits) {
    if (ApplyUnitFields(unit, fields, kMainRuleCaption) != 0) {
        return 1;
    }
    report = UnitTestReport();
    std::string text(input);
    std::string found;
    std::int32_t start = 0;
    std::int32_t end = 0;
    std::string stopReason;
    report.result = ApplyRegRule(unit, text, found, start, end, limits, &stopReason);
    switch (report.result) {
        case kUnitStopped:
            report.results = "Stopped: " + stopReason;
            break;
        case kUnitFound:
            report.results = RangeText("Found", start, end, found);
            report.output = found;
            report.selectInput = true;
            report.selectionStart = start;
            report.selectionEnd = end;
            break;
        case kUnitReplaced:
            report.results = RangeText("Changed", start, end, found);
            report.output = text;
            report.selectInput = true;
            report.selectOutput = true;
            report.selectionStart = start;
            report.selectionEnd = end;
            break;
        default:
            report.results = "Not Found";
            break;
    }
    return 0;
}

}  // namespace qbrix::content
