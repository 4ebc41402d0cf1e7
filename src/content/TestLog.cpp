#include "content/TestLog.h"

namespace qbrix::content {

namespace {
std::string g_testLog;
}  // namespace

std::string& TestLog() {
    return g_testLog;
}

void ResetTestLog() {
    std::string().swap(g_testLog);
}

}  // namespace qbrix::content
