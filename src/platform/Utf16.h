// Conversion between the system's narrow texts (UTF-8) and the UTF-16 texts of the interfaces
// that demand them (the socket catalog). Invalid sequences on either side become U+FFFD, so a
// conversion never fails and never reads past the text it is given.
#pragma once

#include <string>
#include <string_view>

namespace qbrix::platform {

std::string Utf16ToUtf8(std::u16string_view text);
std::u16string Utf8ToUtf16(std::string_view text);

// The text of a fixed UTF-16 field: up to the first NUL within its width, or the whole width
// when it holds no terminator.
std::u16string_view BoundedUtf16(const char16_t* field, std::size_t width);

}  // namespace qbrix::platform
