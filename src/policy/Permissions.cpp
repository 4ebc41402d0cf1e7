#include "policy/Permissions.h"

#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstring>

#include "core/DiagLog.h"
#include "core/Messages.h"
#include "driver/DriverControl.h"
#include "platform/Processes.h"
#include "platform/Text.h"
#include "policy/PresetZones.h"
#include "policy/ProcessLookup.h"
#include "policy/VersionDetails.h"

namespace qbrix::policy {

namespace {

// Without a user interface the dialog cannot be shown: it counts as cancelled.
class CancellingLauncher : public PermissionDialogLauncher {
  public:
    bool Run(AppRecord&, bool) override { return false; }
};

CancellingLauncher g_cancellingLauncher;
std::atomic<PermissionDialogLauncher*> g_permissionLauncher{&g_cancellingLauncher};

std::string ImageName(const AppRecord& record) {
    return std::string(driver::FieldText(record.imageName));
}

std::string LowerAscii(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

}  // namespace

bool IsOwnProgram(std::string_view imageName) {
    return imageName.size() >= 10 && platform::EqualsIgnoreCase(imageName.substr(5, 5), "-brix");
}

std::string ConnectText(const AppRecord& record) {
    const ZoneRule& attempt = record.zone.rules[0];
    std::string connection;
    if (attempt.address != 0) {
        char text[64];
        std::uint32_t a = attempt.address;
        std::snprintf(text, sizeof text, "%s %u.%u.%u.%u:%d", attempt.protocol == 1 ? "TCP" : "UDP",
                      a >> 24 & 0xFF, a >> 16 & 0xFF, a >> 8 & 0xFF, a & 0xFF,
                      static_cast<int>(attempt.remotePort));
        connection = text;
    }
    const char* direction = attempt.direction == 0   ? ""
                            : attempt.direction == 2 ? "outgoing"
                                                     : "incoming";
    return connection + "  " + direction;
}

std::string ApplicationText(const AppRecord& record) {
    std::string path(driver::FieldText(record.path));
    if (path.empty() || path[0] == ' ' || path[0] == '?') {
        return LowerAscii(ImageName(record));
    }
    return LowerAscii(path);
}

bool CompleteProgramRecord(AppRecord& record) {
    if (record.path[0] != '\0') {
        return false;
    }
    std::string path;
    std::string description;
    GetProcessName(ImageName(record), path, description);
    driver::SetFieldText(record.description, description);
    driver::SetFieldText(record.path, path);
    driver::SetAppRecord(driver::g_hDriver, record);
    return true;
}

PermissionDialogModel::PermissionDialogModel(AppRecord& record, bool askMode, ComboItems& zoneItems)
    : m_record(record), m_askMode(askMode), m_zone(zoneItems) {
    std::string path(driver::FieldText(record.path));
    m_application = ApplicationText(record);
    m_description = std::string(driver::FieldText(record.description));
    std::string fileDescription;
    GetVersionDetails(path, fileDescription, m_details, true);
    if (askMode) {
        m_connect = ConnectText(record);
    }
    const ZoneRule& attempt = record.zone.rules[0];
    core::DiagLog("\n permis (%s) ip:%x port:%hd dir:%d prot:%d (%s/%s) ",
                  ImageName(record).c_str(), attempt.address,
                  static_cast<short>(attempt.remotePort), static_cast<int>(attempt.direction),
                  static_cast<int>(attempt.protocol), path.c_str(), m_description.c_str());
    m_iconPath = path;
    Refill();
}

void PermissionDialogModel::Refill() {
    std::string bound(ZoneName(m_record.zone));
    m_zone.Fill(nullptr, bound.c_str());
}

void PermissionDialogModel::Accept() {
    ZoneRecord chosen = EmptyZone();
    if (m_zone.GetSelectedZone(chosen) == 0) {
        std::memcpy(&m_record.zone, &chosen, sizeof chosen);
    }
    std::string bound(ZoneName(m_record.zone));
    core::DiagLog("\n set permis (%s) zone (%s) ", ImageName(m_record).c_str(), bound.c_str());
}

ScopedPermissionDialogLauncher::ScopedPermissionDialogLauncher(PermissionDialogLauncher& launcher)
    : m_previous(g_permissionLauncher.exchange(&launcher)) {}

ScopedPermissionDialogLauncher::~ScopedPermissionDialogLauncher() {
    g_permissionLauncher.store(m_previous);
}

bool PermissionDialog(AppRecord& record, bool askMode) {
    return g_permissionLauncher.load()->Run(record, askMode);
}

bool DefaultZoneLauncher::Run(AppRecord& record, bool askMode) {
    if (!askMode) {
        return false;
    }
    ComboItemList items;
    PermissionDialogModel dialog(record, true, items);
    dialog.Zone().Fill(nullptr, nullptr);  // selects the stored default zone
    ZoneRecord chosen = EmptyZone();
    if (dialog.Zone().GetSelectedZone(chosen) != 0) {
        core::DiagLog("\n no default zone for (%s)", ImageName(record).c_str());
        return false;
    }
    dialog.Accept();
    return true;
}

int ProgramList::FindRow(std::string_view imageName) const {
    for (int i = 0; i < Count(); ++i) {
        if (m_rows[i].imageName == imageName) {
            return i;
        }
    }
    return -1;
}

void ProgramList::Fill() {
    // Every program still without a path is looked up; one view of the processes serves all.
    platform::ProcessSnapshot snapshot;
    m_rows.clear();
    m_selected = -1;
    std::vector<unsigned char> buffer(driver::kAppListBufferSize);
    int count =
        driver::ListAppRecords(driver::g_hDriver, buffer.data(), driver::kAppListBufferSize);
    for (int i = 0; i < count; ++i) {
        AppRecord record;
        std::memcpy(&record, buffer.data() + i * sizeof(AppRecord), sizeof record);
        CompleteProgramRecord(record);
        AddProgram(record);
    }
    Select(0);
}

int ProgramList::AddProgram(const AppRecord& record) {
    std::string imageName = ImageName(record);
    int index = FindRow(imageName);
    core::DiagLog("\n addprogram %d '%s'", index, imageName.c_str());
    int existed = index >= 0 ? 1 : 0;
    if (index < 0) {
        m_rows.emplace_back();
        index = Count() - 1;
    }
    SetRow(m_rows[index], record);
    return existed;
}

void ProgramList::SetRow(Row& row, const AppRecord& record) {
    row.description = std::string(driver::FieldText(record.description));
    row.zoneName = std::string(ZoneName(record.zone));
    row.path = std::string(driver::FieldText(record.path));
    row.imageName = ImageName(record);
    ++m_iconsAdded;
}

int ProgramList::GetCurrentname(AppRecord& record) {
    if (m_selected < 0) {
        return 1;
    }
    std::memset(&record, 0, sizeof record);
    driver::SetFieldText(record.imageName, m_rows[m_selected].imageName);
    core::DiagLog("\n GetCurrentname %s", m_rows[m_selected].imageName.c_str());
    if (driver::GetAppRecord(driver::g_hDriver, &record) != 1) {
        return 1;
    }
    core::DiagLog("  OK");
    return 0;
}

int ProgramList::EditProgram() {
    AppRecord record;
    if (GetCurrentname(record) != 0) {
        return 0;
    }
    if (!PermissionDialog(record, false)) {
        return 0;
    }
    AddProgram(record);
    driver::SetAppRecord(driver::g_hDriver, record);
    return 1;
}

int ProgramList::DeleteProgram() {
    AppRecord record;
    if (GetCurrentname(record) != 0) {
        return 0;
    }
    int answer = core::CurrentMessages().MessageBox(
        "Delete Program from permission list?", "q-Brix", core::MB_YESNO | core::MB_ICONQUESTION);
    if (answer != core::IDYES) {
        return 0;
    }
    std::string imageName = ImageName(record);
    if (driver::DeleteAppRecord(driver::g_hDriver, imageName.c_str()) != 0) {
        core::CurrentMessages().MessageBox("Can't delete running Application", "q-Brix",
                                           core::MB_OK | core::MB_ICONINFORMATION);
        return 0;
    }
    int index = m_selected;
    m_rows.erase(m_rows.begin() + index);
    Select(index < Count() ? index : Count() - 1);
    return 1;
}

int ProgramList::DecidePendingQuestion(AppRecord& record,
                                       const std::function<void()>& beforeAsking) {
    if (AddProgram(record) == 1) {
        return 0;
    }
    if (IsOwnProgram(ImageName(record))) {
        std::memcpy(&record.zone, &PresetZones()[0], sizeof(ZoneRecord));
    } else {
        std::string path;
        std::string description;
        GetProcessName(ImageName(record), path, description);
        driver::SetFieldText(record.description, description);
        driver::SetFieldText(record.path, path);
        // The new row, shown while the user decides, names the program and shows its icon.
        const int index = FindRow(ImageName(record));
        if (index >= 0) {
            SetRow(m_rows[index], record);
        }
        if (beforeAsking) {
            beforeAsking();
        }
        PermissionDialog(record, true);
    }
    driver::AnswerPendingQuestion(driver::g_hDriver, record);
    AddProgram(record);
    return 1;
}

bool AskPendingApplication(ProgramList& list, const std::function<void()>& beforeAsking) {
    AppRecord record;
    std::memset(&record, 0, sizeof record);
    if (driver::TakePendingQuestion(driver::g_hDriver, &record) == 0) {
        return false;
    }
    core::DiagLog("\n askprocess '%s'", ImageName(record).c_str());
    list.DecidePendingQuestion(record, beforeAsking);
    return true;
}

}  // namespace qbrix::policy
