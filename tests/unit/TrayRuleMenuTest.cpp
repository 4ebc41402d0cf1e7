#include "content/TrayRuleMenu.h"

#include <gtest/gtest.h>

#include "content/ContentStore.h"
#include "content/RuleEditorSupport.h"
#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "support/TempPlatform.h"

namespace qbrix::content {
namespace {

using platform::DWORD;

class TrayRuleMenuTest : public ::testing::Test {
  protected:
    void SetUp() override { m_settings.Reset(); }

    ContentRule& Add(std::size_t row, std::string name, DWORD enable, DWORD popUp,
                     std::string group = "") {
        ContentRule& rule =
            OptionsOf(m_settings, row).rules.Append(std::make_unique<ContentRule>());
        rule.name = std::move(name);
        rule.enable = enable;
        rule.popUp = popUp;
        rule.group = std::move(group);
        return rule;
    }

    test::TempPlatform m_platform;
    LspSettings m_settings;
};

TEST_F(TrayRuleMenuTest, OnlyDisableAllWhenNoRuleIsShown) {
    Add(kHttpRow, "hidden", 1, 0);
    auto entries = BuildContentRulesMenu(m_settings, kFirstRuleCommand, kEndRuleCommand, false);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].id, 84u);
    EXPECT_EQ(entries[0].text, "Disable All");
    EXPECT_FALSE(entries[0].checked);
    EXPECT_FALSE(entries[0].greyed);
}

TEST_F(TrayRuleMenuTest, RulesThenGroupsInByteOrderWithSeparator) {
    Add(kHttpRow, "ads", 1, 1);
    Add(kHttpRow, "g1", 1, 1, "b-group");
    Add(kPop3Row, "mail", 0, 1);
    Add(kPop3Row, "g2", 0, 1, "b-group");
    Add(kPop3Row, "g3", 1, 1, "B-group");
    Add(kPop3Row, "g4", 1, 1, "\xE9t\xE9");
    auto entries = BuildContentRulesMenu(m_settings, kFirstRuleCommand, kEndRuleCommand, false);
    ASSERT_EQ(entries.size(), 7u);
    EXPECT_TRUE(entries[1].separator);
    std::vector<std::string> texts;
    for (std::size_t i = 2; i < entries.size(); ++i) {
        texts.push_back(entries[i].text);
        EXPECT_EQ(entries[i].id, kFirstRuleCommand + i - 2);
    }
    EXPECT_EQ(texts, (std::vector<std::string>{"ads", "mail", "B-group", "b-group", "\xE9t\xE9"}));
    EXPECT_TRUE(entries[2].checked);
    EXPECT_FALSE(entries[3].checked);
    EXPECT_TRUE(entries[4].checked);
    EXPECT_FALSE(entries[5].checked);  // one of its two rules is off
}

TEST_F(TrayRuleMenuTest, IdsStopBelowTheEndAndDisableAllGreysEverything) {
    for (int i = 0; i < 25; ++i)
        Add(kHttpRow, "r" + std::to_string(i), 1, 1);
    OptionsOf(m_settings, kHttpRow).enableREG = 0;
    OptionsOf(m_settings, kPop3Row).enableREG = 0;
    auto entries = BuildContentRulesMenu(m_settings, kFirstRuleCommand, kEndRuleCommand, false);
    ASSERT_EQ(entries.size(), 22u);
    EXPECT_TRUE(entries[0].checked);
    EXPECT_FALSE(entries[0].greyed);
    EXPECT_EQ(entries.back().id, 5999u);
    EXPECT_TRUE(entries.back().greyed);
}

TEST_F(TrayRuleMenuTest, CommandsSwitchAndSave) {
    Add(kHttpRow, "a", 0, 1, "g");
    Add(kPop3Row, "g", 1, 0);
    Add(kPop3Row, "other", 1, 1);
    RunRuleEntryCommand(m_settings, "g", false);
    EXPECT_EQ(OptionsOf(m_settings, kHttpRow).rules.At(0).enable, 1u);
    EXPECT_EQ(OptionsOf(m_settings, kPop3Row).rules.At(0).enable, 1u);
    RunRuleEntryCommand(m_settings, "g", true);
    EXPECT_EQ(OptionsOf(m_settings, kPop3Row).rules.At(0).enable, 0u);
    EXPECT_EQ(OptionsOf(m_settings, kPop3Row).rules.At(1).enable, 1u);

    RuleList stored;
    LoadContentRules(kProtocolTable[kPop3Row].rulesKey, stored);
    ASSERT_EQ(stored.Size(), 2u);
    EXPECT_EQ(stored.At(0).enable, 0u);

    RunDisableAllCommand(m_settings, false);
    core::RegistryKey http(kProtocolTable[kHttpRow].protocolKey, core::kLspRootPath);
    EXPECT_EQ(http.GetDword("EnableREG", 7), 0u);
    RunDisableAllCommand(m_settings, true);
    EXPECT_EQ(http.GetDword("EnableREG", 7), 1u);
    EXPECT_EQ(OptionsOf(m_settings, kPop3Row).enableREG, 1u);
}

TEST_F(TrayRuleMenuTest, NewRuleNamesLineImagesAndGroups) {
    ResetNewRuleCounter();
    EXPECT_EQ(NextNewRuleName(), "Rule 1");
    EXPECT_EQ(NextNewRuleName(), "Rule 2");
    ResetNewRuleCounter();
    auto rule = MakeNewRule(NextNewRuleName());
    EXPECT_EQ(rule->name, "Rule 1");
    EXPECT_EQ(rule->log, 1u);
    EXPECT_EQ(RuleLineImage(*rule), 0);
    rule->direction = 1;
    EXPECT_EQ(RuleLineImage(*rule), 1);
    rule->enable = 1;
    EXPECT_EQ(RuleLineImage(*rule), 3);

    Add(kPop3Row, "a", 1, 0, "mail");
    Add(kHttpRow, "b", 1, 0, "web");
    Add(kHttpRow, "c", 1, 0, "");
    Add(kPop3Row, "d", 1, 0, "web");
    EXPECT_EQ(DistinctGroups(m_settings), (std::vector<std::string>{"web", "mail"}));
}

}  // namespace
}  // namespace qbrix::content
