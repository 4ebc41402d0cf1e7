#include <dirent.h>
#include <sys/stat.h>

#include "platform/PathNames.h"
#include "platform/Text.h"

namespace qbrix::platform {

PathParts SplitPath(std::string_view path) {
    PathParts parts;
    if (path.size() >= 2 && path[1] == ':') {
        parts.drive = std::string(path.substr(0, 2));
        path.remove_prefix(2);
    }
    std::size_t slash = path.find_last_of("\\/");
    if (slash != std::string_view::npos) {
        parts.directory = std::string(path.substr(0, slash + 1));
        path.remove_prefix(slash + 1);
    }
    std::size_t point = path.find_last_of('.');
    if (point != std::string_view::npos) {
        parts.extension = std::string(path.substr(point));
        path = path.substr(0, point);
    }
    parts.baseName = std::string(path);
    return parts;
}

namespace {

bool Exists(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0;
}

// The entry of `directory` whose name equals `name` ignoring case, or empty.
std::string MatchInDirectory(const std::string& directory, std::string_view name) {
    DIR* dir = ::opendir(directory.empty() ? "." : directory.c_str());
    if (dir == nullptr) {
        return std::string();
    }
    std::string found;
    while (const dirent* item = ::readdir(dir)) {
        if (EqualsIgnoreCase(item->d_name, name)) {
            found = item->d_name;
            break;
        }
    }
    ::closedir(dir);
    return found;
}

}  // namespace

std::string FindFileIgnoringCase(std::string_view path) {
    std::string exact(path);
    if (path.empty() || Exists(exact)) {
        return path.empty() ? std::string() : exact;
    }
    std::string resolved = path.front() == '/' ? "/" : "";
    std::size_t at = path.front() == '/' ? 1 : 0;
    while (at <= path.size()) {
        std::size_t end = path.find('/', at);
        if (end == std::string_view::npos) {
            end = path.size();
        }
        std::string_view component = path.substr(at, end - at);
        at = end + 1;
        if (component.empty()) {
            continue;
        }
        std::string candidate = resolved + std::string(component);
        if (!Exists(candidate)) {
            std::string match = MatchInDirectory(resolved, component);
            if (match.empty()) {
                return std::string();
            }
            candidate = resolved + match;
        }
        resolved = candidate;
        if (end < path.size()) {
            resolved += '/';
        }
    }
    return resolved;
}

}  // namespace qbrix::platform
