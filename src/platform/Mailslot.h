// Mailslots: one-way, message-preserving channels with a single reader. The reader creates the
// slot by name; any number of writers open it by the same name and send whole messages. The
// calls behave as CreateMailslot, CreateFile, ReadFile and WriteFile do on mailslot names,
// including their error codes, and their handles are closed with CloseHandle.
#pragma once

#include <string>
#include <string_view>

#include "platform/Handles.h"
#include "platform/WinTypes.h"

namespace qbrix::platform {

inline constexpr DWORD MAILSLOT_WAIT_FOREVER = 0xFFFFFFFF;
inline constexpr DWORD ERROR_SEM_TIMEOUT = 121;
inline constexpr DWORD ERROR_INVALID_NAME = 123;
inline constexpr DWORD ERROR_FILENAME_EXCED_RANGE = 206;

// Creates the slot `name` ("\\.\mailslot\..."). `maxMessageSize` 0 means any size;
// `readTimeoutMs` 0 makes reads return at once and MAILSLOT_WAIT_FOREVER makes them wait
// without limit. Fails with INVALID_HANDLE_VALUE and ERROR_ALREADY_EXISTS while another handle,
// in this or another live process, owns the name; the slot of a process that died is reclaimed.
HANDLE CreateMailslot(std::string_view name, DWORD maxMessageSize, DWORD readTimeoutMs);

// Reads the next whole message. Fails with ERROR_SEM_TIMEOUT when none arrives within the slot's
// time-out, and with ERROR_INSUFFICIENT_BUFFER when the message was longer than `size` or than
// the slot's largest message size (the message is then gone). *bytesRead is 0 after a failure.
BOOL ReadMailslot(HANDLE mailslot, void* buffer, DWORD size, DWORD* bytesRead);

// Reads every message waiting, at most `count`: waits as ReadMailslot does for the first, then
// takes those already queued behind it without waiting. Message i goes to `buffer` + i * `size`
// and its real length to lengths[i]: one longer than `size` was cut short, and the caller drops
// it as it drops one longer than the slot's largest message size. *messagesRead is the number
// taken, 0 after a failure (the errors of ReadMailslot apart from ERROR_INSUFFICIENT_BUFFER).
BOOL ReadMailslotMessages(HANDLE mailslot, void* buffer, DWORD size, DWORD count, DWORD* lengths,
                          DWORD* messagesRead);

// The writer's side: opens an existing slot by name (ERROR_FILE_NOT_FOUND when nobody owns it)
// and sends one message per call.
HANDLE OpenMailslotWriter(std::string_view name);
BOOL WriteMailslot(HANDLE writer, const void* data, DWORD size, DWORD* bytesWritten);

// Where the slot of `name` lives in the run directory (empty for a name that is not a slot).
std::string MailslotSocketPath(std::string_view name);

}  // namespace qbrix::platform
