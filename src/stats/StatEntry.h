// One bucket of a traffic breakdown: its label and the bytes counted in the four directions.
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace qbrix::stats {

// Counter order everywhere: TCP in, TCP out, UDP in, UDP out.
inline constexpr int kStatCounterCount = 4;
using StatCounters = std::array<std::int64_t, kStatCounterCount>;

struct StatEntry {
    // Shown on the chart; for the time breakdowns also the name of the stored value.
    std::string label;
    StatCounters counters{};
};

}  // namespace qbrix::stats
