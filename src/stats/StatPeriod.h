// A named breakdown of traffic counters, as the statistics page lists and charts them.
#pragma once

#include <string>
#include <vector>

#include "stats/StatEntry.h"

namespace qbrix::stats {

class StatPeriod {
  public:
    explicit StatPeriod(std::string name);
    virtual ~StatPeriod() = default;
    StatPeriod(const StatPeriod&) = delete;
    StatPeriod& operator=(const StatPeriod&) = delete;

    // Clears the breakdown; a persistent one is written only by the Save that follows.
    virtual void Reset();
    // Persists the breakdown; nothing to do for one that lives only in memory.
    virtual void Save();
    // Brings the breakdown up to date before it is shown.
    virtual void Refresh();

    const std::string& Name() const { return m_name; }
    const std::vector<StatEntry>& Entries() const { return m_entries; }

  protected:
    std::string m_name;
    std::vector<StatEntry> m_entries;
};

}  // namespace qbrix::stats
