// q-brixctl av: scans a file with an antivirus engine, or runs the scanner self-test, on the
// installed platform.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace qbrix::tools {

// `args` follow "av": "scan FILE [--engine NAME]" or "test [--engine NAME]". Without --engine
// the stored engine name is used. Returns 0 when the command ran, 2 on a usage error.
int RunAvCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

}  // namespace qbrix::tools
