#include "content/RuleTestReport.h"

#include <gtest/gtest.h>

#include "content/RuleEngine.h"
#include "content/TestLog.h"
#include "support/TempPlatform.h"

namespace qbrix::content {
namespace {

UnitFields Fields(std::string find, std::string comment = "c") {
    UnitFields fields;
    fields.find = std::move(find);
    fields.comment = std::move(comment);
    return fields;
}

class RuleTestReportTest : public ::testing::Test {
  protected:
    void SetUp() override { ResetTestLog(); }
    test::ScriptedMessages m_messages;
};

TEST_F(RuleTestReportTest, CompileErrorsShowTheirBoxAndStop) {
    RegRuleMatcher unit;
    EXPECT_EQ(ApplyUnitFields(unit, Fields("a("), kSubRuleCaption), 1);
    UnitFields badCompare = Fields("a");
    badCompare.compare = "[";  // compiled although the switch is off
    EXPECT_EQ(ApplyUnitFields(unit, badCompare, kReplaceRuleCaption), 1);
    ASSERT_EQ(m_messages.shown.size(), 2u);
    EXPECT_EQ(m_messages.shown[0].text, "Compile Find Error");
    EXPECT_EQ(m_messages.shown[0].caption, "Sub Rule");
    EXPECT_EQ(m_messages.shown[0].style, core::MB_OK | core::MB_ICONQUESTION);
    EXPECT_EQ(m_messages.shown[1].text, "Compile Compare Error");
    EXPECT_EQ(m_messages.shown[1].caption, "Replace Rule");
}

TEST_F(RuleTestReportTest, ApplyKeepsRawAndExpandedReplacement) {
    RegRuleMatcher unit;
    UnitFields fields = Fields("x");
    fields.replaceOn = true;
    fields.replace = "a\\tb";
    ASSERT_EQ(ApplyUnitFields(unit, fields, kMainRuleCaption), 0);
    EXPECT_EQ(unit.enable, 1u);
    EXPECT_EQ(unit.rawReplacement, "a\\tb");
    EXPECT_EQ(unit.replacement, "a\tb");
    EXPECT_EQ(FieldsOfUnit(unit).replace, "a\\tb");
    // A blank Find leaves enable as it was.
    unit.enable = 0;
    ASSERT_EQ(ApplyUnitFields(unit, Fields(""), kMainRuleCaption), 0);
    EXPECT_EQ(unit.enable, 0u);
}

TEST_F(RuleTestReportTest, WholeRuleTestOfUncheckedRuleIsDisabled) {
    ContentRule rule;
    RuleTestFields fields;
    fields.name = "Ads";
    fields.main = Fields("x");
    WholeRuleReport report;
    ASSERT_EQ(RunWholeRuleTest(rule, fields, "xyz", report), 0);
    EXPECT_EQ(report.trace, " -- disabled: Ads");
    EXPECT_EQ(report.resultText, "xyz");
    EXPECT_EQ(rule.name, "Ads");
}

TEST_F(RuleTestReportTest, WholeRuleTestCopiesFieldsAndRuns) {
    ContentRule rule;
    rule.group = "kept";
    RuleTestFields fields;
    fields.enable = true;
    fields.name = "R";
    fields.outgoing = true;
    fields.fullContent = true;
    fields.main = Fields("o", "m");
    fields.main.replaceOn = true;
    fields.main.replace = "0";
    fields.replace = Fields("f", "r");  // Find filled but the group's box unchecked
    WholeRuleReport report;
    ASSERT_EQ(RunWholeRuleTest(rule, fields, "foo", report), 0);
    EXPECT_EQ(report.resultText, "f00");
    EXPECT_EQ(report.result, kRuleProcessed);
    EXPECT_EQ(rule.replace.enable, 0u);
    EXPECT_EQ(rule.direction, 1u);
    EXPECT_EQ(rule.group, "kept");
    EXPECT_EQ(report.trace,
              "Main Rule:\r\n  found -modified  :m\r\n\r\nMain Rule:\r\n  found -modified  :m"
              "\r\n\r\n -- processed :R");
}

TEST_F(RuleTestReportTest, WholeRuleTestWithBlankDisabledMainReportsDisabledLine) {
    ContentRule rule;
    RuleTestFields fields;
    fields.enable = true;
    fields.name = "R";
    WholeRuleReport report;
    ASSERT_EQ(RunWholeRuleTest(rule, fields, "abc", report), 0);
    EXPECT_EQ(report.trace, "Main Rule:\r\n  disabled: \r\n\r\n -- not found :R");
}

TEST_F(RuleTestReportTest, UnitTesterResultsTexts) {
    RegRuleMatcher unit;
    UnitTestReport report;
    ASSERT_EQ(RunUnitTest(unit, Fields("a(b+)c"), "xabbcx", report), 0);
    EXPECT_EQ(report.results, "Found from 2 to 4 (bb)");
    EXPECT_EQ(report.output, "bb");
    EXPECT_TRUE(report.selectInput);
    EXPECT_FALSE(report.selectOutput);
    EXPECT_EQ(report.selectionStart, 2);
    EXPECT_EQ(report.selectionEnd, 4);

    UnitFields change = Fields("b+");
    change.replaceOn = true;
    change.replace = "XYZ";
    ASSERT_EQ(RunUnitTest(unit, change, "abbc", report), 0);
    EXPECT_EQ(report.results, "Changed from 1 to 4 (bb)");
    EXPECT_EQ(report.output, "aXYZc");
    EXPECT_TRUE(report.selectOutput);
    EXPECT_EQ(report.selectionEnd, 4);

    UnitFields failing = Fields("b");
    failing.compareOn = true;
    failing.compare = "z";
    ASSERT_EQ(RunUnitTest(unit, failing, "abc", report), 0);
    EXPECT_EQ(report.results, "Not Found");
    EXPECT_EQ(report.output, "");

    UnitFields ignored = Fields("q");
    ignored.replaceOn = true;
    ASSERT_EQ(RunUnitTest(unit, ignored, "abc", report), 0);
    EXPECT_EQ(report.result, kUnitSkipped);
    EXPECT_EQ(report.results, "Not Found");
}

// A run stopped at its limits: the whole-rule report keeps the sample and ends its trace with
// the reason; the single-unit tester says "Stopped: " and why.
TEST_F(RuleTestReportTest, TestersSayWhenAndWhyARunWasStopped) {
    ContentRule rule;
    RuleTestFields fields;
    fields.enable = true;
    fields.name = "R";
    fields.fullContent = true;
    fields.main = Fields("x*", "m");
    fields.main.replaceOn = true;
    fields.main.replace = "X";
    WholeRuleReport whole;
    ASSERT_EQ(RunWholeRuleTest(rule, fields, "abc", whole), 0);
    EXPECT_EQ(whole.result, kRuleStopped);
    EXPECT_EQ(whole.resultText, "abc");
    EXPECT_EQ(whole.trace,
              "Main Rule:\r\n  found -modified  :m\r\n\r\n -- stopped (full content would repeat "
              "forever: the Find matches an empty stretch at offset 0), the text is left "
              "unchanged :R");

    RegRuleMatcher unit;
    UnitTestReport report;
    std::string input;
    while (input.size() < 5000)
        input += "ab";
    ASSERT_EQ(RunUnitTest(unit, Fields("(.+)(.+)\\2\\1z"), input, report,
                          RunLimits{std::chrono::milliseconds(300)}),
              0);
    EXPECT_EQ(report.result, kUnitStopped);
    EXPECT_EQ(report.results, "Stopped: a search with a back-reference ran longer than 300 ms");
    EXPECT_EQ(report.output, "");
    EXPECT_FALSE(report.selectInput);
}

TEST_F(RuleTestReportTest, UnitTesterUsesMainCaptionAndKeepsChangesInTheUnit) {
    ContentRule rule;
    RegRuleMatcher& sub = rule.InsertSubRule(nullptr);
    UnitTestReport report;
    EXPECT_EQ(RunUnitTest(sub, Fields("("), "x", report), 1);
    ASSERT_EQ(m_messages.shown.size(), 1u);
    EXPECT_EQ(m_messages.shown[0].caption, "Main Rule");
    ASSERT_EQ(RunUnitTest(sub, Fields("x", "edited"), "x", report), 0);
    EXPECT_EQ(rule.subRules[0]->comment, "edited");
}

}  // namespace
}  // namespace qbrix::content
