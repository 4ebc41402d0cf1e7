#include "events/LogFile.h"

#include <cstdint>
#include <cstring>

#include "core/Messages.h"
#include "core/StringTable.h"
#include "platform/Kernel.h"

namespace qbrix::events {

namespace {

constexpr int kAppTitleString = 19;

void ShowFailure(std::string_view text) {
    core::CurrentMessages().MessageBox(text, core::LoadString(kAppTitleString),
                                       core::MB_OK | core::MB_ICONWARNING);
}

}  // namespace

LogFile::LogFile(platform::FileMappings& mappings) : m_mappings(mappings) {}

LogFile::~LogFile() {
    Close();
}

void LogFile::Open(std::string_view fileName, platform::DWORD fileSizeMb) {
    Close();
    m_fileSizeMb = fileSizeMb;
    m_trimFailed = false;
    m_file = platform::OpenFileAtEnd(fileName);
    std::int64_t length = IsOpen() ? platform::GetFileLength(m_file) : 0;
    m_length = length < 0 ? 0 : static_cast<std::uint64_t>(length);
}

void LogFile::Write(std::string_view text) {
    if (!IsOpen()) {
        return;
    }
    if (platform::WriteToFile(m_file, text.data(), text.size())) {
        m_length += text.size();
    }
    // A burst of lines within one opening is trimmed as it goes rather than only at the close.
    if (m_length > LimitBytes() && !m_trimFailed && !Trim()) {
        m_trimFailed = true;
    }
}

void LogFile::Close() {
    if (IsOpen()) {
        platform::CloseFile(m_file);
        m_file = -1;
    }
}

void LogFile::CloseAndTrim() {
    if (IsOpen() && !m_trimFailed) {
        Trim();
    }
    Close();
}

bool LogFile::Trim() {
    std::int64_t signedLength = platform::GetFileLength(m_file);
    std::uint64_t limit = LimitBytes();
    if (signedLength < 0) {
        return true;
    }
    auto length = static_cast<std::uint64_t>(signedLength);
    m_length = length;
    if (length <= limit) {
        return true;
    }
    platform::FlushFile(m_file);
    platform::HANDLE mapping = m_mappings.CreateFileMapping(m_file, length);
    if (mapping == nullptr) {
        ShowFailure("Unable to open shared file\n");
        return false;
    }
    auto* view = static_cast<char*>(m_mappings.MapViewOfFile(mapping));
    if (view == nullptr) {
        ShowFailure("Unable to map view of a file");
        platform::CloseHandle(mapping);
        return false;
    }
    // About nine tenths of the limit stay, so the next trims are a while away.
    std::uint64_t cut = limit / 10 + (length - limit);
    const void* lineFeed = std::memchr(view + cut, '\n', length - cut);
    if (lineFeed != nullptr) {
        cut = static_cast<std::uint64_t>(static_cast<const char*>(lineFeed) - view) + 1;
    }
    std::memmove(view, view + cut, length - cut);
    if (!m_mappings.UnmapViewOfFile(view)) {
        ShowFailure("Unable to Unmap View");
    }
    platform::CloseHandle(mapping);
    platform::SetFileLength(m_file, length - cut);
    platform::MoveToFileEnd(m_file);
    m_length = length - cut;
    return true;
}

}  // namespace qbrix::events
