// Start-up and shutdown sequences, with the other subsystems replaced by a recording double.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "core/ControlApp.h"
#include "core/DiagLog.h"
#include "core/Messages.h"
#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "platform/Kernel.h"
#include "platform/Platform.h"
#include "support/TempPlatform.h"

namespace qbrix::core {
namespace {

using platform::Family;

// Records every call as a word; answers as configured.
class RecordingLinks : public ProtectionLinks {
public:
    int InstallDriver(int permanent) override { return Log("InstallDriver", permanent), installDriverResult; }
    void RemoveDriver(int permanent) override { Log("RemoveDriver", permanent); }
    int InstallLayeredProvider() override { return Log("InstallLayeredProvider"), installProviderResult; }
    void RemoveLayeredProvider() override { Log("RemoveLayeredProvider"); }
    int OpenDriverDevice(int permanent) override {
        Log("OpenDriverDevice", permanent);
        if (openResult == 0) deviceOpen = true;
        return openResult;
    }
    int CheckDriverVersion() override { return Log("CheckDriverVersion"), versionResult; }
    void SetFilteringState(int state) override {
        // With no open device the request does nothing.
        if (deviceOpen) Log("SetFilteringState", state);
    }
    void CloseDriverDevice() override { Log("CloseDriverDevice"), deviceOpen = false; }
    void ShowDriverErrors() override {
        Log("ShowDriverErrors");
        if (!errorText.empty()) {
            CurrentMessages().MessageBox(errorText, "error", MB_OK);
        }
    }
    void LoadZoneList() override { Log("LoadZoneList"); }
    MainWindow* CreateControlPanel() override { return Log("CreateControlPanel"), &window; }

    void Log(const std::string& call, int arg = -1) {
        calls.push_back(arg < 0 ? call : call + "(" + std::to_string(arg) + ")");
    }

    std::vector<std::string> calls;
    int installDriverResult = 0;
    int installProviderResult = 0;
    int openResult = 0;
    int versionResult = 0;
    bool deviceOpen = false;
    std::string errorText;
    MainWindow window;
};

class ControlAppTest : public ::testing::Test {
protected:
    ControlAppTest() {
        // Diagnostic log on, into the program directory's quarantine folder.
        std::filesystem::create_directories(m_platform.ProgramDirectory() + "quarantine");
        RegistryKey(kAvSuffix, kLspRootPath).SetDword(kDiagLogValue, 1);
        ResetDiagLogCache();
        m_platform.SetUser(0, {"root"});
    }
    std::string DiagText() {
        return test::ReadFile(m_platform.ProgramDirectory() + "quarantine/gui.log." +
                              std::to_string(platform::GetCurrentProcessId()) + ".BRIX");
    }

    test::TempPlatform m_platform;
    test::ScriptedMessages m_messages;
    RecordingLinks m_links;
};

TEST(StartCommandTest, OnlyTheFirstCharacterCountsInEitherCase) {
    EXPECT_EQ(StartCommand::Temporary, ParseStartCommand("t"));
    EXPECT_EQ(StartCommand::Temporary, ParseStartCommand("Temp"));
    EXPECT_EQ(StartCommand::Install, ParseStartCommand("install"));
    EXPECT_EQ(StartCommand::Install, ParseStartCommand("I"));
    EXPECT_EQ(StartCommand::Deinstall, ParseStartCommand("d"));
    EXPECT_EQ(StartCommand::Normal, ParseStartCommand("x"));
    EXPECT_EQ(StartCommand::Normal, ParseStartCommand(""));
    EXPECT_EQ(StartCommand::Normal, ParseStartCommand("/t"));
    EXPECT_EQ(StartCommand::Normal, ParseStartCommand("-i"));
}

TEST_F(ControlAppTest, NormalStartReachesThePanelAndSendsNothingToTheDriver) {
    ControlApp app(m_links, "");
    EXPECT_TRUE(app.InitInstance());
    EXPECT_EQ(&m_links.window, app.m_pMainWnd);
    EXPECT_EQ(1, app.m_started);
    EXPECT_EQ(0, app.m_temporary);
    EXPECT_EQ((std::vector<std::string>{"OpenDriverDevice(1)", "CheckDriverVersion", "LoadZoneList",
                                        "CreateControlPanel"}),
              m_links.calls);
    EXPECT_EQ("\n initinstance\n Checking mutex\n checking admin OK\n Everything seems to be OK"
              "\n check driver init version",
              DiagText());

    m_links.calls.clear();
    EXPECT_EQ(0, app.ExitInstance());
    EXPECT_EQ((std::vector<std::string>{"SetFilteringState(0)", "CloseDriverDevice", "ShowDriverErrors"}),
              m_links.calls);
    EXPECT_EQ(0, app.m_started);
    EXPECT_TRUE(m_messages.shown.empty());
}

TEST_F(ControlAppTest, InstallAndDeinstallRunTheirThreeStepsAndEnd) {
    m_links.installProviderResult = 1;  // results are ignored
    ControlApp install(m_links, "Install");
    EXPECT_FALSE(install.InitInstance());
    ControlApp deinstall(m_links, "d");
    EXPECT_FALSE(deinstall.InitInstance());
    EXPECT_EQ((std::vector<std::string>{"InstallDriver(1)", "InstallLayeredProvider",
                                        "RemoveLayeredProvider", "RemoveDriver(1)"}),
              m_links.calls);
    EXPECT_EQ(nullptr, install.m_hMutex);  // the mutex is never taken

    m_links.calls.clear();
    deinstall.ExitInstance();
    EXPECT_TRUE(m_links.calls.empty());  // nothing started, nothing shown
    EXPECT_TRUE(m_messages.shown.empty());
    EXPECT_EQ("\n initinstance\n install 1\n install 2\n install 3\n initinstance\n deinstall 1"
              "\n deinstall 2\n deinstall 3\n exit 4",
              DiagText());
}

TEST_F(ControlAppTest, TemporaryModeInstallsForTheRunAndRemovesAtExit) {
    ControlApp app(m_links, "T");
    ASSERT_TRUE(app.InitInstance());
    EXPECT_EQ((std::vector<std::string>{"InstallDriver(0)", "InstallLayeredProvider", "OpenDriverDevice(0)",
                                        "CheckDriverVersion", "LoadZoneList", "CreateControlPanel"}),
              m_links.calls);
    m_links.calls.clear();
    app.ExitInstance();
    EXPECT_EQ((std::vector<std::string>{"SetFilteringState(0)", "CloseDriverDevice", "RemoveLayeredProvider",
                                        "RemoveDriver(0)", "ShowDriverErrors"}),
              m_links.calls);
    EXPECT_NE(std::string::npos, DiagText().find("\n exit 1\n exit 2\n exit 3\n exit 4"));
}

TEST_F(ControlAppTest, TemporaryProviderFailureEndsWithoutMessageButCleansUp) {
    m_links.installProviderResult = 1;
    ControlApp app(m_links, "temp");
    EXPECT_FALSE(app.InitInstance());
    EXPECT_EQ(1, app.m_started);
    app.ExitInstance();
    EXPECT_EQ((std::vector<std::string>{"InstallDriver(0)", "InstallLayeredProvider", "CloseDriverDevice",
                                        "RemoveLayeredProvider", "RemoveDriver(0)", "ShowDriverErrors"}),
              m_links.calls);
    EXPECT_TRUE(m_messages.shown.empty());
}

TEST_F(ControlAppTest, FailedVersionCheckShowsItsMessageTwice) {
    m_links.versionResult = 1;
    m_links.errorText = "valid driver not found";
    ControlApp app(m_links, "t");
    EXPECT_FALSE(app.InitInstance());
    app.ExitInstance();
    ASSERT_EQ(2u, m_messages.shown.size());
    EXPECT_EQ("valid driver not found", m_messages.shown[0].text);
    EXPECT_EQ("valid driver not found", m_messages.shown[1].text);
    EXPECT_EQ("error", m_messages.shown[1].caption);
    // The device was open: filtering is switched off before it is closed and removed.
    EXPECT_EQ((std::vector<std::string>{"InstallDriver(0)", "InstallLayeredProvider", "OpenDriverDevice(0)",
                                        "CheckDriverVersion", "ShowDriverErrors", "SetFilteringState(0)",
                                        "CloseDriverDevice", "RemoveLayeredProvider", "RemoveDriver(0)",
                                        "ShowDriverErrors"}),
              m_links.calls);
}

TEST_F(ControlAppTest, FailedOpenShowsTheDriverErrorsAndStops) {
    m_links.openResult = 1;
    m_links.errorText = "cannot open";
    ControlApp app(m_links, "");
    EXPECT_FALSE(app.InitInstance());
    EXPECT_EQ((std::vector<std::string>{"OpenDriverDevice(1)", "ShowDriverErrors"}), m_links.calls);
    app.ExitInstance();
    EXPECT_EQ(2u, m_messages.shown.size());
}

TEST_F(ControlAppTest, ShutdownRunTwiceOnlyReleasesAndLogsTheSecondTime) {
    ControlApp app(m_links, "t");
    ASSERT_TRUE(app.InitInstance());
    app.ShutdownProtection();  // the session-end notification
    m_links.calls.clear();
    app.ExitInstance();
    EXPECT_TRUE(m_links.calls.empty());
    std::string log = DiagText();
    EXPECT_NE(std::string::npos, log.find("\n exit 3\n exit 4\n exit 4"));
    EXPECT_NE(nullptr, app.m_hMutex);  // released, never closed
}

TEST_F(ControlAppTest, SecondCopyEndsSilently) {
    ControlApp first(m_links, "");
    ASSERT_TRUE(first.InitInstance());
    RecordingLinks otherLinks;
    ControlApp second(otherLinks, "");
    EXPECT_FALSE(second.InitInstance());
    EXPECT_TRUE(otherLinks.calls.empty());
    EXPECT_TRUE(m_messages.shown.empty());
    EXPECT_NE(std::string::npos, DiagText().find("\n Checking mutex\n Createmutex already exists"));
    // Releasing does not free the name while the first copy's handle is open.
    first.ShutdownProtection();
    RecordingLinks thirdLinks;
    ControlApp third(thirdLinks, "");
    EXPECT_FALSE(third.InitInstance());
    platform::CloseHandle(first.m_hMutex);
    platform::CloseHandle(second.m_hMutex);
    platform::CloseHandle(third.m_hMutex);
}

TEST_F(ControlAppTest, MutexNameFollowsThePlatformFamily) {
    ControlApp app(m_links, "");
    ASSERT_TRUE(app.InitInstance());
    // A 9x copy uses the plain name, so it does not collide with the NT copy's global name.
    m_platform.Get().MutableInfo().family = Family::Win9x;
    RecordingLinks otherLinks;
    ControlApp other(otherLinks, "");
    EXPECT_TRUE(other.InitInstance());
}

TEST_F(ControlAppTest, NonAdministratorIsToldAndTheProgramEnds) {
    m_platform.SetUser(1000, {"users"});
    ControlApp app(m_links, "t");
    EXPECT_FALSE(app.InitInstance());
    ASSERT_EQ(1u, m_messages.shown.size());
    EXPECT_EQ("Protection is ON", m_messages.shown[0].caption);
    EXPECT_EQ("Protection is ON\n\nTo change access permissions Administrator rights required",
              m_messages.shown[0].text);
    EXPECT_EQ(0, app.m_started);
    app.ExitInstance();
    EXPECT_TRUE(m_links.calls.empty());  // nothing installed, nothing removed
    EXPECT_NE(std::string::npos, DiagText().find("\n checking admin failed\n exit 4"));
}

TEST_F(ControlAppTest, NonAdministratorWhoTickedDontAskAgainSeesNothing) {
    m_platform.SetUser(1000, {"users"});
    m_messages.QueueNoAskAnswer(NoAskAnswer{true, true});
    ControlApp first(m_links, "");
    EXPECT_FALSE(first.InitInstance());
    first.ExitInstance();
    platform::CloseHandle(first.m_hMutex);
    ControlApp second(m_links, "");
    EXPECT_FALSE(second.InitInstance());
    EXPECT_EQ(1u, m_messages.shown.size());

    // Another user still gets the message.
    platform::CloseHandle(second.m_hMutex);
    m_platform.SetUser(1002, {"users"});
    ControlApp third(m_links, "");
    EXPECT_FALSE(third.InitInstance());
    EXPECT_EQ(2u, m_messages.shown.size());
}

TEST_F(ControlAppTest, AdministratorGroupsOnTheNtFamily) {
    m_platform.SetUser(1000, {"users", "sudo"});
    EXPECT_NE(0, IsUserAdmin());
    m_platform.SetUser(1000, {"wheel"});
    EXPECT_NE(0, IsUserAdmin());
    m_platform.SetUser(1000, {"users", "adm"});
    EXPECT_EQ(0, IsUserAdmin());
    m_platform.SetUser(0, {});
    EXPECT_NE(0, IsUserAdmin());
}

TEST_F(ControlAppTest, AdministratorTestWithoutCheckTokenMembership) {
    // A missing function gives 0 on NT; on 9x everybody is an administrator.
    m_platform.Get().Libs().RegisterBuiltin("ADVAPI32.DLL", {});
    EXPECT_EQ(0, IsUserAdmin());
    m_platform.Get().Libs().UnregisterBuiltin("advapi32.dll");
    EXPECT_EQ(0, IsUserAdmin());
    m_platform.Get().MutableInfo().family = Family::Win9x;
    EXPECT_EQ(1, IsUserAdmin());
}

}  // namespace
}  // namespace qbrix::core
