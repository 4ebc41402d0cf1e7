// The two log pages with real processes: the reference driver plays connection decisions and
// q-brix-event sends content events as the provider does; the panel's timer steps bring both to
// the pages and their log files within two ticks.
#include <gtest/gtest.h>
#include <signal.h>

#include <QTabWidget>
#include <QTreeWidget>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include "DriverServer.h"
#include "driver/DriverControl.h"
#include "driver/DriverErrors.h"
#include "events/ContentEventQueue.h"
#include "events/PollActivity.h"
#include "events/PollContent.h"
#include "platform/Device.h"
#include "support/Process.h"
#include "support/TempPlatform.h"
#include "ui/ContentLogPage.h"
#include "ui/InternetLogPage.h"

namespace qbrix::ui {
namespace {

using namespace std::chrono_literals;

using test::WaitFor;

int CountLines(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    int lines = 0;
    while (std::getline(file, line)) {
        ++lines;
    }
    return lines;
}

TEST(LogPagesEndToEndTest, DriverAndProviderEventsReachThePagesAndLogFilesInTwoTicks) {
    test::TempPlatform platform;
    test::ScriptedMessages messages;
    events::ResetActivityPollFlag();
    events::ResetContentPollFlag();
    std::filesystem::create_directories(platform.DataRoot());
    const std::string scenario = platform.DataRoot() + "/traffic.scenario";
    std::ofstream(scenario) << "wait 1500\n"
                               "connect browser.exe tcp in 93.184.216.34:80 1000 "
                               "path=/usr/bin/browser\n";
    test::BackgroundProcess driverProcess({QBRIX_DRIVER_BINARY, "--root", platform.DataRoot(),
                                           "--foreground", "--scenario", scenario});
    ASSERT_TRUE(WaitFor([] { return std::filesystem::exists(platform::DeviceSocketPath()); }, 5s));
    ASSERT_EQ(0, driver::OpenDriverDevice(1));
    driver::AppRecord record{};
    driver::SetFieldText(record.imageName, "browser.exe");
    driver::SetFieldText(record.zone.name, "EnableAll");
    ASSERT_EQ(0, driver::SetAppRecord(driver::g_hDriver, record));

    QTabWidget panel;
    auto* internetLog = new InternetLogPage();
    auto* contentLog = new ContentLogPage();
    panel.addTab(internetLog, internetLog->Caption());
    panel.addTab(contentLog, contentLog->Caption());
    std::vector<std::string> details;
    contentLog->SetDetailsRunner(
        [&](const events::ContentEvent& event) { details.push_back(event.name); });
    events::PollActivity activity(*internetLog);
    events::PollContent content(*contentLog);
    auto tick = [&] {
        activity.Run();
        content.Run();
    };

    tick();  // the first tick opens the content mailslot
    for (const char* type : {"3", "1"}) {
        test::ProcessResult sent =
            test::RunProcess({QBRIX_EVENT_TOOL, "--root", platform.DataRoot(), "--type", type,
                              "--address", "http://w.example/x.zip", "--name",
                              std::string("x") + type, "--quarantine", "/q/x.zip"});
        ASSERT_EQ(0, sent.exitCode) << sent.err;
    }
    // The driver's decision comes after its scenario wait; one timer period between ticks.
    std::string status;
    ASSERT_TRUE(WaitFor(
        [&] {
            refdriver::SendControlCommand(platform.DataRoot(), "status", &status);
            return status.find(" events 1 ") != std::string::npos;
        },
        10s))
        << status;
    std::this_thread::sleep_for(1s);
    tick();

    ASSERT_EQ(internetLog->RowCount(), 1);
    EXPECT_EQ(internetLog->List()->topLevelItem(0)->text(0), "/usr/bin/browser");
    EXPECT_EQ(internetLog->List()->topLevelItem(0)->text(2), "TCP 93.184.216.34:80");
    ASSERT_EQ(contentLog->RowCount(), 2);
    EXPECT_EQ(contentLog->List()->topLevelItem(0)->text(1), "x1");
    EXPECT_EQ(details, std::vector<std::string>{"x1"});
    EXPECT_EQ(CountLines(platform.ProgramDirectory() + "firewall.log"), 1);
    EXPECT_EQ(CountLines(platform.ProgramDirectory() + "content.log"), 2);

    driver::ResetDriverLink();
    events::ResetContentEventQueue();
    EXPECT_EQ(0, driverProcess.Stop(SIGTERM));
    driver::ResetDriverErrors();
}

}  // namespace
}  // namespace qbrix::ui
