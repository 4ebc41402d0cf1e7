#include "platform/Text.h"

#include <algorithm>

namespace qbrix::platform {

namespace {
char UpperAscii(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; }
}  // namespace

std::string ToUpperAscii(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), UpperAscii);
    return result;
}

bool EqualsIgnoreCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(),
                      [](char x, char y) { return UpperAscii(x) == UpperAscii(y); });
}

}  // namespace qbrix::platform
