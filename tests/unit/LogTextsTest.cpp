// The texts of the log pages and log files, with time stamps of both families read in a fixed
// time zone and the C locale.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "events/LogTexts.h"
#include "support/TempPlatform.h"

namespace qbrix::events {
namespace {

// Central European time: UTC+1 in winter, UTC+2 in summer.
class FixedZone {
  public:
    FixedZone() {
        Save("TZ", &m_tz);
        Save("LC_ALL", &m_lcAll);
        ::setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
        ::setenv("LC_ALL", "C", 1);
        ::tzset();
    }
    ~FixedZone() {
        Restore("TZ", m_tz);
        Restore("LC_ALL", m_lcAll);
        ::tzset();
    }

  private:
    static void Save(const char* name, std::string* value) {
        const char* text = std::getenv(name);
        *value = text == nullptr ? std::string("\x01") : text;
    }
    static void Restore(const char* name, const std::string& value) {
        if (value == "\x01") {
            ::unsetenv(name);
        } else {
            ::setenv(name, value.c_str(), 1);
        }
    }
    std::string m_tz;
    std::string m_lcAll;
};

// A file time for a UTC calendar time.
std::uint64_t FileTime(int year, int month, int day, int hour, int minute, int second, int ms = 0) {
    std::tm fields{};
    fields.tm_year = year - 1900;
    fields.tm_mon = month - 1;
    fields.tm_mday = day;
    fields.tm_hour = hour;
    fields.tm_min = minute;
    fields.tm_sec = second;
    auto seconds = static_cast<std::uint64_t>(::timegm(&fields)) + 11644473600ULL;
    return seconds * 10000000ULL + static_cast<std::uint64_t>(ms) * 10000ULL;
}

// The 9x stamp: DOS date in the high half of the high word, DOS time in its low half,
// milliseconds in the low half of the low word.
std::uint64_t DosStamp(int year, int month, int day, int hour, int minute, int second, int ms) {
    std::uint64_t date = static_cast<std::uint64_t>(((year - 1980) << 9) | (month << 5) | day);
    std::uint64_t time = static_cast<std::uint64_t>((hour << 11) | (minute << 5) | (second / 2));
    return (date << 48) | (time << 32) | static_cast<std::uint64_t>(ms);
}

TEST(LogTextsTest, AddressDirectionAndResultTexts) {
    EXPECT_EQ("", AddressText(0, 1, 80));
    EXPECT_EQ("TCP 127.0.0.1:80", AddressText(0x7F000001, 1, 80));
    EXPECT_EQ("UDP 192.168.10.254:65535", AddressText(0xC0A80AFE, 2, 65535));
    EXPECT_EQ("UDP 10.0.0.1:53", AddressText(0x0A000001, 0, 53));
    EXPECT_EQ("", DirectionText(0));
    EXPECT_EQ("incoming", DirectionText(1));
    EXPECT_EQ("outgoing", DirectionText(2));
    EXPECT_EQ("incoming", DirectionText(7));
    EXPECT_EQ("approved", ResultText(0));
    EXPECT_EQ("rejected", ResultText(1));
    EXPECT_EQ("rejected", ResultText(0x80000000));
}

TEST(LogTextsTest, NtStampsAreFileTimesShownInLocalTime) {
    test::TempPlatform platform(platform::Family::Nt);
    FixedZone zone;
    std::string date;
    std::string time;
    TimeStampTexts(FileTime(2026, 1, 15, 12, 34, 56, 789), &date, &time);
    EXPECT_EQ("01/15/26", date);
    EXPECT_EQ("13:34:56", time);
    TimeStampTexts(FileTime(2026, 7, 31, 22, 59, 1), &date, &time);  // summer time, next day
    EXPECT_EQ("08/01/26", date);
    EXPECT_EQ("00:59:01", time);
}

TEST(LogTextsTest, NineXStampsAreDosFieldsWithTheMillisecondsAddedToTheSeconds) {
    test::TempPlatform platform(platform::Family::Win9x);
    FixedZone zone;
    std::string date;
    std::string time;
    TimeStampTexts(DosStamp(2026, 11, 23, 14, 5, 8, 1500), &date, &time);
    EXPECT_EQ("11/23/26", date);
    EXPECT_EQ("14:05:09", time);  // local already: no zone applied
    TimeStampTexts(DosStamp(1999, 12, 31, 23, 59, 58, 999), &date, &time);
    EXPECT_EQ("12/31/99", date);
    EXPECT_EQ("23:59:58", time);
    // Seconds pushed past 59, or a month of 0, are refused by the formatting.
    TimeStampTexts(DosStamp(2026, 11, 23, 14, 5, 58, 2000), &date, &time);
    EXPECT_EQ("", date);
    EXPECT_EQ("", time);
    TimeStampTexts(0, &date, &time);
    EXPECT_EQ("", date);
    EXPECT_EQ("", time);
}

TEST(LogTextsTest, InternetLogLineHasSevenTabSeparatedFields) {
    test::TempPlatform platform(platform::Family::Nt);
    FixedZone zone;
    ActivityFields fields;
    fields.timeStamp = FileTime(2026, 1, 15, 12, 34, 56);
    fields.application = "C:\\Program Files\\Browser\\browser.exe";
    fields.ruleName = "Web";
    fields.address = 0x0A000001;
    fields.remotePort = 443;
    fields.protocol = 1;
    fields.direction = 2;
    fields.result = 1;
    EXPECT_EQ(
        "01/15/26\t13:34:56\tC:\\Program Files\\Browser\\browser.exe\tWeb\tTCP 10.0.0.1:443\t"
        "rejected\toutgoing\r\n",
        InternetLogLine(fields));
    fields.address = 0;
    fields.direction = 0;
    fields.result = 0;
    EXPECT_EQ("01/15/26\t13:34:56\tC:\\Program Files\\Browser\\browser.exe\tWeb\t\tapproved\t\r\n",
              InternetLogLine(fields));
}

TEST(LogTextsTest, ContentKindsHaveTheirLabelsAndOnlyFindingsPopUp) {
    const char* const kLabels[] = {" E-mail", " Web",       " E-mail",
                                   " Web",    "Rule Found", "Rule Applied"};
    for (int type = 0; type < 6; ++type) {
        EXPECT_EQ(kLabels[type], ContentKindLabel(type)) << type;
        EXPECT_EQ(type < 2, ContentKindPopsUp(type)) << type;
    }
    for (int type : {-1, 6, 1000}) {
        EXPECT_EQ("", ContentKindLabel(type));
        EXPECT_FALSE(ContentKindPopsUp(type));
    }
}

TEST(LogTextsTest, ContentLogLineBoundsFieldsWithoutTerminator) {
    ContentEvent event;
    std::memset(&event, 0, sizeof(event));
    event.type = 1;
    std::memcpy(event.address, "http://www.example.com/x.zip", 28);
    std::memset(event.name, 'n', sizeof(event.name));  // full width: no terminator
    std::memcpy(event.quarantine, "/q/x.zip", 8);
    EXPECT_EQ(" Web\t" + std::string(200, 'n') + "\thttp://www.example.com/x.zip\t/q/x.zip\r\n",
              ContentLogLine(event));
    event.type = 9;
    std::memset(event.name, 0, sizeof(event.name));
    event.quarantine[0] = '\0';
    EXPECT_EQ("\t\thttp://www.example.com/x.zip\t\r\n", ContentLogLine(event));
}

// Any local program can send an event and name a program: a line break or a tab inside a field
// must not start a forged line or column of the log file.
TEST(LogTextsTest, LineBreaksAndTabsInFieldsBecomeBlanks) {
    ContentEvent event;
    std::memset(&event, 0, sizeof(event));
    event.type = 4;
    std::memcpy(event.name, "a\r\nRule Applied\tb", 18);
    std::memcpy(event.address, "x\ny", 3);
    std::memcpy(event.quarantine, "q\tq", 3);
    EXPECT_EQ("Rule Found\ta  Rule Applied b\tx y\tq q\r\n", ContentLogLine(event));

    test::TempPlatform platform(platform::Family::Nt);
    ActivityFields fields;
    fields.application = "evil\r\n01/01/26\t00:00:00";
    fields.ruleName = "r\tr";
    EXPECT_EQ("\t\tevil  01/01/26 00:00:00\tr r\t\tapproved\t\r\n",
              InternetLogLine(fields, "", ""));
}

}  // namespace
}  // namespace qbrix::events
