// The conversation with the filter driver: the device handle, its open sequence for both
// platform families, the version handshake and the thirteen control requests. Wrappers that
// return a record count give 0 on any failure, including a byte count that is not a whole
// number of records; the others return 0 on success and 1 on failure.
#pragma once

#include <cstdint>

#include "driver/DriverRecords.h"
#include "platform/Device.h"
#include "platform/Handles.h"

namespace qbrix::driver {

using platform::HANDLE;

// The one device handle of the process: null before the open and after CloseDriverDevice,
// INVALID_HANDLE_VALUE after a failed open.
extern HANDLE g_hDriver;

constexpr platform::DWORD DriverCode(platform::DWORD function) {
    return platform::CTL_CODE(platform::FILE_DEVICE_UNKNOWN, function, platform::METHOD_BUFFERED,
                              platform::FILE_ANY_ACCESS);
}

inline constexpr platform::DWORD IOCTL_GET_VERSION = DriverCode(0);
inline constexpr platform::DWORD IOCTL_SET_FILTERING_STATE = DriverCode(1);
inline constexpr platform::DWORD IOCTL_SET_APP_COUNTERS = DriverCode(2);
inline constexpr platform::DWORD IOCTL_GET_APP_COUNTERS = DriverCode(3);
inline constexpr platform::DWORD IOCTL_SET_DEFAULT_ZONE = DriverCode(4);
inline constexpr platform::DWORD IOCTL_SET_OVERRIDE_ZONE = DriverCode(5);
inline constexpr platform::DWORD IOCTL_TAKE_PENDING_QUESTION = DriverCode(9);
inline constexpr platform::DWORD IOCTL_ANSWER_PENDING_QUESTION = DriverCode(10);
inline constexpr platform::DWORD IOCTL_GET_APP_RECORD = DriverCode(11);
inline constexpr platform::DWORD IOCTL_SET_APP_RECORD = DriverCode(12);
inline constexpr platform::DWORD IOCTL_DELETE_APP_RECORD = DriverCode(13);
inline constexpr platform::DWORD IOCTL_LIST_APP_RECORDS = DriverCode(14);
inline constexpr platform::DWORD IOCTL_READ_ACTIVITY_EVENTS = DriverCode(15);
static_assert(IOCTL_GET_VERSION == 0x220000 && IOCTL_READ_ACTIVITY_EVENTS == 0x22003C);

// The version text the driver must answer, with its terminating zero.
inline constexpr char kRequiredDriverVersion[] = "\\3.0";
inline constexpr platform::DWORD kVersionReplySize = 10;

// Room for 75 application records and 100 activity records: what the callers pass.
inline constexpr platform::DWORD kAppListBufferSize = 95700;
inline constexpr platform::DWORD kActivityBufferSize = 32800;

// 0 when g_hDriver is open; otherwise 1 with the platform's text appended under "open handle".
int OpenDriverDevice(int permanent);
void CloseDriverDevice();

int CheckDriverVersion(HANDLE driver);
int SetFilteringState(HANDLE driver, std::uint32_t state);
int SetAppCounters(HANDLE driver, const char* imageName, const std::uint32_t words[8]);
int GetAppCounters(HANDLE driver, const char* imageName, std::uint64_t* counter1,
                   std::uint64_t* counter2, std::uint64_t* counter3, std::uint64_t* counter4);
int SetDefaultZone(HANDLE driver, const ZoneRecord& zone);
int SetOverrideZone(HANDLE driver, const ZoneRecord& zone);
// `record` is one AppRecord zeroed by the caller; the count of questions taken (0 or 1).
int TakePendingQuestion(HANDLE driver, AppRecord* record);
int AnswerPendingQuestion(HANDLE driver, const AppRecord& record);
// `record` carries the image name at offset 4 and receives the driver's record.
int GetAppRecord(HANDLE driver, AppRecord* record);
int SetAppRecord(HANDLE driver, const AppRecord& record);
int DeleteAppRecord(HANDLE driver, const char* imageName);
int ListAppRecords(HANDLE driver, void* buffer, platform::DWORD size);
int ReadActivityEvents(HANDLE driver, void* buffer, platform::DWORD size);

// Closes the handle if open and forgets it (tests).
void ResetDriverLink();

}  // namespace qbrix::driver
