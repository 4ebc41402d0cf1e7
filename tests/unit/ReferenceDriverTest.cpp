// The reference driver in process: the protocol's driver side, questions about unknown
// programs, zone evaluation, counters, and the connection and scenario formats.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "Connection.h"
#include "ReferenceDriver.h"
#include "Scenario.h"
#include "driver/DriverControl.h"

namespace qbrix::refdriver {
namespace {

using driver::ActivityRecord;
using driver::AppRecord;
using driver::ZoneRecord;
using driver::ZoneRule;

template <typename T>
std::string Bytes(const T& record) {
    return std::string(reinterpret_cast<const char*>(&record), sizeof(record));
}

template <typename T>
T Record(const std::string& bytes, std::size_t index = 0) {
    T record{};
    std::memcpy(&record, bytes.data() + index * sizeof(T), sizeof(T));
    return record;
}

Connection Connect(const std::string& line) {
    Connection connection;
    std::string error;
    EXPECT_EQ(ParseConnection(line, &connection, &error), 0) << error;
    return connection;
}

ZoneRule Rule(const char* name, std::uint32_t protocol, std::uint32_t direction,
              std::uint16_t remotePort, std::uint32_t result) {
    ZoneRule rule{};
    rule.enabled = 1;
    driver::SetFieldText(rule.name, name);
    rule.protocol = protocol;
    rule.direction = direction;
    rule.remotePort = remotePort;
    rule.result = result;
    return rule;
}

// Allows outgoing web traffic, blocks everything else.
ZoneRecord WebOnly() {
    ZoneRecord zone{};
    driver::SetFieldText(zone.name, "WebOnly");
    zone.rules[0] = Rule("Web", 1, 2, 80, 0);
    zone.result = 1;
    return zone;
}

AppRecord App(const char* image, const ZoneRecord& zone) {
    AppRecord app{};
    driver::SetFieldText(app.imageName, image);
    driver::SetFieldText(app.path, std::string("C:\\Programs\\") + image);
    app.zone = zone;
    return app;
}

class ReferenceDriverTest : public ::testing::Test {
  protected:
    Reply Call(platform::DWORD code, const std::string& input = {}, platform::DWORD capacity = 0) {
        return m_driver.Handle(code, input, capacity);
    }
    std::vector<ActivityRecord> Activity() {
        Reply reply = Call(driver::IOCTL_READ_ACTIVITY_EVENTS, {}, driver::kActivityBufferSize);
        std::vector<ActivityRecord> records;
        for (std::size_t i = 0; i < reply.output.size() / sizeof(ActivityRecord); ++i) {
            records.push_back(Record<ActivityRecord>(reply.output, i));
        }
        return records;
    }
    AppRecord Fetch(const char* image) {
        AppRecord request{};
        driver::SetFieldText(request.imageName, image);
        Reply reply = Call(driver::IOCTL_GET_APP_RECORD, Bytes(request), sizeof(AppRecord));
        EXPECT_TRUE(reply.success);
        return Record<AppRecord>(reply.output);
    }

    ReferenceDriver m_driver;
};

TEST_F(ReferenceDriverTest, AnswersTheVersionWithBackslashThreePointZero) {
    Reply reply = Call(driver::IOCTL_GET_VERSION, {}, 10);
    EXPECT_TRUE(reply.success);
    EXPECT_EQ(reply.bytesTransferred, 10u);
    EXPECT_EQ(reply.output, std::string("\\3.0\0\0\0\0\0\0", 10));
    EXPECT_FALSE(Call(driver::IOCTL_GET_VERSION, {}, 4).success);
}

TEST_F(ReferenceDriverTest, RefusesMalformedRequests) {
    Reply unknown = Call(0x220018, {}, 100);
    EXPECT_FALSE(unknown.success);
    EXPECT_EQ(unknown.error, platform::ERROR_INVALID_FUNCTION);
    Reply shortZone = Call(driver::IOCTL_SET_DEFAULT_ZONE, std::string(703, '\0'));
    EXPECT_FALSE(shortZone.success);
    EXPECT_EQ(shortZone.error, platform::ERROR_INVALID_PARAMETER);
    EXPECT_FALSE(Call(driver::IOCTL_SET_APP_RECORD, std::string(1277, '\0')).success);
    EXPECT_FALSE(Call(driver::IOCTL_SET_FILTERING_STATE, "\0\0\0").success);
    EXPECT_FALSE(Call(driver::IOCTL_LIST_APP_RECORDS, "x", 95700).success);
    // An unnamed record is no application.
    EXPECT_FALSE(Call(driver::IOCTL_SET_APP_RECORD, Bytes(AppRecord{})).success);
}

TEST_F(ReferenceDriverTest, SetRequestsReportTheirInputLength) {
    EXPECT_EQ(Call(driver::IOCTL_SET_DEFAULT_ZONE, Bytes(WebOnly())).bytesTransferred, 704u);
    EXPECT_EQ(Call(driver::IOCTL_SET_OVERRIDE_ZONE, Bytes(ZoneRecord{})).bytesTransferred, 704u);
    EXPECT_EQ(Call(driver::IOCTL_SET_APP_RECORD, Bytes(App("a.exe", WebOnly()))).bytesTransferred,
              1276u);
    EXPECT_EQ(Call(driver::IOCTL_SET_FILTERING_STATE, std::string(4, '\1')).bytesTransferred, 4u);
}

TEST_F(ReferenceDriverTest, AnUnknownProgramIsHeldAndAskedAboutOnce) {
    EXPECT_EQ(m_driver.Inject(Connect("browser.exe tcp out 93.184.216.34:80 1000")),
              "held until the program is known");
    m_driver.Inject(Connect("browser.exe tcp out 93.184.216.34:443 5"));
    EXPECT_EQ(m_driver.QuestionCount(), 1u);
    EXPECT_EQ(m_driver.HeldCount(), 2u);

    Reply reply = Call(driver::IOCTL_TAKE_PENDING_QUESTION, Bytes(AppRecord{}), 1276);
    ASSERT_EQ(reply.bytesTransferred, 1276u);
    const char* bytes = reply.output.data();
    EXPECT_EQ(std::string(bytes + 4), "browser.exe");
    std::uint32_t address = 0;
    std::uint16_t port = 0;
    std::uint32_t protocol = 0;
    std::uint32_t direction = 0;
    std::memcpy(&address, bytes + 852, 4);
    std::memcpy(&port, bytes + 862, 2);
    std::memcpy(&protocol, bytes + 864, 4);
    std::memcpy(&direction, bytes + 868, 4);
    EXPECT_EQ(address, 0x5DB8D822u);
    EXPECT_EQ(port, 80);
    EXPECT_EQ(protocol, 1u);
    EXPECT_EQ(direction, 2u);
    EXPECT_EQ(Call(driver::IOCTL_TAKE_PENDING_QUESTION, {}, 1276).bytesTransferred, 0u);
    EXPECT_TRUE(Activity().empty());

    // The answer decides the held connections by the chosen zone.
    AppRecord answer = Record<AppRecord>(reply.output);
    answer.zone = WebOnly();
    EXPECT_TRUE(Call(driver::IOCTL_ANSWER_PENDING_QUESTION, Bytes(answer)).success);
    EXPECT_EQ(m_driver.HeldCount(), 0u);
    std::vector<ActivityRecord> activity = Activity();
    ASSERT_EQ(activity.size(), 2u);
    EXPECT_EQ(activity[0].connection.result, 0u);
    EXPECT_EQ(driver::FieldText(activity[0].connection.name), "Web");
    EXPECT_EQ(activity[0].connection.remotePort, 80);
    EXPECT_EQ(driver::FieldText(activity[0].application), "browser.exe");
    EXPECT_EQ(activity[1].connection.result, 1u);
    EXPECT_EQ(driver::FieldText(activity[1].connection.name), "WebOnly");
    // Only the approved bytes count, as TCP out.
    AppRecord known = Fetch("browser.exe");
    EXPECT_EQ(known.counters[0].Value(), 0u);
    EXPECT_EQ(known.counters[1].Value(), 1000u);
}

TEST_F(ReferenceDriverTest, KnownProgramsAreDecidedAtOnceAndCounted) {
    Call(driver::IOCTL_SET_APP_RECORD, Bytes(App("chat.exe", ZoneRecord{})));
    EXPECT_EQ(m_driver.Inject(Connect("CHAT.EXE udp in 10.0.0.1:5060 300")), "approved by ");
    m_driver.Inject(Connect("chat.exe udp out 10.0.0.1:5060 200"));
    m_driver.Inject(Connect("chat.exe tcp in 10.0.0.1:5060 30"));
    std::uint64_t c[4] = {};
    AppRecord request{};
    driver::SetFieldText(request.imageName, "chat.exe");
    Reply counters = Call(driver::IOCTL_GET_APP_COUNTERS, Bytes(request), 1276);
    AppRecord record = Record<AppRecord>(counters.output);
    for (int i = 0; i < 4; ++i) {
        c[i] = record.counters[i].Value();
    }
    EXPECT_EQ(c[0], 30u);
    EXPECT_EQ(c[1], 0u);
    EXPECT_EQ(c[2], 300u);
    EXPECT_EQ(c[3], 200u);
    // A new record from the program keeps the driver's counters; the counter request sets them.
    Call(driver::IOCTL_SET_APP_RECORD, Bytes(App("chat.exe", WebOnly())));
    EXPECT_EQ(Fetch("chat.exe").counters[2].Value(), 300u);
    Call(driver::IOCTL_SET_APP_COUNTERS, Bytes(request));
    EXPECT_EQ(Fetch("chat.exe").counters[2].Value(), 0u);
}

TEST_F(ReferenceDriverTest, OverrideZoneComesFirstUntilClearedWithZeros) {
    Call(driver::IOCTL_SET_APP_RECORD, Bytes(App("a.exe", ZoneRecord{})));
    ZoneRecord blockAll{};
    driver::SetFieldText(blockAll.name, "Block");
    blockAll.result = 1;
    Call(driver::IOCTL_SET_OVERRIDE_ZONE, Bytes(blockAll));
    EXPECT_EQ(m_driver.Inject(Connect("a.exe tcp out 1.2.3.4:80")), "rejected by Block");
    Call(driver::IOCTL_SET_OVERRIDE_ZONE, Bytes(ZoneRecord{}));
    EXPECT_EQ(m_driver.Inject(Connect("a.exe tcp out 1.2.3.4:80")), "approved by ");
}

TEST_F(ReferenceDriverTest, UnansweredConnectionsFallToTheDefaultZone) {
    ZoneRecord block{};
    driver::SetFieldText(block.name, "Default");
    block.result = 1;
    Call(driver::IOCTL_SET_DEFAULT_ZONE, Bytes(block));
    auto now = ReferenceDriver::Clock::now();
    m_driver.Inject(Connect("new.exe tcp out 1.2.3.4:80"), now);
    m_driver.Tick(now + std::chrono::seconds(29));
    EXPECT_EQ(m_driver.HeldCount(), 1u);
    m_driver.Tick(now + std::chrono::seconds(31));
    EXPECT_EQ(m_driver.HeldCount(), 0u);
    auto activity = Activity();
    ASSERT_EQ(activity.size(), 1u);
    EXPECT_EQ(driver::FieldText(activity[0].connection.name), "Default");
    EXPECT_EQ(activity[0].connection.result, 1u);
    // The question is still there to answer.
    EXPECT_EQ(m_driver.QuestionCount(), 1u);
}

TEST_F(ReferenceDriverTest, FilteringOffLetsEverythingPass) {
    m_driver.Inject(Connect("new.exe tcp out 1.2.3.4:80"));
    Call(driver::IOCTL_SET_FILTERING_STATE, std::string(4, '\0'));
    EXPECT_EQ(m_driver.FilteringState(), 0u);
    EXPECT_EQ(m_driver.HeldCount(), 0u);
    EXPECT_EQ(m_driver.Inject(Connect("other.exe tcp in 1.2.3.4:80")), "approved by filtering off");
    EXPECT_EQ(Activity().size(), 2u);
}

TEST_F(ReferenceDriverTest, ARunningProgramCannotBeDeleted) {
    m_driver.Inject(Connect("busy.exe tcp out 1.2.3.4:80"));
    AppRecord request{};
    driver::SetFieldText(request.imageName, "busy.exe");
    Reply refused = Call(driver::IOCTL_DELETE_APP_RECORD, Bytes(request));
    EXPECT_FALSE(refused.success);
    EXPECT_EQ(refused.error, platform::ERROR_BUSY);
    Call(driver::IOCTL_SET_APP_RECORD, Bytes(App("idle.exe", ZoneRecord{})));
    driver::SetFieldText(request.imageName, "idle.exe");
    EXPECT_TRUE(Call(driver::IOCTL_DELETE_APP_RECORD, Bytes(request)).success);
    EXPECT_FALSE(Call(driver::IOCTL_GET_APP_RECORD, Bytes(request), 1276).success);
}

TEST_F(ReferenceDriverTest, ListsNeverExceedTheCallersRoom) {
    for (int i = 0; i < 80; ++i) {
        std::string image = "p" + std::to_string(i) + ".exe";
        Reply reply = Call(driver::IOCTL_SET_APP_RECORD, Bytes(App(image.c_str(), ZoneRecord{})));
        EXPECT_TRUE(reply.success) << i;
    }
    // Every program is kept and decided; a list holds the first 75 made known.
    EXPECT_EQ(m_driver.AppCount(), 80u);
    Reply listed = Call(driver::IOCTL_LIST_APP_RECORDS, {}, 95700);
    ASSERT_EQ(listed.bytesTransferred, 75u * 1276);
    EXPECT_EQ(driver::FieldText(Record<AppRecord>(listed.output, 74).imageName), "p74.exe");
    EXPECT_EQ(Call(driver::IOCTL_LIST_APP_RECORDS, {}, 3000).bytesTransferred, 2u * 1276);
    EXPECT_EQ(m_driver.Inject(Connect("p79.exe tcp out 1.2.3.4:80")), "approved by ");
    for (int i = 0; i < 149; ++i) {
        m_driver.Inject(Connect("p1.exe tcp out 1.2.3.4:80"));
    }
    EXPECT_EQ(Call(driver::IOCTL_READ_ACTIVITY_EVENTS, {}, 32800).bytesTransferred, 100u * 328);
    EXPECT_EQ(Call(driver::IOCTL_READ_ACTIVITY_EVENTS, {}, 32800).bytesTransferred, 50u * 328);
    EXPECT_EQ(Call(driver::IOCTL_READ_ACTIVITY_EVENTS, {}, 32800).bytesTransferred, 0u);
}

TEST(RuleMatchTest, CriteriaThatAreZeroAreOff) {
    Connection c = Connect("a.exe tcp out 192.168.1.77:25 local=40000");
    ZoneRule rule{};
    EXPECT_TRUE(RuleMatches(rule, c));
    rule.address = 0xC0A80100;
    rule.mask = 0xFFFFFF00;
    EXPECT_TRUE(RuleMatches(rule, c));
    rule.mask = 0;  // no mask: one host
    EXPECT_FALSE(RuleMatches(rule, c));
    rule.address = 0xC0A8014D;
    EXPECT_TRUE(RuleMatches(rule, c));
    rule.remotePort = 25;
    rule.localPort = 40000;
    rule.protocol = 1;
    rule.direction = 2;
    EXPECT_TRUE(RuleMatches(rule, c));
    rule.direction = 1;
    EXPECT_FALSE(RuleMatches(rule, c));
}

TEST(ConnectionFormatTest, RejectsMalformedLines) {
    Connection c;
    std::string error;
    EXPECT_EQ(ParseConnection("a.exe tcp out 1.2.3.4:80 12 local=21 path=C:\\a.exe", &c, &error),
              0);
    EXPECT_EQ(c.bytes, 12u);
    EXPECT_EQ(c.localPort, 21);
    EXPECT_EQ(c.path, "C:\\a.exe");
    for (const char* bad :
         {"a.exe tcp out", "a.exe icmp out 1.2.3.4:80", "a.exe tcp sideways 1.2.3.4:80",
          "a.exe tcp out 1.2.3:80", "a.exe tcp out 1.2.3.256:80", "a.exe tcp out 1.2.3.4:65536",
          "a.exe tcp out 1.2.3.4", "a.exe tcp out 1.2.3.4:80 -5",
          "sixteen-chars.ex tcp out 1.2.3.4:80"}) {
        EXPECT_EQ(ParseConnection(bad, &c, &error), 1) << bad;
        EXPECT_FALSE(error.empty());
    }
}

TEST(ScenarioFormatTest, WaitsAccumulateAndErrorsNameTheLine) {
    std::vector<ScenarioStep> steps;
    std::string error;
    ASSERT_EQ(ParseScenario("# c\n\nconnect a.exe tcp out 1.2.3.4:80\nwait 500\r\n"
                            "wait 250\nconnect b.exe udp in 1.2.3.4:53 9\n",
                            &steps, &error),
              0);
    ASSERT_EQ(steps.size(), 2u);
    EXPECT_EQ(steps[0].at.count(), 0);
    EXPECT_EQ(steps[1].at.count(), 750);
    EXPECT_EQ(ParseScenario("wait 1\nconnect a.exe tcp\n", &steps, &error), 1);
    EXPECT_EQ(error.rfind("line 2: ", 0), 0u);
    EXPECT_EQ(ParseScenario("jump\n", &steps, &error), 1);
    EXPECT_EQ(ParseScenario("wait soon\n", &steps, &error), 1);
}

TEST(ScenarioFormatTest, TheDemoRunsAboutAMinute) {
    std::vector<ScenarioStep> steps;
    std::string error;
    ASSERT_EQ(ParseScenario(DemoScenario(), &steps, &error), 0) << error;
    EXPECT_GE(steps.size(), 8u);
    EXPECT_GE(steps.back().at.count(), 45000);
    EXPECT_LE(steps.back().at.count(), 90000);
}

}  // namespace
}  // namespace qbrix::refdriver
