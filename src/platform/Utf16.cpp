#include "platform/Utf16.h"

namespace qbrix::platform {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

void AppendUtf8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out.push_back(static_cast<char>(c));
    } else if (c < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (c >> 6)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else if (c < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (c >> 12)));
        out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (c >> 18)));
        out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    }
}

void AppendUtf16(std::u16string& out, char32_t c) {
    if (c < 0x10000) {
        out.push_back(static_cast<char16_t>(c));
    } else {
        c -= 0x10000;
        out.push_back(static_cast<char16_t>(0xD800 | (c >> 10)));
        out.push_back(static_cast<char16_t>(0xDC00 | (c & 0x3FF)));
    }
}

bool IsHighSurrogate(char32_t c) {
    return c >= 0xD800 && c <= 0xDBFF;
}
bool IsLowSurrogate(char32_t c) {
    return c >= 0xDC00 && c <= 0xDFFF;
}

}  // namespace

std::string Utf16ToUtf8(std::u16string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        char32_t c = text[i];
        if (IsHighSurrogate(c) && i + 1 < text.size() && IsLowSurrogate(text[i + 1])) {
            c = 0x10000 + ((c - 0xD800) << 10) + (static_cast<char32_t>(text[i + 1]) - 0xDC00);
            ++i;
        } else if (IsHighSurrogate(c) || IsLowSurrogate(c)) {
            c = kReplacement;
        }
        AppendUtf8(out, c);
    }
    return out;
}

std::u16string Utf8ToUtf16(std::string_view text) {
    std::u16string out;
    out.reserve(text.size());
    std::size_t i = 0;
    while (i < text.size()) {
        auto lead = static_cast<unsigned char>(text[i]);
        int extra = 0;
        char32_t c = 0;
        char32_t minimum = 0;
        if (lead < 0x80) {
            c = lead;
        } else if ((lead & 0xE0) == 0xC0) {
            extra = 1;
            c = lead & 0x1F;
            minimum = 0x80;
        } else if ((lead & 0xF0) == 0xE0) {
            extra = 2;
            c = lead & 0x0F;
            minimum = 0x800;
        } else if ((lead & 0xF8) == 0xF0) {
            extra = 3;
            c = lead & 0x07;
            minimum = 0x10000;
        } else {
            AppendUtf16(out, kReplacement);
            ++i;
            continue;
        }
        int taken = 0;
        while (taken < extra && i + 1 + taken < text.size() &&
               (static_cast<unsigned char>(text[i + 1 + taken]) & 0xC0) == 0x80) {
            c = (c << 6) | (static_cast<unsigned char>(text[i + 1 + taken]) & 0x3F);
            ++taken;
        }
        i += 1 + static_cast<std::size_t>(taken);
        bool valid = taken == extra && c >= minimum && c <= 0x10FFFF && !IsHighSurrogate(c) &&
                     !IsLowSurrogate(c);
        AppendUtf16(out, valid ? c : kReplacement);
    }
    return out;
}

std::u16string_view BoundedUtf16(const char16_t* field, std::size_t width) {
    std::size_t length = 0;
    while (length < width && field[length] != u'\0') {
        ++length;
    }
    return std::u16string_view(field, length);
}

}  // namespace qbrix::platform
