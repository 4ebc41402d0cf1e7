// Process identification: the driver names an application only by its image name (at most 15
// characters, perhaps cut and without its extension); this finds a running process whose
// executable matches it and gives its full path and file description. The NT family lists
// processes with the process-status library, the 9x family with the tool-help snapshots; both
// are looked up at run time.
#pragma once

#include <string>
#include <string_view>

#include "platform/WinTypes.h"

namespace qbrix::policy {

// 0 when found. Path and description are always set: "?" and the image name when not found.
int GetProcessName(std::string_view imageName, std::string& path, std::string& description);

// Base names compared over the length of the whole wanted text: extensions never count, a
// wanted name without extension matches a longer base name that begins with it. Both texts are
// upper-cased by the callers.
bool MatchImageName(std::string_view candidatePath, std::string_view wantedName);

// The first process whose executable matches; the path upper-cased on the NT family.
int FindProcessPathNt(std::string_view imageName, std::string& path);
int FindProcessPath9x(std::string_view imageName, std::string& path);
int FindModulePath9x(platform::DWORD processId, platform::DWORD moduleId, std::string& path);

// Processes examined by the NT search: the first 200 identifiers.
inline constexpr int kMaxProcesses = 200;

}  // namespace qbrix::policy
