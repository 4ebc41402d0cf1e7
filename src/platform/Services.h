// The service control manager: services kept in the registry under
// HKEY_LOCAL_MACHINE "SYSTEM\CurrentControlSet\Services\<name>" (Type, Start, ErrorControl,
// Group, Tag, DependOnService, ImagePath, DisplayName), tags handed out per load-order group,
// and the Windows error codes the callers test. Starting a kernel-driver service runs its image
// file as a background process for the data root (the reference driver serves the device
// socket); stopping the service ends that process.
#pragma once

#include <string_view>

#include "platform/Handles.h"
#include "platform/WinTypes.h"

namespace qbrix::platform {

using SC_HANDLE = HANDLE;

inline constexpr DWORD SC_MANAGER_CONNECT = 0x0001;
inline constexpr DWORD SC_MANAGER_CREATE_SERVICE = 0x0002;
inline constexpr DWORD SC_MANAGER_ALL_ACCESS = 0xF003F;

inline constexpr DWORD SERVICE_QUERY_CONFIG = 0x0001;
inline constexpr DWORD SERVICE_START = 0x0010;
inline constexpr DWORD SERVICE_STOP = 0x0020;
inline constexpr DWORD SERVICE_ALL_ACCESS = 0xF01FF;
inline constexpr DWORD DELETE = 0x00010000;

inline constexpr DWORD SERVICE_KERNEL_DRIVER = 0x1;
inline constexpr DWORD SERVICE_FILE_SYSTEM_DRIVER = 0x2;
inline constexpr DWORD SERVICE_WIN32_OWN_PROCESS = 0x10;

inline constexpr DWORD SERVICE_BOOT_START = 0;
inline constexpr DWORD SERVICE_SYSTEM_START = 1;
inline constexpr DWORD SERVICE_AUTO_START = 2;
inline constexpr DWORD SERVICE_DEMAND_START = 3;
inline constexpr DWORD SERVICE_DISABLED = 4;

inline constexpr DWORD SERVICE_ERROR_IGNORE = 0;
inline constexpr DWORD SERVICE_ERROR_NORMAL = 1;

inline constexpr DWORD SERVICE_CONTROL_STOP = 1;

inline constexpr DWORD SERVICE_STOPPED = 1;
inline constexpr DWORD SERVICE_RUNNING = 4;

inline constexpr DWORD ERROR_SERVICE_REQUEST_TIMEOUT = 1053;
inline constexpr DWORD ERROR_SERVICE_ALREADY_RUNNING = 1056;
inline constexpr DWORD ERROR_SERVICE_DOES_NOT_EXIST = 1060;
inline constexpr DWORD ERROR_SERVICE_NOT_ACTIVE = 1062;
inline constexpr DWORD ERROR_SERVICE_MARKED_FOR_DELETE = 1072;
inline constexpr DWORD ERROR_SERVICE_EXISTS = 1073;
inline constexpr DWORD ERROR_INVALID_SERVICE_CONTROL = 1052;
inline constexpr DWORD ERROR_SERVICE_DISABLED = 1058;

struct SERVICE_STATUS {
    DWORD dwServiceType;
    DWORD dwCurrentState;
    DWORD dwControlsAccepted;
    DWORD dwWin32ExitCode;
    DWORD dwServiceSpecificExitCode;
    DWORD dwCheckPoint;
    DWORD dwWaitHint;
};

// The texts point into the caller's buffer, after the structure.
struct QUERY_SERVICE_CONFIGA {
    DWORD dwServiceType;
    DWORD dwStartType;
    DWORD dwErrorControl;
    char* lpBinaryPathName;
    char* lpLoadOrderGroup;
    DWORD dwTagId;
    char* lpDependencies;  // a list of names, each ended by a NUL, ended by an empty name
    char* lpServiceStartName;
    char* lpDisplayName;
};

// Opening with any right beyond SC_MANAGER_CONNECT needs an administrator (ERROR_ACCESS_DENIED
// otherwise). The first open on a data root seeds the emulated system: the "Tcpip" and "NetBT"
// services of group "PNP_TDI" and the group's tag order under
// "SYSTEM\CurrentControlSet\Control\GroupOrderList".
SC_HANDLE OpenSCManager(const char* machine, const char* database, DWORD access);
// ERROR_SERVICE_EXISTS when the name is taken. `tagId` (may be null) receives the new tag: one
// more than every tag in use by the group's services or listed in its tag order.
// `dependencies` is a list of NUL-ended names ended by an empty name (may be null).
SC_HANDLE CreateService(SC_HANDLE manager, const char* name, const char* displayName, DWORD access,
                        DWORD serviceType, DWORD startType, DWORD errorControl,
                        const char* binaryPath, const char* loadOrderGroup, DWORD* tagId,
                        const char* dependencies, const char* account, const char* password);
// ERROR_SERVICE_DOES_NOT_EXIST for an unknown name.
SC_HANDLE OpenService(SC_HANDLE manager, const char* name, DWORD access);
// ERROR_SERVICE_ALREADY_RUNNING, ERROR_FILE_NOT_FOUND for a missing image,
// ERROR_SERVICE_REQUEST_TIMEOUT when the driver does not come up in time.
BOOL StartService(SC_HANDLE service, DWORD argumentCount, const char** arguments);
// SERVICE_CONTROL_STOP only; ERROR_SERVICE_NOT_ACTIVE when it does not run.
BOOL ControlService(SC_HANDLE service, DWORD control, SERVICE_STATUS* status);
// Removes the service's entry; a running driver keeps running. ERROR_SERVICE_MARKED_FOR_DELETE
// when it was already deleted.
BOOL DeleteService(SC_HANDLE service);
// ERROR_INSUFFICIENT_BUFFER with *bytesNeeded set when the buffer is too small.
BOOL QueryServiceConfig(SC_HANDLE service, QUERY_SERVICE_CONFIGA* config, DWORD bufferSize,
                        DWORD* bytesNeeded);
BOOL QueryServiceStatus(SC_HANDLE service, SERVICE_STATUS* status);
BOOL CloseServiceHandle(SC_HANDLE handle);

}  // namespace qbrix::platform
