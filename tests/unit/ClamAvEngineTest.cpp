// The ClamAV connector over a signature database the test writes itself: the hash of the test
// signature file, which ClamAV also finds inside the mail and the archive it unpacks.
#include <filesystem>
#include <fstream>

#include "AntivirusFixture.h"
#include "antivirus/ClamAvEngine.h"
#include "antivirus/EngineSelection.h"
#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"

namespace qbrix::antivirus::test {
namespace {

class ClamAvEngineTest : public AntivirusFixture {
  protected:
    std::string Database(bool withSignature) {
        std::string folder = m_files.File(withSignature ? "signatures" : "empty");
        std::filesystem::create_directories(folder);
        if (withSignature) {
            std::ofstream(folder + "/test.hdb")
                << "44d88612fea8a8f36de82e1278abb02f:68:Eicar-Test-Signature\n";
        }
        return folder;
    }
};

TEST_F(ClamAvEngineTest, TheSelfTestFindsAllThreeSamples) {
    core::RegistryKey("\\AV", core::kLspRootPath).SetString("Repository", Database(true));
    std::filesystem::create_directories(Quarantine());
    EXPECT_EQ("Plain File ... OK\r\nE-mail ... OK\r\nArchive ... OK\r\n",
              TestAntivirusSamples("ClamAV"));
}

TEST_F(ClamAvEngineTest, CleanFilesAndMissingDatabases) {
    std::string clean = m_files.File("clean.txt");
    std::ofstream(clean) << "nothing to see";
    ClamAvEngine loaded(Database(true));
    std::string message;
    std::int32_t infected = 1;
    EXPECT_EQ(0, loaded.ScanFile(clean.c_str(), message, infected));
    EXPECT_EQ(0, infected);
    EXPECT_EQ("", message);

    ClamAvEngine empty(Database(false));
    EXPECT_EQ(1, empty.ScanFile(clean.c_str(), message, infected));
    EXPECT_EQ(0, infected);
    EXPECT_EQ(kErrorLoadingClamAv, message);
    EXPECT_EQ(nullptr, CreateEngineByName("Disabled", ""));
    EXPECT_NE(nullptr, dynamic_cast<ClamAvEngine*>(CreateEngineByName("ClamAV", "").get()));
}

}  // namespace
}  // namespace qbrix::antivirus::test
