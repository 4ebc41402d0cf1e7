// The statistics step of the control panel's timer: at most every 20 seconds, a snapshot of the
// driver's per-application counters, whose summed growth goes into the bucket of the current
// hour, day, weekday and month. The clock and the time zone are passed in so that tests set the
// moment of every tick.
#pragma once

#include <cstdint>
#include <functional>

#include "platform/LocalTime.h"

namespace qbrix::stats {

class StatPeriodList;

class StatisticsTick {
  public:
    // Whole seconds (the system's: since 1970, UTC).
    using Clock = std::function<std::int64_t()>;
    // The local calendar fields of a moment (month 1-12, Sunday = 0); nonzero on success.
    using TimeZone = std::function<int(std::int64_t seconds, platform::SystemTime* local)>;

    static constexpr std::int64_t kIntervalSeconds = 20;

    explicit StatisticsTick(Clock clock = SystemClock, TimeZone zone = SystemTimeZone);

    // One timer tick on the process's breakdowns. Ticks less than 20 seconds after the last
    // accepted one do nothing; the first is always accepted. A clock set back pauses the
    // statistics until it has passed the last accepted moment by 20 seconds again.
    void Run();
    // The same on a given list (tests, tools).
    void Run(StatPeriodList& periods);

    std::int64_t LastAccepted() const { return m_lastAccepted; }

    static std::int64_t SystemClock();
    // The process's time zone (TZ), through the platform's local-time conversion.
    static int SystemTimeZone(std::int64_t seconds, platform::SystemTime* local);

  private:
    Clock m_clock;
    TimeZone m_zone;
    std::int64_t m_lastAccepted = 0;
};

}  // namespace qbrix::stats
