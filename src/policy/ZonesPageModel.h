// The logic of the Zones page: its rows (one per zone of g_zones, each holding the zone's
// record), its modified flag and its commands. The page widget shows the rows, runs the file
// dialogs and calls these operations; questions go through the message facade and the zone
// editor through its launcher.
#pragma once

#include <string>
#include <vector>

#include "policy/ZoneList.h"

namespace qbrix::policy {

class ZonesPageModel {
  public:
    struct Row {
        std::string text;
        ZoneRecord* zone = nullptr;
    };

    // Loads the zones, fills the rows and selects the first one.
    void Initialize();
    // Rows again from g_zones (records handed out before become invalid when it is rebuilt).
    void Refill();

    const std::vector<Row>& Rows() const { return m_rows; }
    int Selected() const { return m_selected; }
    void Select(int row) { m_selected = row >= 0 && row < Count() ? row : -1; }
    int Count() const { return static_cast<int>(m_rows.size()); }
    bool Modified() const { return m_modified; }

    // Edit: the editor on the selected zone; modified only when the editor reports a change.
    void Edit(void* parent);
    // New: "Zone %d" appended, edited, given a row at the end and selected; always modified.
    void New(void* parent);
    // Delete: asks "Delete Zone?"; on Yes the zone and its row go. 1 when deleted.
    int Delete();
    // Import of a chosen file: a zone of the same name (ignoring case) is replaced after
    // "Overwrite existing Rule?", its row reused with its old text. 1 when imported.
    int Import(const std::string& path);
    // The file name offered for the selected zone; empty without a selection.
    std::string ExportFileName() const;
    // Export of the selected zone to a chosen file. 1 when written.
    int Export(const std::string& path) const;
    // "LAN" and "Rules": modified when the user confirmed the update.
    void Lan(void* parent);
    void Rules(void* parent);
    // "Save": CommitZones.
    void Save();
    // Leaving the page with changes: save (Yes) or discard (No) by reloading.
    void Leave(bool save);

  private:
    std::vector<Row> m_rows;
    int m_selected = -1;
    bool m_modified = false;
};

}  // namespace qbrix::policy
