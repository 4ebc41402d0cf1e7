#include "StatsCommand.h"

#include <algorithm>
#include <cstdio>

#include "driver/DriverControl.h"
#include "platform/Text.h"
#include "stats/StatChartText.h"
#include "stats/StatPeriodList.h"

namespace qbrix::tools {

namespace {

constexpr std::size_t kLabelWidth = 17;
constexpr int kCounterWidth = 11;

stats::StatPeriod* FindPeriod(stats::StatPeriodList& periods, const std::string& name) {
    if (stats::StatPeriod* period = periods.Find(name); period != nullptr) {
        return period;
    }
    return periods.Find("by " + name);
}

std::string Padded(std::string text, std::size_t width) {
    if (text.size() < width) {
        text.resize(width, ' ');
    }
    return text;
}

std::string RightAligned(const std::string& text) {
    char cell[64];
    std::snprintf(cell, sizeof(cell), " %*s", kCounterWidth, text.c_str());
    return cell;
}

void PrintPeriod(const stats::StatPeriod& period, bool driverOpen, std::ostream& out) {
    out << period.Name() << " (megabytes)\n";
    std::string heading = Padded("", kLabelWidth);
    for (const char* column : stats::kStatColumnLabels) {
        heading += RightAligned(column);
    }
    out << heading << "\n";
    for (const stats::StatEntry& entry : period.Entries()) {
        std::string line = Padded(entry.label, kLabelWidth);
        for (std::int64_t counter : entry.counters) {
            line += RightAligned(stats::ChartCellText(counter));
        }
        out << line << "\n";
    }
    if (period.Entries().empty()) {
        out << (driverOpen ? "(no applications)\n" : "(no driver serves this data root)\n");
    }
}

int Usage(std::ostream& err) {
    err << "usage: q-brixctl [--root DIR] stats [show [PERIOD] | reset PERIOD]\n"
           "       PERIOD: applications, hours, days, weekdays or months\n";
    return 2;
}

}  // namespace

int RunStatsCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    std::string action = args.empty() ? "show" : args[0];
    if ((action != "show" && action != "reset") || args.size() > 2 ||
        (action == "reset" && args.size() != 2)) {
        return Usage(err);
    }
    // The per-application counters are the driver's; a data root without one has none.
    bool driverOpen = driver::OpenDriverDevice(1) == 0;
    stats::StatPeriodList& periods = stats::StatPeriods();
    int status = 0;
    if (args.size() == 2) {
        stats::StatPeriod* period = FindPeriod(periods, args[1]);
        if (period == nullptr) {
            err << "q-brixctl: no statistics period '" << args[1] << "'\n";
            status = 2;
        } else if (action == "reset") {
            if (period == &periods.Applications() && !driverOpen) {
                err << "q-brixctl: no driver serves this data root\n";
                status = 1;
            } else {
                period->Refresh();
                stats::EraseHistory(*period);
                out << period->Name() << ": history erased\n";
            }
        } else {
            period->Refresh();
            PrintPeriod(*period, driverOpen, out);
        }
    } else {
        bool first = true;
        for (stats::StatPeriod* period : periods.Periods()) {
            out << (first ? "" : "\n");
            first = false;
            period->Refresh();
            PrintPeriod(*period, driverOpen, out);
        }
    }
    driver::CloseDriverDevice();
    return status;
}

}  // namespace qbrix::tools
