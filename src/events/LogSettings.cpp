#include "events/LogSettings.h"

#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "platform/Platform.h"

namespace qbrix::events {

LogSettings ReadLogSettings(std::string_view suffix, std::string_view defaultFile) {
    core::RegistryKey key(suffix, core::kGuiRootPath);
    LogSettings settings;
    settings.useLog = key.GetDword(core::kUseLogValue, 1);
    settings.fileSizeMb = key.GetDword(core::kFileSizeValue, 1);
    std::string defaultPath = platform::ProgramFile(defaultFile);
    settings.fileName = key.GetString(core::kFileNameValue, defaultPath.c_str());
    return settings;
}

LogSettings ReadContentLogSettings() {
    return ReadLogSettings(core::kLspLogSuffix, "content.log");
}

LogSettings ReadInternetLogSettings() {
    return ReadLogSettings(core::kFwLogSuffix, "firewall.log");
}

}  // namespace qbrix::events
