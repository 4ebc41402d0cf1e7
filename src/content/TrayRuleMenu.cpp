#include "content/TrayRuleMenu.h"

#include <cstdint>
#include <map>

#include "content/ContentStore.h"
#include "core/StringTable.h"
#include "platform/Registry.h"

namespace qbrix::content {

std::vector<TrayMenuEntry> BuildContentRulesMenu(LspSettings& settings, unsigned firstId,
                                                 unsigned endId, bool grey) {
    std::vector<TrayMenuEntry> entries;
    TrayMenuEntry disableAll;
    disableAll.id = kDisableAllCommand;
    disableAll.text = core::LoadString(static_cast<int>(kDisableAllCommand));
    disableAll.checked = OptionsOf(settings, kHttpRow).enableREG == 0 &&
                         OptionsOf(settings, kPop3Row).enableREG == 0;
    disableAll.greyed = grey;
    entries.push_back(disableAll);
    // With every rule off the single entries mean nothing: they stay greyed.
    bool greyRules = grey || disableAll.checked;

    unsigned nextId = firstId;
    std::vector<TrayMenuEntry> ruleEntries;
    struct GroupTally {
        std::uint64_t rules = 0;
        std::uint64_t enabled = 0;
    };
    // std::string orders by unsigned bytes: groups come out in byte order.
    std::map<std::string, GroupTally> groups;
    for (std::size_t row = 0; row < kProtocolCount; ++row) {
        const RuleList& rules = OptionsOf(settings, row).rules;
        for (std::size_t index = 0; index < rules.Size(); ++index) {
            const ContentRule& rule = rules.At(index);
            if (rule.popUp == 0) {
                continue;
            }
            if (!rule.group.empty()) {
                GroupTally& tally = groups[rule.group];
                ++tally.rules;
                tally.enabled += rule.enable;
                continue;
            }
            if (nextId >= endId) {
                continue;
            }
            TrayMenuEntry entry;
            entry.id = nextId++;
            entry.text = rule.name;
            entry.checked = rule.enable != 0;
            entry.greyed = greyRules;
            ruleEntries.push_back(entry);
        }
    }
    for (const auto& [name, tally] : groups) {
        if (nextId >= endId) {
            break;
        }
        TrayMenuEntry entry;
        entry.id = nextId++;
        entry.text = name;
        entry.checked = tally.enabled == tally.rules;
        entry.greyed = greyRules;
        ruleEntries.push_back(entry);
    }
    if (!ruleEntries.empty()) {
        TrayMenuEntry separator;
        separator.separator = true;
        entries.push_back(separator);
        entries.insert(entries.end(), ruleEntries.begin(), ruleEntries.end());
    }
    return entries;
}

platform::LONG SaveAllContent(LspSettings& settings) {
    platform::RegistryTransaction transaction;
    if (!transaction.Active()) {
        return transaction.BeginResult();
    }
    for (std::size_t row = 0; row < kProtocolCount; ++row) {
        const ProtocolRow& protocol = kProtocolTable[row];
        platform::LONG rc = SaveContentRules(protocol.rulesKey, OptionsOf(settings, row).rules);
        if (rc != 0) {
            return rc;
        }
    }
    SaveProtocolOptions(settings);
    return transaction.Commit();
}

void RunDisableAllCommand(LspSettings& settings, bool wasChecked) {
    for (std::size_t row = 0; row < kProtocolCount; ++row) {
        OptionsOf(settings, row).enableREG = wasChecked ? 1 : 0;
    }
    SaveProtocolOptions(settings);
}

void RunRuleEntryCommand(LspSettings& settings, std::string_view text, bool wasChecked) {
    for (std::size_t row = 0; row < kProtocolCount; ++row) {
        OptionsOf(settings, row).rules.SetEnableByNameOrGroup(text, wasChecked ? 0 : 1);
    }
    SaveAllContent(settings);
}

}  // namespace qbrix::content
