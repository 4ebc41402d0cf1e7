#include "content/LspSettings.h"

#include "content/TranslationFrame.h"
#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"

namespace qbrix::content {

namespace {
constexpr char kDefaultQuarantine[] = "c:\\Program files\\q-Brix\\quarantine";
}  // namespace

LspSettings g_lspSettings;

void LspSettings::Reset() {
    std::lock_guard<std::recursive_mutex> guard(lock);
    quarantine.clear();
    avName.clear();
    repository.clear();
    for (ProtocolOptions& options : protocols) {
        options.rules.Clear();
        options.enableAV = 1;
        options.enableAVLOG = 1;
        options.blockAV = 1;
        options.enableREG = 1;
        options.maxAvTimeout = 5000;
        options.lecLog = 0;
        options.maxSize = 100000;
        options.lecEnable = 0;
        options.timeOut = 5000;
        options.leading = "-------";
        options.trailing = "-------";
        options.before = 0;
        options.requestHead.clear();
        options.requestTail.clear();
    }
    url.clear();
    ticket.clear();
    srcLang.clear();
    destLang.clear();
    optionsEMail.clear();
    optionsHtml.clear();
    loaded = 0;
    ready = 1;
    readyAgain = 1;
}

ProtocolOptions& OptionsOf(LspSettings& settings, std::size_t row) {
    return settings.protocols[kProtocolTable[row].optionsIndex];
}

void LoadLspSettings(LspSettings& settings, int force) {
    if (settings.loaded != 0 && force == 0) {
        return;
    }
    settings.loaded = 1;
    std::lock_guard<std::recursive_mutex> guard(settings.lock);

    core::RegistryKey key(core::kAvSuffix, core::kLspRootPath);
    settings.quarantine = key.GetString(core::kQuarantineValue, kDefaultQuarantine);
    settings.avName = key.GetString(core::kAvNameValue, "");
    settings.repository = key.GetString("Repository", "");

    key.Reopen(core::kLecSuffix, core::kLspRootPath);
    settings.srcLang = key.GetString("SrcLang", "");
    settings.destLang = key.GetString("DestLang", "");

    key.Reopen("", core::kLecConnectorPath);
    settings.url = key.GetString("URL", "");
    settings.ticket = key.GetString("Ticket", "");
    settings.optionsEMail = key.GetString("Options_EMail", EMailOptionFragment().c_str());
    settings.optionsHtml = key.GetString("Options_HTML", HtmlOptionFragment().c_str());

    for (std::size_t row = 0; row < kProtocolCount; ++row) {
        ProtocolOptions& options = OptionsOf(settings, row);
        key.Reopen(kProtocolTable[row].protocolKey, core::kLspRootPath);
        options.enableAV = key.GetDword("EnableAV", 1);
        options.enableAVLOG = key.GetDword("EnableAVLOG", 1);
        options.blockAV = key.GetDword("BlockAV", 1);
        options.enableREG = key.GetDword("EnableREG", 1);
        options.maxSize = key.GetDword("MaxSize", 100000);
        options.maxAvTimeout = key.GetDword("MaxAvTimeout", 5000);
        options.lecLog = key.GetDword("LecLog", 0);
        options.lecEnable = key.GetDword("LecEnable", 0);
        options.timeOut = key.GetDword("TimeOut", 5000);
        // Read a second time, as the content processor does; the second reading wins.
        options.maxSize = key.GetDword("MaxSize", 100000);
        options.lecEnable = key.GetDword("LecEnable", 0);
        options.timeOut = key.GetDword("TimeOut", 5000);
        options.leading = key.GetString("Leading", "-------");
        options.trailing = key.GetString("Trailing", "-------");
        options.before = key.GetDword("Before", 0);
    }

    for (std::size_t row = 0; row < kProtocolCount; ++row) {
        ProtocolOptions& options = OptionsOf(settings, row);
        const std::string& fragment =
            row == kHttpRow ? settings.optionsHtml : settings.optionsEMail;
        options.requestHead =
            BuildRequestHead(settings.srcLang, settings.destLang, settings.ticket, fragment);
        options.requestTail = BuildRequestTail();
    }
    settings.ready = 1;
    settings.readyAgain = 1;
}

void LoadLspSettings(int force) {
    LoadLspSettings(g_lspSettings, force);
}

void SaveProtocolOptions(LspSettings& settings) {
    std::lock_guard<std::recursive_mutex> guard(settings.lock);
    core::RegistryKey key;
    for (std::size_t row = 0; row < kProtocolCount; ++row) {
        const ProtocolOptions& options = OptionsOf(settings, row);
        key.Reopen(kProtocolTable[row].protocolKey, core::kLspRootPath);
        key.SetDword("EnableAV", options.enableAV);
        key.SetDword("EnableAVLOG", options.enableAVLOG);
        key.SetDword("BlockAV", options.blockAV);
        key.SetDword("EnableREG", options.enableREG);
        key.SetDword("MaxSize", options.maxSize);
        key.SetDword("MaxAvTimeout", options.maxAvTimeout);
        key.SetDword("LecEnable", options.lecEnable);
        key.SetDword("LecLog", options.lecLog);
        key.SetDword("TimeOut", options.timeOut);
        // Written twice, matching the double reading of the load.
        key.SetDword("LecEnable", options.lecEnable);
        key.SetDword("TimeOut", options.timeOut);
    }
    key.Reopen(core::kLecSuffix, core::kLspRootPath);
    key.SetString("SrcLang", settings.srcLang);
    key.SetString("DestLang", settings.destLang);
}

void SaveProtocolOptions() {
    SaveProtocolOptions(g_lspSettings);
}

std::string LoadAvEngineName(LspSettings& settings) {
    LoadLspSettings(settings, 0);
    std::lock_guard<std::recursive_mutex> guard(settings.lock);
    return settings.avName;
}

}  // namespace qbrix::content
