// The scanner self-test behind the settings dialog's "Test" button: it proves that the chosen
// engine is installed and detects the standard antivirus test signature as a plain file, inside
// an e-mail and inside an archive. Also the program's quarantine folder.
#pragma once

#include <cstdint>
#include <string>

namespace qbrix::antivirus {

// The key with which the test samples are stored in the program's resources.
inline constexpr std::uint8_t kSampleKey = 0x3C;
inline constexpr char kSampleResourceType[] = "BINDAT";

struct TestSample {
    int resourceId;
    const char* label;
};
// In the order of testing, which is not the order of the IDs.
inline constexpr TestSample kTestSamples[] = {
    {295, "Plain File"},
    {297, "E-mail"},
    {296, "Archive"},
};

// The program's directory followed by "quarantine", computed on first use and kept for the
// life of the process.
const std::string& QuarantineFolder();
void ResetQuarantineFolder();  // tests install a new program directory per case

// Writes the "BINDAT" resource `resourceId`, unscrambled with `key` (0: stored plain), to
// `filePath`, replacing the file. A missing resource or a file that cannot be opened leaves
// nothing behind and is not reported.
void WriteTestSample(int resourceId, const std::string& filePath, std::uint8_t key);

// Scans the three samples with the engine `engineName` through a scratch file in the
// quarantine folder and returns the report, one line per sample.
std::string TestAntivirusSamples(const char* engineName);

// The "Test" button: asks first (unless the user said not to ask again), runs the samples with
// the engine named on screen, shows the report in the "AV Test" box and releases the engine so
// the next test starts with a fresh one.
void RunAntivirusSelfTest(const char* engineName);

}  // namespace qbrix::antivirus
