#include "content/ContentStore.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "platform/Registry.h"

namespace qbrix::content {

namespace {

using core::RegistryKey;
using platform::DWORD;
using platform::LONG;

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

LONG WriteRegRule(const std::string& suffix, const RegRuleMatcher& unit) {
    RegRule stored = unit.ToRegRule();
    RegistryKey key;
    LONG rc = key.Open(suffix, core::kLspRootPath);
    for (auto [name, text] : {std::pair<const char*, const std::string*>{"Find", &stored.find},
                              {"Compare", &stored.compare},
                              {"Replace", &stored.replace},
                              {"Comment", &stored.comment}}) {
        rc = rc != 0 ? rc : key.SetString(name, *text);
    }
    for (auto [name, value] : {std::pair<const char*, DWORD>{"FindFlag", stored.findFlag},
                               {"CompareFlag", stored.compareFlag},
                               {"ReplaceFlag", stored.replaceFlag},
                               {"Enable", stored.enable}}) {
        rc = rc != 0 ? rc : key.SetDword(name, value);
    }
    return rc;
}

LONG WriteRule(std::string_view rulesKey, const ContentRule& rule) {
    std::string base(rulesKey);
    base.append("\\").append(rule.name);
    LONG rc = WriteRegRule(base + "\\Main", rule.main);
    for (std::size_t sub = 0; rc == 0 && sub < rule.subRules.size(); ++sub) {
        rc = WriteRegRule(base + "\\Subst\\" + std::to_string(sub), *rule.subRules[sub]);
    }
    if (rc == 0) {
        RegistryKey ruleKey;
        rc = ruleKey.Open(base, core::kLspRootPath);
        for (auto [name, value] : {std::pair<const char*, DWORD>{"Recurse", rule.recurse},
                                   {"Log", rule.log},
                                   {"Enable", rule.enable},
                                   {"Direction", rule.direction},
                                   {"PopUp", rule.popUp}}) {
            rc = rc != 0 ? rc : ruleKey.SetDword(name, value);
        }
        rc = rc != 0 ? rc : ruleKey.SetString("Group", rule.group);
    }
    return rc != 0 ? rc : WriteRegRule(base + "\\Replace", rule.replace);
}

std::string UnitProblem(const RegRuleMatcher& unit, const std::string& where) {
    RegRule stored = unit.ToRegRule();
    for (auto [field, text] : {std::pair<const char*, const std::string*>{"Find", &stored.find},
                               {"Compare", &stored.compare},
                               {"Replace", &stored.replace},
                               {"Comment", &stored.comment}}) {
        if (text->size() > kMaxRuleTextLength) {
            return std::string("The ") + field + " text of " + where + " is " +
                   std::to_string(text->size()) + " bytes long; a text may have at most " +
                   std::to_string(kMaxRuleTextLength) + " bytes.";
        }
    }
    return std::string();
}

}  // namespace

std::string RuleStoreProblem(const ContentRule& rule) {
    if (rule.name.size() > kMaxRuleNameLength) {
        return "The rule name is " + std::to_string(rule.name.size()) +
               " characters long; a rule name may have at most " +
               std::to_string(kMaxRuleNameLength) + " characters.";
    }
    if (rule.group.size() > kMaxRuleTextLength) {
        return "The Group of rule '" + rule.name + "' is " + std::to_string(rule.group.size()) +
               " bytes long; a text may have at most " + std::to_string(kMaxRuleTextLength) +
               " bytes.";
    }
    std::string problem = UnitProblem(rule.main, "the main rule of '" + rule.name + "'");
    for (std::size_t sub = 0; problem.empty() && sub < rule.subRules.size(); ++sub) {
        problem = UnitProblem(*rule.subRules[sub],
                              "sub-rule " + std::to_string(sub) + " of '" + rule.name + "'");
    }
    return problem.empty() ? UnitProblem(rule.replace, "the replace rule of '" + rule.name + "'")
                           : problem;
}

LONG LoadContentRules(std::string_view rulesKey, RuleList& list) {
    list.Clear();
    list.SetStoredNames({});
    std::vector<std::string> names;
    {
        RegistryKey rules;
        LONG rc = rules.Open(rulesKey, core::kLspRootPath);
        if (rc == 0) {
            rc = rules.ListSubkeys(names);
        }
        if (rc != 0) {
            return rc;
        }
    }
    std::vector<std::string> loaded;
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
            loaded.push_back(name);
        }
    }
    list.SetStoredNames(std::move(loaded));
    return 0;
}

LONG SaveContentRules(std::string_view rulesKey, RuleList& list) {
    for (std::size_t index = 0; index < list.Size(); ++index) {
        if (!RuleStoreProblem(list.At(index)).empty()) {
            return static_cast<LONG>(platform::ERROR_INVALID_PARAMETER);
        }
    }
    // One change of the store: an interrupted or failed save leaves the old rules.
    platform::RegistryTransaction transaction;
    if (!transaction.Active()) {
        return transaction.BeginResult();
    }
    // Only the rules this list came from (the user may have deleted or renamed them) and those
    // it writes are deleted: a stored rule the listing could not read stays as it is.
    std::vector<std::string> replaced = list.StoredNames();
    std::vector<std::string> written;
    for (std::size_t index = 0; index < list.Size(); ++index) {
        written.push_back(list.At(index).name);
    }
    replaced.insert(replaced.end(), written.begin(), written.end());
    LONG rc = 0;
    {
        RegistryKey rules;
        rc = rules.Open(rulesKey, core::kLspRootPath);
        for (std::size_t i = 0; rc == 0 && i < replaced.size(); ++i) {
            if (replaced[i].empty()) {
                continue;  // that would be the rules key itself
            }
            rc = RegistryKey::DeleteKeyTree(rules.Handle(), replaced[i]);
            if (rc == static_cast<LONG>(platform::ERROR_FILE_NOT_FOUND)) {
                rc = 0;
            }
        }
    }
    for (std::size_t index = 0; rc == 0 && index < list.Size(); ++index) {
        rc = WriteRule(rulesKey, list.At(index));
    }
    if (rc != 0) {
        return rc;  // the transaction rolls back
    }
    rc = transaction.Commit();
    if (rc == 0) {
        list.SetStoredNames(std::move(written));
    }
    return rc;
}

}  // namespace qbrix::content
