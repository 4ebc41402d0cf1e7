// Conversion between the system's narrow texts and the UTF-16 texts that component interfaces
// take. The narrow encoding (the "ANSI code page") is UTF-8 on this platform.
#pragma once

#include <string>
#include <string_view>

namespace qbrix::platform {

// Malformed UTF-8 sequences become U+FFFD, as the platform's converter does for invalid input.
std::u16string NarrowToWide(std::string_view text);
// Unpaired surrogates become U+FFFD.
std::string WideToNarrow(std::u16string_view text);

}  // namespace qbrix::platform
