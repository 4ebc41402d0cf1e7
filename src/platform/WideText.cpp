#include "platform/WideText.h"

#include <cstdint>

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

}  // namespace

std::u16string NarrowToWide(std::string_view text) {
    std::u16string out;
    out.reserve(text.size());
    std::size_t i = 0;
    while (i < text.size()) {
        auto lead = static_cast<std::uint8_t>(text[i]);
        std::size_t length = lead < 0x80           ? 1
                             : (lead >> 5) == 0x6  ? 2
                             : (lead >> 4) == 0xE  ? 3
                             : (lead >> 3) == 0x1E ? 4
                                                   : 0;
        if (length == 0) {
            out.push_back(static_cast<char16_t>(kReplacement));
            ++i;
            continue;
        }
        char32_t c = length == 1 ? lead : lead & (0x7F >> length);
        bool valid = true;
        std::size_t k = 1;
        for (; k < length; ++k) {
            auto next = i + k < text.size() ? static_cast<std::uint8_t>(text[i + k]) : 0;
            if ((next & 0xC0) != 0x80) {
                valid = false;
                break;
            }
            c = (c << 6) | (next & 0x3F);
        }
        // A cut-off sequence is one bad character, not one per byte.
        if (!valid) {
            out.push_back(static_cast<char16_t>(kReplacement));
            i += k;
            continue;
        }
        // Overlong forms, surrogates and values past U+10FFFF are not characters.
        static constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
        if (c < kSmallest[length] || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) {
            out.push_back(static_cast<char16_t>(kReplacement));
            ++i;
            continue;
        }
        AppendUtf16(out, c);
        i += length;
    }
    return out;
}

std::string WideToNarrow(std::u16string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        char32_t c = text[i];
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
            text[i + 1] <= 0xDFFF) {
            c = 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00);
            ++i;
        } else if (c >= 0xD800 && c <= 0xDFFF) {
            c = kReplacement;
        }
        AppendUtf8(out, c);
    }
    return out;
}

}  // namespace qbrix::platform
