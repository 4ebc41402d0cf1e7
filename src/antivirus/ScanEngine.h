// The one interface over the antivirus engines of other vendors. A connector loads its engine
// lazily, at its first ScanFile; constructing one only marks it as not loaded. Destroying it
// releases everything it holds (library, session, component).
#pragma once

#include <cstdint>
#include <string>

namespace qbrix::antivirus {

class ScanEngine {
  public:
    virtual ~ScanEngine() = default;

    // Scans one file. `infected` is set to 0 on entry and to 1 only when the engine reported
    // the file infected. 0: scanned, nothing found, `message` untouched. 1: the connector
    // appended either the engine's detection text (infected 1) or a failure text (infected 0).
    virtual std::int32_t ScanFile(const char* path, std::string& message,
                                  std::int32_t& infected) = 0;
};

// Failure texts of the connectors, as they appear in a scan result.
inline constexpr char kErrorLoadingNod32[] = "Error Loading NOD32";
inline constexpr char kErrorLoadingSophos[] = "Error Loading SOPHOS";
inline constexpr char kErrorLoadingUnasoft[] = "Error Loading Unasoft";
inline constexpr char kThreadFail[] = "AV Thread fail";
inline constexpr char kAvError[] = "AV error";

}  // namespace qbrix::antivirus
