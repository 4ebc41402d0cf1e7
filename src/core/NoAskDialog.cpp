#include "core/NoAskDialog.h"

#include <string>

#include "core/Messages.h"
#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "core/StringTable.h"

namespace qbrix::core {

int NoAskDialog(int titleId, int messageId, std::string_view suffix) {
    std::string valueName = std::string(kNoAskPrefix).append(suffix);
    {
        RegistryKey key;
        key.OpenBelow(platform::HKEY_CURRENT_USER, kGuiRootPath);
        if (key.GetDword(valueName, 0) != 0) {
            return IDOK;
        }
    }
    NoAskAnswer answer = CurrentMessages().AskNoAsk(LoadString(titleId), LoadString(messageId));
    if (!answer.ok) {
        return IDCANCEL;
    }
    if (answer.dontAskAgain) {
        RegistryKey key;
        key.OpenBelow(platform::HKEY_CURRENT_USER, kGuiRootPath);
        key.SetDword(valueName, 1);
    }
    return IDOK;
}

}  // namespace qbrix::core
