// The Sophos connector against its stand-in component: creation through the class
// registration, configuration, sweeps, the result walk and the recovery after 0xA0040223.
#include "AntivirusFixture.h"
#include "antivirus/SophosEngine.h"
#include "platform/ComponentLoader.h"

namespace qbrix::antivirus::test {
namespace {

class SophosEngineTest : public AntivirusFixture {
  protected:
    void SetUp() override { RegisterSophos(StandInDirectory("sophos") + "/sophos-engine.so"); }

    std::int32_t Scan(SophosEngine& engine, const std::string& path, std::string& message,
                      std::int32_t& infected) {
        return engine.ScanFile(path.c_str(), message, infected);
    }
};

TEST_F(SophosEngineTest, UnregisteredEngineFailsEveryScan) {
    core::RegistryKey::DeleteKeyTree(platform::HKEY_CLASSES_ROOT, "CLSID");
    SophosEngine engine;
    std::string clean = WriteFile("clean.txt", "clean");
    for (int i = 0; i < 2; ++i) {
        std::string message;
        std::int32_t infected = 1;
        EXPECT_EQ(1, Scan(engine, clean, message, infected));
        EXPECT_EQ(0, infected);
        EXPECT_EQ("Error Loading SOPHOS", message);
    }
    EXPECT_EQ(nullptr, engine.Engine());
}

TEST_F(SophosEngineTest, FailedInitialisationReleasesTheInstance) {
    ::setenv("QBRIX_STANDIN_FAIL_INIT", "1", 1);
    SophosEngine engine;
    std::string message;
    std::int32_t infected = 0;
    EXPECT_EQ(1, Scan(engine, WriteFile("clean.txt", "clean"), message, infected));
    EXPECT_EQ("Error Loading SOPHOS", message);
    EXPECT_EQ(nullptr, engine.Engine());
    EXPECT_TRUE(LogLinesStartingWith("SweepFile").empty());
}

TEST_F(SophosEngineTest, LoadingInitialisesUnderTheClientNameAndConfiguresInOrder) {
    SophosEngine engine;
    std::string message;
    std::int32_t infected = 1;
    EXPECT_EQ(0, Scan(engine, WriteFile("clean.txt", "clean"), message, infected));
    EXPECT_EQ(0, infected);
    EXPECT_EQ("", message);
    std::vector<std::string> expected = {
        "CreateInstance 00000000",
        "InitialiseWithName SAVI for q-Brix",
        "Operation8",
        "SetConfigValue GrpArchiveUnpack 9 1",
        "SetConfigValue UueDecompression 3 1",
        "SetConfigValue GrpInternet 9 1",
        "SetConfigValue IdeDir 10 .",
        "Operation28",
        "SweepFile " + m_files.File("clean.txt"),
    };
    EXPECT_EQ(expected, LogLines());
}

TEST_F(SophosEngineTest, ThreatNamesFollowEachOtherAndTheFlagFollowsTheLastItem) {
    SophosEngine engine;
    std::string message;
    std::int32_t infected = 0;
    EXPECT_EQ(1, Scan(engine, WriteInfected("two.com", "", 2), message, infected));
    EXPECT_EQ(1, infected);
    EXPECT_EQ("Eicar-Test-SignatureEicar-Test-Signature", message);

    message.clear();
    EXPECT_EQ(0, Scan(engine, WriteInfected("mixed.com", "qbrix-stand-in:clean-last"), message,
                      infected));
    EXPECT_EQ(0, infected);
    EXPECT_EQ("Eicar-Test-Signature", message);

    message.clear();
    EXPECT_EQ(
        1, Scan(engine, WriteInfected("long.com", "qbrix-stand-in:long-name"), message, infected));
    EXPECT_EQ(std::string(kSophosThreatNameChars, 'L'), message);
}

TEST_F(SophosEngineTest, FailedSweepCountsAsCleanWithoutRetry) {
    SophosEngine engine;
    for (const std::string& path :
         {WriteFile("refused.txt", "qbrix-stand-in:scan-error"), m_files.File("missing.txt")}) {
        ClearLog();
        std::string message;
        std::int32_t infected = 1;
        EXPECT_EQ(0, Scan(engine, path, message, infected));
        EXPECT_EQ(0, infected);
        EXPECT_EQ("", message);
        EXPECT_EQ(1u, LogLinesStartingWith("SweepFile").size());
    }
}

TEST_F(SophosEngineTest, RestartStatusRecreatesTheEngineFromItsLibraryAndSweepsOnce) {
    SophosEngine engine;
    std::string message;
    std::int32_t infected = 0;
    std::string path = WriteInfected("reload.com", "qbrix-stand-in:reload-once");
    EXPECT_EQ(1, Scan(engine, path, message, infected));
    EXPECT_EQ("Eicar-Test-Signature", message);
    EXPECT_EQ(2u, LogLinesStartingWith("SweepFile").size());
    // Terminated, then re-created through the library's own factory and initialised by name,
    // without the configuration of a first load.
    std::vector<std::string> lines = LogLines();
    auto terminate = std::find(lines.begin(), lines.end(), "Terminate");
    ASSERT_NE(lines.end(), terminate);
    EXPECT_EQ((std::vector<std::string>{"Terminate", "CreateInstance 00000000",
                                        "InitialiseWithName SAVI for q-Brix", "SweepFile " + path}),
              std::vector<std::string>(terminate, lines.end()));
    EXPECT_NE(nullptr, engine.Engine());

    ClearLog();
    message.clear();
    EXPECT_EQ(0, Scan(engine, WriteInfected("always.com", "qbrix-stand-in:reload-always"), message,
                      infected));
    EXPECT_EQ("", message);
    EXPECT_EQ(2u, LogLinesStartingWith("SweepFile").size());
}

TEST_F(SophosEngineTest, RecoveryThatCannotFindTheLibraryLeavesTheEngineUnloaded) {
    SophosEngine engine;
    std::string message;
    std::int32_t infected = 0;
    EXPECT_EQ(0, Scan(engine, WriteFile("clean.txt", "clean"), message, infected));
    core::RegistryKey::DeleteKeyTree(platform::HKEY_CLASSES_ROOT, "CLSID");

    EXPECT_EQ(0, Scan(engine, WriteInfected("always.com", "qbrix-stand-in:reload-always"), message,
                      infected));
    EXPECT_EQ("", message);
    EXPECT_EQ(nullptr, engine.Engine());
    EXPECT_EQ(1, Scan(engine, WriteFile("clean.txt", "clean"), message, infected));
    EXPECT_EQ("Error Loading SOPHOS", message);
}

TEST_F(SophosEngineTest, ReloadWithoutClientNameUsesThePlainInitialisation) {
    void* engine = nullptr;
    EXPECT_EQ(platform::S_OK, ReloadSophosEngine(&engine, kSophosMainInterface, nullptr));
    ASSERT_NE(nullptr, engine);
    EXPECT_EQ(std::vector<std::string>{"Initialise"}, LogLinesStartingWith("Initialise"));
    platform::Release(engine);

    EXPECT_EQ(platform::E_NOINTERFACE,
              ReloadSophosEngine(&engine, kSophosResultEnumerator, kSophosClientName));
}

}  // namespace
}  // namespace qbrix::antivirus::test
