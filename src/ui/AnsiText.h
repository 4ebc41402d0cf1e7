// The program's code-page texts (platform/CodePage.h) in and out of Qt's strings. Every text
// shown or edited in the user interface goes through these, so it comes back byte for byte.
// File-system paths do not: they go through QFile::decodeName and QFile::encodeName.
#pragma once

#include <QString>
#include <string>
#include <string_view>

namespace qbrix::ui {

QString FromAnsi(std::string_view text);
std::string ToAnsi(const QString& text);

}  // namespace qbrix::ui
