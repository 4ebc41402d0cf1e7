#include "ui/AnsiText.h"

#include "platform/CodePage.h"

namespace qbrix::ui {

QString FromAnsi(std::string_view text) {
    std::u16string wide = platform::AnsiToUtf16(text);
    return QString::fromUtf16(wide.data(), static_cast<qsizetype>(wide.size()));
}

std::string ToAnsi(const QString& text) {
    return platform::Utf16ToAnsi(std::u16string_view(
        reinterpret_cast<const char16_t*>(text.utf16()), static_cast<std::size_t>(text.size())));
}

}  // namespace qbrix::ui
