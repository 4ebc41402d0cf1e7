#include "stats/StatPeriodList.h"

#include <cstdio>
#include <memory>

#include "core/Messages.h"
#include "core/StringTable.h"
#include "platform/Text.h"

namespace qbrix::stats {

namespace {

constexpr int kEraseQuestionString = 68;
constexpr int kWarningCaptionString = 33;

std::unique_ptr<StatPeriodList> g_statPeriods;

}  // namespace

std::vector<std::string> HourLabels() {
    std::vector<std::string> labels;
    for (int hour = 1; hour <= 24; ++hour) {
        char text[8];
        std::snprintf(text, sizeof(text), "%2d:00", hour);
        labels.emplace_back(text);
    }
    return labels;
}

std::vector<std::string> DayLabels() {
    std::vector<std::string> labels;
    for (int day = 1; day <= 31; ++day) {
        labels.push_back(std::to_string(day));
    }
    return labels;
}

std::vector<std::string> WeekdayLabels() {
    return {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
}

std::vector<std::string> MonthLabels() {
    return {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
}

StatPeriodList::StatPeriodList()
    : m_applications(kByApplications),
      m_hours(kByHours, HourLabels()),
      m_days(kByDays, DayLabels()),
      m_weekdays(kByWeekdays, WeekdayLabels()),
      m_months(kByMonths, MonthLabels()) {}

std::vector<StatPeriod*> StatPeriodList::Periods() {
    return {&m_applications, &m_hours, &m_days, &m_weekdays, &m_months};
}

StatPeriod* StatPeriodList::Find(std::string_view name) {
    for (StatPeriod* period : Periods()) {
        if (platform::EqualsIgnoreCase(period->Name(), name)) {
            return period;
        }
    }
    return nullptr;
}

StatPeriodList& StatPeriods() {
    if (!g_statPeriods) {
        g_statPeriods = std::make_unique<StatPeriodList>();
    }
    return *g_statPeriods;
}

void ResetStatPeriods() {
    g_statPeriods.reset();
}

void EraseHistory(StatPeriod& period) {
    period.Reset();
    period.Save();
}

int AskEraseHistory(StatPeriod& period) {
    int answer = core::CurrentMessages().MessageBox(core::LoadString(kEraseQuestionString),
                                                    core::LoadString(kWarningCaptionString),
                                                    core::MB_YESNO | core::MB_ICONQUESTION);
    if (answer != core::IDYES) {
        return 0;
    }
    EraseHistory(period);
    return 1;
}

}  // namespace qbrix::stats
