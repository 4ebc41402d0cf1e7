// `q-brixctl app ...` and `q-brixctl filtering ...`: the Programs page's operations and the
// filtering switch, through the same driver requests the control program makes.
//   app list                 one line per program the driver knows: image, zone, the four byte
//                            counters (TCP in, TCP out, UDP in, UDP out), path; tab separated,
//                            under a header line
//   app set IMAGE ZONE       gives the program the zone, copied whole from the zone store as the
//                            Programs page does (path and description kept from the driver's
//                            record when it has one)
//   app delete IMAGE         removes the program from the driver
//   filtering on|off         switches the driver's filtering
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace qbrix::tools {

// Exit status: 0 done, 1 failed (the reason on `err`), 2 usage.
int RunAppCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
int RunFilteringCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

}  // namespace qbrix::tools
