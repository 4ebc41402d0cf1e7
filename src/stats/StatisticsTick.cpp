#include "stats/StatisticsTick.h"

#include <ctime>
#include <utility>

#include "stats/StatPeriodList.h"

namespace qbrix::stats {

namespace {

// Seconds from 1601-01-01 (file times) to 1970-01-01.
constexpr std::int64_t kFileTimeEpochSeconds = 11644473600LL;

}  // namespace

StatisticsTick::StatisticsTick(Clock clock, TimeZone zone)
    : m_clock(std::move(clock)), m_zone(std::move(zone)) {}

std::int64_t StatisticsTick::SystemClock() {
    return static_cast<std::int64_t>(std::time(nullptr));
}

int StatisticsTick::SystemTimeZone(std::int64_t seconds, platform::SystemTime* local) {
    if (seconds < -kFileTimeEpochSeconds) {
        return 0;
    }
    auto fileTime = static_cast<std::uint64_t>(seconds + kFileTimeEpochSeconds) * 10000000ULL;
    return platform::FileTimeToLocalSystemTime(fileTime, local) ? 1 : 0;
}

void StatisticsTick::Run() {
    Run(StatPeriods());
}

void StatisticsTick::Run(StatPeriodList& periods) {
    std::int64_t now = m_clock();
    if (now - m_lastAccepted < kIntervalSeconds) {
        return;
    }
    m_lastAccepted = now;
    StatCounters totals = periods.Applications().Collect();
    platform::SystemTime local;
    if (m_zone(now, &local) == 0) {
        return;  // a moment without a calendar date has no bucket
    }
    periods.Hours().Update(local.hour, totals);
    periods.Days().Update(static_cast<std::uint32_t>(local.day) - 1, totals);
    periods.Weekdays().Update(local.dayOfWeek, totals);
    periods.Months().Update(static_cast<std::uint32_t>(local.month) - 1, totals);
}

}  // namespace qbrix::stats
