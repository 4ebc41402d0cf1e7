// Application permissions: the logic of the Programs page (rows keyed by image name, filling,
// editing and deleting applications), of the "Permissions for Application" dialog, and the
// decision for an application the driver asks about. The driver keeps the permissions; this
// program only reads them, shows them and sends changes back.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "policy/ZoneCombo.h"
#include "policy/ZoneList.h"

namespace qbrix::policy {

// The product's own programs: the five characters from index 5 of the image name equal
// "-brix", ignoring case.
bool IsOwnProgram(std::string_view imageName);

// "Connect" of a pending question: "TCP 10.0.0.5:80", two spaces, "outgoing". The connection
// part is empty when the first rule's address is 0.
std::string ConnectText(const AppRecord& record);
// "Application": the path, or the image name when the path is empty or begins with a space or
// "?"; lower-cased.
std::string ApplicationText(const AppRecord& record);
// A record whose path has not been looked up yet gets path and description from GetProcessName
// ("?" and the image name when the process is not running) and is sent back to the driver.
// true when the record was looked up.
bool CompleteProgramRecord(AppRecord& record);

// The "Permissions for Application" dialog's state. The user interface shows the texts, lets
// the user pick in `Zone()` and calls Accept on "OK".
class PermissionDialogModel {
  public:
    // Fills the texts and the zone selector (selecting the record's bound zone).
    PermissionDialogModel(AppRecord& record, bool askMode, ComboItems& zoneItems);

    const std::string& Application() const { return m_application; }
    const std::string& Description() const { return m_description; }
    const std::string& Connect() const { return m_connect; }
    const std::string& Details() const { return m_details; }
    const std::string& IconPath() const { return m_iconPath; }
    bool AskMode() const { return m_askMode; }
    AppZoneCombo& Zone() { return m_zone; }

    // The list is dropped down: filled again the same way.
    void Refill();
    // "OK": the selected zone replaces the bound zone when it is found (else it stays).
    void Accept();

  private:
    AppRecord& m_record;
    bool m_askMode;
    AppZoneCombo m_zone;
    std::string m_application;
    std::string m_description;
    std::string m_connect;
    std::string m_details;
    std::string m_iconPath;
};

// Opens the dialog; the user interface installs a launcher. Without one the dialog is
// cancelled: nothing changes.
class PermissionDialogLauncher {
  public:
    virtual ~PermissionDialogLauncher() = default;
    // true when accepted; the record's bound zone has then been replaced.
    virtual bool Run(AppRecord& record, bool askMode) = 0;
};

class ScopedPermissionDialogLauncher {
  public:
    explicit ScopedPermissionDialogLauncher(PermissionDialogLauncher& launcher);
    ~ScopedPermissionDialogLauncher();
    ScopedPermissionDialogLauncher(const ScopedPermissionDialogLauncher&) = delete;
    ScopedPermissionDialogLauncher& operator=(const ScopedPermissionDialogLauncher&) = delete;

  private:
    PermissionDialogLauncher* m_previous;
};

bool PermissionDialog(AppRecord& record, bool askMode);

// The launcher where nobody can be asked (no display): a question gets the default zone (the
// stored "DefZone") as if the user had chosen it and pressed OK; without a default zone that
// exists, and for an edit, it is cancelled.
class DefaultZoneLauncher : public PermissionDialogLauncher {
  public:
    bool Run(AppRecord& record, bool askMode) override;
};

// The Programs page's rows: description, zone name, path and image name (the key).
class ProgramList {
  public:
    struct Row {
        std::string description;
        std::string zoneName;
        std::string path;  // also the source of the row's icon
        std::string imageName;
    };

    // Reads the driver's list, completes records without a path and adds every record; selects
    // the first row.
    void Fill();
    // 1 when the application already had a row, 0 when one was added. The row's texts are set
    // from the record either way and a new icon is appended.
    int AddProgram(const AppRecord& record);

    const std::vector<Row>& Rows() const { return m_rows; }
    int Selected() const { return m_selected; }
    void Select(int row) { m_selected = row >= 0 && row < Count() ? row : -1; }
    int Count() const { return static_cast<int>(m_rows.size()); }
    // Icons appended to the page's image list so far: one per row refresh.
    int IconsAdded() const { return m_iconsAdded; }

    // The selected application's record from the driver; 0 when exactly one came back.
    int GetCurrentname(AppRecord& record);
    // Edit: the dialog on the selected application; when accepted the row is refreshed and the
    // record sent. 1 when sent.
    int EditProgram();
    // Delete: asks, then deletes in the driver; a failure means the program runs and is shown
    // as "Can't delete running Application". 1 when the row was removed.
    int DeleteProgram();
    // A pending question: adds the row; unless the application already had one, decides its
    // zone (own programs get "EnableAll" without asking), answers the driver and refreshes the
    // row. 1 when an answer was sent. Before the user is asked, the row shows the program's
    // name and path as the lookup found them; `beforeAsking` runs then (the user interface
    // shows the row, beeps and brings itself to the front there).
    int DecidePendingQuestion(AppRecord& record, const std::function<void()>& beforeAsking = {});

  private:
    int FindRow(std::string_view imageName) const;
    // Sets a row's texts from the record; its icon is appended anew.
    void SetRow(Row& row, const AppRecord& record);

    std::vector<Row> m_rows;
    int m_selected = -1;
    int m_iconsAdded = 0;
};

// The question step of every tick, whatever shows it: takes one question from the driver, logs
// it and decides it in `list` (DecidePendingQuestion). false when none was pending.
bool AskPendingApplication(ProgramList& list, const std::function<void()>& beforeAsking = {});

}  // namespace qbrix::policy
