// Engine selection: the name tests, reuse and release of the one live engine, the result texts
// and the diagnostic log lines.
#include <memory>

#include "AntivirusFixture.h"
#include "antivirus/UnaEngine.h"
#include "core/DiagLog.h"
#include "core/RegistryPaths.h"

namespace qbrix::antivirus::test {
namespace {

// Answers every scan with a scripted outcome and counts what happens to it.
class FakeEngine : public ScanEngine {
  public:
    struct Counters {
        int created = 0;
        int destroyed = 0;
        int scans = 0;
    };
    FakeEngine(EngineKind kind, Counters& counters) : m_kind(kind), m_counters(counters) {
        ++m_counters.created;
    }
    ~FakeEngine() override { ++m_counters.destroyed; }

    std::int32_t ScanFile(const char*, std::string& message, std::int32_t& infected) override {
        ++m_counters.scans;
        infected = 0;
        message += answer;
        if (detect) {
            infected = 1;
        }
        return (detect || !answer.empty()) ? 1 : 0;
    }

    EngineKind Kind() const { return m_kind; }
    std::string answer;
    bool detect = false;

  private:
    EngineKind m_kind;
    Counters& m_counters;
};

class EngineSelectionTest : public AntivirusFixture {
  protected:
    EngineSelectionTest() {
        SetEngineFactory([this](EngineKind kind) -> ScanEngine* {
            if (failAllocation) {
                return nullptr;
            }
            auto* engine = new FakeEngine(kind, counters);
            engine->answer = answer;
            engine->detect = detect;
            return engine;
        });
    }

    void SwitchDiagLogOn() {
        core::RegistryKey(core::kAvSuffix, core::kLspRootPath).SetDword(core::kDiagLogValue, 1);
        core::ResetDiagLogCache();
    }
    std::string DiagLogText() const {
        return qbrix::test::ReadFile(Quarantine() + "/gui.log." +
                                     std::to_string(platform::GetCurrentProcessId()) + ".BRIX");
    }
    FakeEngine* Current() { return static_cast<FakeEngine*>(CurrentEngine()); }

    FakeEngine::Counters counters;
    std::string answer;
    bool detect = false;
    bool failAllocation = false;
};

TEST_F(EngineSelectionTest, NamesSelectByTheirWordsAndTheLaterTestWins) {
    struct Case {
        const char* name;
        EngineKind kind;
    };
    for (const Case& c :
         {Case{"NOD32", EngineKind::Nod32}, Case{"Sophos", EngineKind::Sophos},
          Case{"Unasoft", EngineKind::Una}, Case{"Sophos+Una", EngineKind::Una},
          Case{"NOD32 Sophos", EngineKind::Nod32}, Case{"Una NOD32", EngineKind::Nod32}}) {
        std::string result;
        EXPECT_EQ(0, ScanWithEngine("file", result, c.name)) << c.name;
        ASSERT_NE(nullptr, Current()) << c.name;
        EXPECT_EQ(c.kind, Current()->Kind()) << c.name;
        EXPECT_EQ(c.name, CurrentEngineName());
    }
    // Every superseded engine was destroyed, including the ones replaced within one name.
    EXPECT_EQ(counters.created - 1, counters.destroyed);
}

TEST_F(EngineSelectionTest, DisabledEmptyAndCaseMismatchedNamesSelectNoEngine) {
    for (const char* name : {"Disabled", "", "nod32", "sophos", "UNA"}) {
        std::string result = "old";
        EXPECT_EQ(0, ScanWithEngine("file", result, name)) << name;
        EXPECT_EQ("AV not installed", result) << name;
        EXPECT_EQ(nullptr, CurrentEngine());
    }
    EXPECT_EQ(0, counters.created);
}

TEST_F(EngineSelectionTest, ResultTextsFollowTheConnectorsAnswer) {
    std::string result = "stale";
    EXPECT_EQ(0, ScanWithEngine("file", result, "NOD32"));
    EXPECT_EQ("Scanned", result);

    Current()->answer = "AV Thread fail";
    EXPECT_EQ(0, ScanWithEngine("file", result, "NOD32"));
    EXPECT_EQ("AV Thread fail", result);

    Current()->answer = "Eicar-Test-Signature";
    Current()->detect = true;
    EXPECT_EQ(1, ScanWithEngine("file", result, "NOD32"));
    EXPECT_EQ("Eicar-Test-Signature", result);
    EXPECT_EQ(1, counters.created);
}

TEST_F(EngineSelectionTest, SameNameReusesTheEngineAndReleaseStartsAfresh) {
    SwitchDiagLogOn();
    std::string result;
    ScanWithEngine("file", result, "Unasoft");
    ScanWithEngine("file", result, "Unasoft");
    EXPECT_EQ(1, counters.created);
    EXPECT_EQ(2, counters.scans);
    EXPECT_EQ("\n AV changed to 'Unasoft'\n Una created", DiagLogText());

    ReleaseScanEngine();
    EXPECT_EQ(nullptr, CurrentEngine());
    EXPECT_EQ("", CurrentEngineName());
    EXPECT_EQ(1, counters.destroyed);
    ScanWithEngine("file", result, "Unasoft");
    EXPECT_EQ(2, counters.created);
    EXPECT_EQ("\n AV changed to 'Unasoft'\n Una created\n AV changed to 'Unasoft'\n Una created",
              DiagLogText());
}

TEST_F(EngineSelectionTest, LogShowsEveryChangeAndEveryCreation) {
    SwitchDiagLogOn();
    std::string result;
    ScanWithEngine("file", result, "Disabled");
    ScanWithEngine("file", result, "Disabled");
    ScanWithEngine("file", result, "Sophos Una NOD32");
    EXPECT_EQ(
        "\n AV changed to 'Disabled'"
        "\n AV changed to 'Sophos Una NOD32'\n Sophos created\n Una created\n NOD32 created",
        DiagLogText());
}

TEST_F(EngineSelectionTest, FailedAllocationIsLoggedAndGivesAvNotInstalled) {
    SwitchDiagLogOn();
    failAllocation = true;
    std::string result;
    EXPECT_EQ(0, ScanWithEngine("file", result, "NOD32"));
    EXPECT_EQ("AV not installed", result);
    EXPECT_EQ(nullptr, CurrentEngine());
    // Same name, still no engine: creation is tried again.
    failAllocation = false;
    EXPECT_EQ(0, ScanWithEngine("file", result, "NOD32"));
    EXPECT_EQ("Scanned", result);
    EXPECT_EQ("\n AV changed to 'NOD32'\n NOD32 created\n NOD32 created", DiagLogText());
}

TEST_F(EngineSelectionTest, NullNameUsesTheStoredNameReadOncePerProcess) {
    core::RegistryKey key(core::kAvSuffix, core::kLspRootPath);
    key.SetString(core::kAvNameValue, "Sophos");
    std::string result;
    ScanWithEngine("file", result, nullptr);
    EXPECT_EQ("Sophos", CurrentEngineName());
    EXPECT_EQ(EngineKind::Sophos, Current()->Kind());
    key.SetString(core::kAvNameValue, "NOD32");
    ScanWithEngine("file", result, nullptr);
    EXPECT_EQ("Sophos", CurrentEngineName());
    EXPECT_EQ(1, counters.created);
}

TEST_F(EngineSelectionTest, MissingStoredNameIsWrittenBackEmpty) {
    std::string result;
    EXPECT_EQ(0, ScanWithEngine("file", result, nullptr));
    EXPECT_EQ("AV not installed", result);
    char value[8] = {'x'};
    core::RegistryKey key(core::kAvSuffix, core::kLspRootPath);
    platform::DWORD size = sizeof(value);
    EXPECT_EQ(0, key.QueryString(core::kAvNameValue, value, &size));
    EXPECT_STREQ("", value);
}

TEST_F(EngineSelectionTest, RealConnectorsAreMadeByDefault) {
    SetEngineFactory(nullptr);
    std::string result;
    ScanWithEngine("file", result, "Unasoft");
    EXPECT_NE(nullptr, dynamic_cast<UnaEngine*>(CurrentEngine()));
    EXPECT_EQ("Error Loading Unasoft", result);
}

}  // namespace
}  // namespace qbrix::antivirus::test
