// The "Zone Editor": the logic of the modal dialog that edits one zone's name, result and up to
// ten rules. `ZoneEditorModel` holds the dialog's state (the rows with their private rule
// copies, the selection, the "Rule Details" fields and the changed flag); the user interface
// mirrors it into widgets, writes what the user typed back into `Fields()` and calls the
// operations. The dialog itself is reached through `ZoneEditorLauncher`, which the user
// interface installs; without one, an editor opens and closes at once without user changes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "policy/ZoneList.h"

namespace qbrix::policy {

// The "Rule Details" group as the user sees it.
struct RuleFields {
    bool nameChecked = false;  // the enabled byte
    std::string name;
    bool protocolChecked = false;
    int protocolIndex = 0;
    bool addressChecked = false;
    std::uint32_t address = 0;  // host order
    std::uint32_t mask = 0;
    bool portChecked = false;
    std::uint16_t port = 0;  // the remote port
    bool directionChecked = false;
    int directionIndex = 0;
    int resultIndex = 0;
};

// Which detail controls accept input.
struct RuleFieldStates {
    bool name = false;
    bool criteria = false;  // the four criterion check boxes and the result combo box
    bool protocol = false;
    bool address = false;
    bool port = false;
    bool direction = false;
};

// The fields showing a rule; null shows the cleared group (every combo box on its first item).
RuleFields ShowRule(const ZoneRule* rule);
// Stores the fields into the rule: name cut to 15 characters, unchecked criteria zeroed, the
// result always taken, the local port left as it was.
void StoreRule(const RuleFields& fields, ZoneRule& rule);
RuleFieldStates FieldStates(const RuleFields& fields);

class ZoneEditorModel {
  public:
    // Opens on the zone: the fixed name, when given, replaces the zone name and locks the zone
    // result. Every slot with a name becomes a row; the first row is selected and shown.
    ZoneEditorModel(ZoneRecord& zone, std::string_view rulePrefix, const char* fixedName);

    const std::string& ZoneNameText() const { return m_zoneName; }
    void SetZoneNameText(std::string_view text) { m_zoneName = std::string(text); }
    int ZoneResultIndex() const { return m_zoneResult; }
    void SetZoneResultIndex(int index) { m_zoneResult = index; }
    bool ZoneResultEnabled() const { return m_zoneResultEnabled; }

    std::size_t RowCount() const { return m_rows.size(); }
    const ZoneRule& Row(std::size_t index) const { return m_rows[index]; }
    std::string RowText(std::size_t index) const;
    int RowImage(std::size_t index) const;
    int Selected() const { return m_selected; }

    RuleFields& Fields() { return m_fields; }
    RuleFieldStates States() const { return FieldStates(m_fields); }
    int Changed() const { return m_changed; }

    // Selects a row (or none with -1) and shows its rule; unstored edits are lost.
    void Select(int row);
    // "Update": stores the shown fields into the selected row.
    void Update();
    // Insert / "New": a new disabled rule before the selected row (at the top without one).
    void NewRule();
    // Delete / "Delete": asks "Delete Rule?"; on Yes removes the selected row. 1 when removed.
    int DeleteRule();
    // F3 / "Enable\tF3": inverts the selected rule's enabled byte.
    void Toggle();
    // A click on one of the five check boxes ("Name", "Protocol", "Address", "Port",
    // "Direction"); the view has already put the new state into Fields().
    void CheckBoxClicked() { m_changed = 1; }
    // "Address by name": the first address of the host goes into the address field; on failure
    // "Cannot find address" is shown. 0 when found.
    int AddressByName(std::string_view host);

    // Close, Escape, the window's close button: stores the shown rule, writes name, result and
    // the first ten rows back into the zone (rows beyond the tenth are dropped, unused slots
    // zeroed) and returns the changed flag.
    int Close();

  private:
    void Show();

    ZoneRecord& m_zone;
    std::string m_prefix;
    std::string m_zoneName;
    int m_zoneResult = 0;
    bool m_zoneResultEnabled = true;
    std::vector<ZoneRule> m_rows;
    int m_selected = -1;
    RuleFields m_fields;
    int m_changed = 0;
};

// Opens the "Zone Editor" dialog. `parent` is the user interface's window or null.
class ZoneEditorLauncher {
  public:
    virtual ~ZoneEditorLauncher() = default;
    // Runs the dialog modally on the zone and returns its changed flag.
    virtual int Edit(ZoneRecord& zone, std::string_view rulePrefix, void* parent,
                     const char* fixedName) = 0;
};

// Installs a launcher for the guard's lifetime.
class ScopedZoneEditorLauncher {
  public:
    explicit ScopedZoneEditorLauncher(ZoneEditorLauncher& launcher);
    ~ScopedZoneEditorLauncher();
    ScopedZoneEditorLauncher(const ScopedZoneEditorLauncher&) = delete;
    ScopedZoneEditorLauncher& operator=(const ScopedZoneEditorLauncher&) = delete;

  private:
    ZoneEditorLauncher* m_previous;
};

// The dialog through the installed launcher; the result is the editor's changed flag.
int ZoneEditor(ZoneRecord& zone, std::string_view rulePrefix, void* parent, const char* fixedName);

}  // namespace qbrix::policy
