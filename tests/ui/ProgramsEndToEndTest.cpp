// The application prompt with a real reference driver: an unknown program's connection raises
// the prompt, the answer binds it to a zone, and the Programs page shows it with that zone, also
// when it is read back from the driver.
#include <gtest/gtest.h>
#include <signal.h>

#include <QComboBox>
#include <QPushButton>
#include <QTreeWidget>
#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>

#include "DriverServer.h"
#include "UiTestSupport.h"
#include "driver/DriverControl.h"
#include "driver/DriverErrors.h"
#include "platform/Device.h"
#include "policy/PresetZones.h"
#include "policy/ZoneList.h"
#include "support/Process.h"
#include "support/TempPlatform.h"
#include "ui/DialogSetup.h"
#include "ui/ProgramsPage.h"

namespace qbrix::ui {
namespace {

using namespace std::chrono_literals;
using test_support::Child;
using test_support::ScriptedPresenter;

using test::WaitFor;

TEST(ProgramsEndToEndTest, AnInjectedUnknownProgramIsAskedBoundAndShown) {
    test::TempPlatform platform;
    test::ScriptedMessages messages;
    policy::g_zones.Clear();
    for (const policy::ZoneRecord& zone : policy::PresetZones()) {
        policy::g_zones.Append(zone);
    }
    DialogSetup dialogs(false);
    ScriptedPresenter presenter([](QDialog& dialog) {
        auto* zone = Child<QComboBox>(dialog, "Zone");
        zone->setCurrentIndex(zone->findText("Internet Client"));
        Child<QPushButton>(dialog, "OK")->click();
        return dialog.result();
    });
    test::BackgroundProcess driverProcess(
        {QBRIX_DRIVER_BINARY, "--root", platform.DataRoot(), "--foreground"});
    ASSERT_TRUE(WaitFor([] { return std::filesystem::exists(platform::DeviceSocketPath()); }, 5s));
    ASSERT_EQ(0, driver::OpenDriverDevice(1));

    std::string answer;
    ASSERT_EQ(0, refdriver::SendControlCommand(
                     platform.DataRoot(),
                     "connect newapp.exe tcp out 93.184.216.34:80 100 path=/usr/bin/newapp",
                     &answer))
        << answer;
    ProgramsPage page;
    page.AskPendingApplication();
    EXPECT_EQ(presenter.presented, 1);
    ASSERT_EQ(page.List()->topLevelItemCount(), 1);
    EXPECT_EQ(page.List()->topLevelItem(0)->text(1).toStdString(), "Internet Client");

    // A page built afresh reads the program back from the driver with its zone.
    ProgramsPage again;
    ASSERT_EQ(again.List()->topLevelItemCount(), 1);
    EXPECT_EQ(again.List()->topLevelItem(0)->text(1).toStdString(), "Internet Client");

    driver::ResetDriverLink();
    EXPECT_EQ(0, driverProcess.Stop(SIGTERM));
    driver::ResetDriverErrors();
    policy::g_zones.Clear();
}

}  // namespace
}  // namespace qbrix::ui
