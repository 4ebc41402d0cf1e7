// The device service: names, bounded exchanges with silent and misbehaving drivers.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <optional>

#include "platform/Device.h"
#include "platform/DeviceFrames.h"
#include "platform/Kernel.h"
#include "platform/Platform.h"
#include "support/FakeDriverPeer.h"
#include "support/TempPlatform.h"

namespace qbrix::platform {
namespace {

using test::FakeDriverPeer;
using Clock = std::chrono::steady_clock;

constexpr char kNtDevice[] = "\\\\.\\q-Brix";

class DeviceTest : public ::testing::Test {
  protected:
    HANDLE Open() {
        return CreateFile(kNtDevice, GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL,
                          nullptr);
    }
    // Runs one request and returns how long it took.
    std::chrono::milliseconds Timed(HANDLE device, BOOL* result, DWORD* bytes,
                                    DWORD outputSize = 16) {
        char output[64] = {};
        Clock::time_point start = Clock::now();
        *result = DeviceIoControl(device, 0x220000, nullptr, 0, output, outputSize, bytes, nullptr);
        return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
    }

    test::TempPlatform m_platform;
};

TEST_F(DeviceTest, UnknownNamesAndAMissingDriverAreNotFound) {
    EXPECT_EQ(CreateFile("\\\\.\\other", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr),
              INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(Open(), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
}

TEST_F(DeviceTest, AnExchangeCarriesCodeInputCapacityAndTheReply) {
    FakeDriverPeer peer(DeviceSocketPath(), [](const FakeDriverPeer::Request&) {
        return std::optional<std::string>(FakeDriverPeer::Reply(true, 0, 7, "answer!"));
    });
    HANDLE device = Open();
    ASSERT_NE(device, INVALID_HANDLE_VALUE);
    char output[16] = {};
    DWORD bytes = 0;
    EXPECT_EQ(DeviceIoControl(device, 0x220030, "abc", 3, output, sizeof(output), &bytes, nullptr),
              1);
    EXPECT_EQ(bytes, 7u);
    EXPECT_STREQ(output, "answer!");
    auto requests = peer.Requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].header.code, 0x220030u);
    EXPECT_EQ(requests[0].input, "abc");
    EXPECT_EQ(requests[0].header.outputCapacity, 16u);
    EXPECT_EQ(CloseHandle(device), 1);
    EXPECT_EQ(DeviceIoControl(device, 0x220000, nullptr, 0, output, 10, &bytes, nullptr), 0);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

TEST_F(DeviceTest, TheDriversErrorCodeBecomesTheLastError) {
    FakeDriverPeer peer(DeviceSocketPath(), [](const FakeDriverPeer::Request&) {
        return std::optional<std::string>(FakeDriverPeer::Reply(false, ERROR_BUSY, 0));
    });
    HANDLE device = Open();
    BOOL result = 1;
    DWORD bytes = 99;
    Timed(device, &result, &bytes);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(GetLastError(), ERROR_BUSY);
    EXPECT_EQ(bytes, 0u);
    // A failed request does not spoil the handle.
    Timed(device, &result, &bytes);
    EXPECT_EQ(GetLastError(), ERROR_BUSY);
    CloseHandle(device);
}

TEST_F(DeviceTest, ASilentDriverFailsTheRequestWithinTheBound) {
    FakeDriverPeer peer(DeviceSocketPath(), [](const FakeDriverPeer::Request&) {
        return std::optional<std::string>(std::string());
    });
    HANDLE device = Open();
    ASSERT_NE(device, INVALID_HANDLE_VALUE);
    BOOL result = 1;
    DWORD bytes = 5;
    auto took = Timed(device, &result, &bytes);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(GetLastError(), ERROR_GEN_FAILURE);
    EXPECT_GE(took.count(), 1900);
    EXPECT_LE(took.count(), 3000);
    // The stream is out of step now: later requests fail at once.
    took = Timed(device, &result, &bytes);
    EXPECT_EQ(result, 0);
    EXPECT_LT(took.count(), 100);
    CloseHandle(device);
}

class MisbehavingDriverTest : public DeviceTest,
                              public ::testing::WithParamInterface<std::optional<std::string>> {};

TEST_P(MisbehavingDriverTest, FailsQuicklyWithoutCrashing) {
    SetDeviceReplyTimeoutMs(300);
    std::optional<std::string> answer = GetParam();
    FakeDriverPeer peer(DeviceSocketPath(),
                        [answer](const FakeDriverPeer::Request&) { return answer; });
    HANDLE device = Open();
    ASSERT_NE(device, INVALID_HANDLE_VALUE);
    BOOL result = 1;
    DWORD bytes = 0;
    auto took = Timed(device, &result, &bytes);
    EXPECT_EQ(result, 0);
    EXPECT_LE(took.count(), 1000);
    CloseHandle(device);
    SetDeviceReplyTimeoutMs(2000);
}

std::string WrongMagic() {
    std::string reply = FakeDriverPeer::Reply(true, 0, 0);
    reply[0] = 'X';
    return reply;
}

INSTANTIATE_TEST_SUITE_P(
    Replies, MisbehavingDriverTest,
    ::testing::Values(std::nullopt,                                      // closes
                      std::optional<std::string>(std::string(7, '\0')),  // short header
                      std::optional<std::string>(WrongMagic()),          // garbled
                      std::optional<std::string>(                        // too much output
                          FakeDriverPeer::Reply(true, 0, 17, std::string(17, 'x'))),
                      std::optional<std::string>(  // count too big
                          FakeDriverPeer::Reply(true, 0, 5000)),
                      std::optional<std::string>(  // body cut short
                          FakeDriverPeer::Reply(true, 0, 10, std::string(10, 'x')).substr(0, 25))));

TEST_F(DeviceTest, OversizedRequestsAreRefusedBeforeSending) {
    FakeDriverPeer peer(DeviceSocketPath(), [](const FakeDriverPeer::Request&) {
        return std::optional<std::string>(FakeDriverPeer::Reply(true, 0, 0));
    });
    HANDLE device = Open();
    DWORD bytes = 0;
    std::string big(kMaxFrameBody + 1, 'x');
    EXPECT_EQ(DeviceIoControl(device, 0x220030, big.data(), static_cast<DWORD>(big.size()), nullptr,
                              0, &bytes, nullptr),
              0);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(peer.Requests().empty());
    CloseHandle(device);
}

TEST_F(DeviceTest, TheNtNameDoesNotExistOnThe9xFamily) {
    Current().MutableInfo().family = Family::Win9x;
    FakeDriverPeer peer(DeviceSocketPath(), [](const FakeDriverPeer::Request&) {
        return std::optional<std::string>(FakeDriverPeer::Reply(true, 0, 0));
    });
    EXPECT_EQ(Open(), INVALID_HANDLE_VALUE);
    HANDLE vxd = CreateFile("\\\\.\\Q-BRIX.vxd", 0, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    EXPECT_NE(vxd, INVALID_HANDLE_VALUE);
    CloseHandle(vxd);
}

}  // namespace
}  // namespace qbrix::platform
