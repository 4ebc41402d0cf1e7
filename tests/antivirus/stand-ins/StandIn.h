// What the stand-in engines share: the detector of the antivirus test signature (in a plain
// file, in a stored archive member and in base64 parts of a MIME message), behaviour markers
// that a test writes into a scanned file, and a call log for the tests to read.
//
// Markers (anywhere in the scanned file): "qbrix-stand-in:hang" sleeps past the scan time
// limit; "qbrix-stand-in:crash" aborts the process; "qbrix-stand-in:scan-error" fails the engine's scan call; "qbrix-stand-in:other-threat"
// reports a threat that is not the test signature; "qbrix-stand-in:long-name" writes a threat
// name that fills its field without a terminator; "qbrix-stand-in:clean-last" ends the Sophos
// result list with a clean item; "qbrix-stand-in:reload-once" / "qbrix-stand-in:reload-always"
// make the Sophos sweep fail with 0xA0040223 once (per file) or every time.
// Environment: QBRIX_STANDIN_LOG names the call log; QBRIX_STANDIN_FAIL_INIT makes the engine's
// initialisation fail.
#pragma once

#include <cstddef>
#include <string>

#define STANDIN_EXPORT extern "C" __attribute__((visibility("default")))

namespace standin {

inline constexpr char kThreatName[] = "Eicar-Test-Signature";
inline constexpr char kOtherThreatName[] = "Trojan.Harmless.StandIn";
inline constexpr unsigned kHangMs = 5600;

// The whole file, or false when it cannot be read.
bool ReadWholeFile(const char* path, std::string& content);
// How many times the test signature occurs, plain or base64-encoded.
int CountSignatures(const std::string& content);
bool HasMarker(const std::string& content, const char* marker);
// Sleeps past the scan time limit when the file asks for it.
void HangIfAsked(const std::string& content);
bool InitialisationShouldFail();
// Appends one formatted line to the call log, when there is one.
void Log(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace standin
