// A user-facing log file, opened for one timer tick: lines are appended, and whenever the file
// has grown past its size limit it is cut to about nine tenths of the limit by dropping its
// oldest lines: on closing, and at the write that passes the limit, so a long burst of lines
// within one tick never takes the file further than one line past its limit.
#pragma once

#include <cstdint>
#include <string_view>

#include "platform/Files.h"
#include "platform/WinTypes.h"

namespace qbrix::events {

class LogFile {
  public:
    explicit LogFile(platform::FileMappings& mappings = platform::SystemFileMappings());
    // Closes without trimming when CloseAndTrim was not called.
    ~LogFile();
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

    // Opens `fileName` for appending (created when missing, never truncated). The limit is
    // `fileSizeMb` x 1,000,000 bytes. When the open fails the object stays closed and writes
    // and the trim do nothing.
    void Open(std::string_view fileName, platform::DWORD fileSizeMb);
    // Appends; when the file is then longer than the limit, trims it as CloseAndTrim does and
    // goes on appending at the new end. After a failed trim the writes of this opening only
    // append (the failure is shown once).
    void Write(std::string_view text);
    // When the file is longer than the limit, moves its last part to the front: what is cut is
    // limit / 10 + (length - limit) bytes, extended to just behind the next line feed so the file
    // starts with a whole line. Mapping failures are shown and leave the file as it was. Closes.
    void CloseAndTrim();

    bool IsOpen() const { return m_file >= 0; }
    // The limit in bytes, in the unsigned 32-bit arithmetic of the stored setting.
    platform::DWORD LimitBytes() const { return m_fileSizeMb * 1000000u; }

  private:
    void Close();
    // The trim of CloseAndTrim without closing; false when a mapping failed (shown).
    bool Trim();

    platform::FileMappings& m_mappings;
    int m_file = -1;
    platform::DWORD m_fileSizeMb = 0;
    std::uint64_t m_length = 0;  // the file's length as far as this object knows
    bool m_trimFailed = false;
};

}  // namespace qbrix::events
