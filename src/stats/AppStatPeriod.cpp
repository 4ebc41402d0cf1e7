#include "stats/AppStatPeriod.h"

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "driver/DriverControl.h"

namespace qbrix::stats {

namespace {

// The image names of the applications the driver lists, at most 75.
std::vector<std::string> ListImageNames() {
    // The list buffer is 95700 bytes: on the heap, the user-interface thread's stack is not ours.
    auto records = std::make_unique<driver::AppRecord[]>(driver::kAppListBufferSize /
                                                         sizeof(driver::AppRecord));
    int count =
        driver::ListAppRecords(driver::g_hDriver, records.get(), driver::kAppListBufferSize);
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i) {
        names.emplace_back(driver::FieldText(records[i].imageName));
    }
    return names;
}

}  // namespace

AppStatPeriod::AppStatPeriod(std::string name) : StatPeriod(std::move(name)) {}

StatCounters AppStatPeriod::Collect() {
    m_entries.clear();
    StatCounters totals{};
    for (const std::string& name : ListImageNames()) {
        std::uint64_t values[kStatCounterCount] = {};
        if (driver::GetAppCounters(driver::g_hDriver, name.c_str(), &values[0], &values[1],
                                   &values[2], &values[3]) != 0) {
            for (std::uint64_t& value : values) {
                value = 0;
            }
        }
        StatEntry entry{name, {}};
        for (int k = 0; k < kStatCounterCount; ++k) {
            entry.counters[k] = static_cast<std::int64_t>(values[k]);
            totals[k] =
                static_cast<std::int64_t>(static_cast<std::uint64_t>(totals[k]) + values[k]);
        }
        m_entries.push_back(std::move(entry));
    }
    return totals;
}

void AppStatPeriod::Reset() {
    const std::uint32_t zeros[8] = {};
    for (const std::string& name : ListImageNames()) {
        driver::SetAppCounters(driver::g_hDriver, name.c_str(), zeros);
    }
    for (StatEntry& entry : m_entries) {
        entry.counters.fill(0);
    }
}

void AppStatPeriod::Refresh() {
    Collect();
}

}  // namespace qbrix::stats
