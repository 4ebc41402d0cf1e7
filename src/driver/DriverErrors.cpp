#include "driver/DriverErrors.h"

#include <cstring>

#include "core/Messages.h"
#include "platform/Platform.h"

namespace qbrix::driver {

namespace {

constexpr std::size_t kPieceBound = 1000;

std::string g_driverErrors;

void AppendBounded(const char* piece) {
    g_driverErrors.append(piece, strnlen(piece, kPieceBound));
}

}  // namespace

void AppendDriverError(const char* text, const char* caption) {
    if (caption != nullptr) {
        AppendBounded(caption);
        AppendBounded(":");
    } else {
        AppendBounded("error:");
    }
    AppendBounded(text != nullptr ? text : "");
}

void ReportDriverError(const char* text, const char* caption, int deferred) {
    if (deferred != 0) {
        AppendDriverError(text, caption);
        return;
    }
    core::CurrentMessages().MessageBox(text != nullptr ? text : "",
                                       caption != nullptr ? caption : "error",
                                       core::MB_OK | core::MB_ICONINFORMATION);
}

void ReportSystemError(const char* caption, int deferred, platform::DWORD errorCode) {
    std::string text = platform::GetErrorMessageText(errorCode);
    if (caption != nullptr && *caption == '\0') {
        caption = nullptr;
    }
    ReportDriverError(text.c_str(), caption, deferred);
}

void ReportLastError(const char* caption, int deferred) {
    ReportSystemError(caption, deferred, platform::GetLastError());
}

void ShowDriverErrors() {
    if (g_driverErrors.empty()) {
        return;
    }
    core::CurrentMessages().MessageBox(g_driverErrors, "error",
                                       core::MB_OK | core::MB_ICONINFORMATION);
}

const std::string& DriverErrorText() {
    return g_driverErrors;
}

void ResetDriverErrors() {
    g_driverErrors.clear();
}

}  // namespace qbrix::driver
