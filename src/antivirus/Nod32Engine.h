// The connector for the NOD32 engine: its programming library "nod32api.dll" is found through
// the engine's own registry entry, loaded once per process with a load count, and driven through
// an engine session configured with a fixed block of options. Each scan runs on a worker thread
// with the fixed time limit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "antivirus/ScanEngine.h"

namespace qbrix::antivirus {

// The record handed to "NOD32_InitEx".
struct Nod32InitRecord {
    std::uint32_t size;        // 24
    std::uint32_t version;     // interface version
    std::uint32_t reserved8;   // 0
    std::uint32_t reserved12;  // 0
    std::uint32_t engine16;    // left to the engine's interface: 0
    std::uint32_t engine20;    // left to the engine's interface: 0
};
static_assert(sizeof(Nod32InitRecord) == 24);
static_assert(offsetof(Nod32InitRecord, version) == 4);
static_assert(offsetof(Nod32InitRecord, reserved8) == 8);
static_assert(offsetof(Nod32InitRecord, reserved12) == 12);
static_assert(offsetof(Nod32InitRecord, engine16) == 16);
static_assert(offsetof(Nod32InitRecord, engine20) == 20);

inline constexpr std::uint32_t kNod32InterfaceVersion = 0x70331001;
inline constexpr std::size_t kNod32TextSize = 1024;

// The record handed to "NOD32_ScanA". Its pointers have the native size; the engine reads the
// record size from its first field.
struct Nod32ScanRequest {
    std::uint32_t size;       // sizeof(Nod32ScanRequest): 36 on a 32-bit build
    std::uint32_t kind;       // 4
    const char* path;         // zero-terminated narrow path
    std::uint32_t zero;       // 0
    std::uint32_t infected;   // written by the engine: non-zero = infected
    std::uint8_t engine[12];  // not set by the connector
    char* text;               // kNod32TextSize bytes, zeroed before every scan
};
#if UINTPTR_MAX == 0xFFFFFFFF
static_assert(sizeof(Nod32ScanRequest) == 36);
static_assert(offsetof(Nod32ScanRequest, path) == 8);
static_assert(offsetof(Nod32ScanRequest, zero) == 12);
static_assert(offsetof(Nod32ScanRequest, infected) == 16);
static_assert(offsetof(Nod32ScanRequest, engine) == 20);
static_assert(offsetof(Nod32ScanRequest, text) == 32);
#else
static_assert(sizeof(Nod32ScanRequest) == 48);
static_assert(offsetof(Nod32ScanRequest, path) == 8);
static_assert(offsetof(Nod32ScanRequest, zero) == 16);
static_assert(offsetof(Nod32ScanRequest, infected) == 20);
static_assert(offsetof(Nod32ScanRequest, engine) == 24);
static_assert(offsetof(Nod32ScanRequest, text) == 40);
#endif

// The engine library's entry points as the connector calls them.
using Nod32InitExFn = std::uint32_t (*)(Nod32InitRecord* record);
using Nod32DeinitFn = std::int32_t (*)(std::uint32_t session);
using Nod32SetOptionFn = std::int32_t (*)(std::uint32_t session, std::uint32_t scope,
                                          std::uint32_t optionId, const void* value,
                                          std::uint32_t size);
using Nod32ScanAFn = std::int32_t (*)(std::uint32_t session, Nod32ScanRequest* request);

// One scan's record and everything the worker touches; shared with an abandoned worker.
struct Nod32ScanJob {
    std::string path;
    char text[kNod32TextSize] = {};
    Nod32ScanRequest request = {};
    std::int32_t status = -1;  // the scan call's result, written by the worker
};

class Nod32Engine : public ScanEngine {
  public:
    Nod32Engine() = default;
    ~Nod32Engine() override;
    Nod32Engine(const Nod32Engine&) = delete;
    Nod32Engine& operator=(const Nod32Engine&) = delete;

    std::int32_t ScanFile(const char* path, std::string& message, std::int32_t& infected) override;

    // Opens the session and sets the option block once; 0 when ready, 1 on failure.
    std::int32_t Initialise();
    std::uint32_t Session() const { return m_session; }

  private:
    std::uint32_t m_session = 0;
    std::shared_ptr<Nod32ScanJob> m_lastScan;  // the scan request and status of the last scan
};

// The process-wide library state shared by every connector.
std::int32_t Nod32LoadLibrary();  // 0, or -1 with the last error 1614, 1157 or 1154
void Nod32UnloadLibrary();
std::uint32_t Nod32OpenSession(Nod32InitRecord* record);  // 0 on failure (last error 1114)
void Nod32CloseSession(std::uint32_t session);
// Guarded calls: -1 without calling the engine when the session is 0 or the library is not
// loaded, otherwise the engine's result.
std::int32_t Nod32SetOption(std::uint32_t session, std::uint32_t scope, std::uint32_t optionId,
                            const void* value, std::uint32_t size);
std::int32_t Nod32Scan(std::uint32_t session, Nod32ScanRequest* request);

std::int32_t Nod32LoadCount();
// Forgets the library state without freeing anything (each test case has its own platform,
// whose library loader goes with it).
void ResetNod32Library();

}  // namespace qbrix::antivirus
