// The Internet log page's timer step: reads the driver's connection decisions until none is
// left, puts each at the top of the page's list and appends its line to the Internet log file.
// A tick reads at most kActivityRecordsPerTick records; what the driver still holds is read on
// the next tick, so a driver whose reads never come back empty cannot hold the timer (and the
// end of the session) up. The page itself only displays what it is told through ActivityLogView.
#pragma once

#include <string>

#include "driver/DriverRecords.h"
#include "events/LogTexts.h"
#include "platform/Files.h"

namespace qbrix::events {

// One row of the Internet log list.
struct ActivityRow {
    std::string application;  // the item text: the application's full path
    // 0 incoming and 1 outgoing rejected, 2 incoming and 3 outgoing approved connections.
    int icon = 0;
    std::string ruleName;
    std::string address;
    std::string date;
    std::string time;
};

class ActivityLogView {
  public:
    virtual ~ActivityLogView() = default;
    // Redrawing is off around each batch so that a burst repaints once.
    virtual void SetRedraw(bool on) = 0;
    virtual int RowCount() = 0;
    virtual void DeleteLastRow() = 0;
    // New rows go to the top.
    virtual void InsertTopRow(const ActivityRow& row) = 0;
};

// Far above what a driver decides in a second (its own buffer holds 1,000 decisions): a tick
// normally still reads until the driver has nothing left. 50 full reads of 100 records.
inline constexpr int kActivityRecordsPerTick = 5000;

class PollActivity {
  public:
    explicit PollActivity(ActivityLogView& view,
                          platform::FileMappings& mappings = platform::SystemFileMappings());

    // One timer tick. Does nothing while an earlier tick is still inside it.
    void Run();

    // The fields of a driver record, its texts bounded by their widths.
    static ActivityFields FieldsOf(const driver::ActivityRecord& record);
    static ActivityRow RowOf(const ActivityFields& fields);
    // Outgoing is direction 2, anything else counts as incoming; approved (result 0) adds 2.
    static int IconIndex(std::uint32_t direction, std::uint32_t result);

  private:
    ActivityLogView& m_view;
    platform::FileMappings& m_mappings;
};

// The re-entry flag of the activity poll; tests clear it between cases.
void ResetActivityPollFlag();

}  // namespace qbrix::events
