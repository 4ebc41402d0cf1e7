// Engine selection: ScanWithEngine picks the connector by engine name, keeps at most one engine
// alive and turns the connector's answer into a result text. The selection state is
// process-wide and used from the user-interface thread only.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "antivirus/ScanEngine.h"

namespace qbrix::antivirus {

// The names of the settings dialog's antivirus list, in its order.
inline constexpr const char* kEngineNames[] = {"Disabled", "NOD32", "Sophos", "Unasoft"};

// Result texts of ScanWithEngine besides the connectors' failure texts.
inline constexpr char kScanned[] = "Scanned";
inline constexpr char kAvNotInstalled[] = "AV not installed";

// 1 when the file is infected (`result` holds the engine's detection text); 0 otherwise, with
// "Scanned", "AV not installed" or a connector's failure text in `result`. A null `engineName`
// means the stored engine name (StoredEngineName).
std::int32_t ScanWithEngine(const char* path, std::string& result, const char* engineName);

// Destroys the current engine and forgets its name, so the next scan starts afresh.
void ReleaseScanEngine();

// The selection state, for inspection.
ScanEngine* CurrentEngine();
const std::string& CurrentEngineName();

// The stored engine name: "AVName" as the content-processor settings hold it (loaded once per
// process).
std::string StoredEngineName();

// Makes connectors; tests replace it to watch creation or to fail it (a null engine stands for
// a failed allocation). Null restores the real connectors.
enum class EngineKind { Sophos, Una, Nod32, ClamAv };
using EngineFactory = std::function<ScanEngine*(EngineKind)>;
void SetEngineFactory(EngineFactory factory);

// A new connector for an engine name, by the same tests as the selection ("Sophos", "Una",
// "NOD32", "ClamAV"; a later match wins); null when the name selects none. For callers that keep
// their own engine (the content processor), apart from the selection state above.
std::unique_ptr<ScanEngine> CreateEngineByName(const std::string& name,
                                               const std::string& repository);
// Whether CreateEngineByName makes an engine for a name ("Disabled" and "" select none).
bool NamesAnEngine(const std::string& name);

// Destroys the current engine and clears the name and the factory (tests start each case from
// a fresh process state).
void ResetEngineSelection();

}  // namespace qbrix::antivirus
