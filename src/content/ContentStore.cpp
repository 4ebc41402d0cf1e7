#include "content/ContentStore.h"

#include <memory>
#include <string>
#include <vector>

#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "platform/Registry.h"

namespace qbrix::content {

namespace {

using core::RegistryKey;
using platform::DWORD;

RegRule ReadRegRule(const std::string& suffix) {
    RegistryKey key(suffix, core::kLspRootPath);
    RegRule stored;
    stored.find = key.GetString("Find", "");
    stored.compare = key.GetString("Compare", "");
    stored.replace = key.GetString("Replace", "");
    stored.comment = key.GetString("Comment", "");
    stored.findFlag = key.GetDword("FindFlag", 0);
    stored.compareFlag = key.GetDword("CompareFlag", 0);
    stored.replaceFlag = key.GetDword("ReplaceFlag", 0);
    stored.enable = key.GetDword("Enable", 1);
    return stored;
}

void WriteRegRule(const std::string& suffix, const RegRuleMatcher& unit) {
    RegRule stored = unit.ToRegRule();
    RegistryKey key(suffix, core::kLspRootPath);
    key.SetString("Find", stored.find);
    key.SetString("Compare", stored.compare);
    key.SetString("Replace", stored.replace);
    key.SetString("Comment", stored.comment);
    key.SetDword("FindFlag", stored.findFlag);
    key.SetDword("CompareFlag", stored.compareFlag);
    key.SetDword("ReplaceFlag", stored.replaceFlag);
    key.SetDword("Enable", stored.enable);
}

}  // namespace

void LoadContentRules(std::string_view rulesKey, RuleList& list) {
    list.Clear();
    std::vector<std::string> names;
    {
        RegistryKey rules(rulesKey, core::kLspRootPath);
        rules.ListSubkeys(names);
    }
    for (const std::string& name : names) {
        std::string base(rulesKey);
        base.append("\\").append(name);

        RegRule mainRule = ReadRegRule(base + "\\Main");

        RegistryKey ruleKey(base, core::kLspRootPath);
        DWORD recurse = ruleKey.GetDword("Recurse", 0);
        DWORD log = ruleKey.GetDword("Log", 1);
        DWORD enable = ruleKey.GetDword("Enable", 0);
        DWORD popUp = ruleKey.GetDword("PopUp", 0);
        std::string group = ruleKey.GetString("Group", "");
        DWORD direction = ruleKey.GetDword("Direction", 0);
        ruleKey.Close();

        // Sub-rule keys come back in the registry's name order ("0", "1", "10", "2", ...),
        // which is the order the content processor sees too.
        std::vector<std::string> subNames;
        {
            RegistryKey subst(base + "\\Subst", core::kLspRootPath);
            subst.ListSubkeys(subNames);
        }
        std::vector<RegRule> subRules;
        subRules.reserve(subNames.size());
        for (const std::string& subName : subNames) {
            subRules.push_back(ReadRegRule(base + "\\Subst\\" + subName));
        }

        RegRule replaceRule = ReadRegRule(base + "\\Replace");

        if (direction == 0 || direction == 1) {
            list.Append(std::make_unique<ContentRule>(enable, direction, name, mainRule, recurse,
                                                      replaceRule, subRules, log, popUp, group));
        }
    }
}

void SaveContentRules(std::string_view rulesKey, const RuleList& list, std::string_view protocolKey,
                      std::string_view rulesSubkey) {
    // One change of the store: an interrupted save leaves the old rules or the new ones.
    platform::RegistryTransaction transaction;
    {
        RegistryKey protocol(protocolKey, core::kLspRootPath);
        if (protocol.IsOpen()) {
            RegistryKey::DeleteKeyTree(protocol.Handle(), rulesSubkey);
        }
    }
    for (std::size_t index = 0; index < list.Size(); ++index) {
        const ContentRule& rule = list.At(index);
        std::string base(rulesKey);
        base.append("\\").append(rule.name);

        WriteRegRule(base + "\\Main", rule.main);
        for (std::size_t sub = 0; sub < rule.subRules.size(); ++sub) {
            WriteRegRule(base + "\\Subst\\" + std::to_string(sub), *rule.subRules[sub]);
        }
        {
            RegistryKey ruleKey(base, core::kLspRootPath);
            ruleKey.SetDword("Recurse", rule.recurse);
            ruleKey.SetDword("Log", rule.log);
            ruleKey.SetDword("Enable", rule.enable);
            ruleKey.SetDword("Direction", rule.direction);
            ruleKey.SetDword("PopUp", rule.popUp);
            ruleKey.SetString("Group", rule.group);
        }
        WriteRegRule(base + "\\Replace", rule.replace);
    }
    transaction.Commit();
}

}  // namespace qbrix::content
