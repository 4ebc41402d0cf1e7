// The stored form of one find/compare/replace unit: the eight values always kept together in a
// unit's registry key and in the exchange file.
#pragma once

#include <string>

#include "platform/WinTypes.h"

namespace qbrix::content {

struct RegRule {
    std::string find;     // expression locating the stretch to work on
    std::string compare;  // expression that must also match inside the found stretch
    std::string replace;  // replacement as typed, escapes not expanded
    std::string comment;  // shown in reports; a sub-rule's display name
    platform::DWORD findFlag = 0;
    platform::DWORD compareFlag = 0;
    platform::DWORD replaceFlag = 0;
    platform::DWORD enable = 1;
};

}  // namespace qbrix::content
