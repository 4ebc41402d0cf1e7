// The diagnostic log: a support trace, off unless the REG_DWORD "Log" of the LSP AV key is
// nonzero. Each process appends to its own file, "<program dir>/quarantine/gui.log.<pid>.BRIX",
// opened and closed for every line so the trace survives a crash. Failures are silent.
#pragma once

#include <cstddef>

#include "platform/WinTypes.h"

namespace qbrix::core {

// Writes the formatted text unchanged (no time stamp, no line end added). Callers begin a new
// line with "\n" and continue one with a leading blank.
void DiagLog(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The cached switch, read from the store on first use (0xFFFFFFFF means "not read yet", so a
// stored 0xFFFFFFFF is read again on every call).
platform::DWORD IsDiagLogOn();

// The platform's message text for the calling thread's last error, at most size - 1 characters.
void GetLastErrorText(char* destination, std::size_t size);

// Forgets the cached switch and base path (tests install a fresh platform between cases).
void ResetDiagLogCache();

}  // namespace qbrix::core
