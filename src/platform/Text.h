// Small byte-text helpers of the platform layer.
#pragma once

#include <string>
#include <string_view>

namespace qbrix::platform {

// Upper-cases ASCII letters only; other bytes (UTF-8 sequences included) are kept. This is the
// folding the registry uses for its case-insensitive names and their order.
std::string ToUpperAscii(std::string_view text);
bool EqualsIgnoreCase(std::string_view a, std::string_view b);

}  // namespace qbrix::platform
