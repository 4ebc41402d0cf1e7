// What the two rule testers do once their fields are read: apply editor fields to a unit (with
// the compile-error message boxes), run the whole rule or one unit on a sample, and produce the
// texts and selections the dialogs show. The dialogs only move text in and out.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "content/ContentRule.h"
#include "content/RegRuleMatcher.h"
#include "content/RuleEngine.h"

namespace qbrix::content {

// Captions of the compile-error boxes, by the unit being applied. The single-unit tester always
// uses the main unit's caption, whichever unit it was opened for.
inline constexpr char kMainRuleCaption[] = "Main Rule";
inline constexpr char kSubRuleCaption[] = "Sub Rule";
inline constexpr char kReplaceRuleCaption[] = "Replace Rule";

// The fields of one unit as an editor or the tester shows them.
struct UnitFields {
    std::string find;
    bool compareOn = false;
    std::string compare;
    bool replaceOn = false;
    std::string replace;  // as typed
    std::string comment;
};

// Fills unit fields from a unit (the tester opening on it).
UnitFields FieldsOfUnit(const RegRuleMatcher& unit);

// Copies the fields into the unit and compiles both patterns, whatever the switches. A blank
// Find leaves enable as it was; any other switches the unit on. On the first compile error
// shows "Compile Find Error" or "Compile Compare Error" under `caption` and returns 1 (the
// action that asked for the apply is abandoned); 0 otherwise.
int ApplyUnitFields(RegRuleMatcher& unit, const UnitFields& fields, std::string_view caption);

// The rule-level fields the whole-rule test copies from the editor.
struct RuleTestFields {
    bool enable = false;  // "Name" check box
    std::string name;
    bool outgoing = false;
    bool fullContent = false;  // Recurse
    bool log = false;
    bool replaceEnable = false;  // the replace group's "Find" check box
    UnitFields main;
    UnitFields replace;
};

struct WholeRuleReport {
    int result = 0;
    std::string trace;       // "Rule Protocol"
    std::string resultText;  // "Result"
};

// Copies the fields into the rule (it stays changed, also if the editor is cancelled later),
// applies the main and replace fields, then runs the rule on the sample. Sub-rules run as last
// applied. Returns 1 after a compile error (no run), 0 with the report filled otherwise. A run
// stopped at its limits has result kRuleStopped, the sample unchanged as its resulting text and
// the reason in the trace's last line.
int RunWholeRuleTest(ContentRule& rule, const RuleTestFields& fields, std::string_view sample,
                     WholeRuleReport& report, const RunLimits& limits = {});

struct UnitTestReport {
    int result = 0;
    std::string results;  // the "Results" line
    std::string output;   // "Output Text"
    // Range to select (in Input Text; for a change in Output Text as well).
    bool selectInput = false;
    bool selectOutput = false;
    std::int32_t selectionStart = 0;
    std::int32_t selectionEnd = 0;
};

// The single-unit tester's "Test": applies the fields to the very unit (caption "Main Rule"),
// runs it on the input and fills the report. Returns 1 after a compile error, else 0. A search
// stopped at its limits reads "Stopped: " and the reason in "Results".
int RunUnitTest(RegRuleMatcher& unit, const UnitFields& fields, std::string_view input,
                UnitTestReport& report, const RunLimits& limits = {});

}  // namespace qbrix::content
