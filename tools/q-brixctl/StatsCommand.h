// `q-brixctl stats`: the traffic statistics of a data root as an administrator reads them.
//   stats [show [PERIOD]]   every breakdown, or one; a line per bucket: its label and the four
//                           counters in megabytes as the statistics chart shows them
//   stats reset PERIOD      erases one breakdown ("by Applications" zeroes the driver's counters)
// PERIOD is a breakdown's name ("by Hours") or its last word ("hours"), in any case.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace qbrix::tools {

// Runs the stats command with its arguments (after "stats"); returns the exit status
// (0 done, 1 failed, 2 usage).
int RunStatsCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

}  // namespace qbrix::tools
