// The connector for the Sophos engine, a registered in-process component. The connector creates
// it, initialises it under a client name, sets four configuration values and sweeps each file
// on the caller's thread, without a time limit. When a sweep fails with 0xA0040223 the
// component is thrown away, re-created from its server library directly and asked once more.
#pragma once

#include <cstdint>
#include <string>

#include "antivirus/ScanEngine.h"
#include "platform/ComponentLoader.h"

namespace qbrix::antivirus {

// {91C4C540-9FDD-11D2-AFAA-00105A305A2B}
inline constexpr platform::GUID kSophosEngineClass = {
    0x91C4C540, 0x9FDD, 0x11D2, {0xAF, 0xAA, 0x00, 0x10, 0x5A, 0x30, 0x5A, 0x2B}};
// {FF4E3EAA-9380-4A82-8285-2F17F2DA8CFA}
inline constexpr platform::GUID kSophosMainInterface = {
    0xFF4E3EAA, 0x9380, 0x4A82, {0x82, 0x85, 0x2F, 0x17, 0xF2, 0xDA, 0x8C, 0xFA}};
// {2D12C871-07AC-11D3-BE8D-00105A305D2F}
inline constexpr platform::GUID kSophosInitInterface = {
    0x2D12C871, 0x07AC, 0x11D3, {0xBE, 0x8D, 0x00, 0x10, 0x5A, 0x30, 0x5D, 0x2F}};
// {03A2FCC2-A0A8-11D2-AFAC-00105A305A2B}
inline constexpr platform::GUID kSophosResultEnumerator = {
    0x03A2FCC2, 0xA0A8, 0x11D2, {0xAF, 0xAC, 0x00, 0x10, 0x5A, 0x30, 0x5A, 0x2B}};

inline constexpr char16_t kSophosClientName[] = u"SAVI for q-Brix";
// The sweep status after which the component is re-created and the sweep repeated once.
inline constexpr platform::HRESULT kSophosReloadStatus =
    static_cast<platform::HRESULT>(0xA0040223u);
inline constexpr std::uint32_t kSophosThreatNameChars = 80;

// Positions of the operations in the engine's interface tables.
namespace sophos {
inline constexpr std::size_t kInitialise = 3;           // ()
inline constexpr std::size_t kInitialiseWithName = 4;   // (client name)
inline constexpr std::size_t kTerminate = 7;            // ()
inline constexpr std::size_t kAfterInitialise = 8;      // ()
inline constexpr std::size_t kSetConfigValue = 12;      // (name, type, value)
inline constexpr std::size_t kSweepFile = 14;           // (path, interface id, out enumerator)
inline constexpr std::size_t kAfterConfiguration = 28;  // ()
inline constexpr std::size_t kEnumNext = 3;             // (1, out item, out fetched)
inline constexpr std::size_t kEnumReset = 5;            // ()
inline constexpr std::size_t kItemIsThreat = 4;         // (out flag)
inline constexpr std::size_t kItemThreatName = 5;       // (80, out text, 0)
}  // namespace sophos

class SophosEngine : public ScanEngine {
  public:
    SophosEngine() = default;
    ~SophosEngine() override;
    SophosEngine(const SophosEngine&) = delete;
    SophosEngine& operator=(const SophosEngine&) = delete;

    std::int32_t ScanFile(const char* path, std::string& message, std::int32_t& infected) override;

    // 0 when the engine exists or was created and configured, 1 otherwise.
    std::int32_t Load();
    void* Engine() const { return m_engine; }

  private:
    void* m_engine = nullptr;  // the main interface; null = not loaded
    const char16_t* m_clientName = kSophosClientName;
};

// Creates the engine with the main interface and initialises it under `clientName`; null on
// failure.
void* CreateSophosEngine(const char16_t* clientName);

// Re-creates the engine straight from its server library. Negative on a component failure, 1
// when the library cannot be found or loaded, otherwise the status of the last step.
platform::HRESULT ReloadSophosEngine(void** engine, const platform::GUID& interfaceId,
                                     const char16_t* clientName);

// Walks the sweep results: every threat name is appended without a separator and `infected`
// follows the last item examined. Non-zero when the walk ended without a failing item call.
std::int32_t CollectSweepResults(void* enumerator, std::string& message, std::int32_t& infected);

}  // namespace qbrix::antivirus
