// The live driver on real connections, inside a network namespace of the test's own (the
// machine's own connections are never touched): copies of one small client under different
// names connect over TCP and UDP, IPv4 and IPv6, to servers on addresses of the namespace's
// loopback, and the driver decides every first packet by the zones it was given.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "DriverServer.h"
#include "driver/DriverControl.h"
#include "driver/DriverErrors.h"
#include "events/PollActivity.h"
#include "platform/Device.h"
#include "platform/posix/live/FirewallRules.h"
#include "policy/PresetZones.h"
#include "support/Process.h"
#include "support/TempPlatform.h"
#include "support/TestNetwork.h"

namespace qbrix {
namespace {

using namespace std::chrono_literals;
using driver::ZoneRecord;
using test::BackgroundProcess;
using test::WaitFor;

std::string g_skipReason;  // why live tests cannot run here; empty when they can

ZoneRecord Preset(const std::string& name) {
    for (const ZoneRecord& zone : policy::PresetZones()) {
        if (driver::FieldText(zone.name) == name) {
            return zone;
        }
    }
    ADD_FAILURE() << "no preset " << name;
    return {};
}

// Allows TCP to port 8080 of 10.77.0.0/24 and nothing else.
ZoneRecord WebOnly() {
    ZoneRecord zone{};
    driver::SetFieldText(zone.name, "Web only");
    zone.result = 1;
    driver::ZoneRule& rule = zone.rules[0];
    rule.enabled = 1;
    driver::SetFieldText(rule.name, "web");
    rule.address = 0x0A4D0000;  // 10.77.0.0
    rule.mask = 0xFFFFFF00;
    rule.remotePort = 8080;
    rule.protocol = 1;
    rule.direction = 2;
    return zone;
}

class LiveDriverTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!g_skipReason.empty()) {
            GTEST_SKIP() << g_skipReason;
        }
        driver::ResetDriverErrors();
        driver::ResetDriverLink();
        std::filesystem::create_directories(m_programs);
        for (const char* image : {"browser", "mailer", "newcomer", "stranger", "server"}) {
            std::filesystem::copy_file(QBRIX_LIVE_CLIENT, m_programs + "/" + image);
            std::filesystem::permissions(m_programs + "/" + image,
                                         std::filesystem::perms::owner_all);
        }
        StartDriver();
        // The servers accept whatever reaches them; their own incoming decisions are tested
        // by giving "server" another zone.
        SetApp("server", Preset("EnableAll"));
        for (const char* address : {"0.0.0.0", "::"}) {
            for (const char* protocol : {"tcp", "udp"}) {
                m_servers.push_back(std::make_unique<BackgroundProcess>(std::vector<std::string>{
                    m_programs + "/server", "serve", protocol, address, "8080"}));
                ASSERT_EQ("ready", m_servers.back()->ReadLine(5000));
            }
        }
    }
    void TearDown() override {
        m_servers.clear();
        driver::ResetDriverLink();
        if (m_driver != nullptr) {
            EXPECT_EQ(0, m_driver->Stop(SIGTERM));
            EXPECT_FALSE(platform::live::RulesPresent()) << "the driver left its rules";
        }
    }

    void StartDriver() {
        m_driver = std::make_unique<BackgroundProcess>(
            std::vector<std::string>{QBRIX_DRIVER_BINARY, "--root", m_platform.DataRoot(),
                                     "--foreground", "--live", "--hold-ms", "1500"},
            std::map<std::string, std::string>{}, m_platform.DataRoot() + "/driver.err");
        ASSERT_TRUE(WaitFor([] { return std::filesystem::exists(platform::DeviceSocketPath()); }))
            << ErrorsOfDriver();
        driver::ResetDriverLink();
        ASSERT_EQ(0, driver::OpenDriverDevice(1)) << driver::DriverErrorText();
    }
    std::string ErrorsOfDriver() const {
        std::ifstream in(m_platform.DataRoot() + "/driver.err");
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    void SetApp(const std::string& image, const ZoneRecord& zone) {
        driver::AppRecord record{};
        driver::SetFieldText(record.imageName, image);
        driver::SetFieldText(record.path, m_programs + "/" + image);
        record.zone = zone;
        ASSERT_EQ(0, driver::SetAppRecord(driver::g_hDriver, record));
    }
    // "passed N", "refused" or "timeout"; *retransmitted gets what TCP sent again.
    std::string Connect(const std::string& image, const std::string& protocol,
                        const std::string& address, long bytes = 100, int timeoutMs = 1000,
                        long* retransmitted = nullptr) {
        test::ProcessResult result =
            test::RunProcess({m_programs + "/" + image, "connect", protocol, address, "8080",
                              std::to_string(bytes), std::to_string(timeoutMs)});
        std::string out = result.out;
        if (std::size_t again = out.find("\nretransmitted "); again != std::string::npos) {
            if (retransmitted != nullptr) {
                *retransmitted = std::atol(out.c_str() + again + 15);
            }
            out.resize(again);
        }
        while (!out.empty() && out.back() == '\n') {
            out.pop_back();
        }
        return out;
    }
    std::array<std::uint64_t, 4> Counters(const std::string& image) {
        std::array<std::uint64_t, 4> counters{};
        EXPECT_EQ(0, driver::GetAppCounters(driver::g_hDriver, image.c_str(), &counters[0],
                                            &counters[1], &counters[2], &counters[3]));
        return counters;
    }

    test::TempPlatform m_platform;
    std::string m_programs = m_platform.DataRoot() + "/programs";
    std::unique_ptr<BackgroundProcess> m_driver;
    std::vector<std::unique_ptr<BackgroundProcess>> m_servers;
};

TEST_F(LiveDriverTest, EachZoneAllowsAndBlocksWhatItSays) {
    struct Case {
        const char* zone;
        const char* protocol;
        const char* address;
        bool passes;
    };
    const Case cases[] = {
        {"EnableAll", "tcp", "10.77.0.1", true},
        {"EnableAll", "udp", "fd00:77::1", true},
        {"DisableAll", "tcp", "10.77.0.1", false},
        {"DisableAll", "udp", "10.77.0.1", false},
        {"DisableAll", "tcp", "fd00:77::1", false},
        {"Disable External", "tcp", "10.77.0.1", false},
        {"Disable External", "tcp", "127.0.0.1", true},  // "Local Enable"
        {"Disable External", "udp", "::1", true},        // ::1 counts as 127.0.0.1
        {"Internet Client", "tcp", "10.77.0.1", true},   // "EnableOut"
        {"Internet Client", "udp", "fd00:77::1", true},
        {"OnlyIncoming", "tcp", "10.77.0.1", false},
        {"OnlyOutgoing", "udp", "10.77.0.1", true},
        {"Web only", "tcp", "10.77.0.1", true},   // address under the mask, port, protocol
        {"Web only", "tcp", "10.77.1.1", false},  // outside the mask
        {"Web only", "udp", "10.77.0.1", false},  // another protocol
    };
    for (const Case& c : cases) {
        SetApp("browser", std::string(c.zone) == "Web only" ? WebOnly() : Preset(c.zone));
        std::string outcome = Connect("browser", c.protocol, c.address);
        // A refused outgoing connection is answered at once, never left to time out.
        EXPECT_EQ(c.passes ? "passed 100" : "refused", outcome)
            << c.zone << " " << c.protocol << " " << c.address;
    }
    // Incoming connections are decided by the server's zone; refused ones get no answer.
    SetApp("browser", Preset("EnableAll"));
    SetApp("server", Preset("OnlyOutgoing"));
    EXPECT_EQ("timeout", Connect("browser", "tcp", "10.77.0.1"));
    SetApp("server", Preset("OnlyIncoming"));
    EXPECT_EQ("passed 100", Connect("browser", "tcp", "10.77.0.1"));
}

TEST_F(LiveDriverTest, AnUnknownProgramWaitsForTheAnswerWithoutHoldingOthersUp) {
    SetApp("browser", Preset("EnableAll"));
    ASSERT_EQ(0, driver::SetDefaultZone(driver::g_hDriver, Preset("DisableAll")));
    BackgroundProcess newcomer(
        {m_programs + "/newcomer", "connect", "tcp", "10.77.0.1", "8080", "100", "10000"});
    driver::AppRecord question{};
    ASSERT_TRUE(WaitFor([&] {
        return driver::TakePendingQuestion(driver::g_hDriver, &question) == 1 &&
               driver::FieldText(question.imageName) == "newcomer";
    }));
    EXPECT_EQ(m_programs + "/newcomer", driver::FieldText(question.path));
    EXPECT_EQ(8080, question.zone.rules[0].remotePort);
    EXPECT_EQ(0x0A4D0001u, question.zone.rules[0].address);
    // While the question is open, a known program's connections pass at once.
    EXPECT_EQ("passed 100", Connect("browser", "tcp", "10.77.0.1"));
    question.zone = Preset("Internet Client");
    ASSERT_EQ(0, driver::AnswerPendingQuestion(driver::g_hDriver, question));
    EXPECT_EQ("passed 100", newcomer.ReadLine(5000));

    // Nobody answers: after the hold time the default zone decides.
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ("refused", Connect("stranger", "tcp", "10.77.0.1", 100, 5000));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 1400ms);
}

TEST_F(LiveDriverTest, OverrideZoneAndFilteringOff) {
    SetApp("browser", Preset("EnableAll"));
    ASSERT_EQ(0, driver::SetOverrideZone(driver::g_hDriver, Preset("DisableAll")));
    EXPECT_EQ("refused", Connect("browser", "tcp", "10.77.0.1"));
    ASSERT_EQ(0, driver::SetOverrideZone(driver::g_hDriver, ZoneRecord{}));
    EXPECT_EQ("passed 100", Connect("browser", "tcp", "10.77.0.1"));
    SetApp("browser", Preset("DisableAll"));
    ASSERT_EQ(0, driver::SetFilteringState(driver::g_hDriver, 0));
    EXPECT_EQ("passed 100", Connect("browser", "udp", "fd00:77::1"));
}

TEST_F(LiveDriverTest, CountersAndTheInternetLogShowTheRealTraffic) {
    SetApp("browser", Preset("EnableAll"));
    SetApp("mailer", Preset("EnableAll"));
    constexpr long kTcpBytes = 8 << 20;
    constexpr long kUdpBytes = 600000;
    long again = 0;
    EXPECT_EQ("passed " + std::to_string(kTcpBytes),
              Connect("browser", "tcp", "10.77.0.1", kTcpBytes, 10000, &again));
    EXPECT_EQ("passed " + std::to_string(kUdpBytes),
              Connect("mailer", "udp", "fd00:77::1", kUdpBytes, 10000));
    auto near = [](std::uint64_t counted, long sent) {
        return std::llabs(static_cast<long long>(counted) - sent) <= sent / 100;
    };
    // TCP in, TCP out, UDP in, UDP out: what was sent, within 1 % (with what a loaded machine
    // made TCP send again: the counters count what crossed the wire).
    EXPECT_TRUE(WaitFor([&] { return near(Counters("browser")[1], kTcpBytes + again); }))
        << Counters("browser")[1] << " retransmitted " << again;
    EXPECT_TRUE(WaitFor([&] { return near(Counters("mailer")[3], kUdpBytes); }))
        << Counters("mailer")[3];
    EXPECT_TRUE(WaitFor([&] { return near(Counters("server")[0], kTcpBytes + again); }))
        << Counters("server")[0];
    EXPECT_LT(Counters("browser")[0], 1u << 20);  // the acknowledgements

    struct Rows : events::ActivityLogView {
        void SetRedraw(bool) override {}
        int RowCount() override { return static_cast<int>(rows.size()); }
        void DeleteLastRow() override { rows.pop_back(); }
        void InsertTopRow(const events::ActivityRow& row) override { rows.push_back(row); }
        std::vector<events::ActivityRow> rows;
    } view;
    events::ResetActivityPollFlag();
    events::PollActivity(view).Run();
    std::ifstream log(m_platform.ProgramDirectory() + "firewall.log");
    std::string text(std::istreambuf_iterator<char>(log), {});
    EXPECT_NE(std::string::npos, text.find(m_programs + "/browser")) << text;
    EXPECT_NE(std::string::npos, text.find(m_programs + "/mailer")) << text;
    EXPECT_NE(std::string::npos, text.find("EnableAll")) << text;
}

TEST_F(LiveDriverTest, AKilledDriverLeavesTrafficPassingAndARestartCleansUp) {
    SetApp("browser", Preset("DisableAll"));
    EXPECT_EQ("refused", Connect("browser", "tcp", "10.77.0.1"));
    driver::ResetDriverLink();
    m_driver->Stop(SIGKILL);
    m_driver.reset();
    EXPECT_TRUE(platform::live::RulesPresent());
    EXPECT_EQ("passed 100", Connect("browser", "tcp", "10.77.0.1"));  // the queue's bypass
    std::filesystem::remove(platform::DeviceSocketPath());
    StartDriver();
    test::ProcessResult rules = test::RunProcess({"/usr/sbin/iptables", "-S", "OUTPUT"});
    std::size_t jumps = 0;
    for (std::size_t at = 0; (at = rules.out.find("-j QBRIX-OUT", at)) != std::string::npos; ++at) {
        ++jumps;
    }
    EXPECT_EQ(1u, jumps) << rules.out;
    // A second live driver cannot take the queue and leaves the first one's rules alone.
    test::ProcessResult second =
        test::RunProcess({QBRIX_DRIVER_BINARY, "--root", m_platform.DataRoot() + "/second",
                          "--foreground", "--live"},
                         {}, 5000);
    EXPECT_EQ(1, second.exitCode);
    EXPECT_NE(std::string::npos, second.err.find("another driver")) << second.err;
    SetApp("browser", Preset("DisableAll"));
    EXPECT_EQ("refused", Connect("browser", "tcp", "10.77.0.1"));
}

}  // namespace
}  // namespace qbrix

int main(int argc, char** argv) {
    // Before any thread exists: a namespace is per thread until then.
    qbrix::g_skipReason = qbrix::test::EnterTestNetwork();
    if (!qbrix::g_skipReason.empty()) {
        std::fprintf(stderr, "live-mode tests skipped: %s\n", qbrix::g_skipReason.c_str());
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
