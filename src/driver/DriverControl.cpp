#include "driver/DriverControl.h"

#include <cstring>
#include <string>

#include "core/DiagLog.h"
#include "driver/DriverErrors.h"
#include "platform/Kernel.h"
#include "platform/Platform.h"
#include "platform/SystemFiles.h"

namespace qbrix::driver {

using platform::DWORD;

HANDLE g_hDriver = nullptr;

namespace {

constexpr char kNtDeviceName[] = "\\\\.\\q-Brix";
constexpr char k9xDeviceName[] = "\\\\.\\q-Brix.VXD";

// The request with its call result and the driver's byte count; a null handle fails at once.
bool Request(HANDLE driver, DWORD code, const void* input, DWORD inputSize, void* output,
             DWORD outputSize, DWORD* bytes) {
    *bytes = 0;
    if (driver == nullptr) {
        return false;
    }
    return platform::DeviceIoControl(driver, code, input, inputSize, output, outputSize, bytes,
                                     nullptr) != 0;
}

int Count(bool ok, DWORD bytes, DWORD recordSize) {
    if (!ok || bytes % recordSize != 0) {
        return 0;
    }
    return static_cast<int>(bytes / recordSize);
}

AppRecord NamedRecord(const char* imageName) {
    AppRecord record{};
    SetFieldText(record.imageName, imageName != nullptr ? imageName : "");
    return record;
}

}  // namespace

int OpenDriverDevice(int permanent) {
    if (platform::IsNtPlatform() == 1) {
        g_hDriver =
            platform::CreateFile(kNtDeviceName, platform::GENERIC_READ, 0, nullptr,
                                 platform::OPEN_EXISTING, platform::FILE_ATTRIBUTE_NORMAL, nullptr);
    } else {
        // A temporary run loads the driver file from the program's own directory.
        std::string remembered;
        if (permanent == 0) {
            remembered = platform::GetCurrentDirectory();
            platform::SetCurrentDirectory(platform::Current().Info().programDirectory);
        }
        core::DiagLog("\n permanent (%d)", permanent);
        g_hDriver =
            platform::CreateFile(k9xDeviceName, 0, 0, nullptr,
                                 permanent != 0 ? platform::OPEN_EXISTING : platform::CREATE_NEW,
                                 permanent != 0 ? 0 : platform::FILE_FLAG_DELETE_ON_CLOSE, nullptr);
        if (permanent == 0) {
            DWORD error = platform::GetLastError();
            platform::SetCurrentDirectory(remembered);
            platform::SetLastError(error);
        }
    }
    if (g_hDriver == platform::INVALID_HANDLE_VALUE) {
        ReportLastError("open handle", 1);
        return 1;
    }
    return 0;
}

void CloseDriverDevice() {
    if (g_hDriver != nullptr && g_hDriver != platform::INVALID_HANDLE_VALUE) {
        platform::CloseHandle(g_hDriver);
    }
    g_hDriver = nullptr;
}

int CheckDriverVersion(HANDLE driver) {
    if (driver == nullptr) {
        return 1;
    }
    char version[kVersionReplySize + 1] = {};
    DWORD bytes = 0;
    bool ok = Request(driver, IOCTL_GET_VERSION, nullptr, 0, version, kVersionReplySize, &bytes);
    core::DiagLog("\n Version res %d from driver (%s) required (%s)", ok ? 1 : 0, version,
                  kRequiredDriverVersion);
    if (!ok) {
        return 1;
    }
    if (std::memcmp(version, kRequiredDriverVersion, sizeof(kRequiredDriverVersion)) == 0) {
        return 0;
    }
    ReportDriverError("valid driver not found", nullptr, 1);
    return 1;
}

int SetFilteringState(HANDLE driver, std::uint32_t state) {
    DWORD bytes = 0;
    return Request(driver, IOCTL_SET_FILTERING_STATE, &state, sizeof(state), nullptr, 0, &bytes)
               ? 0
               : 1;
}

int SetAppCounters(HANDLE driver, const char* imageName, const std::uint32_t words[8]) {
    AppRecord record = NamedRecord(imageName);
    std::memcpy(reinterpret_cast<char*>(&record) + offsetof(AppRecord, counters), words, 32);
    DWORD bytes = 0;
    return Request(driver, IOCTL_SET_APP_COUNTERS, &record, sizeof(record), nullptr, 0, &bytes) ? 0
                                                                                                : 1;
}

int GetAppCounters(HANDLE driver, const char* imageName, std::uint64_t* counter1,
                   std::uint64_t* counter2, std::uint64_t* counter3, std::uint64_t* counter4) {
    AppRecord record = NamedRecord(imageName);
    DWORD bytes = 0;
    if (!Request(driver, IOCTL_GET_APP_COUNTERS, &record, sizeof(record), &record, sizeof(record),
                 &bytes) ||
        bytes != sizeof(AppRecord)) {
        return 1;
    }
    *counter1 = record.counters[0].Value();
    *counter2 = record.counters[1].Value();
    *counter3 = record.counters[2].Value();
    *counter4 = record.counters[3].Value();
    return 0;
}

int SetDefaultZone(HANDLE driver, const ZoneRecord& zone) {
    DWORD bytes = 0;
    bool ok = Request(driver, IOCTL_SET_DEFAULT_ZONE, &zone, sizeof(zone), nullptr, 0, &bytes);
    return ok && bytes == sizeof(ZoneRecord) ? 0 : 1;
}

int SetOverrideZone(HANDLE driver, const ZoneRecord& zone) {
    DWORD bytes = 0;
    bool ok = Request(driver, IOCTL_SET_OVERRIDE_ZONE, &zone, sizeof(zone), nullptr, 0, &bytes);
    return ok && bytes == sizeof(ZoneRecord) ? 0 : 1;
}

int TakePendingQuestion(HANDLE driver, AppRecord* record) {
    DWORD bytes = 0;
    bool ok = Request(driver, IOCTL_TAKE_PENDING_QUESTION, record, sizeof(AppRecord), record,
                      sizeof(AppRecord), &bytes);
    return Count(ok, bytes, sizeof(AppRecord));
}

int AnswerPendingQuestion(HANDLE driver, const AppRecord& record) {
    DWORD bytes = 0;
    bool ok =
        Request(driver, IOCTL_ANSWER_PENDING_QUESTION, &record, sizeof(record), nullptr, 0, &bytes);
    return ok && bytes == sizeof(AppRecord) ? 0 : 1;
}

int GetAppRecord(HANDLE driver, AppRecord* record) {
    DWORD bytes = 0;
    bool ok = Request(driver, IOCTL_GET_APP_RECORD, record, sizeof(AppRecord), record,
                      sizeof(AppRecord), &bytes);
    return Count(ok, bytes, sizeof(AppRecord));
}

int SetAppRecord(HANDLE driver, const AppRecord& record) {
    DWORD bytes = 0;
    bool ok = Request(driver, IOCTL_SET_APP_RECORD, &record, sizeof(record), nullptr, 0, &bytes);
    return ok && bytes == sizeof(AppRecord) ? 0 : 1;
}

int DeleteAppRecord(HANDLE driver, const char* imageName) {
    AppRecord record = NamedRecord(imageName);
    DWORD bytes = 0;
    return Request(driver, IOCTL_DELETE_APP_RECORD, &record, sizeof(record), nullptr, 0, &bytes)
               ? 0
               : 1;
}

int ListAppRecords(HANDLE driver, void* buffer, DWORD size) {
    DWORD bytes = 0;
    bool ok = Request(driver, IOCTL_LIST_APP_RECORDS, nullptr, 0, buffer, size, &bytes);
    return Count(ok, bytes, sizeof(AppRecord));
}

int ReadActivityEvents(HANDLE driver, void* buffer, DWORD size) {
    DWORD bytes = 0;
    bool ok = Request(driver, IOCTL_READ_ACTIVITY_EVENTS, nullptr, 0, buffer, size, &bytes);
    return Count(ok, bytes, sizeof(ActivityRecord));
}

void ResetDriverLink() {
    CloseDriverDevice();
}

}  // namespace qbrix::driver
