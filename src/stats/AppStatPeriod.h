// The "by Applications" breakdown: one entry per application the driver lists, holding the
// driver's own cumulative counters. It lives in memory only; the driver is its store.
#pragma once

#include "stats/StatPeriod.h"

namespace qbrix::stats {

class AppStatPeriod : public StatPeriod {
  public:
    explicit AppStatPeriod(std::string name);

    // Sets the driver's counters of every listed application to 0, then zeroes the entries.
    void Reset() override;
    // Takes a fresh snapshot from the driver.
    void Refresh() override;

    // Replaces the entries with the driver's applications and their counters, in list order,
    // and returns the sums. No driver, an empty list or a failed counter request gives zeros.
    StatCounters Collect();
};

}  // namespace qbrix::stats
