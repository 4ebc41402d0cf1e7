// Shared set-up of the antivirus tests: a fresh platform with the quarantine folder, the
// stand-in engines registered the way the vendors' installers would register them, a call log
// that the stand-ins write, and files that carry the test signature (written from the
// program's own scrambled sample, so no test source holds the signature in plain form).
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "antivirus/AntivirusSelfTest.h"
#include "antivirus/EngineSelection.h"
#include "antivirus/Nod32Engine.h"
#include "antivirus/SophosEngine.h"
#include "content/LspSettings.h"
#include "core/RegistryKey.h"
#include "platform/Platform.h"
#include "platform/Utf16.h"
#include "support/TempPlatform.h"

namespace qbrix::antivirus::test {

inline std::string StandInDirectory(const std::string& name) {
    return std::string(QBRIX_STANDIN_DIR) + "/" + name;
}

class AntivirusFixture : public ::testing::Test {
  protected:
    AntivirusFixture() {
        content::g_lspSettings.Reset();
        ResetEngineSelection();
        ResetNod32Library();
        ResetQuarantineFolder();
        std::filesystem::create_directories(Quarantine());
        m_log = m_files.File("calls.log");
        ::setenv("QBRIX_STANDIN_LOG", m_log.c_str(), 1);
        ::unsetenv("QBRIX_STANDIN_FAIL_INIT");
    }
    ~AntivirusFixture() override {
        ResetEngineSelection();
        content::g_lspSettings.Reset();
        ResetNod32Library();
        ResetQuarantineFolder();
        ::unsetenv("QBRIX_STANDIN_LOG");
        ::unsetenv("QBRIX_STANDIN_FAIL_INIT");
    }

    std::string Quarantine() const { return m_platform.ProgramDirectory() + "quarantine"; }

    // HKEY_LOCAL_MACHINE "Software\Eset\Nod\CurrentVersion\Info" "InstallDir".
    void RegisterNod32(const std::string& installDir) {
        core::RegistryKey("", "Software\\Eset\\Nod\\CurrentVersion\\Info")
            .SetString("InstallDir", installDir);
    }
    // HKEY_LOCAL_MACHINE "SOFTWARE\Ukranian Antivirus center\UNA" "Path".
    void RegisterUna(const std::string& path) {
        core::RegistryKey("", "SOFTWARE\\Ukranian Antivirus center\\UNA").SetString("Path", path);
    }
    // HKEY_CLASSES_ROOT "CLSID\{engine class}\InprocServer32", default value.
    void RegisterSophos(const std::string& library) {
        core::RegistryKey key;
        std::string name = "CLSID\\" +
                           platform::Utf16ToUtf8(platform::StringFromGUID(kSophosEngineClass)) +
                           "\\InprocServer32";
        ASSERT_EQ(0, key.OpenBelow(platform::HKEY_CLASSES_ROOT, name));
        key.SetString("", library);
    }
    void RegisterAllStandIns() {
        RegisterNod32(StandInDirectory("nod32") + "/");
        RegisterUna(StandInDirectory("una"));
        RegisterSophos(StandInDirectory("sophos") + "/sophos-engine.so");
    }

    // A file in the test's own directory with the given text.
    std::string WriteFile(const std::string& name, const std::string& text) {
        std::string path = m_files.File(name);
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }
    // The plain sample (the signature itself), with `extra` appended.
    std::string WriteInfected(const std::string& name, const std::string& extra = "",
                              int copies = 1) {
        std::string path = m_files.File(name);
        WriteTestSample(295, path, kSampleKey);
        std::string signature = qbrix::test::ReadFile(path);
        std::string text;
        for (int i = 0; i < copies; ++i) {
            text += signature + "\n";
        }
        std::ofstream(path, std::ios::binary) << text << extra;
        return path;
    }

    std::vector<std::string> LogLines() const {
        std::vector<std::string> lines;
        std::istringstream in(qbrix::test::ReadFile(m_log));
        for (std::string line; std::getline(in, line);) {
            lines.push_back(line);
        }
        return lines;
    }
    std::vector<std::string> LogLinesStartingWith(const std::string& prefix) const {
        std::vector<std::string> lines;
        for (const std::string& line : LogLines()) {
            if (line.rfind(prefix, 0) == 0) {
                lines.push_back(line);
            }
        }
        return lines;
    }
    void ClearLog() { std::filesystem::remove(m_log); }

    qbrix::test::TempPlatform m_platform;
    qbrix::test::TempDirectory m_files;
    std::string m_log;
};

}  // namespace qbrix::antivirus::test
