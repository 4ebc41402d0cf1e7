// Plain files by descriptor for the log writers, and whole-file memory mappings for rewriting a
// file in place. Mappings are reached through an interface so that their failures can be
// produced on purpose.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/Handles.h"
#include "platform/WinTypes.h"

namespace qbrix::platform {

// Opens for reading and writing, creating the file when missing and never truncating it, and
// moves to its end. Returns the descriptor, or -1 with the last error set.
int OpenFileAtEnd(std::string_view path);
// Writes all bytes at the current position.
BOOL WriteToFile(int file, const void* data, std::size_t size);
// The file's length, or -1 when it cannot be read.
std::int64_t GetFileLength(int file);
BOOL SetFileLength(int file, std::uint64_t length);
// Moves the position to the file's end (after its length was set, so writes append again).
BOOL MoveToFileEnd(int file);
BOOL FlushFile(int file);
void CloseFile(int file);

class FileMappings {
  public:
    virtual ~FileMappings() = default;
    // A mapping object over the first `length` bytes of the open file; null on failure.
    virtual HANDLE CreateFileMapping(int file, std::uint64_t length) = 0;
    // A writable view of the whole mapping, shared with the file; null on failure.
    virtual void* MapViewOfFile(HANDLE mapping) = 0;
    virtual BOOL UnmapViewOfFile(void* view) = 0;
};

// The operating system's mappings.
FileMappings& SystemFileMappings();

}  // namespace qbrix::platform
