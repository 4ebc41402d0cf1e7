#include "platform/CodePage.h"

#include <array>

#include "platform/Utf16.h"

namespace qbrix::platform {

namespace {

// Bytes 0x80 to 0x9F; the unassigned ones map to the control character of their own number.
constexpr std::array<char16_t, 32> kHighControls = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0x008D, 0x017D, 0x008F, 0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

}  // namespace

char32_t AnsiCharToUnicode(unsigned char byte) {
    return byte >= 0x80 && byte < 0xA0 ? kHighControls[byte - 0x80] : byte;
}

char UnicodeToAnsiChar(char32_t character) {
    if (character < 0x80 || (character >= 0xA0 && character <= 0xFF)) {
        return static_cast<char>(character);
    }
    for (std::size_t i = 0; i < kHighControls.size(); ++i) {
        if (kHighControls[i] == character) {
            return static_cast<char>(0x80 + i);
        }
    }
    return '?';
}

std::u16string AnsiToUtf16(std::string_view text) {
    std::u16string out;
    out.reserve(text.size());
    for (char c : text) {
        out.push_back(static_cast<char16_t>(AnsiCharToUnicode(static_cast<unsigned char>(c))));
    }
    return out;
}

std::string Utf16ToAnsi(std::u16string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        char16_t unit = text[i];
        if (unit >= 0xD800 && unit <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
            text[i + 1] <= 0xDFFF) {
            ++i;
        }
        out.push_back(UnicodeToAnsiChar(unit));
    }
    return out;
}

std::string AnsiToUtf8(std::string_view text) {
    return Utf16ToUtf8(AnsiToUtf16(text));
}

std::string Utf8ToAnsi(std::string_view text) {
    return Utf16ToAnsi(Utf8ToUtf16(text));
}

}  // namespace qbrix::platform
