// Calendar times and their texts in the user's locale.
#pragma once

#include <cstdint>
#include <string>

#include "platform/WinTypes.h"

namespace qbrix::platform {

// Calendar fields as the platform's date and time formatting takes them (month 1-12).
struct SystemTime {
    std::uint16_t year = 0;
    std::uint16_t month = 0;
    std::uint16_t dayOfWeek = 0;
    std::uint16_t day = 0;
    std::uint16_t hour = 0;
    std::uint16_t minute = 0;
    std::uint16_t second = 0;
    std::uint16_t milliseconds = 0;
};

// A file time (100 ns units since 1601-01-01 UTC) as local calendar fields in the process's
// time zone (TZ). Fails for times the C library cannot represent.
BOOL FileTimeToLocalSystemTime(std::uint64_t fileTime, SystemTime* local);

// MS-DOS date and time words as calendar fields (seconds in steps of two, no milliseconds).
BOOL DosDateTimeToSystemTime(std::uint16_t dosDate, std::uint16_t dosTime, SystemTime* time);

// The short date and the time of day in the user's default locale, as the C library formats
// "%x" and "%X" for the locale named by LC_ALL, LC_TIME or LANG ("C": "11/23/26" and
// "14:05:09"). Fields out of range give an empty text, as the formatting refuses them.
std::string GetDateText(const SystemTime& time);
std::string GetTimeText(const SystemTime& time);

}  // namespace qbrix::platform
