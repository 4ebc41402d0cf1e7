// `q-brixctl zone ...`: the administrator's view of the zone store.
//   zone list                       one zone name per line, in list order
//   zone dump NAME                  the zone's 704 raw bytes
//   zone export NAME FILE           the zone exchange file
//   zone import FILE [--overwrite]  adds the file's zone; a zone of the same name (ignoring
//                                   case) is replaced only with --overwrite
//   zone delete NAME                removes the zone from the store
//   zone lan                        the LAN rules detected on this machine
// The store is loaded as the program loads it, so a first run creates the built-in zones; the
// wizard question is answered No when there is no terminal to ask on. The command edits the
// store only: re-sending zones to the driver stays the control panel's job.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace qbrix::tools {

// Runs the zone command with its arguments (after "zone"); returns the exit status (0 done,
// 1 failed, 2 usage).
int RunZoneCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

}  // namespace qbrix::tools
