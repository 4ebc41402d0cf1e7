// The program's code page. Its texts (zone, rule and program names, rule texts, log lines, the
// string table) are bytes of one single-byte character set, windows-1252, whatever the locale:
// stored, compared and written byte for byte. The five bytes windows-1252 leaves unassigned
// (0x81, 0x8D, 0x8F, 0x90, 0x9D) stand for the control characters of the same number, so every
// byte has a character and every text survives a conversion there and back. A character outside
// the code page becomes '?'. File-system paths are not code-page texts: they keep their bytes.
#pragma once

#include <string>
#include <string_view>

namespace qbrix::platform {

char32_t AnsiCharToUnicode(unsigned char byte);
// '?' for a character the code page lacks.
char UnicodeToAnsiChar(char32_t character);

std::u16string AnsiToUtf16(std::string_view text);
// A surrogate pair is one character, so it becomes one '?'; a lone surrogate too.
std::string Utf16ToAnsi(std::u16string_view text);

std::string AnsiToUtf8(std::string_view text);
// Invalid UTF-8 sequences become '?'.
std::string Utf8ToAnsi(std::string_view text);

}  // namespace qbrix::platform
