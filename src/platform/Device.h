// Devices opened by name and driven with control requests: CreateFile on "\\.\NAME" and
// DeviceIoControl, with the Windows error codes the callers test. The filter driver's device
// "\\.\q-Brix" (NT family) and "\\.\q-Brix.VXD" (9x family) reach the driver's stream socket in
// the data root's run directory; each control request is one framed exchange (DeviceFrames.h).
#pragma once

#include <string>
#include <string_view>

#include "platform/Handles.h"
#include "platform/WinTypes.h"

namespace qbrix::platform {

inline constexpr DWORD GENERIC_READ = 0x80000000u;
inline constexpr DWORD GENERIC_WRITE = 0x40000000u;

inline constexpr DWORD CREATE_NEW = 1;
inline constexpr DWORD CREATE_ALWAYS = 2;
inline constexpr DWORD OPEN_EXISTING = 3;

inline constexpr DWORD FILE_ATTRIBUTE_NORMAL = 0x80;
inline constexpr DWORD FILE_FLAG_DELETE_ON_CLOSE = 0x04000000u;

// The control code of a request: device type, function, transfer method and access.
constexpr DWORD CTL_CODE(DWORD deviceType, DWORD function, DWORD method, DWORD access) {
    return (deviceType << 16) | (access << 14) | (function << 2) | method;
}
inline constexpr DWORD FILE_DEVICE_UNKNOWN = 0x22;
inline constexpr DWORD METHOD_BUFFERED = 0;
inline constexpr DWORD FILE_ANY_ACCESS = 0;

// Opens a device. Known devices: "\\.\q-Brix" and "\\.\q-Brix.VXD" (names compared ignoring
// case). Open-existing connects to the driver already serving the device socket
// (ERROR_FILE_NOT_FOUND when none does). On the 9x family, "\\.\q-Brix.VXD" opened create-new
// with delete-on-close loads the driver file "q-Brix.VXD" from the current directory for the life
// of the handle, as a dynamically loaded VxD is. Returns INVALID_HANDLE_VALUE with the last
// error set on failure. The handle is closed with CloseHandle.
HANDLE CreateFile(std::string_view name, DWORD access, DWORD shareMode, void* security,
                  DWORD disposition, DWORD flagsAndAttributes, HANDLE templateFile);

// One control request. Fails (0, last error set) on a bad handle, a peer that does not answer
// within DeviceReplyTimeoutMs, or a malformed or oversized reply; the handle is then unusable
// (ERROR_GEN_FAILURE) since the exchange is out of step. On a failed request the driver's own
// error code becomes the last error, and *bytesReturned is what the driver reported.
BOOL DeviceIoControl(HANDLE device, DWORD code, const void* input, DWORD inputSize, void* output,
                     DWORD outputSize, DWORD* bytesReturned, void* overlapped);

// The socket behind the filter driver's device, in the installed platform's run directory.
std::string DeviceSocketPath();
std::string DeviceSocketPath(const std::string& dataRoot);

// How long one exchange (or a driver's start) may take before it fails. 2000 ms unless changed.
int DeviceReplyTimeoutMs();
void SetDeviceReplyTimeoutMs(int timeoutMs);

}  // namespace qbrix::platform
