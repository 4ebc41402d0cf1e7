// Zones and rules: generated names, row images, the zone lookup, the editor's storing, closing
// and changed-flag rules, and the rule-group corrector.
#include <gtest/gtest.h>

#include "PolicyTestSupport.h"
#include "policy/RuleGroupCorrector.h"
#include "policy/ZoneEditor.h"

namespace qbrix::policy {
namespace {

using namespace test_support;

class ZoneModelTest : public ::testing::Test {
  protected:
    test::TempPlatform m_platform;
    test::ScriptedMessages m_messages;
    CleanPolicyState m_state;
};

TEST_F(ZoneModelTest, NewRulesCountAcrossEditorsWithTwoSpacesAndStartDisabled) {
    for (int i = 0; i < 3; ++i) {
        MakeNewRule(kRulePrefix);
    }
    ZoneRecord zone = EmptyZone();
    ZoneEditorModel editor(zone, kLanRulePrefix, nullptr);
    editor.NewRule();
    ASSERT_EQ(editor.RowCount(), 1u);
    EXPECT_EQ(editor.RowText(0), "NET  4");
    EXPECT_EQ(editor.Row(0).enabled, 0);
    EXPECT_EQ(RuleName(MakeNewRule(kRulePrefix)), "Rule  5");
}

TEST_F(ZoneModelTest, GeneratedNameLongerThanTheFieldSpillsOneByteIntoReserved) {
    g_newRuleCounter = 999999999;  // "Rule  1000000000": 16 characters
    ZoneRule rule = MakeNewRule(kRulePrefix);
    EXPECT_EQ(RuleName(rule), "Rule  100000000");
    EXPECT_EQ(reinterpret_cast<const char*>(&rule)[16], '0');
    EXPECT_EQ(reinterpret_cast<const char*>(&rule)[17], '\0');
}

TEST_F(ZoneModelTest, RowImagePairsDirectionsAndPutsDisabledRulesAfterEnabledOnes) {
    ZoneRule rule = Rule("r");
    EXPECT_EQ(RuleImageIndex(rule), 0);
    rule.direction = 1;
    EXPECT_EQ(RuleImageIndex(rule), 0);
    rule.direction = 2;
    EXPECT_EQ(RuleImageIndex(rule), 1);
    rule.result = 1;
    EXPECT_EQ(RuleImageIndex(rule), 3);
    rule.enabled = 0;
    EXPECT_EQ(RuleImageIndex(rule), 7);
    rule.result = 0;
    rule.direction = 0;
    EXPECT_EQ(RuleImageIndex(rule), 4);
}

TEST_F(ZoneModelTest, FindZoneIsExactAndFindsTheFirstOfEqualNames) {
    g_zones.Append(Zone("Office", {}, 0));
    g_zones.Append(Zone("Office", {}, 1));
    ASSERT_NE(FindZone("Office"), nullptr);
    EXPECT_EQ(FindZone("Office")->result, 0u);
    EXPECT_EQ(FindZone("office"), nullptr);
    EXPECT_EQ(FindZone("Office "), nullptr);
    EXPECT_TRUE(g_zones.Remove(FindZone("Office")));
    EXPECT_EQ(FindZone("Office")->result, 1u);
}

TEST_F(ZoneModelTest, StoringCutsTheNameZeroesUncheckedCriteriaAndKeepsTheLocalPort) {
    ZoneRule rule = Rule("old", 1, 0x0A000001, 80);
    rule.localPort = 1234;
    rule.mask = 0xFFFFFF00;
    rule.protocol = 1;
    rule.direction = 2;
    RuleFields fields = ShowRule(&rule);
    EXPECT_TRUE(fields.portChecked && fields.addressChecked && fields.protocolChecked);
    fields.name = "abcdefghijklmnopqrst";
    fields.portChecked = false;
    fields.addressChecked = false;
    fields.resultIndex = 1;
    StoreRule(fields, rule);
    EXPECT_EQ(RuleName(rule), "abcdefghijklmno");
    EXPECT_EQ(rule.reserved, 0u);
    EXPECT_EQ(rule.remotePort, 0);
    EXPECT_EQ(rule.address, 0u);
    EXPECT_EQ(rule.mask, 0u);
    EXPECT_EQ(rule.localPort, 1234);
    EXPECT_EQ(rule.protocol, 1u);
    EXPECT_EQ(rule.direction, 2u);
    EXPECT_EQ(rule.result, 1u);
}

TEST_F(ZoneModelTest, ClearingTheNameBoxDisablesEveryDetailAndEachCriterionItsOwnFields) {
    RuleFields fields;
    fields.nameChecked = true;
    fields.portChecked = true;
    RuleFieldStates states = FieldStates(fields);
    EXPECT_TRUE(states.name && states.criteria && states.port);
    EXPECT_FALSE(states.protocol || states.address || states.direction);
    fields.nameChecked = false;
    states = FieldStates(fields);
    EXPECT_FALSE(states.name || states.criteria || states.port);
}

TEST_F(ZoneModelTest, ClosingKeepsTenRowsAndZeroesUnusedSlots) {
    ZoneRecord zone = Zone("Z", {Rule("a"), Rule("b")});
    ZoneEditorModel editor(zone, kRulePrefix, nullptr);
    ASSERT_EQ(editor.RowCount(), 2u);
    for (int i = 0; i < 9; ++i) {
        editor.NewRule();
    }
    ASSERT_EQ(editor.RowCount(), 11u);
    EXPECT_EQ(editor.Close(), 1);
    // New rules go in before the selected one, so "b" is the eleventh row and dropped.
    EXPECT_EQ(RuleName(zone.rules[0]), "Rule  9");
    EXPECT_EQ(RuleName(zone.rules[8]), "Rule  1");
    EXPECT_EQ(RuleName(zone.rules[9]), "a");
    ZoneRecord small = Zone("Z", {Rule("a"), Rule("b"), Rule("c")});
    ZoneEditorModel second(small, kRulePrefix, nullptr);
    second.Select(1);
    EXPECT_EQ(second.DeleteRule(), 1);  // the scripted box answers the first button: Yes
    EXPECT_EQ(second.Selected(), 1);
    EXPECT_EQ(second.RowText(1), "c");
    second.Close();
    EXPECT_EQ(RuleName(small.rules[1]), "c");
    EXPECT_EQ(Bytes(&small.rules[2], sizeof(ZoneRule)), std::string(sizeof(ZoneRule), '\0'));
}

TEST_F(ZoneModelTest, SlotsAfterAnEmptyOneAreShownAndTheFixedNameLocksTheResult) {
    ZoneRecord zone = Zone("Z", {Rule("a"), Rule("b")}, 1);
    zone.rules[3] = Rule("d");
    ZoneEditorModel editor(zone, kRulePrefix, kCorrectorCaption);
    ASSERT_EQ(editor.RowCount(), 3u);
    EXPECT_EQ(editor.RowText(2), "d");
    EXPECT_EQ(editor.ZoneNameText(), kCorrectorCaption);
    EXPECT_FALSE(editor.ZoneResultEnabled());
    EXPECT_EQ(editor.Close(), 0);
    EXPECT_EQ(ZoneName(zone), kCorrectorCaption);
    EXPECT_EQ(zone.result, 1u);
    EXPECT_EQ(RuleName(zone.rules[2]), "d");  // closed up
}

TEST_F(ZoneModelTest, TypingAndUpdateChangeTheZoneButNotTheChangedFlag) {
    ZoneRecord zone = Zone("Z", {Rule("a", 1, 0, 80), Rule("b")});
    zone.rules[0].localPort = 21;
    ZoneEditorModel editor(zone, kRulePrefix, nullptr);
    editor.Fields().portChecked = false;
    editor.Update();
    editor.Select(1);
    editor.Fields().name = "renamed";  // not stored: the selection does not move back
    editor.Select(0);
    EXPECT_EQ(editor.Close(), 0);
    EXPECT_EQ(zone.rules[0].remotePort, 0);
    EXPECT_EQ(zone.rules[0].localPort, 21);
    EXPECT_EQ(RuleName(zone.rules[1]), "b");

    ZoneEditorModel clicked(zone, kRulePrefix, nullptr);
    clicked.CheckBoxClicked();
    EXPECT_EQ(clicked.Changed(), 1);
    clicked.Select(1);  // showing a rule clears the flag
    EXPECT_EQ(clicked.Changed(), 0);
    clicked.Toggle();
    EXPECT_EQ(clicked.Changed(), 1);
    EXPECT_EQ(clicked.Row(1).enabled, 0);
    EXPECT_EQ(clicked.RowImage(1), 4);
    clicked.Close();
}

TEST_F(ZoneModelTest, AddressByNameFillsOnlyTheAddressAndReportsUnknownHosts) {
    ZoneRecord zone = Zone("Z", {Rule("a")});
    ZoneEditorModel editor(zone, kRulePrefix, nullptr);
    EXPECT_EQ(editor.AddressByName("127.0.0.1"), 0);
    EXPECT_EQ(editor.Fields().address, 0x7F000001u);
    EXPECT_FALSE(editor.Fields().addressChecked);
    EXPECT_EQ(editor.AddressByName("no-such-host.invalid"), 1);
    ASSERT_EQ(m_messages.shown.size(), 1u);
    EXPECT_EQ(m_messages.shown[0].text, "Cannot find address");
    editor.Close();
    EXPECT_EQ(zone.rules[0].address, 0u);  // the box was not ticked
}

TEST_F(ZoneModelTest, CorrectorKeepsTheEarlierRuleOfANameAndSkipsLanRules) {
    ZoneRule mailA = Rule("Mail", 1, 0, 25);
    ZoneRule mailB = Rule("Mail", 1, 0, 110);
    g_zones.Append(Zone("A", {Rule("NET eth0", 1, 0xC0A80001), mailA}));
    ZoneRecord second = Zone("B", {mailB, Rule("Web")});
    second.rules[3] = Rule("Hidden");  // behind an empty slot: not looked at
    g_zones.Append(second);
    std::vector<ZoneRule> groups = CollectRuleGroups();
    ASSERT_EQ(groups.size(), 2u);
    EXPECT_EQ(RuleName(groups[0]), "Mail");
    EXPECT_EQ(groups[0].remotePort, 25);
    EXPECT_EQ(RuleName(groups[1]), "Web");

    ScriptedZoneEditor editor([](ZoneEditorModel& model) {
        EXPECT_EQ(model.RowCount(), 2u);
        model.Select(1);
        model.Fields().name = "Browse";  // renamed: the zones' "Web" stays as it was
        model.Update();
    });
    EXPECT_EQ(CorrectRuleGroups(nullptr), 1);
    EXPECT_EQ(m_messages.shown.back().text, "Update *ALL* the Rules?");
    EXPECT_EQ(Bytes(&g_zones.At(0).rules[1], 44), Bytes(&g_zones.At(1).rules[0], 44));
    EXPECT_EQ(g_zones.At(1).rules[0].remotePort, 25);
    EXPECT_EQ(RuleName(g_zones.At(1).rules[1]), "Web");
    EXPECT_EQ(RuleName(g_zones.At(0).rules[0]), "NET eth0");
}

TEST_F(ZoneModelTest, CorrectorChangesNothingOnNo) {
    g_zones.Append(Zone("A", {Rule("Mail", 1, 0, 25)}));
    ScriptedZoneEditor editor([](ZoneEditorModel& model) {
        model.Fields().port = 99;
        model.Update();
    });
    m_messages.QueueBoxAnswer(core::IDNO);
    EXPECT_EQ(CorrectRuleGroups(nullptr), 0);
    EXPECT_EQ(g_zones.At(0).rules[0].remotePort, 25);
}

}  // namespace
}  // namespace qbrix::policy
