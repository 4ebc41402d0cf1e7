// The driver error text: one process-wide text into which failing driver and service operations
// append their messages. ShowDriverErrors shows it in one message box titled "error"; the text is
// never emptied, so a later call shows the same errors again followed by any new ones.
#pragma once

#include <string>

#include "platform/WinTypes.h"

namespace qbrix::driver {

// Appends "CAPTION:" (or "error:" without a caption) and then the text, each piece bounded to
// 1000 bytes. No separator is added between successive errors.
void AppendDriverError(const char* text, const char* caption = nullptr);

// Deferred: appended to the text. Otherwise shown at once in a message box with the caption
// ("error" when none is given) and the information icon.
void ReportDriverError(const char* text, const char* caption = nullptr, int deferred = 1);

// The platform's message text for the code, reported as above; an empty caption counts as none.
void ReportSystemError(const char* caption, int deferred, platform::DWORD errorCode);
// The same for the calling thread's last error code.
void ReportLastError(const char* caption, int deferred);

// Shows the collected text, when there is any.
void ShowDriverErrors();

// The collected text, and a way for tests to start from nothing.
const std::string& DriverErrorText();
void ResetDriverErrors();

}  // namespace qbrix::driver
