// The five breakdowns of the statistics, in display order: by applications, hours, days,
// weekdays and months. One list per process, built on first use (after the platform is
// installed, since the time breakdowns load their stored values).
#pragma once

#include <string_view>
#include <vector>

#include "stats/AppStatPeriod.h"
#include "stats/TimeStatPeriod.h"

namespace qbrix::stats {

inline constexpr char kByApplications[] = "by Applications";
inline constexpr char kByHours[] = "by Hours";
inline constexpr char kByDays[] = "by Days";
inline constexpr char kByWeekdays[] = "by Weekdays";
inline constexpr char kByMonths[] = "by Months";

class StatPeriodList {
  public:
    StatPeriodList();
    StatPeriodList(const StatPeriodList&) = delete;
    StatPeriodList& operator=(const StatPeriodList&) = delete;

    // Display order; the objects live as long as the list.
    std::vector<StatPeriod*> Periods();
    // By name, ignoring case; null when there is none.
    StatPeriod* Find(std::string_view name);

    AppStatPeriod& Applications() { return m_applications; }
    TimeStatPeriod& Hours() { return m_hours; }
    TimeStatPeriod& Days() { return m_days; }
    TimeStatPeriod& Weekdays() { return m_weekdays; }
    TimeStatPeriod& Months() { return m_months; }

  private:
    AppStatPeriod m_applications;
    TimeStatPeriod m_hours;
    TimeStatPeriod m_days;
    TimeStatPeriod m_weekdays;
    TimeStatPeriod m_months;
};

// The process's breakdowns, built (and loaded from the store) on first use.
StatPeriodList& StatPeriods();
// Drops the process's breakdowns; the next use builds them again from the store (tests).
void ResetStatPeriods();

// The labels of the time breakdowns. Hours are one ahead of the hour they count: traffic of
// 00:00 to 00:59 goes to " 1:00".
std::vector<std::string> HourLabels();
std::vector<std::string> DayLabels();
std::vector<std::string> WeekdayLabels();
std::vector<std::string> MonthLabels();

// Resets the breakdown and saves it: what the statistics page does when the user confirms.
void EraseHistory(StatPeriod& period);
// Asks "History will be erased\nContinue?" (Yes/No) through the message facade and erases on
// Yes. 1 when erased, 0 when the user said No.
int AskEraseHistory(StatPeriod& period);

}  // namespace qbrix::stats
