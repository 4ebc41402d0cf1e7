// Kernel objects reached by handle: named mutexes and the generic CloseHandle.
#pragma once

#include <string_view>

#include "platform/Handles.h"
#include "platform/WinTypes.h"

namespace qbrix::platform {

// Creates or opens the named mutex. Returns null on failure. When another holder (this process
// or another live one) already has the name open, the handle is still returned and the last
// error is ERROR_ALREADY_EXISTS; otherwise the last error is 0. "Global\" names and plain names
// live in separate namespaces, as on Windows; a holder that dies releases its name.
HANDLE CreateMutex(BOOL initialOwner, std::string_view name);
// Gives up ownership; the handle stays open and the name stays taken until it is closed.
BOOL ReleaseMutex(HANDLE mutex);
BOOL CloseHandle(HANDLE handle);

}  // namespace qbrix::platform
