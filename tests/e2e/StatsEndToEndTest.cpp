// Statistics and the Internet log with real processes: the reference driver plays a scenario of
// traffic, the control program's steps read it over the device socket, and q-brixctl shows what
// was stored.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "DriverServer.h"
#include "driver/DriverControl.h"
#include "driver/DriverErrors.h"
#include "events/PollActivity.h"
#include "platform/Device.h"
#include "stats/StatPeriodList.h"
#include "stats/StatisticsTick.h"
#include "support/Process.h"
#include "support/TempPlatform.h"

namespace qbrix::stats {
namespace {

using namespace std::chrono_literals;

using ::qbrix::test::WaitFor;

int UtcZone(std::int64_t seconds, platform::SystemTime* local) {
    auto time = static_cast<std::time_t>(seconds);
    std::tm fields{};
    ::gmtime_r(&time, &fields);
    local->month = static_cast<std::uint16_t>(fields.tm_mon + 1);
    local->day = static_cast<std::uint16_t>(fields.tm_mday);
    local->dayOfWeek = static_cast<std::uint16_t>(fields.tm_wday);
    local->hour = static_cast<std::uint16_t>(fields.tm_hour);
    return 1;
}

// A bucket's line as q-brixctl prints it: the label in 17 columns, each counter in 12.
std::string Line(std::string label, const std::vector<std::string>& cells) {
    label.resize(17, ' ');
    for (const std::string& cell : cells) {
        label += std::string(12 - cell.size(), ' ') + cell;
    }
    return "\n" + label + "\n";
}

class CountingView : public events::ActivityLogView {
  public:
    void SetRedraw(bool) override {}
    int RowCount() override { return static_cast<int>(rows.size()); }
    void DeleteLastRow() override { rows.pop_back(); }
    void InsertTopRow(const events::ActivityRow& row) override {
        rows.insert(rows.begin(), row.application + "|" + row.address);
    }
    std::vector<std::string> rows;
};

TEST(StatsEndToEndTest, ScenarioTrafficReachesTheLogAndTheStoredStatistics) {
    test::TempPlatform platform;
    test::ScriptedMessages messages;
    ResetStatPeriods();
    std::string scenario = platform.DataRoot() + "/traffic.scenario";
    std::filesystem::create_directories(platform.DataRoot());
    std::ofstream(scenario) << "# two known programs move traffic once they are registered\n"
                               "wait 3000\n"
                               "connect browser.exe tcp in 93.184.216.34:80 1500000 "
                               "path=C:\\Programs\\browser.exe\n"
                               "connect chat.exe udp out 198.51.100.7:5060 250000 "
                               "path=C:\\Programs\\chat.exe\n";
    test::BackgroundProcess driverProcess({QBRIX_DRIVER_BINARY, "--root", platform.DataRoot(),
                                           "--foreground", "--scenario", scenario});
    ASSERT_TRUE(WaitFor([] { return std::filesystem::exists(platform::DeviceSocketPath()); }, 5s));
    ASSERT_EQ(0, driver::OpenDriverDevice(1));
    for (const char* image : {"browser.exe", "chat.exe"}) {
        driver::AppRecord record{};
        driver::SetFieldText(record.imageName, image);
        driver::SetFieldText(record.zone.name, "EnableAll");
        ASSERT_EQ(0, driver::SetAppRecord(driver::g_hDriver, record));
    }
    std::int64_t now = 1795442709 - 4 * 3600;  // 10:05 UTC: the bucket "11:00"
    StatisticsTick tick([&now] { return now; }, UtcZone);
    tick.Run();  // the baseline, before the scenario's traffic

    std::string status;
    ASSERT_TRUE(WaitFor(
        [&] {
            refdriver::SendControlCommand(platform.DataRoot(), "status", &status);
            return status.find(" events 2 ") != std::string::npos;
        },
        15s))
        << status;
    events::ResetActivityPollFlag();
    CountingView view;
    events::PollActivity(view).Run();
    EXPECT_EQ((std::vector<std::string>{"C:\\Programs\\chat.exe|UDP 198.51.100.7:5060",
                                        "C:\\Programs\\browser.exe|TCP 93.184.216.34:80"}),
              view.rows);
    std::ifstream log(platform.ProgramDirectory() + "firewall.log");
    std::string line;
    int lines = 0;
    while (std::getline(log, line)) {
        ++lines;
        EXPECT_EQ('\r', line.back());
    }
    EXPECT_EQ(2, lines);

    now += 20;
    tick.Run();
    driver::ResetDriverLink();
    ResetStatPeriods();

    test::ProcessResult hours = test::RunProcess(
        {QBRIX_CTL_BINARY, "--root", platform.DataRoot(), "stats", "show", "hours"});
    ASSERT_EQ(0, hours.exitCode) << hours.err;
    EXPECT_NE(std::string::npos, hours.out.find(Line("11:00", {"1,5", "0", "0", "0,25"})))
        << hours.out;
    test::ProcessResult apps = test::RunProcess(
        {QBRIX_CTL_BINARY, "--root", platform.DataRoot(), "stats", "show", "applications"});
    ASSERT_EQ(0, apps.exitCode) << apps.err;
    EXPECT_NE(std::string::npos, apps.out.find(Line("browser.exe", {"1,5", "0", "0", "0"})))
        << apps.out;
    EXPECT_EQ(0, driverProcess.Stop(SIGTERM));
    driver::ResetDriverErrors();
}

}  // namespace
}  // namespace qbrix::stats
