// The connector for the UNA engine: the plain library "UNAMSCAN.DLL" in the directory that the
// engine's registry entry names, whose one entry point tests one file. Each test runs on a
// worker thread with the fixed time limit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "antivirus/ScanEngine.h"
#include "platform/Libraries.h"

namespace qbrix::antivirus {

struct UnaScanRecord;

// "UnaAPIFileTest": the path buffer, 0, 1 and the record whose first part receives the answer.
// Its return value is not used.
using UnaFileTestFn = std::int32_t (*)(char* path, std::uint32_t reserved, std::uint32_t mode,
                                       UnaScanRecord* record);

inline constexpr std::size_t kUnaPathBufferSize = 4096;
inline constexpr std::size_t kUnaThreatNameSize = 259;

// The record the worker receives; the engine fills its first 260 bytes. Pointers have the
// native size.
struct UnaScanRecord {
    std::uint8_t infected;                // written by the engine: non-zero = infected
    char threatName[kUnaThreatNameSize];  // written by the engine, zero-terminated
    char* path;                           // kUnaPathBufferSize bytes, zero-terminated
    UnaFileTestFn test;
};
#if UINTPTR_MAX == 0xFFFFFFFF
static_assert(sizeof(UnaScanRecord) == 268);
static_assert(offsetof(UnaScanRecord, threatName) == 1);
static_assert(offsetof(UnaScanRecord, path) == 260);
static_assert(offsetof(UnaScanRecord, test) == 264);
#else
static_assert(sizeof(UnaScanRecord) == 280);
static_assert(offsetof(UnaScanRecord, threatName) == 1);
static_assert(offsetof(UnaScanRecord, path) == 264);
static_assert(offsetof(UnaScanRecord, test) == 272);
#endif

// One scan's record and path buffer; shared with an abandoned worker.
struct UnaScanJob {
    UnaScanRecord record = {};
    std::vector<char> pathBuffer = std::vector<char>(kUnaPathBufferSize, '\0');
};

class UnaEngine : public ScanEngine {
  public:
    UnaEngine() = default;
    ~UnaEngine() override;
    UnaEngine(const UnaEngine&) = delete;
    UnaEngine& operator=(const UnaEngine&) = delete;

    std::int32_t ScanFile(const char* path, std::string& message, std::int32_t& infected) override;

    // 0 when the library and its entry point are ready, 1 otherwise.
    std::int32_t LoadUnaLibrary();
    bool IsLoaded() const { return m_test != nullptr; }

  private:
    platform::HMODULE m_library = nullptr;
    UnaFileTestFn m_test = nullptr;
};

}  // namespace qbrix::antivirus
