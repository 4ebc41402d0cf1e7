// The "Content Rules" pop-up of the tray menu as plain entries, and the two tray commands it
// issues. The tray shows the entries as they come and hands clicks back with the entry's check
// state from before the click.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "content/LspSettings.h"

namespace qbrix::content {

inline constexpr unsigned kDisableAllCommand = 84;  // also the string number of its text
inline constexpr unsigned kFirstRuleCommand = 5980;
inline constexpr unsigned kEndRuleCommand = 6000;  // first ID no entry may take

struct TrayMenuEntry {
    bool separator = false;
    unsigned id = 0;
    std::string text;
    bool checked = false;
    bool greyed = false;
};

// "Disable All" (checked when both protocols' EnableREG are 0), then a separator when any rule
// or group entry follows, then one entry per shown rule without a group (list order, HTTP
// first) and one per group (names in byte order), with IDs from firstId below endId. `grey` is
// on while the control panel is visible; a checked "Disable All" greys every later entry too.
std::vector<TrayMenuEntry> BuildContentRulesMenu(LspSettings& settings, unsigned firstId,
                                                 unsigned endId, bool grey);

// Writes both protocols' rule lists and then the protocol options, as one change of the store:
// what the content page's "Save" stores. 0, or the store's error (nothing was written).
platform::LONG SaveAllContent(LspSettings& settings);

// "Disable All" clicked: a checked entry switches both protocols' rules on, an unchecked one
// off; then the protocol options are saved. The caller reloads the page.
void RunDisableAllCommand(LspSettings& settings, bool wasChecked);
// A rule or group entry clicked: every rule of both protocols named `text`, or in the group
// `text`, is switched to the opposite of the entry's check mark; then everything is saved.
void RunRuleEntryCommand(LspSettings& settings, std::string_view text, bool wasChecked);

}  // namespace qbrix::content
