// The ClamAV engine through libclamav: the engine Linux users have (Debian's clamav packages,
// signatures kept current by freshclam). The library and its signature database are loaded, and
// the database compiled, at the first scan and kept for the connector's life; a compiled engine
// may be used by several threads at once.
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "antivirus/ScanEngine.h"

struct cl_engine;

namespace qbrix::antivirus {

inline constexpr char kErrorLoadingClamAv[] = "Error Loading ClamAV";

class ClamAvEngine : public ScanEngine {
  public:
    // `databaseDirectory`: the folder of signature files; empty means libclamav's default
    // (where freshclam puts them).
    explicit ClamAvEngine(std::string databaseDirectory = {});
    ~ClamAvEngine() override;
    ClamAvEngine(const ClamAvEngine&) = delete;
    ClamAvEngine& operator=(const ClamAvEngine&) = delete;

    std::int32_t ScanFile(const char* path, std::string& message, std::int32_t& infected) override;
    // Why the last load failed, for diagnostics ("" when loaded).
    const std::string& LoadProblem() const { return m_problem; }

  private:
    bool Load();

    struct Calls;  // the library's entry points

    std::string m_directory;
    std::once_flag m_loadOnce;
    void* m_library = nullptr;  // the platform's module handle
    std::unique_ptr<Calls> m_calls;
    cl_engine* m_engine = nullptr;
    std::string m_problem;
};

}  // namespace qbrix::antivirus
