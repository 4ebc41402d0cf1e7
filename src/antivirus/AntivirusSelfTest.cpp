#include "antivirus/AntivirusSelfTest.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <optional>
#include <vector>

#include "antivirus/EngineSelection.h"
#include "antivirus/ModuleResources.h"
#include "core/Messages.h"
#include "core/NoAskDialog.h"
#include "platform/Platform.h"

namespace qbrix::antivirus {

namespace {

constexpr int kTestTitleId = 80;
constexpr int kTestMessageId = 81;
constexpr char kNoAskSuffix[] = "VirusTest";
constexpr char kScratchName[] = "tmp.forAVCheck";
constexpr char kReportCaption[] = "AV Test";

std::optional<std::string> g_quarantineFolder;

}  // namespace

const std::string& QuarantineFolder() {
    if (!g_quarantineFolder) {
        g_quarantineFolder = platform::ProgramFile("quarantine");
    }
    return *g_quarantineFolder;
}

void ResetQuarantineFolder() {
    g_quarantineFolder.reset();
}

void WriteTestSample(int resourceId, const std::string& filePath, std::uint8_t key) {
    const ModuleResource* resource = FindModuleResource(kSampleResourceType, resourceId);
    if (resource == nullptr) {
        return;
    }
    std::vector<unsigned char> buffer(resource->data, resource->data + resource->size);
    if (key != 0) {
        for (unsigned char& byte : buffer) {
            byte ^= key;
        }
    }
    std::FILE* file = std::fopen(filePath.c_str(), "wb");
    if (file == nullptr) {
        return;
    }
    std::fwrite(buffer.data(), 1, buffer.size(), file);
    std::fclose(file);
}

std::string TestAntivirusSamples(const char* engineName) {
    std::string scratch = platform::JoinPath(QuarantineFolder(), kScratchName);
    std::string report;
    for (const TestSample& sample : kTestSamples) {
        WriteTestSample(sample.resourceId, scratch, kSampleKey);
        report += sample.label;
        report += " ... ";
        std::string result;
        if (ScanWithEngine(scratch.c_str(), result, engineName) == 1) {
            std::string upper = result;
            std::transform(upper.begin(), upper.end(), upper.begin(),
                           [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
            if (upper.find("EICAR") != std::string::npos) {
                report += "OK\r\n";
            } else {
                report += result + "\r\n";
            }
        } else {
            report += "Fail  " + result + "  \r\n";
        }
        std::remove(scratch.c_str());
    }
    return report;
}

void RunAntivirusSelfTest(const char* engineName) {
    if (core::NoAskDialog(kTestTitleId, kTestMessageId, kNoAskSuffix) == core::IDCANCEL) {
        return;
    }
    std::string report = TestAntivirusSamples(engineName);
    core::CurrentMessages().MessageBox(report, kReportCaption, core::MB_OK);
    ReleaseScanEngine();
}

}  // namespace qbrix::antivirus
