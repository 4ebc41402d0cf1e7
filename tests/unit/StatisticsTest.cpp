// Traffic statistics: the buckets' accounting rules, the 20-second throttle, the registry
// record of a breakdown, the snapshot of the driver's counters and the erase question.
#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "InProcessDriver.h"
#include "core/DiagLog.h"
#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "platform/Platform.h"
#include "stats/StatChartText.h"
#include "stats/StatPeriodList.h"
#include "stats/StatisticsTick.h"
#include "support/TempPlatform.h"

namespace qbrix::stats {
namespace {

using platform::BYTE;
using platform::DWORD;

// A UTC moment as whole seconds.
std::int64_t At(int year, int month, int day, int hour, int minute, int second = 0) {
    std::tm fields{};
    fields.tm_year = year - 1900;
    fields.tm_mon = month - 1;
    fields.tm_mday = day;
    fields.tm_hour = hour;
    fields.tm_min = minute;
    fields.tm_sec = second;
    return static_cast<std::int64_t>(::timegm(&fields));
}

// The time zone of these tests is UTC, whatever TZ says.
int UtcZone(std::int64_t seconds, platform::SystemTime* local) {
    auto time = static_cast<std::time_t>(seconds);
    std::tm fields{};
    if (::gmtime_r(&time, &fields) == nullptr) {
        return 0;
    }
    local->year = static_cast<std::uint16_t>(fields.tm_year + 1900);
    local->month = static_cast<std::uint16_t>(fields.tm_mon + 1);
    local->day = static_cast<std::uint16_t>(fields.tm_mday);
    local->dayOfWeek = static_cast<std::uint16_t>(fields.tm_wday);
    local->hour = static_cast<std::uint16_t>(fields.tm_hour);
    local->minute = static_cast<std::uint16_t>(fields.tm_min);
    local->second = static_cast<std::uint16_t>(fields.tm_sec);
    return 1;
}

std::string StatKey(const std::string& period) {
    return std::string(core::kGuiRootPath) + core::kStatSuffix + "\\" + period;
}

// Writes a raw value into a breakdown's key.
void Store(const std::string& period, const std::string& name, DWORD type, const void* data,
           DWORD size) {
    core::RegistryKey key;
    ASSERT_EQ(0, key.OpenBelow(platform::HKEY_LOCAL_MACHINE, StatKey(period)));
    ASSERT_EQ(0, platform::Current().Reg().SetValueEx(key.Handle(), name, type,
                                                      static_cast<const BYTE*>(data), size));
}

void StoreCounters(const std::string& period, const std::string& label, StatCounters counters) {
    unsigned char bytes[kStatValueSize];
    EncodeStatValue(counters, bytes);
    Store(period, label, platform::REG_BINARY, bytes, sizeof(bytes));
}

struct StoredValue {
    DWORD type = 0;
    std::string bytes;
    bool found = false;
};

StoredValue ReadStored(const std::string& period, const std::string& name) {
    core::RegistryKey key;
    key.OpenBelow(platform::HKEY_LOCAL_MACHINE, StatKey(period));
    char data[256];
    DWORD size = sizeof(data);
    StoredValue value;
    value.found = platform::Current().Reg().QueryValueEx(key.Handle(), name, &value.type,
                                                         reinterpret_cast<BYTE*>(data),
                                                         &size) == platform::ERROR_SUCCESS;
    if (value.found) {
        value.bytes.assign(data, size);
    }
    return value;
}

const StatEntry& Bucket(StatPeriod& period, const std::string& label) {
    for (const StatEntry& entry : period.Entries()) {
        if (entry.label == label) {
            return entry;
        }
    }
    ADD_FAILURE() << "no bucket " << label;
    static StatEntry none;
    return none;
}

class StatisticsTest : public ::testing::Test {
  protected:
    StatisticsTest() { ResetStatPeriods(); }
    ~StatisticsTest() override { ResetStatPeriods(); }

    test::TempPlatform m_platform;
    test::ScriptedMessages m_messages;
};

TEST_F(StatisticsTest, BreakdownsComeInDisplayOrderWithTheirLabels) {
    std::vector<std::string> names;
    for (StatPeriod* period : StatPeriods().Periods()) {
        names.push_back(period->Name());
    }
    EXPECT_EQ((std::vector<std::string>{"by Applications", "by Hours", "by Days", "by Weekdays",
                                        "by Months"}),
              names);
    const auto& hours = StatPeriods().Hours().Entries();
    ASSERT_EQ(24u, hours.size());
    EXPECT_EQ(" 1:00", hours[0].label);
    EXPECT_EQ("10:00", hours[9].label);
    EXPECT_EQ("24:00", hours[23].label);
    ASSERT_EQ(31u, StatPeriods().Days().Entries().size());
    EXPECT_EQ("31", StatPeriods().Days().Entries()[30].label);
    EXPECT_EQ("Sun", StatPeriods().Weekdays().Entries()[0].label);
    EXPECT_EQ("Dec", StatPeriods().Months().Entries()[11].label);
    EXPECT_EQ(StatPeriods().Find("BY WEEKDAYS"), &StatPeriods().Weekdays());
    EXPECT_EQ(nullptr, StatPeriods().Find("by Years"));
}

// Update's accounting, bucket by bucket: the series of one hour, the next, and falling totals.
TEST_F(StatisticsTest, GrowthOfTheTotalsGoesToTheCurrentBucketOnly) {
    StoreCounters("by Hours", "11:00", {7777, 1, 2, 3});
    StoreCounters("by Hours", "12:00", {999, 999, 999, 999});
    TimeStatPeriod& hours = StatPeriods().Hours();
    EXPECT_EQ(7777, Bucket(hours, "11:00").counters[0]);

    // The first update after start only sets the baseline: the stored running hour stays.
    hours.Update(10, {1000, 0, 0, 0});
    EXPECT_EQ((StatCounters{7777, 1, 2, 3}), Bucket(hours, "11:00").counters);
    EXPECT_EQ(10, hours.CurrentBucket());

    hours.Update(10, {1500, 0, 0, 0});
    EXPECT_EQ((StatCounters{8277, 1, 2, 3}), Bucket(hours, "11:00").counters);

    // A new hour: its bucket is zeroed and the interval's 300 bytes are not counted.
    hours.Update(11, {1800, 0, 0, 0});
    EXPECT_EQ((StatCounters{0, 0, 0, 0}), Bucket(hours, "12:00").counters);
    EXPECT_EQ((StatCounters{8277, 1, 2, 3}), Bucket(hours, "11:00").counters);

    // Totals that fall add nothing and become the baseline; each counter on its own.
    hours.Update(11, {200, 50, 0, 0});
    EXPECT_EQ((StatCounters{0, 50, 0, 0}), Bucket(hours, "12:00").counters);
    hours.Update(11, {450, 40, 0, 0});
    EXPECT_EQ((StatCounters{250, 50, 0, 0}), Bucket(hours, "12:00").counters);

    // Every update rewrote the store.
    ResetStatPeriods();
    EXPECT_EQ((StatCounters{250, 50, 0, 0}), Bucket(StatPeriods().Hours(), "12:00").counters);
    EXPECT_EQ((StatCounters{8277, 1, 2, 3}), Bucket(StatPeriods().Hours(), "11:00").counters);
}

TEST_F(StatisticsTest, BucketsOutOfRangeChangeNothing) {
    TimeStatPeriod& weekdays = StatPeriods().Weekdays();
    weekdays.Update(2, {10, 0, 0, 0});
    weekdays.Update(7, {50, 0, 0, 0});
    weekdays.Update(0xFFFFFFFFu, {60, 0, 0, 0});
    EXPECT_EQ(2, weekdays.CurrentBucket());
    EXPECT_EQ((StatCounters{10, 0, 0, 0}), weekdays.PreviousTotals());
    weekdays.Update(2, {15, 0, 0, 0});
    EXPECT_EQ(5, Bucket(weekdays, "Tue").counters[0]);
}

TEST_F(StatisticsTest, CountersNearTheLimitWrapInsteadOfFaulting) {
    StoreCounters("by Months", "Mar", {INT64_MAX - 5, 0, 0, 0});
    TimeStatPeriod& loaded = StatPeriods().Months();
    loaded.Update(2, {INT64_MIN, 0, 0, 0});
    loaded.Update(2, {INT64_MAX, 0, 0, 0});
    // The growth is 2^64 - 1, which wraps to one byte less than before.
    EXPECT_EQ(INT64_MAX - 6, Bucket(loaded, "Mar").counters[0]);
}

TEST_F(StatisticsTest, ResetOfABreakdownThenSaveStoresZeros) {
    StoreCounters("by Weekdays", "Mon", {5, 6, 7, 8});
    TimeStatPeriod& weekdays = StatPeriods().Weekdays();
    weekdays.Update(1, {100, 0, 0, 0});
    weekdays.Reset();
    EXPECT_EQ(-1, weekdays.CurrentBucket());
    // Nothing is written before the Save.
    EXPECT_EQ(5, static_cast<unsigned char>(ReadStored("by Weekdays", "Mon").bytes[0]));
    weekdays.Save();
    for (const std::string& day : WeekdayLabels()) {
        StoredValue value = ReadStored("by Weekdays", day);
        ASSERT_TRUE(value.found) << day;
        EXPECT_EQ(platform::REG_BINARY, value.type);
        EXPECT_EQ(std::string(32, '\0'), value.bytes) << day;
    }
}

TEST_F(StatisticsTest, StoredRecordIsFourLittleEndianSignedCounters) {
    TimeStatPeriod& days = StatPeriods().Days();
    days.Update(0, {0, 0, 0, 0});
    days.Update(0, {0x0102030405060708LL, 1, 0, 0});
    StoredValue value = ReadStored("by Days", "1");
    ASSERT_EQ(32u, value.bytes.size());
    EXPECT_EQ(platform::REG_BINARY, value.type);
    const std::string expected(
        "\x08\x07\x06\x05\x04\x03\x02\x01"
        "\x01\x00\x00\x00\x00\x00\x00\x00",
        16);
    EXPECT_EQ(expected, value.bytes.substr(0, 16));
    EXPECT_EQ(std::string(16, '\0'), value.bytes.substr(16));
    // Negative values survive the round trip.
    StoreCounters("by Days", "2", {-1, -2, INT64_MIN, INT64_MAX});
    ResetStatPeriods();
    EXPECT_EQ((StatCounters{-1, -2, INT64_MIN, INT64_MAX}),
              Bucket(StatPeriods().Days(), "2").counters);
    EXPECT_EQ((StatCounters{0x0102030405060708LL, 1, 0, 0}),
              Bucket(StatPeriods().Days(), "1").counters);
}

TEST_F(StatisticsTest, StoredValuesOfAnotherTypeOrSizeAreReadAsBytesOrLeftAlone) {
    DWORD dword = 4242;
    Store("by Months", "Jan", platform::REG_DWORD, &dword, sizeof(dword));
    std::string text(32, 'A');
    Store("by Months", "Feb", platform::REG_SZ, text.data(), 32);
    std::string tooLong(40, '\x01');
    Store("by Months", "Mar", platform::REG_BINARY, tooLong.data(), 40);
    Store("by Months", "Apr", platform::REG_BINARY, nullptr, 0);
    Store("by Months", "Notes", platform::REG_SZ, "keep", 5);

    TimeStatPeriod& months = StatPeriods().Months();
    EXPECT_EQ((StatCounters{4242, 0, 0, 0}), Bucket(months, "Jan").counters);
    EXPECT_EQ(0x4141414141414141LL, Bucket(months, "Feb").counters[3]);
    EXPECT_EQ((StatCounters{0, 0, 0, 0}), Bucket(months, "Mar").counters);
    EXPECT_EQ((StatCounters{0, 0, 0, 0}), Bucket(months, "Apr").counters);

    // The next save writes proper records; a value that is no bucket is left as it was.
    months.Save();
    StoredValue jan = ReadStored("by Months", "Jan");
    EXPECT_EQ(platform::REG_BINARY, jan.type);
    EXPECT_EQ(32u, jan.bytes.size());
    EXPECT_EQ(32u, ReadStored("by Months", "Mar").bytes.size());
    EXPECT_EQ(std::string("keep\0", 5), ReadStored("by Months", "Notes").bytes);
}

// The throttle and the calendar breakdown of StatisticsTick, with a clock under the test's control
// and no driver: zero totals, so only the baseline and the bucket changes show.
class StatisticsTickTest : public StatisticsTest {
  protected:
    StatisticsTick MakeTick() {
        return StatisticsTick([this] { return m_now; }, UtcZone);
    }
    std::int64_t m_now = 0;
};

TEST_F(StatisticsTickTest, TicksWithinTwentySecondsOfTheLastAcceptedDoNothing) {
    StatisticsTick tick = MakeTick();
    m_now = At(2026, 11, 23, 10, 15);
    tick.Run();
    EXPECT_EQ(m_now, tick.LastAccepted());
    EXPECT_EQ(10, StatPeriods().Hours().CurrentBucket());

    m_now += 19;
    StatPeriods().Hours().Reset();  // a tick that ran would set the bucket again
    tick.Run();
    EXPECT_EQ(-1, StatPeriods().Hours().CurrentBucket());
    EXPECT_EQ(m_now - 19, tick.LastAccepted());

    m_now += 1;
    tick.Run();
    EXPECT_EQ(10, StatPeriods().Hours().CurrentBucket());
    EXPECT_EQ(m_now, tick.LastAccepted());
}

TEST_F(StatisticsTickTest, AClockSetBackPausesUntilItPassesTheLastTickAgain) {
    StatisticsTick tick = MakeTick();
    m_now = At(2026, 11, 23, 10, 15);
    tick.Run();
    std::int64_t accepted = m_now;
    m_now -= 3600;
    tick.Run();
    m_now = accepted + 19;
    tick.Run();
    EXPECT_EQ(accepted, tick.LastAccepted());
    m_now = accepted + 20;
    tick.Run();
    EXPECT_EQ(m_now, tick.LastAccepted());
}

TEST_F(StatisticsTickTest, EachBreakdownTakesItsCalendarField) {
    StatisticsTick tick = MakeTick();
    // Saturday 31 January 2026, 23:59: the last hour, the 31st, Saturday, January.
    m_now = At(2026, 1, 31, 23, 59);
    tick.Run();
    StatPeriodList& periods = StatPeriods();
    EXPECT_EQ("24:00", periods.Hours().Entries()[periods.Hours().CurrentBucket()].label);
    EXPECT_EQ("31", periods.Days().Entries()[periods.Days().CurrentBucket()].label);
    EXPECT_EQ("Sat", periods.Weekdays().Entries()[periods.Weekdays().CurrentBucket()].label);
    EXPECT_EQ("Jan", periods.Months().Entries()[periods.Months().CurrentBucket()].label);

    // One minute later everything rolls over: 00:00 of Sunday 1 February.
    StoreCounters("by Days", "1", {9, 9, 9, 9});
    m_now += 60;
    tick.Run();
    EXPECT_EQ(" 1:00", periods.Hours().Entries()[periods.Hours().CurrentBucket()].label);
    EXPECT_EQ("1", periods.Days().Entries()[periods.Days().CurrentBucket()].label);
    EXPECT_EQ("Sun", periods.Weekdays().Entries()[periods.Weekdays().CurrentBucket()].label);
    EXPECT_EQ("Feb", periods.Months().Entries()[periods.Months().CurrentBucket()].label);
    // The day entered was zeroed in the store as well.
    EXPECT_EQ(std::string(32, '\0'), ReadStored("by Days", "1").bytes);
}

TEST_F(StatisticsTickTest, WithoutADriverApplicationsAreEmptyAndStoredBucketsStay) {
    StoreCounters("by Hours", "11:00", {1, 2, 3, 4});
    StoreCounters("by Months", "Nov", {5, 6, 7, 8});
    StatisticsTick tick = MakeTick();
    m_now = At(2026, 11, 23, 10, 15);
    for (int i = 0; i < 3; ++i, m_now += 20) {
        tick.Run();
    }
    EXPECT_TRUE(StatPeriods().Applications().Entries().empty());
    EXPECT_EQ((StatCounters{1, 2, 3, 4}), Bucket(StatPeriods().Hours(), "11:00").counters);
    EXPECT_EQ((StatCounters{5, 6, 7, 8}), Bucket(StatPeriods().Months(), "Nov").counters);
}

TEST_F(StatisticsTickTest, TheSystemTimeZoneIsTheProcessesLocalTime) {
    platform::SystemTime local;
    ASSERT_EQ(1, StatisticsTick::SystemTimeZone(At(2026, 1, 31, 12, 0), &local));
    std::time_t seconds = static_cast<std::time_t>(At(2026, 1, 31, 12, 0));
    std::tm expected{};
    ::localtime_r(&seconds, &expected);
    EXPECT_EQ(expected.tm_hour, local.hour);
    EXPECT_EQ(expected.tm_wday, local.dayOfWeek);
    EXPECT_EQ(expected.tm_mon + 1, local.month);
}

TEST_F(StatisticsTickTest, EachUpdateWritesItsDiagnosticLine) {
    std::filesystem::create_directories(m_platform.ProgramDirectory() + "quarantine");
    core::RegistryKey(core::kAvSuffix, core::kLspRootPath).SetDword(core::kDiagLogValue, 1);
    core::ResetDiagLogCache();
    StatPeriods().Hours().Update(3, {1000, -2, 0, 9000000000LL});
    std::string log = test::ReadFile(m_platform.ProgramDirectory() + "quarantine/gui.log." +
                                     std::to_string(platform::GetCurrentProcessId()) + ".BRIX");
    EXPECT_NE(std::string::npos, log.find("\n STAT (by Hours) 1000 -2 0 9000000000"));
    core::ResetDiagLogCache();
}

// The snapshot of the driver's counters, against the reference driver.
class DriverStatisticsTest : public StatisticsTickTest {
  protected:
    test::InProcessDriver m_driver{m_platform.DataRoot()};
};

TEST_F(DriverStatisticsTest, SnapshotHoldsEveryApplicationAndTheSumsReachTheBuckets) {
    m_driver.AddApp("browser.exe", "C:\\Programs\\browser.exe");
    m_driver.AddApp("chat.exe", "C:\\Programs\\chat.exe");
    StatisticsTick tick = MakeTick();
    m_now = At(2026, 11, 23, 10, 15);
    tick.Run();
    ASSERT_EQ(2u, StatPeriods().Applications().Entries().size());

    m_driver.Connect("browser.exe tcp in 93.184.216.34:80 500");
    m_driver.Connect("browser.exe tcp out 93.184.216.34:80 40");
    m_driver.Connect("chat.exe udp out 198.51.100.7:5060 7");
    m_driver.Connect("chat.exe udp in 198.51.100.7:5060 3");
    m_driver.Connect("chat.exe tcp in 198.51.100.7:443 100");
    m_now += 20;
    tick.Run();
    const auto& apps = StatPeriods().Applications().Entries();
    ASSERT_EQ(2u, apps.size());
    EXPECT_EQ("browser.exe", apps[0].label);
    EXPECT_EQ((StatCounters{500, 40, 0, 0}), apps[0].counters);
    EXPECT_EQ("chat.exe", apps[1].label);
    EXPECT_EQ((StatCounters{100, 0, 3, 7}), apps[1].counters);
    EXPECT_EQ((StatCounters{600, 40, 3, 7}), Bucket(StatPeriods().Hours(), "11:00").counters);
    EXPECT_EQ((StatCounters{600, 40, 3, 7}), Bucket(StatPeriods().Weekdays(), "Mon").counters);
}

TEST_F(DriverStatisticsTest, ResettingApplicationsZeroesTheDriversCounters) {
    m_driver.AddApp("updater.exe", "C:\\Programs\\updater.exe");
    m_driver.Connect("updater.exe tcp in 203.0.113.10:443 1048576");
    AppStatPeriod& apps = StatPeriods().Applications();
    apps.Refresh();
    ASSERT_EQ(1u, apps.Entries().size());
    EXPECT_EQ(1048576, apps.Entries()[0].counters[0]);
    EraseHistory(apps);
    EXPECT_EQ(0, apps.Entries()[0].counters[0]);
    std::uint64_t c[4] = {9, 9, 9, 9};
    ASSERT_EQ(0,
              driver::GetAppCounters(driver::g_hDriver, "updater.exe", &c[0], &c[1], &c[2], &c[3]));
    EXPECT_EQ(0u, c[0] + c[1] + c[2] + c[3]);
}

TEST_F(StatisticsTest, EraseAsksFirstAndNoChangesNothing) {
    StoreCounters("by Days", "5", {1, 2, 3, 4});
    TimeStatPeriod& days = StatPeriods().Days();
    m_messages.QueueBoxAnswer(core::IDNO);
    EXPECT_EQ(0, AskEraseHistory(days));
    ASSERT_EQ(1u, m_messages.shown.size());
    EXPECT_EQ("History will be erased\nContinue?", m_messages.shown[0].text);
    EXPECT_EQ("q-Brix Warning", m_messages.shown[0].caption);
    EXPECT_EQ(core::MB_YESNO | core::MB_ICONQUESTION, m_messages.shown[0].style);
    EXPECT_EQ((StatCounters{1, 2, 3, 4}), Bucket(days, "5").counters);

    m_messages.QueueBoxAnswer(core::IDYES);
    EXPECT_EQ(1, AskEraseHistory(days));
    EXPECT_EQ((StatCounters{0, 0, 0, 0}), Bucket(days, "5").counters);
    EXPECT_EQ(std::string(32, '\0'), ReadStored("by Days", "5").bytes);
}

TEST(StatChartTextTest, MegabytesWithADecimalComma) {
    EXPECT_EQ("1,5", ChartCellText(1500000));
    EXPECT_EQ("0", ChartCellText(0));
    EXPECT_EQ("2", ChartCellText(2000000));
    EXPECT_EQ("123,457", ChartCellText(123456789));
    EXPECT_EQ("1e+06", ChartCellText(1000000000000LL));
    EXPECT_EQ("1,5e+07", ChartCellText(15000000000000LL));
    EXPECT_EQ("-0,001", ChartCellText(-1000));
}

}  // namespace
}  // namespace qbrix::stats
