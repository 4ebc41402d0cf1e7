// A breakdown over a fixed set of calendar buckets (hours, days, weekdays, months). The driver's
// counters only ever grow, so what a bucket receives is the growth of their sum between two
// ticks; the buckets persist in the registry, one 32-byte binary value per bucket.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/WinTypes.h"
#include "stats/StatPeriod.h"

namespace qbrix::stats {

// The size of a stored bucket: four signed 64-bit little-endian counters.
inline constexpr platform::DWORD kStatValueSize = 32;

class TimeStatPeriod : public StatPeriod {
  public:
    // Creates the buckets with `labels` in order, resets them and loads what is stored.
    TimeStatPeriod(std::string name, const std::vector<std::string>& labels);

    // Current bucket none, every counter 0. Nothing is written until Save.
    void Reset() override;
    // Rewrites every bucket's value under the breakdown's key (created when missing).
    void Save() override;

    // Accounts the totals `totals` of all applications at a moment that falls into `bucket`.
    void Update(std::uint32_t bucket, const StatCounters& totals);
    // Reads the stored values into the buckets. A missing value leaves its bucket as it is; the
    // type is not checked, a shorter value fills the leading counters and a longer one (which
    // does not fit the 32-byte buffer) is left unread.
    void Load();

    // The key below HKEY_LOCAL_MACHINE: "...\GUI\3.1\Stat\<name>".
    std::string KeyPath() const;
    int CurrentBucket() const { return m_current; }
    const StatCounters& PreviousTotals() const { return m_previous; }

  private:
    int m_current = -1;
    StatCounters m_previous{};
};

// The bucket's value as stored, and back.
void EncodeStatValue(const StatCounters& counters, unsigned char (&bytes)[kStatValueSize]);
StatCounters DecodeStatValue(const unsigned char (&bytes)[kStatValueSize]);

}  // namespace qbrix::stats
