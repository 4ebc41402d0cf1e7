// The rule engine's trace: one process-wide text, cleared at the start of every whole-rule run
// and appended to by every step. The testers read it as it stands after the call. Only the
// user-interface thread runs the engine, so the text has no lock.
#pragma once

#include <string>

namespace qbrix::content {

std::string& TestLog();
// Empties the trace and gives its memory back (tests, and after very long traces).
void ResetTestLog();

}  // namespace qbrix::content
