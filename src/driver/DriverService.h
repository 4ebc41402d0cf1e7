// Registration of the filter driver with the system: the kernel-driver service "q-Brix" in the
// load-order group "PNP_TDI", loaded right after the TCP/IP driver (NT family), or the "device"
// entry of system.ini (9x family). Failures are left as texts in the driver error text.
#pragma once

#include <string>

#include "platform/Services.h"
#include "platform/WinTypes.h"

namespace qbrix::driver {

inline constexpr char kDriverServiceName[] = "q-Brix";
inline constexpr char kDriverFileName[] = "q-Brix.sys";
inline constexpr char kDriverGroup[] = "PNP_TDI";
inline constexpr char kVxdName[] = "q-Brix.VXD";

// 0 in every case.
int InstallDriver(int permanent);
int RemoveDriver(int permanent);

// The driver file: the system directory when permanent, the program's directory when not.
std::string DriverPath(int permanent);

int InstallDriverService(const char* name, const char* path, platform::DWORD* status,
                         int permanent);
int CreateDriverService(platform::SC_HANDLE manager, const char* name, const char* path,
                        int permanent);
int StartDriverService(platform::SC_HANDLE manager, const char* name);
void StopDriverService(platform::SC_HANDLE manager, const char* name);
int RemoveDriverService(const char* name, int permanent);
void DeleteDriverService(platform::SC_HANDLE manager, const char* name, int permanent);
// The service's tag, or 0xFFFFFFFF when the service cannot be opened.
platform::DWORD QueryServiceTag(platform::SC_HANDLE manager, const char* name);

// Put the new tag right after the TCP/IP driver's tag in the group's tag order, and take a
// service's tag out of it again. Both leave the count word as it was.
void InsertTagAfterTcpip(platform::SC_HANDLE manager, platform::DWORD newTag);
void RemoveServiceTag(platform::SC_HANDLE manager, const char* name);

}  // namespace qbrix::driver
