// The scanner self-test: the samples, the confirmation, the report for each engine and the
// scratch file, end to end with the stand-in engines and a scripted message facade.
#include <algorithm>

#include "AntivirusFixture.h"
#include "antivirus/ModuleResources.h"
#include "core/Messages.h"
#include "core/RegistryPaths.h"

namespace qbrix::antivirus::test {
namespace {

constexpr char kAllOk[] = "Plain File ... OK\r\nE-mail ... OK\r\nArchive ... OK\r\n";

class AntivirusSelfTestTest : public AntivirusFixture {
  protected:
    AntivirusSelfTestTest() { RegisterAllStandIns(); }

    std::string Scratch() const { return Quarantine() + "/tmp.forAVCheck"; }
    static std::string Unscrambled(const ModuleResource& resource) {
        std::string text(reinterpret_cast<const char*>(resource.data), resource.size);
        for (char& c : text) {
            c = static_cast<char>(c ^ kSampleKey);
        }
        return text;
    }

    qbrix::test::ScriptedMessages m_messages;
};

TEST_F(AntivirusSelfTestTest, SamplesAreStoredScrambledAndCarryTheSignature) {
    const ModuleResource* plain = FindModuleResource("BINDAT", 295);
    const ModuleResource* archive = FindModuleResource("bindat", 296);
    const ModuleResource* mail = FindModuleResource("BINDAT", 297);
    ASSERT_NE(nullptr, plain);
    ASSERT_NE(nullptr, archive);
    ASSERT_NE(nullptr, mail);
    EXPECT_EQ(nullptr, FindModuleResource("BINDAT", 298));
    EXPECT_EQ(nullptr, FindModuleResource("OTHER", 295));
    EXPECT_EQ(68u, plain->size);
    EXPECT_EQ(308u, archive->size);
    EXPECT_EQ(1292u, mail->size);

    std::string signature = Unscrambled(*plain);
    EXPECT_NE(std::string::npos, signature.find("EICAR"));
    for (const ModuleResource* resource : {plain, archive, mail}) {
        std::string stored(reinterpret_cast<const char*>(resource->data), resource->size);
        EXPECT_EQ(std::string::npos, stored.find("EICAR")) << resource->id;
    }
    std::string zip = Unscrambled(*archive);
    EXPECT_EQ(0u, zip.rfind("PK\x03\x04", 0));
    EXPECT_NE(std::string::npos, zip.find(signature));
    std::string message = Unscrambled(*mail);
    EXPECT_NE(std::string::npos, message.find("Content-Transfer-Encoding: base64"));
    EXPECT_EQ(std::string::npos, message.find(signature));
}

TEST_F(AntivirusSelfTestTest, WriteTestSampleUnscramblesReplacesAndSkipsWhatItCannotWrite) {
    std::string path = m_files.File("sample");
    WriteFile("sample", std::string(500, 'x'));
    WriteTestSample(295, path, kSampleKey);
    EXPECT_EQ(Unscrambled(*FindModuleResource("BINDAT", 295)), qbrix::test::ReadFile(path));
    WriteTestSample(295, path, 0);
    const ModuleResource* stored = FindModuleResource("BINDAT", 295);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(stored->data), stored->size),
              qbrix::test::ReadFile(path));

    WriteTestSample(999, m_files.File("none"), kSampleKey);
    EXPECT_FALSE(qbrix::test::FileExists(m_files.File("none")));
    WriteTestSample(295, m_files.File("no/such/folder/file"), kSampleKey);
    EXPECT_FALSE(qbrix::test::FileExists(m_files.File("no")));
}

TEST_F(AntivirusSelfTestTest, QuarantineFolderIsTheProgramDirectoryFollowedByQuarantine) {
    EXPECT_EQ(Quarantine(), QuarantineFolder());
    const std::string* first = &QuarantineFolder();
    EXPECT_EQ(first, &QuarantineFolder());
}

TEST_F(AntivirusSelfTestTest, EveryStandInEngineFindsAllThreeSamples) {
    for (const char* engine : {"NOD32", "Sophos", "Unasoft"}) {
        SCOPED_TRACE(engine);
        m_messages.shown.clear();
        RunAntivirusSelfTest(engine);
        ASSERT_EQ(2u, m_messages.shown.size());
        EXPECT_EQ("noask", m_messages.shown[0].kind);
        EXPECT_EQ("Antivirus test", m_messages.shown[0].caption);
        EXPECT_EQ(
            0u, m_messages.shown[0].text.rfind("\nSpecial files will be created for AV test.", 0));
        EXPECT_EQ("box", m_messages.shown[1].kind);
        EXPECT_EQ("AV Test", m_messages.shown[1].caption);
        EXPECT_EQ(core::MB_OK, m_messages.shown[1].style);
        EXPECT_EQ(kAllOk, m_messages.shown[1].text);
        EXPECT_FALSE(qbrix::test::FileExists(Scratch()));
        EXPECT_EQ(nullptr, CurrentEngine());
        EXPECT_EQ("", CurrentEngineName());
    }
    // The scans went through the scratch file in the quarantine folder, in table order.
    EXPECT_EQ(3u, LogLinesStartingWith("ScanA").size());
    EXPECT_EQ(3u, LogLinesStartingWith("SweepFile " + Scratch()).size());
}

TEST_F(AntivirusSelfTestTest, DisabledEngineFailsEverySample) {
    RunAntivirusSelfTest("Disabled");
    ASSERT_EQ(2u, m_messages.shown.size());
    EXPECT_EQ(
        "Plain File ... Fail  AV not installed  \r\n"
        "E-mail ... Fail  AV not installed  \r\n"
        "Archive ... Fail  AV not installed  \r\n",
        m_messages.shown[1].text);
}

TEST_F(AntivirusSelfTestTest, CancelRunsNothingAndATickedBoxSkipsTheQuestion) {
    m_messages.QueueNoAskAnswer(core::NoAskAnswer{false, false});
    RunAntivirusSelfTest("NOD32");
    ASSERT_EQ(1u, m_messages.shown.size());
    EXPECT_TRUE(LogLines().empty());
    EXPECT_EQ(nullptr, CurrentEngine());

    m_messages.QueueNoAskAnswer(core::NoAskAnswer{true, true});
    RunAntivirusSelfTest("NOD32");
    RunAntivirusSelfTest("NOD32");
    ASSERT_EQ(4u, m_messages.shown.size());
    EXPECT_EQ("noask", m_messages.shown[1].kind);
    EXPECT_EQ("box", m_messages.shown[2].kind);
    EXPECT_EQ("box", m_messages.shown[3].kind);
    EXPECT_EQ(kAllOk, m_messages.shown[3].text);
}

TEST_F(AntivirusSelfTestTest, MissingQuarantineFolderGivesTheEnginesAnswerForAMissingFile) {
    std::filesystem::remove_all(Quarantine());
    RunAntivirusSelfTest("NOD32");
    EXPECT_EQ(
        "Plain File ... Fail  AV error  \r\n"
        "E-mail ... Fail  AV error  \r\n"
        "Archive ... Fail  AV error  \r\n",
        m_messages.shown.back().text);
    RunAntivirusSelfTest("Unasoft");
    EXPECT_EQ(
        "Plain File ... Fail  Scanned  \r\n"
        "E-mail ... Fail  Scanned  \r\n"
        "Archive ... Fail  Scanned  \r\n",
        m_messages.shown.back().text);
}

TEST_F(AntivirusSelfTestTest, MissingEngineShowsItsLoadingError) {
    core::RegistryKey::DeleteKeyTree(platform::HKEY_LOCAL_MACHINE, "Software\\Eset");
    RunAntivirusSelfTest("NOD32");
    EXPECT_EQ(
        "Plain File ... Fail  Error Loading NOD32  \r\n"
        "E-mail ... Fail  Error Loading NOD32  \r\n"
        "Archive ... Fail  Error Loading NOD32  \r\n",
        m_messages.shown.back().text);
}

// A detection whose text names the signature in any case is OK; any other text is shown as the
// engine wrote it.
class ScriptedDetection : public ScanEngine {
  public:
    explicit ScriptedDetection(std::string text) : m_text(std::move(text)) {}
    std::int32_t ScanFile(const char*, std::string& message, std::int32_t& infected) override {
        message += m_text;
        infected = 1;
        return 1;
    }

  private:
    std::string m_text;
};

TEST_F(AntivirusSelfTestTest, DetectionTextDecidesBetweenOkAndTheEnginesWords) {
    std::string text;
    SetEngineFactory([&text](EngineKind) { return new ScriptedDetection(text); });
    text = "found eIcAr test file";
    RunAntivirusSelfTest("NOD32");
    EXPECT_EQ(kAllOk, m_messages.shown.back().text);
    text = "Trojan.Harmless";
    RunAntivirusSelfTest("NOD32");
    EXPECT_EQ(
        "Plain File ... Trojan.Harmless\r\n"
        "E-mail ... Trojan.Harmless\r\n"
        "Archive ... Trojan.Harmless\r\n",
        m_messages.shown.back().text);
}

}  // namespace
}  // namespace qbrix::antivirus::test
