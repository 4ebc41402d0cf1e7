// The rule engine's trace: one process-wide text, cleared at the start of every whole-rule run
// and appended to by every step. The testers read it as it stands after the call. Only the
// user-interface thread runs the engine, so the text has no lock. Callers that never read it
// switch it off: the engine then neither clears nor writes it.
#pragma once

#include <string>

namespace qbrix::content {

std::string& TestLog();
// Empties the trace and gives its memory back (tests, and after very long traces).
void ResetTestLog();
// Whether the engine writes the trace (on unless switched off).
bool TestLogEnabled();
void SetTestLogEnabled(bool enabled);

}  // namespace qbrix::content
