// The settings of one log page: whether its file is written, its size limit and its path.
#pragma once

#include <string>
#include <string_view>

#include "platform/WinTypes.h"

namespace qbrix::events {

struct LogSettings {
    platform::DWORD useLog = 1;
    platform::DWORD fileSizeMb = 1;
    std::string fileName;
};

// Reads `UseLog`, `FileSize` and `FileName` of the page's key below the control-program settings
// (kFwLogSuffix or kLspLogSuffix), writing the defaults back where they are missing: on, 1 MB and
// `defaultFile` in the program's own directory.
LogSettings ReadLogSettings(std::string_view suffix, std::string_view defaultFile);

// The content page's settings ("content.log" by default).
LogSettings ReadContentLogSettings();

// The Internet log page's settings ("firewall.log" by default).
LogSettings ReadInternetLogSettings();

}  // namespace qbrix::events
