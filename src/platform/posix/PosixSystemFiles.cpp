// The emulated Windows directory lives in the data root; ini files are plain text files with
// "\r\n" line ends, read leniently (any line end, blanks around names and values).
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "platform/Platform.h"
#include "platform/SystemFiles.h"
#include "platform/Text.h"
#include "platform/posix/PosixPlatform.h"

namespace qbrix::platform {

namespace {

std::string EnsureDirectory(std::string path) {
    MakeDataDirectory(Current().Info().dataRoot, path);
    return path;
}

// True for a path in the data root (the emulated Windows directory's files).
bool InDataRoot(const std::string& path) {
    std::filesystem::path relative =
        std::filesystem::path(path).lexically_normal().lexically_relative(
            std::filesystem::path(Current().Info().dataRoot).lexically_normal());
    return !relative.empty() && *relative.begin() != "..";
}

std::string ProfilePath(std::string_view fileName) {
    bool hasDirectory = fileName.find('/') != std::string_view::npos ||
                        fileName.find('\\') != std::string_view::npos;
    return hasDirectory ? JoinPath("", fileName) : JoinPath(GetWindowsDirectory(), fileName);
}

std::string Trim(std::string_view text) {
    std::size_t begin = text.find_first_not_of(" \t\r\n");
    if (begin == std::string_view::npos) {
        return std::string();
    }
    std::size_t end = text.find_last_not_of(" \t\r\n");
    return std::string(text.substr(begin, end - begin + 1));
}

std::vector<std::string> ReadLines(const std::string& path) {
    std::vector<std::string> lines;
    std::ifstream in(path, std::ios::binary);
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        lines.push_back(line);
    }
    return lines;
}

// "[name]" gives the section name; anything else gives false.
bool SectionName(const std::string& line, std::string* name) {
    std::string trimmed = Trim(line);
    if (trimmed.size() < 2 || trimmed.front() != '[') {
        return false;
    }
    std::size_t close = trimmed.find(']');
    if (close == std::string::npos) {
        return false;
    }
    *name = Trim(std::string_view(trimmed).substr(1, close - 1));
    return true;
}

bool KeyLine(const std::string& line, std::string* key, std::string* value) {
    std::size_t equals = line.find('=');
    if (equals == std::string::npos || Trim(line).front() == ';') {
        return false;
    }
    *key = Trim(std::string_view(line).substr(0, equals));
    *value = Trim(std::string_view(line).substr(equals + 1));
    return true;
}

// The section's line range: [header, end). header is lines.size() when the section is missing.
void FindSection(const std::vector<std::string>& lines, std::string_view section,
                 std::size_t* header, std::size_t* end) {
    *header = lines.size();
    *end = lines.size();
    std::string name;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (!SectionName(lines[i], &name)) {
            continue;
        }
        if (*header != lines.size()) {
            *end = i;
            return;
        }
        if (EqualsIgnoreCase(name, section)) {
            *header = i;
        }
    }
}

std::size_t FindKey(const std::vector<std::string>& lines, std::size_t header, std::size_t end,
                    std::string_view key, std::string* value) {
    std::string name;
    std::string found;
    for (std::size_t i = header + 1; i < end; ++i) {
        if (KeyLine(lines[i], &name, &found) && EqualsIgnoreCase(name, key)) {
            if (value != nullptr) {
                *value = found;
            }
            return i;
        }
    }
    return end;
}

}  // namespace

std::string GetWindowsDirectory() {
    return EnsureDirectory(JoinPath(Current().Info().dataRoot, "windows").substr(0));
}

std::string GetSystemDirectory() {
    return EnsureDirectory(JoinPath(GetWindowsDirectory(), "system32"));
}

std::string GetCurrentDirectory() {
    std::error_code error;
    std::filesystem::path path = std::filesystem::current_path(error);
    return error ? std::string() : path.string();
}

BOOL SetCurrentDirectory(std::string_view path) {
    std::string directory = JoinPath("", path);
    if (::chdir(directory.c_str()) != 0) {
        SetLastError(errno == EACCES ? ERROR_ACCESS_DENIED : ERROR_PATH_NOT_FOUND);
        return 0;
    }
    return 1;
}

BOOL WritePrivateProfileString(const char* section, const char* key, const char* value,
                               std::string_view fileName) {
    if (section == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    std::string path = ProfilePath(fileName);
    std::vector<std::string> lines = ReadLines(path);
    std::size_t header = 0;
    std::size_t end = 0;
    FindSection(lines, section, &header, &end);
    bool changed = true;
    if (key == nullptr) {
        if (header == lines.size()) {
            changed = false;
        } else {
            lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(header),
                        lines.begin() + static_cast<std::ptrdiff_t>(end));
        }
    } else if (header == lines.size()) {
        if (value == nullptr) {
            changed = false;
        } else {
            lines.push_back("[" + std::string(section) + "]");
            lines.push_back(std::string(key) + "=" + value);
        }
    } else {
        std::size_t line = FindKey(lines, header, end, key, nullptr);
        if (value == nullptr) {
            if (line == end) {
                changed = false;
            } else {
                lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(line));
            }
        } else if (line == end) {
            // After the section's last non-blank line, so a blank separator stays in place.
            std::size_t at = end;
            while (at > header + 1 && Trim(lines[at - 1]).empty()) {
                --at;
            }
            lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(at),
                         std::string(key) + "=" + value);
        } else {
            lines[line] = std::string(key) + "=" + value;
        }
    }
    if (!changed) {
        return 1;
    }
    std::ostringstream text;
    for (const std::string& line : lines) {
        text << line << "\r\n";
    }
    bool written;
    if (InDataRoot(path)) {
        written = WriteDataFile(Current().Info().dataRoot, path, text.str());
    } else {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out << text.str();
        written = static_cast<bool>(out.flush());
    }
    if (!written) {
        SetLastError(ERROR_ACCESS_DENIED);
        return 0;
    }
    return 1;
}

std::string GetPrivateProfileString(std::string_view section, std::string_view key,
                                    std::string_view defaultValue, std::string_view fileName) {
    std::vector<std::string> lines = ReadLines(ProfilePath(fileName));
    std::size_t header = 0;
    std::size_t end = 0;
    FindSection(lines, section, &header, &end);
    std::string value;
    if (header == lines.size() || FindKey(lines, header, end, key, &value) == end) {
        return std::string(defaultValue);
    }
    return value;
}

}  // namespace qbrix::platform
