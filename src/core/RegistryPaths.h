// The key tree of the system and the value names that belong to the application core. Every key
// lies below HKEY_LOCAL_MACHINE except the per-user answers of the don't-ask-again messages,
// which lie below HKEY_CURRENT_USER. A sub-key is addressed as a root path followed by a suffix
// that begins with a backslash.
#pragma once

namespace qbrix::core {

// Control-program settings; "DefZone" and "OvrZone" live here too.
inline constexpr char kGuiRootPath[] = "SOFTWARE\\korvel-soft\\q-Brix\\GUI\\3.1";
inline constexpr char kFwLogSuffix[] = "\\FWLog";
inline constexpr char kLspLogSuffix[] = "\\LSPLog";
inline constexpr char kZoneListSuffix[] = "\\ZoneList";
inline constexpr char kStatSuffix[] = "\\Stat";

// Content-processor tree, read by the socket provider too.
inline constexpr char kLspRootPath[] = "SOFTWARE\\korvel-soft\\q-Brix\\LSP\\1.0";
inline constexpr char kAvSuffix[] = "\\AV";
inline constexpr char kGuidsSuffix[] = "\\GUIDS";
inline constexpr char kLecSuffix[] = "\\LEC";
inline constexpr char kProtocolsSuffix[] = "\\Protocols";

// Translation service settings.
inline constexpr char kLecConnectorPath[] = "SOFTWARE\\korvel-soft\\q-Brix\\Lec connector";

// Values of the log-file keys (FWLog, LSPLog).
inline constexpr char kUseLogValue[] = "UseLog";
inline constexpr char kFileSizeValue[] = "FileSize";
inline constexpr char kFileNameValue[] = "FileName";

// Values of the AV key.
inline constexpr char kDiagLogValue[] = "Log";
inline constexpr char kQuarantineValue[] = "Quarantine";
inline constexpr char kAvNameValue[] = "AVName";

// Prefix of the per-user don't-ask-again values below HKEY_CURRENT_USER's GUI path.
inline constexpr char kNoAskPrefix[] = "NoAsk";

}  // namespace qbrix::core
