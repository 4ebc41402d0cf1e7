#include <locale.h>

#include <cstdlib>
#include <ctime>
#include <mutex>
#include <string>

#include "platform/LocalTime.h"

namespace qbrix::platform {

namespace {

// Seconds between 1601-01-01 and 1970-01-01.
constexpr std::int64_t kEpochDifferenceSeconds = 11644473600LL;
constexpr std::size_t kTextSize = 100;

bool ToTm(const SystemTime& time, std::tm* out) {
    if (time.month < 1 || time.month > 12 || time.day < 1 || time.day > 31 || time.hour > 23 ||
        time.minute > 59 || time.second > 59 || time.milliseconds > 999) {
        return false;
    }
    *out = std::tm{};
    out->tm_year = time.year - 1900;
    out->tm_mon = time.month - 1;
    out->tm_mday = time.day;
    out->tm_hour = time.hour;
    out->tm_min = time.minute;
    out->tm_sec = time.second;
    out->tm_wday = time.dayOfWeek % 7;
    return true;
}

// The user's default locale for dates and times ("C" when the environment names none or a
// missing one). Made again only when the environment names another, since making it costs far
// more than the formatting; one per thread, freed with the thread.
locale_t TimeLocale() {
    struct Cached {
        std::string names = "\x01";
        locale_t locale = static_cast<locale_t>(nullptr);
        ~Cached() {
            if (locale != static_cast<locale_t>(nullptr)) {
                ::freelocale(locale);
            }
        }
    };
    thread_local Cached cached;
    std::string names;
    for (const char* variable : {"LC_ALL", "LC_TIME", "LANG"}) {
        const char* value = std::getenv(variable);
        names.append(value == nullptr ? "" : value).push_back('\n');
    }
    if (names != cached.names || cached.locale == static_cast<locale_t>(nullptr)) {
        if (cached.locale != static_cast<locale_t>(nullptr)) {
            ::freelocale(cached.locale);
        }
        cached.locale = ::newlocale(LC_TIME_MASK, "", static_cast<locale_t>(nullptr));
        if (cached.locale == static_cast<locale_t>(nullptr)) {
            cached.locale = ::newlocale(LC_TIME_MASK, "C", static_cast<locale_t>(nullptr));
        }
        cached.names = names;
    }
    return cached.locale;
}

std::string Format(const SystemTime& time, const char* format) {
    std::tm fields;
    if (!ToTm(time, &fields)) {
        return {};
    }
    char text[kTextSize];
    std::size_t length = ::strftime_l(text, sizeof(text), format, &fields, TimeLocale());
    return std::string(text, length);
}

}  // namespace

BOOL FileTimeToLocalSystemTime(std::uint64_t fileTime, SystemTime* local) {
    std::time_t seconds = static_cast<std::time_t>(static_cast<std::int64_t>(fileTime / 10000000) -
                                                   kEpochDifferenceSeconds);
    std::tm fields;
    tzset();
    if (::localtime_r(&seconds, &fields) == nullptr || fields.tm_year + 1900 < 1601 ||
        fields.tm_year + 1900 > 30827) {
        return 0;
    }
    local->year = static_cast<std::uint16_t>(fields.tm_year + 1900);
    local->month = static_cast<std::uint16_t>(fields.tm_mon + 1);
    local->dayOfWeek = static_cast<std::uint16_t>(fields.tm_wday);
    local->day = static_cast<std::uint16_t>(fields.tm_mday);
    local->hour = static_cast<std::uint16_t>(fields.tm_hour);
    local->minute = static_cast<std::uint16_t>(fields.tm_min);
    local->second = static_cast<std::uint16_t>(fields.tm_sec);
    local->milliseconds = static_cast<std::uint16_t>((fileTime / 10000) % 1000);
    return 1;
}

BOOL DosDateTimeToSystemTime(std::uint16_t dosDate, std::uint16_t dosTime, SystemTime* time) {
    SystemTime result;
    result.year = static_cast<std::uint16_t>(1980 + (dosDate >> 9));
    result.month = static_cast<std::uint16_t>((dosDate >> 5) & 0x0F);
    result.day = static_cast<std::uint16_t>(dosDate & 0x1F);
    result.hour = static_cast<std::uint16_t>(dosTime >> 11);
    result.minute = static_cast<std::uint16_t>((dosTime >> 5) & 0x3F);
    result.second = static_cast<std::uint16_t>((dosTime & 0x1F) * 2);
    std::tm check;
    if (!ToTm(result, &check)) {
        return 0;
    }
    // The weekday, as the conversion supplies it.
    check.tm_isdst = -1;
    std::tm copy = check;
    if (::timegm(&copy) != static_cast<std::time_t>(-1)) {
        result.dayOfWeek = static_cast<std::uint16_t>(copy.tm_wday);
    }
    *time = result;
    return 1;
}

std::string GetDateText(const SystemTime& time) {
    return Format(time, "%x");
}

std::string GetTimeText(const SystemTime& time) {
    return Format(time, "%X");
}

}  // namespace qbrix::platform
