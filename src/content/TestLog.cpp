#include "content/TestLog.h"

namespace qbrix::content {

namespace {
std::string g_testLog;
bool g_testLogEnabled = true;
}  // namespace

std::string& TestLog() {
    return g_testLog;
}

void ResetTestLog() {
    std::string().swap(g_testLog);
}

bool TestLogEnabled() {
    return g_testLogEnabled;
}

void SetTestLogEnabled(bool enabled) {
    g_testLogEnabled = enabled;
}

}  // namespace qbrix::content
