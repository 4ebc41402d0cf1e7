// Background driver processes of the emulated machine: a driver image run for a data root, and
// the connection to the device socket it serves.
#pragma once

#include <sys/types.h>

#include <string>

#include "platform/WinTypes.h"

namespace qbrix::platform {

// How long a driver may take to come up: generous, since a loaded machine starts processes slowly.
inline constexpr int kDriverStartTimeoutMs = 5000;

// Runs `image --root DATAROOT --foreground` (with --live when the data root is in live mode:
// LiveMode.h) in its own session and waits until it serves the
// device socket. Returns the process id, or -1 with the Windows error code in *error
// (ERROR_FILE_NOT_FOUND for a missing image, ERROR_SERVICE_REQUEST_TIMEOUT when the process
// ends or does not serve the socket within `timeoutMs`).
pid_t LaunchDriverProcess(const std::string& image, const std::string& dataRoot, int timeoutMs,
                          DWORD* error);

// True while the process lives (a child of ours that has ended is reaped here).
bool ProcessAlive(pid_t pid);

// Asks the process to end (SIGTERM), and kills it when it has not ended within `timeoutMs`.
void EndDriverProcess(pid_t pid, int timeoutMs);

// A connected stream socket to the device socket, or -1 (errno set).
int ConnectDeviceSocket(const std::string& path);

}  // namespace qbrix::platform
