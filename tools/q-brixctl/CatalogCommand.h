// `q-brixctl catalog`: the socket-provider catalog as an administrator reads it, one block per
// entry in catalog order; `q-brixctl catalog reset` restores the seeded base catalog.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace qbrix::tools {

// Runs the catalog command with its arguments (after "catalog"); returns the exit status
// (0 done, 1 failed, 2 usage).
int RunCatalogCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

}  // namespace qbrix::tools
