// The content processor's settings: per protocol the antivirus, rule and translation switches
// with the protocol's rule list, plus the antivirus paths and the translation connector values.
// One process-wide object, read once per run and guarded by its own lock.
#pragma once

#include <cstddef>
#include <mutex>
#include <string>

#include "content/ProtocolTable.h"
#include "content/RuleList.h"
#include "platform/WinTypes.h"

namespace qbrix::content {

struct ProtocolOptions {
    platform::DWORD enableAV = 1;     // scan this protocol's content for viruses
    platform::DWORD enableAVLOG = 1;  // log antivirus results
    platform::DWORD blockAV = 1;      // block content in which a virus was found
    platform::DWORD enableREG = 1;    // apply the content rules
    RuleList rules;
    platform::DWORD maxAvTimeout = 5000;  // ms
    platform::DWORD lecLog = 0;
    platform::DWORD maxSize = 100000;  // bytes
    platform::DWORD lecEnable = 0;
    platform::DWORD timeOut = 5000;  // ms, translation service
    // Translation output decoration, kept for the content processor; never written here.
    std::string leading = "-------";
    std::string trailing = "-------";
    platform::DWORD before = 0;
    // Translation request frame, built at load.
    std::string requestHead;
    std::string requestTail;
};

class LspSettings {
  public:
    LspSettings() = default;
    LspSettings(const LspSettings&) = delete;
    LspSettings& operator=(const LspSettings&) = delete;

    // Back to the state of a new object: defaults, empty rule lists, not loaded.
    void Reset();

    std::string quarantine;
    std::string avName;
    std::string repository;
    // One block per protocol row (the table's optionsIndex).
    ProtocolOptions protocols[kProtocolCount];
    std::string url;
    std::string ticket;
    std::string srcLang;
    std::string destLang;
    std::string optionsEMail;
    std::string optionsHtml;
    // Recursive like the platform's critical section.
    std::recursive_mutex lock;
    platform::DWORD loaded = 0;
    // Set when the object is made and after every load; read by the content processor's twin.
    platform::DWORD ready = 1;
    platform::DWORD readyAgain = 1;
};

// The process-wide settings; tests reset them with g_lspSettings.Reset().
extern LspSettings g_lspSettings;

ProtocolOptions& OptionsOf(LspSettings& settings, std::size_t row);

// Reads everything (writing missing values back with their defaults) and builds the request
// frames. With force 0 nothing happens once the object has been loaded.
void LoadLspSettings(LspSettings& settings, int force);
void LoadLspSettings(int force);
// Writes the per-protocol switches and the two languages.
void SaveProtocolOptions(LspSettings& settings);
void SaveProtocolOptions();
// The antivirus engine name, loading the settings first when needed.
std::string LoadAvEngineName(LspSettings& settings);

}  // namespace qbrix::content
