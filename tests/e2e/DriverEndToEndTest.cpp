// The driver link with real processes and real sockets: the reference driver serving every
// request on both families, the 9x driver loaded for the life of a handle, and the control
// program's start-up and exit against the driver, and who else may open what they make.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "DriverServer.h"
#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "driver/DriverControl.h"
#include "driver/DriverErrors.h"
#include "platform/Device.h"
#include "platform/Platform.h"
#include "platform/Services.h"
#include "platform/SystemFiles.h"
#include "support/Process.h"
#include "support/TempPlatform.h"

namespace qbrix::driver {
namespace {

using namespace std::chrono_literals;

using ::qbrix::test::BackgroundProcess;
using ::qbrix::test::WaitFor;

class DriverEndToEndTest : public ::testing::TestWithParam<platform::Family> {
  protected:
    DriverEndToEndTest() : m_platform(GetParam()) {
        ResetDriverErrors();
        ResetDriverLink();
    }
    ~DriverEndToEndTest() override {
        ResetDriverLink();
        ResetDriverErrors();
    }

    std::unique_ptr<BackgroundProcess> StartDriver(std::vector<std::string> extra = {}) {
        std::vector<std::string> argv = {QBRIX_DRIVER_BINARY, "--root", m_platform.DataRoot(),
                                         "--foreground"};
        argv.insert(argv.end(), extra.begin(), extra.end());
        auto process = std::make_unique<BackgroundProcess>(
            argv, std::map<std::string, std::string>{}, m_platform.DataRoot() + "/driver.err");
        EXPECT_TRUE(WaitFor([] { return std::filesystem::exists(platform::DeviceSocketPath()); }));
        return process;
    }
    std::string Control(const std::string& command) {
        std::string answer;
        refdriver::SendControlCommand(m_platform.DataRoot(), command, &answer);
        return answer;
    }

    test::TempPlatform m_platform;
    test::ScriptedMessages m_messages;
};

TEST_P(DriverEndToEndTest, EveryRequestReachesTheReferenceDriver) {
    auto driver = StartDriver();
    ASSERT_EQ(OpenDriverDevice(1), 0) << DriverErrorText();
    EXPECT_EQ(CheckDriverVersion(g_hDriver), 0);

    ZoneRecord web{};
    SetFieldText(web.name, "Web");
    web.rules[0].enabled = 1;
    SetFieldText(web.rules[0].name, "http");
    web.rules[0].remotePort = 80;
    web.result = 1;
    EXPECT_EQ(SetDefaultZone(g_hDriver, web), 0);
    EXPECT_EQ(SetOverrideZone(g_hDriver, ZoneRecord{}), 0);

    AppRecord known{};
    SetFieldText(known.imageName, "known.exe");
    SetFieldText(known.path, "C:\\known.exe");
    known.zone = web;
    EXPECT_EQ(SetAppRecord(g_hDriver, known), 0);
    AppRecord fetched{};
    SetFieldText(fetched.imageName, "known.exe");
    EXPECT_EQ(GetAppRecord(g_hDriver, &fetched), 1);
    EXPECT_EQ(FieldText(fetched.path), "C:\\known.exe");
    std::vector<char> list(kAppListBufferSize);
    EXPECT_EQ(ListAppRecords(g_hDriver, list.data(), kAppListBufferSize), 1);

    // An unknown program connects: one question, and after the answer its decision and bytes.
    EXPECT_EQ(Control("connect new.exe tcp out 10.1.2.3:80 500"),
              "ok held until the program is known");
    EXPECT_EQ(Control("connect new.exe tcp out 10.1.2.3:80 200"),
              "ok held until the program is known");
    AppRecord question{};
    ASSERT_EQ(TakePendingQuestion(g_hDriver, &question), 1);
    EXPECT_EQ(FieldText(question.imageName), "new.exe");
    EXPECT_EQ(question.zone.rules[0].address, 0x0A010203u);
    AppRecord none{};
    EXPECT_EQ(TakePendingQuestion(g_hDriver, &none), 0);
    std::vector<char> events(kActivityBufferSize);
    EXPECT_EQ(ReadActivityEvents(g_hDriver, events.data(), kActivityBufferSize), 0);

    question.zone = web;
    question.zone.rules[0].result = 0;
    EXPECT_EQ(AnswerPendingQuestion(g_hDriver, question), 0);
    ASSERT_EQ(ReadActivityEvents(g_hDriver, events.data(), kActivityBufferSize), 2);
    ActivityRecord first{};
    std::memcpy(&first, events.data(), sizeof(first));
    EXPECT_EQ(first.connection.result, 0u);
    EXPECT_EQ(FieldText(first.connection.name), "http");
    std::uint64_t c[4] = {};
    ASSERT_EQ(GetAppCounters(g_hDriver, "new.exe", &c[0], &c[1], &c[2], &c[3]), 0);
    EXPECT_EQ(c[1], 700u);
    std::uint32_t zeros[8] = {};
    EXPECT_EQ(SetAppCounters(g_hDriver, "new.exe", zeros), 0);
    ASSERT_EQ(GetAppCounters(g_hDriver, "new.exe", &c[0], &c[1], &c[2], &c[3]), 0);
    EXPECT_EQ(c[1], 0u);

    EXPECT_EQ(DeleteAppRecord(g_hDriver, "known.exe"), 0);
    EXPECT_EQ(ListAppRecords(g_hDriver, list.data(), kAppListBufferSize), 1);
    EXPECT_EQ(SetFilteringState(g_hDriver, 0), 0);
    EXPECT_EQ(Control("status").rfind("ok filtering 0 apps 1 ", 0), 0u);
    CloseDriverDevice();
    EXPECT_TRUE(DriverErrorText().empty()) << DriverErrorText();
}

TEST_P(DriverEndToEndTest, ADriverThatDiesFailsRequestsWithoutHanging) {
    auto driver = StartDriver();
    ASSERT_EQ(OpenDriverDevice(1), 0);
    driver->Stop(SIGKILL, 5000);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(CheckDriverVersion(g_hDriver), 1);
    EXPECT_EQ(SetFilteringState(g_hDriver, 0), 1);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
}

INSTANTIATE_TEST_SUITE_P(Families, DriverEndToEndTest,
                         ::testing::Values(platform::Family::Nt, platform::Family::Win9x),
                         [](const auto& info) {
                             return info.param == platform::Family::Nt ? "Nt" : "Win9x";
                         });

TEST(DriverLoad9xTest, ATemporaryOpenLoadsTheDriverForTheLifeOfTheHandle) {
    test::TempPlatform platform(platform::Family::Win9x);
    test::ScriptedMessages messages;
    ResetDriverErrors();
    std::filesystem::create_symlink(QBRIX_DRIVER_BINARY,
                                    platform.ProgramDirectory() + "q-Brix.VXD");
    std::string before = platform::GetCurrentDirectory();
    ASSERT_EQ(OpenDriverDevice(0), 0) << DriverErrorText();
    EXPECT_EQ(platform::GetCurrentDirectory(), before);
    EXPECT_EQ(CheckDriverVersion(g_hDriver), 0);
    EXPECT_TRUE(std::filesystem::exists(platform::DeviceSocketPath()));
    CloseDriverDevice();
    EXPECT_FALSE(std::filesystem::exists(platform::DeviceSocketPath()));
    ResetDriverErrors();
}

// The control program itself, started as a person would start it.
class ControlProgramTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (::geteuid() != 0) {
            GTEST_SKIP() << "the control program needs an administrator (root)";
        }
    }
    // Started without a display.
    std::unique_ptr<BackgroundProcess> Run(const std::string& command) {
        std::vector<std::string> argv = {QBRIX_BINARY};
        if (!command.empty()) {
            argv.push_back(command);
        }
        return std::make_unique<BackgroundProcess>(
            argv,
            std::map<std::string, std::string>{{"QBRIX_ROOT", m_platform.DataRoot()},
                                               {"QT_QPA_PLATFORM", ""},
                                               {"DISPLAY", ""},
                                               {"WAYLAND_DISPLAY", ""}},
            ErrorFile());
    }
    std::string ErrorFile() const { return m_platform.DataRoot() + "/q-brix.err"; }
    std::string Errors() const { return test::ReadFile(ErrorFile()); }
    // What the program printed besides the first-run question of an empty zone store, which
    // every fresh data root with a configured address asks (and answers without a terminal).
    std::string ErrorsBesidesFirstRun() const {
        std::string errors = Errors();
        const std::string wizard = "[q-Brix] Run Zone Wizard to configure Trusted Zone?\n";
        if (std::size_t at = errors.find(wizard); at != std::string::npos) {
            errors.erase(at, wizard.size());
        }
        return errors;
    }
    bool ServiceExists() {
        platform::SC_HANDLE manager =
            platform::OpenSCManager(nullptr, nullptr, platform::SC_MANAGER_CONNECT);
        platform::SC_HANDLE service =
            platform::OpenService(manager, "q-Brix", platform::SERVICE_QUERY_CONFIG);
        bool exists = service != nullptr;
        platform::CloseServiceHandle(service);
        platform::CloseServiceHandle(manager);
        return exists;
    }
    std::string Status() {
        std::string answer;
        refdriver::SendControlCommand(m_platform.DataRoot(), "status", &answer);
        return answer;
    }

    test::TempPlatform m_platform;
};

TEST_F(ControlProgramTest, TemporaryRunStartsTheDriverServiceAndRemovesItAtExit) {
    auto program = Run("T");
    ASSERT_TRUE(WaitFor([this] { return Status().rfind("ok filtering 1", 0) == 0; })) << Errors();
    EXPECT_TRUE(ServiceExists());
    // Past the version check the program keeps running with no message.
    std::this_thread::sleep_for(500ms);
    EXPECT_EQ(program->Wait(0), -1) << Errors();
    EXPECT_EQ(program->Stop(SIGTERM), 0);
    EXPECT_FALSE(ServiceExists());
    EXPECT_FALSE(std::filesystem::exists(platform::DeviceSocketPath()));
    EXPECT_EQ(ErrorsBesidesFirstRun(), "");
}

TEST_F(ControlProgramTest, NormalRunSwitchesFilteringOffAtExit) {
    BackgroundProcess driver({QBRIX_DRIVER_BINARY, "--root", m_platform.DataRoot(), "--foreground"},
                             {}, m_platform.DataRoot() + "/driver.err");
    ASSERT_TRUE(WaitFor([this] { return Status().rfind("ok filtering 1", 0) == 0; }));
    auto program = Run("");
    std::this_thread::sleep_for(700ms);
    EXPECT_EQ(program->Wait(0), -1) << Errors();
    EXPECT_EQ(program->Stop(SIGTERM), 0);
    EXPECT_EQ(Status().rfind("ok filtering 0", 0), 0u);
    EXPECT_EQ(ErrorsBesidesFirstRun(), "");
}

// Without a display the main loop runs by itself: an unknown program gets the default zone, its
// traffic and a content event reach the two log files, and SIGTERM ends the run through the
// shutdown.
TEST_F(ControlProgramTest, WithoutADisplayTheLoopAnswersWithTheDefaultZoneAndLogs) {
    const std::string firewallLog = m_platform.DataRoot() + "/firewall.log";
    const std::string contentLog = m_platform.DataRoot() + "/content.log";
    core::RegistryKey(core::kFwLogSuffix, core::kGuiRootPath)
        .SetString(core::kFileNameValue, firewallLog);
    core::RegistryKey(core::kLspLogSuffix, core::kGuiRootPath)
        .SetString(core::kFileNameValue, contentLog);
    core::RegistryKey("", core::kGuiRootPath).SetString("DefZone", "DisableAll");
    BackgroundProcess driver({QBRIX_DRIVER_BINARY, "--root", m_platform.DataRoot(), "--foreground"},
                             {}, m_platform.DataRoot() + "/driver.err");
    ASSERT_TRUE(WaitFor([this] { return Status().rfind("ok filtering 1", 0) == 0; }));
    auto program = Run("");
    // The event goes through once the program reads its mailslot.
    ASSERT_TRUE(WaitFor(
        [this] {
            return test::RunProcess({QBRIX_EVENT_BINARY, "--root", m_platform.DataRoot(), "--type",
                                     "4", "--address", "http://host/", "--name", "Banner"})
                       .exitCode == 0;
        },
        20s))
        << Errors();
    ASSERT_EQ(0, test::RunProcess({QBRIX_DRIVER_BINARY, "--root", m_platform.DataRoot(), "--inject",
                                   "tool.exe tcp out 192.0.2.1:80 path=/opt/tool"})
                     .exitCode);
    EXPECT_TRUE(WaitFor(
        [&] { return test::ReadFile(firewallLog).find("\tDisableAll\t") != std::string::npos; },
        20s))
        << test::ReadFile(firewallLog) << Errors();
    EXPECT_NE(test::ReadFile(firewallLog).find("/opt/tool"), std::string::npos);
    EXPECT_TRUE(WaitFor(
        [&] {
            return test::ReadFile(contentLog).find("\tBanner\thttp://host/\t") != std::string::npos;
        },
        20s))
        << test::ReadFile(contentLog);
    EXPECT_EQ(program->Wait(0), -1) << Errors();
    EXPECT_EQ(program->Stop(SIGTERM), 0);
    EXPECT_EQ(Status().rfind("ok filtering 0 apps 1 ", 0), 0u) << Status();
}

// A driver whose activity reads never come back empty: the loop still ticks, SIGTERM still ends
// the run through the shutdown, and the Internet log never grows past its limit (1 MB) by more
// than a line, also in the middle of a tick.
TEST_F(ControlProgramTest, AFloodingDriverHoldsUpNeitherTheSessionEndNorTheLogLimit) {
    const std::string firewallLog = m_platform.DataRoot() + "/firewall.log";
    core::RegistryKey(core::kFwLogSuffix, core::kGuiRootPath)
        .SetString(core::kFileNameValue, firewallLog);
    BackgroundProcess driver(
        {QBRIX_DRIVER_BINARY, "--root", m_platform.DataRoot(), "--foreground", "--flood"}, {},
        m_platform.DataRoot() + "/driver.err");
    ASSERT_TRUE(WaitFor([this] { return Status().rfind("ok filtering 1", 0) == 0; }));
    auto program = Run("");
    std::uintmax_t largest = 0;
    auto size = [&] {
        std::error_code error;
        std::uintmax_t bytes = std::filesystem::file_size(firewallLog, error);
        largest = std::max(largest, error ? 0 : bytes);
        return largest;
    };
    // About 400 KB a tick: the log comes near its limit within a few ticks, and the ticks after
    // that trim it, watched for a while.
    EXPECT_TRUE(WaitFor([&] { return size() > 950000; }, 30s)) << Errors();
    WaitFor([&] { return size() > 1000200; }, 2s);
    EXPECT_EQ(program->Wait(0), -1) << Errors();
    EXPECT_EQ(program->Stop(SIGTERM, 10000), 0) << Errors();
    EXPECT_LE(size(), 1000200u);
    EXPECT_NE(test::ReadFile(firewallLog).find("\tFlood\t"), std::string::npos);
    EXPECT_EQ(Status().rfind("ok filtering 0", 0), 0u) << Status();
}

TEST_F(ControlProgramTest, AnotherVersionIsNotAValidDriverAndIsShownTwice) {
    BackgroundProcess driver({QBRIX_DRIVER_BINARY, "--root", m_platform.DataRoot(), "--foreground",
                              "--version-text", "\\3.1"},
                             {}, m_platform.DataRoot() + "/driver.err");
    ASSERT_TRUE(WaitFor([this] { return Status().rfind("ok", 0) == 0; }));
    auto program = Run("");
    EXPECT_EQ(program->Wait(10000), 0);
    std::string errors = Errors();
    std::size_t first = errors.find("error:valid driver not found");
    ASSERT_NE(first, std::string::npos) << errors;
    EXPECT_NE(errors.find("error:valid driver not found", first + 1), std::string::npos) << errors;
}

TEST_F(ControlProgramTest, NoDriverShowsTheOpenError) {
    auto program = Run("");
    EXPECT_EQ(program->Wait(10000), 0);
    EXPECT_NE(Errors().find("open handle:The system cannot find the file specified."),
              std::string::npos)
        << Errors();
}

// Permissions: what a running program and its driver make in the data root is closed to other
// users whatever the umask (the test runs them under umask 000), except the mailslot, which every
// program may write to. On root's data root the administrators' group shares it; on a data root
// of another user (the parameter) only its maker may open it.
class PermissionsTest : public ControlProgramTest, public ::testing::WithParamInterface<bool> {
  protected:
    void SetUp() override {
        ControlProgramTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        if (GetParam()) {
            ASSERT_EQ(0, ::chown(m_platform.DataRoot().c_str(), kOwner, kOwner));
        }
        m_umask = ::umask(0);
        m_umaskChanged = true;
    }
    void TearDown() override {
        if (m_umaskChanged) {
            ::umask(m_umask);
        }
    }
    // A temporary run: the program with its driver, up to its reading the mailslot.
    std::unique_ptr<BackgroundProcess> StartProgram() {
        auto program = Run("T");
        EXPECT_TRUE(WaitFor([this] { return Status().rfind("ok filtering 1", 0) == 0; }))
            << Errors();
        EXPECT_TRUE(
            WaitFor([this] { return std::filesystem::exists(File("run/mailslot/korvel")); }, 20s))
            << Errors();
        return program;
    }
    std::string File(const std::string& name) const { return m_platform.DataRoot() + "/" + name; }
    // Runs `argv` as another user (nobody), in no group.
    static int AsAnotherUser(std::vector<std::string> argv) {
        argv.insert(argv.begin(),
                    {"/usr/bin/setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups"});
        return test::RunProcess(argv).exitCode;
    }

    static constexpr uid_t kOwner = 65532;  // the other user whose data root it is
    mode_t m_umask = 0;
    bool m_umaskChanged = false;
};

TEST_P(PermissionsTest, EveryFileHasItsOwnModeWhateverTheUmask) {
    auto program = StartProgram();
    bool shared = !GetParam();
    mode_t file = shared ? 0660 : 0600;
    mode_t pid = shared ? 0640 : 0600;
    mode_t closed = shared ? 02770 : 0700;
    mode_t passable = closed | 0001;
    const std::vector<std::pair<std::string, mode_t>> expected = {
        {"registry.db", file},
        {"registry.db-wal", file},
        {"registry.db-shm", file},
        {"run", passable},
        {"run/mailslot", passable},
        {"run/mailslot/korvel", 0666},
        {"run/mailslot/korvel.lock", file},
        {"run/mutex", closed},
        {"run/mutex/Global", closed},
        {"run/mutex/Global/KORVEL_MUTEX_OBJECT.lock", file},
        {"run/q-Brix.sock", file},
        {"run/q-Brix.ctl", file},
        {"run/q-brix-driver.pid", pid},
        {"run/services", closed},
        {"run/services/Q-BRIX.pid", file},
        {"windows", closed},
    };
    for (const auto& [name, mode] : expected) {
        struct stat info {};
        ASSERT_EQ(0, ::lstat(File(name).c_str(), &info)) << name;
        EXPECT_EQ(mode, info.st_mode & 07777) << name << ": " << std::oct << (info.st_mode & 07777);
    }
    EXPECT_EQ(program->Stop(SIGTERM), 0);
}

// Even with every directory on the way open, another user reaches the mailslot and nothing
// else: not the driver's sockets, and not the lock files, which a read-only descriptor would do
// to take (a held lock ends the next start silently, or keeps the event feed from starting).
TEST_P(PermissionsTest, AnotherUserWritesToTheMailslotAndTakesNoLock) {
    if (!std::filesystem::exists("/usr/bin/setpriv") ||
        !std::filesystem::exists("/usr/bin/flock")) {
        GTEST_SKIP() << "needs setpriv and flock";
    }
    std::filesystem::permissions(std::filesystem::path(m_platform.DataRoot()).parent_path(),
                                 std::filesystem::perms(0755));
    std::filesystem::permissions(m_platform.DataRoot(), std::filesystem::perms(0755));
    auto program = StartProgram();
    EXPECT_EQ(0, AsAnotherUser({QBRIX_EVENT_BINARY, "--root", m_platform.DataRoot(), "--type", "4",
                                "--address", "http://host/", "--name", "Banner"}));
    EXPECT_NE(0, AsAnotherUser({QBRIX_DRIVER_BINARY, "--root", m_platform.DataRoot(), "--status"}));
    EXPECT_NE(0, AsAnotherUser({QBRIX_DRIVER_BINARY, "--root", m_platform.DataRoot(), "--inject",
                                "tool.exe tcp out 192.0.2.1:80"}));
    EXPECT_EQ(program->Stop(SIGTERM), 0);
    for (const char* lock :
         {"run/mutex/Global/KORVEL_MUTEX_OBJECT.lock", "run/mailslot/korvel.lock"}) {
        ASSERT_TRUE(std::filesystem::exists(File(lock))) << lock;
        EXPECT_NE(0, AsAnotherUser({"/usr/bin/flock", "--nonblock", File(lock), "true"})) << lock;
    }
}

INSTANTIATE_TEST_SUITE_P(DataRoots, PermissionsTest, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return info.param ? "OfAnotherUser" : "OfRoot";
                         });

}  // namespace
}  // namespace qbrix::driver
