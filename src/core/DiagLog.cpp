#include "core/DiagLog.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "platform/Platform.h"

namespace qbrix::core {

namespace {

constexpr platform::DWORD kNotRead = 0xFFFFFFFF;
constexpr std::size_t kPathBufferSize = 260;

std::atomic<platform::DWORD> g_diagLogSwitch{kNotRead};
std::mutex g_basePathLock;
std::string g_basePath;  // computed once per process

std::string BasePath() {
    std::lock_guard guard(g_basePathLock);
    if (g_basePath.empty()) {
        g_basePath = platform::ProgramFile("quarantine\\gui.log");
    }
    return g_basePath;
}

}  // namespace

platform::DWORD IsDiagLogOn() {
    platform::DWORD cached = g_diagLogSwitch.load();
    if (cached != kNotRead) {
        return cached;
    }
    RegistryKey key(kAvSuffix, kLspRootPath);
    platform::DWORD value = key.GetDword(kDiagLogValue, 0);
    g_diagLogSwitch.store(value);
    return value;
}

void DiagLog(const char* format, ...) {
    if (IsDiagLogOn() == 0) {
        return;
    }
    char fileName[kPathBufferSize];
    std::snprintf(fileName, sizeof(fileName), "%s.%d.BRIX", BasePath().c_str(),
                  static_cast<int>(platform::GetCurrentProcessId()));
    std::FILE* file = std::fopen(fileName, "a");
    if (file == nullptr) {
        return;
    }
    va_list args;
    va_start(args, format);
    std::vfprintf(file, format, args);
    va_end(args);
    std::fclose(file);
}

void GetLastErrorText(char* destination, std::size_t size) {
    if (destination == nullptr || size == 0) {
        return;
    }
    std::string text = platform::GetErrorMessageText(platform::GetLastError());
    std::size_t count = std::min(text.size(), size - 1);
    std::memcpy(destination, text.data(), count);
    destination[count] = '\0';
}

void ResetDiagLogCache() {
    g_diagLogSwitch.store(kNotRead);
    std::lock_guard guard(g_basePathLock);
    g_basePath.clear();
}

}  // namespace qbrix::core
