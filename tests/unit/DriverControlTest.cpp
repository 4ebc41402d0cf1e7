// The request wrappers' result rules against a scripted driver, the version handshake and the
// device open sequence of both families.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <optional>

#include "driver/DriverControl.h"
#include "driver/DriverErrors.h"
#include "platform/Device.h"
#include "platform/Kernel.h"
#include "platform/Platform.h"
#include "platform/SystemFiles.h"
#include "support/FakeDriverPeer.h"
#include "support/TempPlatform.h"

namespace qbrix::driver {
namespace {

using platform::DWORD;
using test::FakeDriverPeer;

TEST(DriverRecordsTest, AddressesAreHostOrderNumbersStoredLittleEndian) {
    ZoneRule rule{};
    rule.address = 0x7F000001;
    unsigned char bytes[sizeof(rule)];
    std::memcpy(bytes, &rule, sizeof(rule));
    EXPECT_EQ(bytes[20], 0x01);
    EXPECT_EQ(bytes[21], 0x00);
    EXPECT_EQ(bytes[22], 0x00);
    EXPECT_EQ(bytes[23], 0x7F);
}

TEST(DriverRecordsTest, FullWidthTextCarriesNoTerminatorAndIsReadBounded) {
    AppRecord record{};
    std::memset(&record, 'x', sizeof(record));
    SetFieldText(record.imageName, "a-very-long-image-name.exe");
    EXPECT_EQ(FieldText(record.imageName), "a-very-long-imag");
    EXPECT_EQ(record.path[0], 'x');  // the next field is untouched
}

class DriverControlTest : public ::testing::Test {
  protected:
    DriverControlTest() {
        ResetDriverErrors();
        ResetDriverLink();
        platform::SetDeviceReplyTimeoutMs(500);
    }
    ~DriverControlTest() override {
        ResetDriverLink();
        ResetDriverErrors();
        platform::SetDeviceReplyTimeoutMs(2000);
    }

    // Serves the device with one fixed reply per request and opens it.
    void Serve(std::string reply) {
        m_peer = std::make_unique<FakeDriverPeer>(
            platform::DeviceSocketPath(),
            [reply](const FakeDriverPeer::Request&) -> std::optional<std::string> {
                return reply;
            });
        ASSERT_EQ(OpenDriverDevice(1), 0);
    }
    std::vector<FakeDriverPeer::Request> Requests() { return m_peer->Requests(); }

    test::TempPlatform m_platform;
    test::ScriptedMessages m_messages;
    std::unique_ptr<FakeDriverPeer> m_peer;
};

TEST_F(DriverControlTest, NullHandleFailsEveryRequestWithoutReachingTheDriver) {
    Serve(FakeDriverPeer::Reply(true, 0, 1276, std::string(1276, '\0')));
    AppRecord record{};
    ZoneRecord zone{};
    std::uint32_t words[8] = {};
    std::uint64_t c1 = 0, c2 = 0, c3 = 0, c4 = 0;
    char buffer[2552];
    EXPECT_EQ(CheckDriverVersion(nullptr), 1);
    EXPECT_EQ(SetFilteringState(nullptr, 0), 1);
    EXPECT_EQ(SetAppCounters(nullptr, "a.exe", words), 1);
    EXPECT_EQ(GetAppCounters(nullptr, "a.exe", &c1, &c2, &c3, &c4), 1);
    EXPECT_EQ(SetDefaultZone(nullptr, zone), 1);
    EXPECT_EQ(SetOverrideZone(nullptr, zone), 1);
    EXPECT_EQ(TakePendingQuestion(nullptr, &record), 0);
    EXPECT_EQ(AnswerPendingQuestion(nullptr, record), 1);
    EXPECT_EQ(GetAppRecord(nullptr, &record), 0);
    EXPECT_EQ(SetAppRecord(nullptr, record), 1);
    EXPECT_EQ(DeleteAppRecord(nullptr, "a.exe"), 1);
    EXPECT_EQ(ListAppRecords(nullptr, buffer, sizeof(buffer)), 0);
    EXPECT_EQ(ReadActivityEvents(nullptr, buffer, sizeof(buffer)), 0);
    EXPECT_TRUE(Requests().empty());
    EXPECT_TRUE(DriverErrorText().empty());
}

TEST_F(DriverControlTest, VersionAcceptsBackslashThreePointZeroAndIgnoresTheRest) {
    Serve(FakeDriverPeer::Reply(true, 0, 10, std::string("\\3.0\0junk!", 10)));
    EXPECT_EQ(CheckDriverVersion(g_hDriver), 0);
    ASSERT_EQ(Requests().size(), 1u);
    EXPECT_EQ(Requests()[0].header.code, 0x220000u);
    EXPECT_EQ(Requests()[0].header.inputSize, 0u);
    EXPECT_EQ(Requests()[0].header.outputCapacity, 10u);
    EXPECT_TRUE(DriverErrorText().empty());
}

TEST_F(DriverControlTest, VersionWhoseFifthByteIsNotZeroIsNotAValidDriver) {
    Serve(FakeDriverPeer::Reply(true, 0, 5, "\\3.01"));
    EXPECT_EQ(CheckDriverVersion(g_hDriver), 1);
    EXPECT_EQ(DriverErrorText(), "error:valid driver not found");
}

TEST_F(DriverControlTest, FailedVersionRequestLeavesNoErrorText) {
    Serve(FakeDriverPeer::Reply(false, platform::ERROR_GEN_FAILURE, 0));
    EXPECT_EQ(CheckDriverVersion(g_hDriver), 1);
    EXPECT_TRUE(DriverErrorText().empty());
}

TEST_F(DriverControlTest, ZoneRequestsNeedExactly704BytesReported) {
    ZoneRecord zone{};
    SetFieldText(zone.name, "Trusted");
    Serve(FakeDriverPeer::Reply(true, 0, 0));
    EXPECT_EQ(SetDefaultZone(g_hDriver, zone), 1);  // the call succeeded, but no information
    EXPECT_EQ(SetOverrideZone(g_hDriver, zone), 1);
    auto requests = Requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].header.code, 0x220010u);
    EXPECT_EQ(requests[1].header.code, 0x220014u);
    EXPECT_EQ(requests[0].input, std::string(reinterpret_cast<char*>(&zone), 704));
}

TEST_F(DriverControlTest, ZoneRequestsSucceedWith704Bytes) {
    Serve(FakeDriverPeer::Reply(true, 0, 704));
    ZoneRecord zone{};
    EXPECT_EQ(SetDefaultZone(g_hDriver, zone), 0);
    EXPECT_EQ(SetOverrideZone(g_hDriver, zone), 0);
}

TEST_F(DriverControlTest, RecordSetsNeedExactly1276BytesReported) {
    AppRecord record{};
    Serve(FakeDriverPeer::Reply(true, 0, 1275));
    EXPECT_EQ(AnswerPendingQuestion(g_hDriver, record), 1);
    EXPECT_EQ(SetAppRecord(g_hDriver, record), 1);
    // Delete and the counter set do not look at the count.
    EXPECT_EQ(DeleteAppRecord(g_hDriver, "a.exe"), 0);
    std::uint32_t words[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(SetAppCounters(g_hDriver, "a.exe", words), 0);
    auto requests = Requests();
    ASSERT_EQ(requests.size(), 4u);
    EXPECT_EQ(requests[0].header.code, 0x220028u);
    EXPECT_EQ(requests[1].header.code, 0x220030u);
    EXPECT_EQ(requests[2].header.code, 0x220034u);
    EXPECT_EQ(requests[3].header.code, 0x220008u);
    AppRecord sent{};
    std::memcpy(&sent, requests[3].input.data(), sizeof(sent));
    EXPECT_EQ(FieldText(sent.imageName), "a.exe");
    EXPECT_EQ(sent.counters[0].Value(), 0x0000000200000001ull);
    EXPECT_EQ(sent.counters[3].Value(), 0x0000000800000007ull);
}

TEST_F(DriverControlTest, RecordSetsSucceedWith1276Bytes) {
    Serve(FakeDriverPeer::Reply(true, 0, 1276));
    AppRecord record{};
    EXPECT_EQ(AnswerPendingQuestion(g_hDriver, record), 0);
    EXPECT_EQ(SetAppRecord(g_hDriver, record), 0);
}

TEST_F(DriverControlTest, FailedCallsFailWhateverTheCount) {
    Serve(FakeDriverPeer::Reply(false, platform::ERROR_BUSY, 4));
    AppRecord record{};
    EXPECT_EQ(DeleteAppRecord(g_hDriver, "a.exe"), 1);
    EXPECT_EQ(SetAppRecord(g_hDriver, record), 1);
    EXPECT_EQ(SetFilteringState(g_hDriver, 0), 1);
    EXPECT_EQ(GetAppRecord(g_hDriver, &record), 0);
    EXPECT_EQ(platform::GetLastError(), platform::ERROR_BUSY);
}

TEST_F(DriverControlTest, FilteringStateSendsFourBytes) {
    Serve(FakeDriverPeer::Reply(true, 0, 0));
    EXPECT_EQ(SetFilteringState(g_hDriver, 0), 0);
    ASSERT_EQ(Requests().size(), 1u);
    EXPECT_EQ(Requests()[0].header.code, 0x220004u);
    EXPECT_EQ(Requests()[0].input, std::string(4, '\0'));
}

TEST_F(DriverControlTest, CountersComeOnlyFromAWholeRecord) {
    AppRecord answer{};
    answer.counters[0].Set(10);
    answer.counters[1].Set(20);
    answer.counters[2].Set(30);
    answer.counters[3].Set(0x100000000ull);
    std::string bytes(reinterpret_cast<char*>(&answer), sizeof(answer));
    Serve(FakeDriverPeer::Reply(true, 0, 1276, bytes));
    std::uint64_t c[4] = {};
    ASSERT_EQ(GetAppCounters(g_hDriver, "a.exe", &c[0], &c[1], &c[2], &c[3]), 0);
    EXPECT_EQ(c[0], 10u);
    EXPECT_EQ(c[3], 0x100000000ull);
    EXPECT_EQ(Requests()[0].header.code, 0x22000Cu);
    EXPECT_EQ(Requests()[0].header.outputCapacity, 1276u);
}

TEST_F(DriverControlTest, ShortCounterReplyFails) {
    Serve(FakeDriverPeer::Reply(true, 0, 1275, std::string(1275, '\0')));
    std::uint64_t c[4] = {7, 7, 7, 7};
    EXPECT_EQ(GetAppCounters(g_hDriver, "a.exe", &c[0], &c[1], &c[2], &c[3]), 1);
    EXPECT_EQ(c[0], 7u);
}

TEST_F(DriverControlTest, ListCountsOnlyWholeRecords) {
    std::vector<char> buffer(kAppListBufferSize);
    {
        Serve(FakeDriverPeer::Reply(true, 0, 1275, std::string(1275, 'r')));
        EXPECT_EQ(ListAppRecords(g_hDriver, buffer.data(), kAppListBufferSize), 0);
        EXPECT_EQ(Requests()[0].header.code, 0x220038u);
        EXPECT_EQ(Requests()[0].header.outputCapacity, 95700u);
    }
    ResetDriverLink();
    m_peer.reset();
    Serve(FakeDriverPeer::Reply(true, 0, 2552, std::string(2552, 'r')));
    EXPECT_EQ(ListAppRecords(g_hDriver, buffer.data(), kAppListBufferSize), 2);
}

TEST_F(DriverControlTest, ActivityCountsOnlyWholeRecords) {
    std::vector<char> buffer(kActivityBufferSize);
    Serve(FakeDriverPeer::Reply(true, 0, 656, std::string(656, 'e')));
    EXPECT_EQ(ReadActivityEvents(g_hDriver, buffer.data(), kActivityBufferSize), 2);
    ResetDriverLink();
    m_peer.reset();
    Serve(FakeDriverPeer::Reply(true, 0, 329, std::string(329, 'e')));
    EXPECT_EQ(ReadActivityEvents(g_hDriver, buffer.data(), kActivityBufferSize), 0);
    EXPECT_EQ(Requests()[0].header.code, 0x22003Cu);
}

TEST_F(DriverControlTest, QuestionAndRecordFetchCountWholeRecords) {
    AppRecord question{};
    SetFieldText(question.imageName, "new.exe");
    std::string bytes(reinterpret_cast<char*>(&question), sizeof(question));
    Serve(FakeDriverPeer::Reply(true, 0, 1276, bytes));
    AppRecord record{};
    EXPECT_EQ(TakePendingQuestion(g_hDriver, &record), 1);
    EXPECT_EQ(FieldText(record.imageName), "new.exe");
    AppRecord fetch{};
    SetFieldText(fetch.imageName, "new.exe");
    EXPECT_EQ(GetAppRecord(g_hDriver, &fetch), 1);
    auto requests = Requests();
    EXPECT_EQ(requests[0].header.code, 0x220024u);
    EXPECT_EQ(requests[1].header.code, 0x22002Cu);
    EXPECT_EQ(requests[1].input.substr(4, 7), "new.exe");
}

TEST_F(DriverControlTest, EmptyQuestionQueueGivesNoRecord) {
    Serve(FakeDriverPeer::Reply(true, 0, 0));
    AppRecord record{};
    EXPECT_EQ(TakePendingQuestion(g_hDriver, &record), 0);
}

TEST_F(DriverControlTest, OpenWithoutADriverReportsThePlatformText) {
    EXPECT_EQ(OpenDriverDevice(1), 1);
    EXPECT_EQ(g_hDriver, platform::INVALID_HANDLE_VALUE);
    EXPECT_EQ(DriverErrorText(), "open handle:The system cannot find the file specified.\r\n");
    // The wrappers still issue their requests, which fail.
    EXPECT_EQ(SetFilteringState(g_hDriver, 0), 1);
    EXPECT_EQ(CheckDriverVersion(g_hDriver), 1);
    CloseDriverDevice();
    EXPECT_EQ(g_hDriver, nullptr);
}

TEST_F(DriverControlTest, CloseForgetsTheHandle) {
    Serve(FakeDriverPeer::Reply(true, 0, 0));
    HANDLE opened = g_hDriver;
    CloseDriverDevice();
    EXPECT_EQ(g_hDriver, nullptr);
    DWORD bytes = 0;
    EXPECT_EQ(
        platform::DeviceIoControl(opened, 0x220004, "\0\0\0\0", 4, nullptr, 0, &bytes, nullptr), 0);
    EXPECT_EQ(platform::GetLastError(), platform::ERROR_INVALID_HANDLE);
}

class DriverControl9xTest : public DriverControlTest {
  protected:
    DriverControl9xTest() : m_9x(platform::Family::Win9x) {}
    test::TempPlatform m_9x;
};

TEST_F(DriverControl9xTest, PermanentOpenUsesTheLoadedVxd) {
    FakeDriverPeer peer(platform::DeviceSocketPath(), [](const FakeDriverPeer::Request&) {
        return std::optional<std::string>(
            FakeDriverPeer::Reply(true, 0, 5, std::string("\\3.0\0", 5)));
    });
    ASSERT_EQ(OpenDriverDevice(1), 0);
    EXPECT_EQ(CheckDriverVersion(g_hDriver), 0);
}

TEST_F(DriverControl9xTest, TemporaryOpenWithoutTheDriverFileFailsAndKeepsTheDirectory) {
    std::string before = platform::GetCurrentDirectory();
    EXPECT_EQ(OpenDriverDevice(0), 1);
    EXPECT_EQ(platform::GetCurrentDirectory(), before);
    EXPECT_EQ(DriverErrorText(), "open handle:The system cannot find the file specified.\r\n");
}

}  // namespace
}  // namespace qbrix::driver
