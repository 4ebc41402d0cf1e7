// A day in the life of the program, with real processes on a fresh data root: the installer's
// tool puts the filtering components in place, the reference driver plays the part of the driver
// loaded at boot, and the control program runs offscreen with a script in the user's place.
// Also: the driver dying under a running panel, and the next day's start on a restarted driver.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "DriverServer.h"
#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "platform/Services.h"
#include "platform/SocketCatalog.h"
#include "platform/Utf16.h"
#include "policy/ZoneList.h"
#include "policy/ZoneStore.h"
#include "support/Process.h"
#include "support/TempPlatform.h"

namespace qbrix::test {
namespace {

using namespace std::chrono_literals;

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

class DayInTheLifeTest : public ::testing::Test {
  protected:
    DayInTheLifeTest() {
        std::filesystem::create_directories(m_platform.DataRoot());
        // The two log files go next to the test's other files, not into the build's program
        // directory shared by every run.
        core::RegistryKey(core::kFwLogSuffix, core::kGuiRootPath)
            .SetString(core::kFileNameValue, File("firewall.log"));
        core::RegistryKey(core::kLspLogSuffix, core::kGuiRootPath)
            .SetString(core::kFileNameValue, File("content.log"));
    }

    std::string File(const std::string& name) const { return m_platform.DataRoot() + "/" + name; }

    std::map<std::string, std::string> Environment() const {
        return {{"QBRIX_ROOT", m_platform.DataRoot()}, {"QT_QPA_PLATFORM", "offscreen"}};
    }

    // Runs a one-shot command of the program (I, D) to its end.
    ProcessResult Command(const std::string& letter) {
        return RunProcess({QBRIX_PROGRAM, letter}, Environment(), 60000);
    }

    // The reference driver as the system would have loaded it, playing `scenario` if given.
    std::unique_ptr<BackgroundProcess> StartDriver(const std::string& scenario = {}) {
        std::vector<std::string> argv = {QBRIX_DRIVER, "--root", m_platform.DataRoot(),
                                         "--foreground"};
        if (!scenario.empty()) {
            argv.insert(argv.end(), {"--scenario", File("traffic.scenario")});
            std::ofstream(argv.back()) << scenario;
        }
        auto driver =
            std::make_unique<BackgroundProcess>(argv, Environment(), File("driver.err"));
        EXPECT_TRUE(WaitFor([this] { return DriverStatus().rfind("ok", 0) == 0; }, 10s));
        return driver;
    }

    // The control program's normal start with a script in the user's place.
    std::unique_ptr<BackgroundProcess> StartProgram(const std::string& script) {
        std::ofstream(File("day.script")) << script;
        auto environment = Environment();
        environment["QBRIX_SCRIPT"] = File("day.script");
        return std::make_unique<BackgroundProcess>(std::vector<std::string>{QBRIX_PROGRAM},
                                                   environment, File("q-brix.err"));
    }

    std::string DriverStatus() const {
        std::string status;
        refdriver::SendControlCommand(m_platform.DataRoot(), "status", &status);
        return status;
    }

    // The service manager's and the socket catalog's part of the store, as the administrator's
    // registry tool prints it; without the catalog's next entry number, which only grows.
    std::string SystemTree() {
        ProcessResult query = RunProcess(
            {QBRIX_REG, "query", "HKLM\\SYSTEM\\CurrentControlSet", "/s"}, Environment());
        EXPECT_EQ(0, query.exitCode) << query.err;
        std::string tree;
        for (const std::string& line : Lines(query.out)) {
            if (line.find("Next_Catalog_Entry_ID") == std::string::npos) {
                tree += line + "\n";
            }
        }
        return tree;
    }

    // The names of the socket catalog's entries, in catalog order. The first look at the catalog
    // and the service manager also puts their seeded contents in place.
    std::vector<std::string> CatalogNames() {
        platform::SC_HANDLE manager =
            platform::OpenSCManager(nullptr, nullptr, platform::SC_MANAGER_CONNECT);
        platform::CloseServiceHandle(manager);
        std::vector<platform::WSAPROTOCOL_INFOW> entries(64);
        auto size = static_cast<platform::DWORD>(entries.size() * sizeof(entries[0]));
        int error = 0;
        int count = platform::WSCEnumProtocols(nullptr, entries.data(), &size, &error);
        std::vector<std::string> names;
        for (int i = 0; i < count; ++i) {
            names.push_back(
                platform::Utf16ToUtf8(entries[static_cast<std::size_t>(i)].szProtocol));
        }
        return names;
    }

    // Sends one content event the way the socket provider does; false while no program reads.
    bool SendContentEvent(int kind) {
        ProcessResult sent =
            RunProcess({QBRIX_EVENT, "--type", std::to_string(kind), "--address",
                        "host-" + std::to_string(kind), "--name", "item-" + std::to_string(kind)},
                       Environment());
        return sent.exitCode == 0;
    }

    TempPlatform m_platform;
};

TEST_F(DayInTheLifeTest, InstallWorkExitAndDeinstall) {
    std::vector<std::string> seededCatalog = CatalogNames();
    std::string seeded = SystemTree();
    ProcessResult install = Command("I");
    ASSERT_EQ(0, install.exitCode) << install.err;
    std::vector<std::string> installedCatalog = CatalogNames();
    EXPECT_EQ(1, std::count(installedCatalog.begin(), installedCatalog.end(), "KORVEL_PROVIDER"));
    EXPECT_GT(installedCatalog.size(), seededCatalog.size() + 1);
    EXPECT_NE(std::string::npos, SystemTree().find("Services\\q-Brix\n"));

    auto driver = StartDriver();
    std::string exported = File("client.xml");
    std::string renamed = File("imported.xml");
    auto program = StartProgram(
        "timeout 90\n"
        "wait ticks 1\n"
        "touch " + File("running") + "\n"
        "answer browser.exe Internet Client\n"
        "answer mailer.exe DisableAll\n"
        "answer chat.exe OnlyIncoming\n"
        "wait asked 3\n"
        "wait rows 3 Internet Log\n"
        "wait rows 6 Content Log\n"
        "page Zones\n"
        "select Internet Client\n"
        "menu Export " + exported + "\n"
        "wait file " + renamed + "\n"
        "menu Import " + renamed + "\n"
        "press Save\n"
        "clock 20\n"
        "wait ticks 2\n"
        "clock 20\n"
        "wait ticks 2\n"
        "exit\n");

    // Three programs the driver has not seen go on line once the program runs; their traffic
    // moves when they have been given their zones.
    ASSERT_TRUE(WaitFor([&] { return std::filesystem::exists(File("running")); }, 60s))
        << ReadFile(File("q-brix.err"));
    for (const char* connection :
         {"browser.exe tcp out 93.184.216.34:80 1000000 path=C:\\Programs\\browser.exe",
          "mailer.exe tcp out 192.0.2.25:110 8000 path=C:\\Programs\\mailer.exe",
          "chat.exe udp in 198.51.100.7:5060 250000 local=5060 path=C:\\Programs\\chat.exe"}) {
        ProcessResult injected = RunProcess(
            {QBRIX_DRIVER, "--root", m_platform.DataRoot(), "--inject", connection});
        ASSERT_EQ(0, injected.exitCode) << injected.err;
    }
    // The socket provider reports one content event of each kind.
    for (int kind = 0; kind <= 5; ++kind) {
        ASSERT_TRUE(SendContentEvent(kind)) << kind;
    }
    // The exported zone comes back under another name.
    ASSERT_TRUE(WaitFor([&] { return std::filesystem::exists(exported); }, 90s))
        << ReadFile(File("q-brix.err"));
    ASSERT_TRUE(WaitFor([&] { return ReadFile(exported).find("</MASTER_ZONE>") !=
                                     std::string::npos; }, 5s));
    std::string zoneFile = ReadFile(exported);
    std::size_t name = zoneFile.find("NAME=\"Internet Client\"");
    ASSERT_NE(std::string::npos, name) << zoneFile;
    zoneFile.replace(name, 22, "NAME=\"Imported Client\"");
    std::ofstream(renamed + ".part") << zoneFile;
    std::filesystem::rename(renamed + ".part", renamed);

    ASSERT_EQ(0, program->Wait(120000)) << ReadFile(File("q-brix.err"));
    std::string errors = ReadFile(File("q-brix.err"));
    EXPECT_EQ(std::string::npos, errors.find("q-brix script")) << errors;
    EXPECT_NE(std::string::npos, errors.find("ALL internet access will be enabled")) << errors;

    // Exit switched filtering off; the three answers are the driver's policy now.
    EXPECT_EQ(0u, DriverStatus().rfind("ok filtering 0 apps 3 ", 0)) << DriverStatus();

    // The Internet log file: each program with the rule of its zone that decided (the zone's
    // name when none did) and what became of it.
    std::vector<std::string> internet = Lines(ReadFile(File("firewall.log")));
    ASSERT_EQ(3u, internet.size()) << ReadFile(File("firewall.log"));
    std::map<std::string, std::string> seen;
    for (const std::string& line : internet) {
        EXPECT_EQ('\r', line.back());
        std::vector<std::string> fields;
        std::istringstream split(line.substr(0, line.size() - 1));
        for (std::string field; std::getline(split, field, '\t');) {
            fields.push_back(field);
        }
        ASSERT_EQ(7u, fields.size()) << line;
        seen[fields[2]] = fields[3] + "|" + fields[5] + "|" + fields[6];
    }
    EXPECT_EQ((std::map<std::string, std::string>{
                  {"C:\\Programs\\browser.exe", "EnableOut|approved|outgoing"},
                  {"C:\\Programs\\mailer.exe", "DisableAll|rejected|outgoing"},
                  {"C:\\Programs\\chat.exe", "EnableIn|approved|incoming"}}),
              seen);

    // The content log file: a line for each kind, in the order sent; the found items and the
    // quiet reports of the same finding share their label.
    std::vector<std::string> content = Lines(ReadFile(File("content.log")));
    ASSERT_EQ(6u, content.size()) << ReadFile(File("content.log"));
    std::vector<std::string> labels;
    for (int kind = 0; kind < 6; ++kind) {
        const std::string& line = content[static_cast<std::size_t>(kind)];
        std::string k = std::to_string(kind);
        EXPECT_NE(std::string::npos, line.find("\titem-" + k + "\thost-" + k + "\t\r")) << line;
        labels.push_back(line.substr(0, line.find('\t')));
        EXPECT_FALSE(labels.back().empty()) << line;
    }
    EXPECT_EQ(labels[0], labels[2]);
    EXPECT_EQ(labels[1], labels[3]);
    EXPECT_NE(labels[0], labels[1]);
    EXPECT_NE(labels[4], labels[5]);

    // The imported copy was saved with the rules of the exported zone.
    policy::LoadZones();
    const policy::ZoneRecord* original = policy::FindZone("Internet Client");
    const policy::ZoneRecord* copy = policy::FindZone("Imported Client");
    ASSERT_NE(nullptr, original);
    ASSERT_NE(nullptr, copy);
    EXPECT_EQ(original->result, copy->result);
    EXPECT_EQ(0, std::memcmp(original->rules, copy->rules, sizeof(original->rules)));

    // The statistics: the approved traffic in its program's line, and all of it in the bucket of
    // the hour, whose first tick came before the traffic (megabytes: TCP in, TCP out, UDP in,
    // UDP out).
    ProcessResult apps = RunProcess({QBRIX_CTL, "--root", m_platform.DataRoot(), "stats", "show",
                                     "applications"});
    ASSERT_EQ(0, apps.exitCode) << apps.err;
    const std::string browser = "browser.exe                 0           1           0           0";
    const std::string chat = "chat.exe                    0           0        0,25           0";
    EXPECT_NE(std::string::npos, apps.out.find(browser)) << apps.out;
    EXPECT_NE(std::string::npos, apps.out.find(chat)) << apps.out;
    ProcessResult hours =
        RunProcess({QBRIX_CTL, "--root", m_platform.DataRoot(), "stats", "show", "hours"});
    ASSERT_EQ(0, hours.exitCode) << hours.err;
    int busyHours = 0;
    for (const std::string& line : Lines(hours.out)) {
        if (line.size() > 17 && line[2] == ':' && line.find_first_not_of(" 0", 5) != line.npos) {
            ++busyHours;
            EXPECT_EQ("           0           1        0,25           0", line.substr(17)) << line;
        }
    }
    EXPECT_EQ(1, busyHours) << hours.out;

    // The installer's tool takes everything out again: the system is as it was seeded.
    EXPECT_EQ(0, driver->Stop(SIGTERM));
    ProcessResult deinstall = Command("D");
    ASSERT_EQ(0, deinstall.exitCode) << deinstall.err;
    EXPECT_EQ(seededCatalog, CatalogNames());
    EXPECT_EQ(seeded, SystemTree());
}

TEST_F(DayInTheLifeTest, ADriverThatDiesUnderThePanelAndItsRestart) {
    ASSERT_EQ(0, Command("I").exitCode);
    const std::string browser =
        "wait 300\n"
        "connect browser.exe tcp out 93.184.216.34:80 4096 path=C:\\Programs\\browser.exe\n";
    auto driver = StartDriver(browser);
    std::string crashed = File("crashed");
    auto program = StartProgram("timeout 60\n"
                                "answer browser.exe EnableAll\n"
                                "wait asked 1\n"
                                "wait file " + crashed + "\n"
                                "wait ticks 3\n"
                                "exit\n");
    ASSERT_TRUE(WaitFor([this] { return DriverStatus().find(" apps 1 ") != std::string::npos; },
                        60s))
        << ReadFile(File("q-brix.err"));
    EXPECT_EQ(-1, driver->Stop(SIGKILL));
    std::ofstream(crashed) << "";

    // The panel outlives its driver: the requests of its ticks and of Exit fail quietly, as
    // requests to a device that went away do, and the program ends normally.
    ASSERT_EQ(0, program->Wait(60000)) << ReadFile(File("q-brix.err"));
    std::string errors = ReadFile(File("q-brix.err"));
    EXPECT_EQ(std::string::npos, errors.find("q-brix script")) << errors;
    EXPECT_NE(std::string::npos, errors.find("ALL internet access will be enabled")) << errors;

    // The driver is loaded again, with none of its old policy: the program asks again.
    driver = StartDriver(browser);
    program = StartProgram("timeout 60\n"
                           "answer browser.exe DisableAll\n"
                           "wait asked 1\n"
                           "wait rows 1 Internet Log\n"
                           "exit\n");
    ASSERT_EQ(0, program->Wait(60000)) << ReadFile(File("q-brix.err"));
    EXPECT_EQ(0u, DriverStatus().rfind("ok filtering 0 apps 1 ", 0)) << DriverStatus();
    EXPECT_NE(std::string::npos, ReadFile(File("firewall.log")).find("\tDisableAll\t"));
    EXPECT_EQ(0, driver->Stop(SIGTERM));
    EXPECT_EQ(0, Command("D").exitCode);
}

TEST_F(DayInTheLifeTest, AStoreHeldByAnotherProcessDelaysASaveAndASecondCopyEndsSilently) {
    auto driver = StartDriver();
    std::string held = File("held");
    auto program = StartProgram("timeout 60\n"
                                "touch " + File("running") + "\n"
                                "page Zones\n"
                                "select DisableAll\n"
                                "menu Delete\n"
                                "wait file " + held + "\n"
                                "press Save\n"
                                "touch " + File("saved") + "\n"
                                "exit\n");
    ASSERT_TRUE(WaitFor([&] { return std::filesystem::exists(File("running")); }, 60s))
        << ReadFile(File("q-brix.err"));

    // A second copy while the first runs ends at once, says nothing and changes nothing.
    ProcessResult second = RunProcess({QBRIX_PROGRAM}, Environment(), 30000);
    EXPECT_EQ(0, second.exitCode);
    EXPECT_EQ(std::string::npos, second.err.find("[q-Brix")) << second.err;
    EXPECT_EQ(-1, program->Wait(0));

    // Another process keeps the store locked for three seconds: the save waits for it, and
    // both its write and the saved zones are kept.
    auto start = std::chrono::steady_clock::now();
    ProcessResult holder = RunProcess({QBRIX_STORE_WRITER, m_platform.DataRoot(), "hold", "3000",
                                       held}, {}, 30000);
    ASSERT_EQ(0, holder.exitCode) << holder.err;
    ASSERT_EQ(0, program->Wait(60000)) << ReadFile(File("q-brix.err"));
    EXPECT_GE(std::filesystem::last_write_time(File("saved")).time_since_epoch(),
              std::filesystem::last_write_time(held).time_since_epoch() + 2s);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 3s);
    policy::LoadZones();
    EXPECT_EQ(nullptr, policy::FindZone("DisableAll"));
    EXPECT_NE(nullptr, policy::FindZone("EnableAll"));
    EXPECT_EQ(1u, core::RegistryKey("\\Held", "SOFTWARE\\Test").GetDword("Held", 0));
    EXPECT_EQ(0, driver->Stop(SIGTERM));
}

// The end of the session (here SIGTERM) while the panel is showing: the shutdown runs and the
// program, its panel and its tray icon go.
TEST_F(DayInTheLifeTest, TheSessionsEndWithThePanelShowingEndsTheProgram) {
    auto driver = StartDriver();
    auto program = StartProgram("page Programs\n"
                                "wait ticks 1\n"
                                "touch " + File("running") + "\n");
    ASSERT_TRUE(WaitFor([&] { return std::filesystem::exists(File("running")); }, 60s))
        << ReadFile(File("q-brix.err"));
    EXPECT_EQ(0, program->Stop(SIGTERM, 30000)) << ReadFile(File("q-brix.err"));
    EXPECT_EQ(0u, DriverStatus().rfind("ok filtering 0", 0)) << DriverStatus();
    EXPECT_EQ(0, driver->Stop(SIGTERM));
}

// A data root the user cannot write: the single-instance mutex cannot be made there, so the
// program ends at once without a word, and the store stays exactly as it was.
TEST_F(DayInTheLifeTest, AReadOnlyDataRootEndsTheStartAndChangesNothing) {
    if (::geteuid() != 0 || !std::filesystem::exists("/usr/bin/setpriv")) {
        GTEST_SKIP() << "needs root to run the program as another user";
    }
    ASSERT_EQ(0, Command("I").exitCode);
    std::filesystem::path top = std::filesystem::path(m_platform.DataRoot()).parent_path();
    for (const auto& entry : std::filesystem::recursive_directory_iterator(top)) {
        std::filesystem::permissions(entry.path(),
                                     entry.is_directory() ? std::filesystem::perms(0755)
                                                          : std::filesystem::perms(0644));
    }
    std::filesystem::permissions(top, std::filesystem::perms(0755));
    std::string store = ReadFile(File("registry.db"));
    ASSERT_FALSE(store.empty());

    // An administrator (group sudo) who does not own the data root.
    ProcessResult run = RunProcess({"/usr/bin/setpriv", "--reuid", "65534", "--regid", "65534",
                                    "--groups", "27", QBRIX_PROGRAM},
                                   {{"QBRIX_ROOT", m_platform.DataRoot()},
                                    {"QT_QPA_PLATFORM", "offscreen"},
                                    {"QBRIX_SMOKE_SECONDS", "30"}},
                                   30000);
    EXPECT_FALSE(run.timedOut);
    EXPECT_EQ(0, run.exitCode) << run.err;
    EXPECT_EQ(std::string::npos, run.err.find("[q-Brix")) << run.err;
    EXPECT_EQ(store, ReadFile(File("registry.db")));
    EXPECT_EQ(0, Command("D").exitCode);
}

}  // namespace
}  // namespace qbrix::test
