// The worker-thread scan protocol shared by the connectors whose engines are called with a time
// limit: one new thread per scan runs the engine's blocking call; the caller waits for it at
// most the fixed limit and, on time-out, abandons it. An abandoned worker runs on and finishes
// on its own, so the call must own (jointly, by shared_ptr) everything it touches, and hold
// the engine library's code mapped (platform::Libraries::HoldLibraryOf).
#pragma once

#include <chrono>
#include <functional>

namespace qbrix::antivirus {

// Fixed: the per-protocol "MaxAvTimeout" belongs to the socket provider, not to this program.
inline constexpr std::chrono::milliseconds kScanTimeLimit{5000};

// Runs `call` on a new thread and waits for it at most `limit`. Returns false on time-out. A
// thread that cannot be started counts as finished, as a failed wait does, and `call` does not
// run.
bool RunScanWorker(std::function<void()> call, std::chrono::milliseconds limit = kScanTimeLimit);

}  // namespace qbrix::antivirus
