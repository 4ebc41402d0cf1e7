// Threads started by the system: one handle per thread, closed with CloseHandle.
#pragma once

#include "platform/Handles.h"
#include "platform/WinTypes.h"

namespace qbrix::platform {

// Starts `start(argument)` on a new thread with the default stack. Returns the thread's handle,
// or INVALID_HANDLE_VALUE when no thread could be started.
HANDLE BeginThread(void (*start)(void*), void* argument);

// Ends the thread. Threads are never killed here: the caller must first have asked the thread
// to stop (a flag it checks, the closing of the handle it waits on), and this call then waits
// for it to return, at most `waitMs`. Returns 1 when the thread has ended; 0 with ERROR_BUSY when
// it is still running after the wait (it is then left to run on its own), or with
// ERROR_INVALID_HANDLE for a handle that is not a thread. The exit code is recorded only.
BOOL TerminateThread(HANDLE thread, DWORD exitCode, DWORD waitMs = 10000);

}  // namespace qbrix::platform
