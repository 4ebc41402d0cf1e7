#include "events/PollActivity.h"

#include <memory>

#include "driver/DriverControl.h"
#include "events/LogFile.h"
#include "events/LogSettings.h"
#include "events/PollContent.h"

namespace qbrix::events {

namespace {

bool g_activityPollBusy = false;

constexpr int kActivityBatch = driver::kActivityBufferSize / sizeof(driver::ActivityRecord);

}  // namespace

PollActivity::PollActivity(ActivityLogView& view, platform::FileMappings& mappings)
    : m_view(view), m_mappings(mappings) {}

int PollActivity::IconIndex(std::uint32_t direction, std::uint32_t result) {
    return (direction == 2 ? 1 : 0) + (result == 0 ? 2 : 0);
}

ActivityFields PollActivity::FieldsOf(const driver::ActivityRecord& record) {
    ActivityFields fields;
    fields.timeStamp = record.timeStamp;
    fields.application = std::string(driver::FieldText(record.application));
    fields.ruleName = std::string(driver::FieldText(record.connection.name));
    fields.address = record.connection.address;
    fields.remotePort = record.connection.remotePort;
    fields.protocol = record.connection.protocol;
    fields.direction = record.connection.direction;
    fields.result = record.connection.result;
    return fields;
}

ActivityRow PollActivity::RowOf(const ActivityFields& fields) {
    ActivityRow row;
    row.application = fields.application;
    row.icon = IconIndex(fields.direction, fields.result);
    row.ruleName = fields.ruleName;
    row.address = AddressText(fields.address, fields.protocol, fields.remotePort);
    TimeStampTexts(fields.timeStamp, &row.date, &row.time);
    return row;
}

void PollActivity::Run() {
    if (g_activityPollBusy) {
        return;
    }
    g_activityPollBusy = true;
    m_view.SetRedraw(false);
    LogSettings settings = ReadInternetLogSettings();
    LogFile file(m_mappings);
    file.Open(settings.fileName, settings.fileSizeMb);
    // 32800 bytes, room for 100 records: on the heap rather than the caller's stack.
    auto records = std::make_unique<driver::ActivityRecord[]>(kActivityBatch);
    for (int taken = 0; taken < kActivityRecordsPerTick;) {
        int count = driver::ReadActivityEvents(driver::g_hDriver, records.get(),
                                               driver::kActivityBufferSize);
        if (count <= 0) {
            break;
        }
        taken += count;
        for (int i = 0; i < count; ++i) {
            ActivityFields fields = FieldsOf(records[i]);
            if (m_view.RowCount() > kLogListRowLimit) {
                m_view.DeleteLastRow();
            }
            ActivityRow row = RowOf(fields);
            m_view.InsertTopRow(row);
            if (settings.useLog != 0) {
                file.Write(InternetLogLine(fields, row.date, row.time));
            }
        }
    }
    m_view.SetRedraw(true);
    g_activityPollBusy = false;
    file.CloseAndTrim();
}

void ResetActivityPollFlag() {
    g_activityPollBusy = false;
}

}  // namespace qbrix::events
