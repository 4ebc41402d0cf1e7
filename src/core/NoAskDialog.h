// The message box with "Don't ask me again". The answer is kept per user: the REG_DWORD
// "NoAsk" + suffix below HKEY_CURRENT_USER's GUI path; once it is 1 the dialog ends at once as
// if OK had been pressed, without being shown.
#pragma once

#include <string_view>

namespace qbrix::core {

// Returns IDOK or IDCANCEL. Title and message are string-table numbers.
int NoAskDialog(int titleId, int messageId, std::string_view suffix);

}  // namespace qbrix::core
