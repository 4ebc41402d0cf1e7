// File names as the system handles them: the path splitter of the C run-time library, and a
// lookup that finds a file whatever the case of its name. The system compares paths in capitals
// (a process path is upper-cased once found), so on a case-sensitive file system every access
// to such a path first looks for the file as named and then for a case-insensitive match.
#pragma once

#include <string>
#include <string_view>

namespace qbrix::platform {

// The four parts of a path as _splitpath gives them: "C:", the directory with its trailing
// separator, the base name, and the extension from the last point of the file name on. Both
// '\\' and '/' separate directories.
struct PathParts {
    std::string drive;
    std::string directory;
    std::string baseName;
    std::string extension;
};
PathParts SplitPath(std::string_view path);

// The existing file named by `path`, matching each component ignoring ASCII case where the
// exact name does not exist; empty when there is none. An exact match is always preferred.
std::string FindFileIgnoringCase(std::string_view path);

}  // namespace qbrix::platform
