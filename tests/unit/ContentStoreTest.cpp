#include "content/ContentStore.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "content/ProtocolTable.h"
#include "content/RuleEngine.h"
#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "platform/Platform.h"
#include "support/TempPlatform.h"

namespace qbrix::content {
namespace {

using core::RegistryKey;
using platform::DWORD;

const ProtocolRow& Http() {
    return kProtocolTable[kHttpRow];
}

RegRule Stored(std::string find, std::string comment, DWORD enable = 1) {
    RegRule stored;
    stored.find = std::move(find);
    stored.findFlag = 1;
    stored.comment = std::move(comment);
    stored.enable = enable;
    return stored;
}

std::unique_ptr<ContentRule> Rule(std::string name, std::vector<RegRule> subs = {}) {
    RegRule mainRule = Stored("a(b)c", "main");
    mainRule.compare = "B";
    mainRule.compareFlag = 1;
    mainRule.replace = "x\\ny";
    mainRule.replaceFlag = 1;
    RegRule replaceRule = Stored("r", "rep", 0);
    return std::make_unique<ContentRule>(1, 1, std::move(name), mainRule, 1, replaceRule, subs, 0,
                                         1, "grp");
}

platform::LONG Save(RuleList& list) {
    return SaveContentRules(Http().rulesKey, list);
}

std::vector<std::string> Subkeys(const std::string& suffix) {
    RegistryKey key(suffix, core::kLspRootPath);
    std::vector<std::string> names;
    key.ListSubkeys(names);
    return names;
}

// Every sub-key name, however long.
std::vector<std::string> AllSubkeys(const std::string& suffix) {
    RegistryKey key(suffix, core::kLspRootPath);
    std::vector<std::string> names;
    char name[256];
    DWORD size = sizeof name;
    for (DWORD i = 0; platform::Current().Reg().EnumKeyEx(key.Handle(), i, name, &size) == 0;
         ++i, size = sizeof name) {
        names.emplace_back(name, size);
    }
    return names;
}

class ContentStoreTest : public ::testing::Test {
  protected:
    test::TempPlatform m_platform;
};

TEST_F(ContentStoreTest, EmptyOrMissingRulesKeyLoadsEmptyList) {
    RuleList list;
    list.Append(Rule("stale"));
    LoadContentRules(Http().rulesKey, list);
    EXPECT_TRUE(list.Empty());
}

TEST_F(ContentStoreTest, RoundTripKeepsEveryStoredField) {
    RuleList list;
    list.Append(Rule("first", {Stored("s1", "one"), Stored("s2", "two", 0)}));
    Save(list);

    RuleList loaded;
    LoadContentRules(Http().rulesKey, loaded);
    ASSERT_EQ(loaded.Size(), 1u);
    const ContentRule& rule = loaded.At(0);
    EXPECT_EQ(rule.name, "first");
    EXPECT_EQ(rule.enable, 1u);
    EXPECT_EQ(rule.direction, 1u);
    EXPECT_EQ(rule.recurse, 1u);
    EXPECT_EQ(rule.log, 0u);
    EXPECT_EQ(rule.popUp, 1u);
    EXPECT_EQ(rule.group, "grp");
    EXPECT_EQ(rule.main.findText, "a(b)c");
    EXPECT_TRUE(rule.main.findPattern.IsCompiled());
    EXPECT_EQ(rule.main.compareText, "B");
    EXPECT_EQ(rule.main.rawReplacement, "x\\ny");
    EXPECT_EQ(rule.main.replacement, "x\ny");
    EXPECT_EQ(rule.main.comment, "main");
    ASSERT_EQ(rule.subRules.size(), 2u);
    EXPECT_EQ(rule.subRules[1]->comment, "two");
    EXPECT_EQ(rule.subRules[1]->enable, 0u);
    EXPECT_EQ(rule.replace.enable, 0u);
    EXPECT_EQ(rule.replace.findText, "r");
}

TEST_F(ContentStoreTest, ValuesAreWrittenWithTheirTypesAndFindFlagOne) {
    RegRule noFind;
    noFind.comment = "nofind";
    RuleList list;
    list.Append(Rule("r", {noFind}));
    Save(list);

    std::string base = std::string(Http().rulesKey) + "\\r";
    RegistryKey sub(base + "\\Subst\\0", core::kLspRootPath);
    EXPECT_EQ(sub.GetDword("FindFlag", 7), 1u);
    EXPECT_EQ(sub.GetString("Find", "?"), "");
    RegistryKey rule(base, core::kLspRootPath);
    EXPECT_EQ(rule.GetString("Group", "?"), "grp");
    EXPECT_EQ(rule.GetDword("Direction", 7), 1u);

    // The stored FindFlag 0 made a unit that never matched; saved again, its blank Find now
    // matches every text whole.
    RuleList loaded;
    LoadContentRules(Http().rulesKey, loaded);
    std::string text = "anything";
    std::string found;
    std::int32_t start = 0;
    std::int32_t end = 0;
    EXPECT_EQ(ApplyRegRule(*loaded.At(0).subRules[0], text, found, start, end), kUnitFound);
    EXPECT_EQ(end, 8);
}

TEST_F(ContentStoreTest, StoredFindFlagZeroNeverFinds) {
    std::string base = std::string(Http().rulesKey) + "\\manual";
    {
        RegistryKey main(base + "\\Main", core::kLspRootPath);
        main.SetString("Find", "x");
        main.SetDword("FindFlag", 0);
    }
    RuleList loaded;
    LoadContentRules(Http().rulesKey, loaded);
    ASSERT_EQ(loaded.Size(), 1u);
    EXPECT_EQ(loaded.At(0).main.findText, "");
    EXPECT_FALSE(loaded.At(0).main.findPattern.IsCompiled());
    // Reading created the missing keys and values with their defaults.
    EXPECT_EQ(Subkeys(base), (std::vector<std::string>{"Main", "Replace", "Subst"}));
    RegistryKey rule(base, core::kLspRootPath);
    EXPECT_EQ(rule.GetDword("Log", 7), 1u);
}

TEST_F(ContentStoreTest, TwelveSubRulesComeBackInRegistryOrder) {
    std::vector<RegRule> subs;
    for (int i = 0; i < 12; ++i)
        subs.push_back(Stored("s", std::to_string(i)));
    RuleList list;
    list.Append(Rule("many", subs));
    Save(list);
    RuleList loaded;
    LoadContentRules(Http().rulesKey, loaded);
    std::vector<std::string> order;
    for (const auto& sub : loaded.At(0).subRules)
        order.push_back(sub->comment);
    EXPECT_EQ(order, (std::vector<std::string>{"0", "1", "10", "11", "2", "3", "4", "5", "6", "7",
                                               "8", "9"}));
}

TEST_F(ContentStoreTest, RulesLoadInNameOrderAndSaveDeletesTheRemovedOnes) {
    RuleList list;
    list.Append(Rule("b"));
    list.Append(Rule("A"));
    list.Append(Rule("c"));
    Save(list);
    list.Remove(&list.At(2));
    Save(list);
    RuleList loaded;
    LoadContentRules(Http().rulesKey, loaded);
    ASSERT_EQ(loaded.Size(), 2u);
    EXPECT_EQ(loaded.At(0).name, "A");
    EXPECT_EQ(loaded.At(1).name, "b");
}

TEST_F(ContentStoreTest, SameNameRulesMergeIntoOneKey) {
    RuleList list;
    list.Append(Rule("dup", {Stored("1", "a"), Stored("2", "b"), Stored("3", "c")}));
    auto second = Rule("dup", {Stored("9", "z")});
    second->group = "later";
    list.Append(std::move(second));
    Save(list);
    RuleList loaded;
    LoadContentRules(Http().rulesKey, loaded);
    ASSERT_EQ(loaded.Size(), 1u);
    EXPECT_EQ(loaded.At(0).group, "later");
    ASSERT_EQ(loaded.At(0).subRules.size(), 3u);
    EXPECT_EQ(loaded.At(0).subRules[0]->comment, "z");
    EXPECT_EQ(loaded.At(0).subRules[2]->comment, "c");
}

TEST_F(ContentStoreTest, BackslashInNameSavesNestedKeys) {
    RuleList list;
    list.Append(Rule("a\\b"));
    Save(list);
    EXPECT_EQ(Subkeys(Http().rulesKey), std::vector<std::string>{"a"});
    EXPECT_EQ(Subkeys(std::string(Http().rulesKey) + "\\a"), std::vector<std::string>{"b"});
    RuleList loaded;
    LoadContentRules(Http().rulesKey, loaded);
    ASSERT_EQ(loaded.Size(), 1u);
    EXPECT_EQ(loaded.At(0).name, "a");
    EXPECT_EQ(loaded.At(0).main.findText, "");
}

// A name longer than 98 characters (written by another tool) ends the listing at its place, and
// a save of what was listed deletes only the rules it listed.
TEST_F(ContentStoreTest, OverlongNameEndsTheListingAndSurvivesTheNextSave) {
    RuleList list;
    for (const char* name : {"Apple", "Mango", "Pear"}) {
        list.Append(Rule(name));
    }
    ASSERT_EQ(Save(list), 0);
    std::string overlong = "B" + std::string(119, 'x');
    RegistryKey(std::string(Http().rulesKey) + "\\" + overlong, core::kLspRootPath)
        .SetDword("Enable", 1);

    RuleList loaded;
    ASSERT_EQ(LoadContentRules(Http().rulesKey, loaded), 0);
    ASSERT_EQ(loaded.Size(), 1u);
    EXPECT_EQ(loaded.At(0).name, "Apple");
    ASSERT_EQ(Save(loaded), 0);
    EXPECT_EQ(AllSubkeys(Http().rulesKey),
              (std::vector<std::string>{"Apple", overlong, "Mango", "Pear"}));

    // The user's deletion of a listed rule still reaches the store.
    loaded.Remove(&loaded.At(0));
    ASSERT_EQ(Save(loaded), 0);
    EXPECT_EQ(AllSubkeys(Http().rulesKey), (std::vector<std::string>{overlong, "Mango", "Pear"}));
}

struct Unstorable {
    const char* label;
    void (*spoil)(ContentRule&);
};

class UnstorableRuleTest : public ContentStoreTest,
                           public ::testing::WithParamInterface<Unstorable> {};

// What the store could not read back as written is refused before anything is written.
TEST_P(UnstorableRuleTest, IsRefusedWithAReasonAndTheStoreKeepsItsRules) {
    RuleList list;
    list.Append(Rule("kept"));
    ASSERT_EQ(Save(list), 0);
    auto rule = Rule("n" + std::string(97, 'x'), {Stored(std::string(998, 's'), "sub")});
    rule->group = std::string(998, 'g');
    EXPECT_EQ(RuleStoreProblem(*rule), "");
    GetParam().spoil(*rule);
    EXPECT_NE(RuleStoreProblem(*rule), "");
    list.Remove(&list.At(0));
    list.Append(std::move(rule));
    EXPECT_EQ(Save(list), static_cast<platform::LONG>(platform::ERROR_INVALID_PARAMETER));
    EXPECT_EQ(Subkeys(Http().rulesKey), std::vector<std::string>{"kept"});
}

INSTANTIATE_TEST_SUITE_P(
    Limits, UnstorableRuleTest,
    ::testing::Values(
        Unstorable{"Name99", [](ContentRule& r) { r.name += "y"; }},
        Unstorable{"Name256", [](ContentRule& r) { r.name = std::string(256, 'n'); }},
        Unstorable{"MainFind", [](ContentRule& r) { r.main.findText = std::string(999, 'f'); }},
        Unstorable{"SubComment",
                   [](ContentRule& r) { r.subRules[0]->comment = std::string(999, 'c'); }},
        Unstorable{"ReplaceText",
                   [](ContentRule& r) { r.replace.rawReplacement = std::string(1200, 'r'); }},
        Unstorable{"Group", [](ContentRule& r) { r.group += "g"; }}),
    [](const auto& info) { return std::string(info.param.label); });

TEST_F(ContentStoreTest, SwitchedOffTextsAndBadDirectionsAreDropped) {
    std::string base = std::string(Http().rulesKey) + "\\off";
    {
        RegistryKey main(base + "\\Main", core::kLspRootPath);
        main.SetString("Find", "f");
        main.SetDword("FindFlag", 1);
        main.SetString("Compare", "kept?");
        main.SetDword("CompareFlag", 0);
        main.SetString("Replace", "gone?");
        main.SetDword("ReplaceFlag", 0);
        RegistryKey bad(std::string(Http().rulesKey) + "\\bad", core::kLspRootPath);
        bad.SetDword("Direction", 2);
        // A number stored as text reads as its default and is rewritten.
        RegistryKey odd(std::string(Http().rulesKey) + "\\odd", core::kLspRootPath);
        odd.SetString("Enable", "1");
    }
    RuleList loaded;
    LoadContentRules(Http().rulesKey, loaded);
    ASSERT_EQ(loaded.Size(), 2u);
    EXPECT_EQ(loaded.At(0).name, "odd");
    EXPECT_EQ(loaded.At(0).enable, 0u);
    EXPECT_EQ(loaded.At(1).main.compareText, "");
    EXPECT_EQ(loaded.At(1).main.rawReplacement, "");
    Save(loaded);
    RegistryKey main(base + "\\Main", core::kLspRootPath);
    EXPECT_EQ(main.GetString("Compare", "?"), "");
    EXPECT_EQ(main.GetString("Replace", "?"), "");
}

TEST_F(ContentStoreTest, FindThatDoesNotCompileDropsTheRestOfTheUnit) {
    RegRule stored = Stored("a(", "lost");
    stored.compare = "c";
    stored.compareFlag = 1;
    RegRuleMatcher unit;
    unit.Assign(stored);
    EXPECT_EQ(unit.findText, "a(");
    EXPECT_FALSE(unit.findPattern.IsCompiled());
    EXPECT_EQ(unit.compareSwitch, 0u);
    EXPECT_EQ(unit.comment, "");
}

TEST_F(ContentStoreTest, TranslationRulesAreNeverTouched) {
    std::string translation = std::string(Http().translationRulesKey) + "\\keep";
    {
        RegistryKey key(translation, core::kLspRootPath);
        key.SetDword("Mine", 5);
    }
    RuleList list;
    list.Append(Rule("r"));
    Save(list);
    RegistryKey key(translation, core::kLspRootPath);
    EXPECT_EQ(key.GetDword("Mine", 0), 5u);
}

TEST(RuleListTest, InsertRemoveAndEnableByNameOrGroup) {
    RuleList list;
    ContentRule& a = list.Append(Rule("a"));
    ContentRule& c = list.Append(Rule("c"));
    ContentRule& b = list.InsertBefore(Rule("b"), &c);
    ContentRule stranger;
    list.InsertBefore(Rule("d"), &stranger);
    ASSERT_EQ(list.Size(), 4u);
    EXPECT_EQ(list.IndexOf(&b), 1u);
    EXPECT_EQ(list.At(3).name, "d");
    list.Remove(&stranger);
    list.Remove(&a);
    EXPECT_EQ(list.Size(), 3u);
    EXPECT_EQ(list.At(0).name, "b");

    list.At(0).group = "c";
    EXPECT_EQ(list.SetEnableByNameOrGroup("c", 0), 0);
    EXPECT_EQ(list.At(0).enable, 0u);  // by group
    EXPECT_EQ(list.At(1).enable, 0u);  // by name
    EXPECT_EQ(list.At(2).enable, 1u);
    list.SetEnableByNameOrGroup("C", 1);  // case-sensitive
    EXPECT_EQ(list.At(1).enable, 0u);
    list.Clear();
    EXPECT_TRUE(list.Empty());
}

TEST(ContentRuleTest, NewRuleDefaultsAndSubRuleEditing) {
    ContentRule rule;
    EXPECT_EQ(rule.enable, 0u);
    EXPECT_EQ(rule.log, 1u);
    EXPECT_EQ(rule.recurse, 0u);
    EXPECT_EQ(rule.popUp, 0u);
    EXPECT_EQ(rule.main.enable, 0u);
    RegRuleMatcher& last = rule.InsertSubRule(nullptr);
    RegRuleMatcher& first = rule.InsertSubRule(&last);
    EXPECT_EQ(rule.subRules[0].get(), &first);
    rule.RemoveSubRule(&first);
    ASSERT_EQ(rule.subRules.size(), 1u);
    EXPECT_EQ(rule.subRules[0].get(), &last);
}

}  // namespace
}  // namespace qbrix::content
