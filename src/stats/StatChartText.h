// What the statistics chart shows of a breakdown, as plain data: the four column labels and the
// text of a cell, megabytes of 1,000,000 bytes with a decimal comma ("1,5").
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace qbrix::stats {

inline constexpr std::array<const char*, 4> kStatColumnLabels = {"TCP in", "TCP out", "UDP in",
                                                                 "UDP out"};

// The counter divided by one million, formatted "%g", with the first "." turned into ",".
std::string ChartCellText(std::int64_t bytes);

}  // namespace qbrix::stats
