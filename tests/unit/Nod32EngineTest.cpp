// The NOD32 connector against its stand-in library: loading through the registry entry, the
// counted load, the session and its option block, scans, failures and the time limit.
#include <chrono>
#include <cstdio>
#include <memory>

#include "AntivirusFixture.h"
#include "antivirus/Nod32Engine.h"

namespace qbrix::antivirus::test {
namespace {

class Nod32EngineTest : public AntivirusFixture {
  protected:
    void SetUp() override { RegisterNod32(StandInDirectory("nod32") + "/"); }

    std::int32_t Scan(Nod32Engine& engine, const std::string& path, std::string& message,
                      std::int32_t& infected) {
        return engine.ScanFile(path.c_str(), message, infected);
    }

    // The calls the option block must make, as the stand-in logs them.
    static std::vector<std::string> ExpectedOptionCalls(std::uint32_t session) {
        std::vector<std::string> calls;
        auto call = [&](unsigned scope, std::uint32_t id, unsigned size, const std::string& value) {
            char line[128];
            std::snprintf(line, sizeof(line), "SetOption %08X %u %08X %u %s", session, scope, id,
                          size, value.c_str());
            calls.push_back(line);
        };
        auto scalar = [&](std::uint32_t id) { call(0, id, 4, "1"); };
        auto allScopes = [&](std::uint32_t id, const char* a, const char* b) {
            call(2, id, 4, b);
            call(1, id, 4, a);
            call(0, id, 4, a);
        };
        call(0, 0, 0, "-");
        scalar(0x4002);
        scalar(0x4000);
        scalar(0x4001);
        allScopes(0xFFF10000, "1", "1");
        allScopes(0xFFF20000, "1", "1");
        allScopes(0xFFF30000, "1", "1");
        call(2, 7, 4, "1");
        call(1, 7, 8, "7C002A007C000000");  // UTF-16 "|*|" and its terminator
        call(0, 7, 8, "7C002A007C000000");
        allScopes(1, "1", "1");
        allScopes(2, "1", "1");
        allScopes(3, "1", "1");
        allScopes(6, "1", "1");
        allScopes(4, "0", "1");
        call(0, 0, 0, "-");
        return calls;
    }
};

TEST_F(Nod32EngineTest, ThreeScansOpenOneSessionAndSetTheOptionBlockOnceInOrder) {
    std::string clean = WriteFile("clean.txt", "nothing to see");
    Nod32Engine engine;
    for (int i = 0; i < 3; ++i) {
        std::string message;
        std::int32_t infected = 7;
        EXPECT_EQ(0, Scan(engine, clean, message, infected));
        EXPECT_EQ(0, infected);
        EXPECT_EQ("", message);
    }
    ASSERT_NE(0u, engine.Session());
    EXPECT_EQ(1, Nod32LoadCount());
    EXPECT_EQ(std::vector<std::string>{"InitEx 24 70331001"}, LogLinesStartingWith("InitEx"));
    EXPECT_EQ(ExpectedOptionCalls(engine.Session()), LogLinesStartingWith("SetOption"));
    EXPECT_EQ(3u, LogLinesStartingWith("ScanA").size());
}

TEST_F(Nod32EngineTest, DetectionAppendsTheEngineTextAndDestructionClosesTheSession) {
    std::string infectedFile = WriteInfected("sample.com");
    {
        Nod32Engine engine;
        std::string message = "before:";
        std::int32_t infected = 0;
        EXPECT_EQ(1, Scan(engine, infectedFile, message, infected));
        EXPECT_EQ(1, infected);
        EXPECT_EQ("before:Eicar-Test-Signature", message);
        ClearLog();
    }
    std::vector<std::string> lines = LogLines();
    ASSERT_EQ(2u, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find(" 0 00004003 4 1"));
    EXPECT_EQ(0u, lines[1].rfind("Deinit ", 0));
    EXPECT_EQ(0, Nod32LoadCount());
}

TEST_F(Nod32EngineTest, EveryLoadingFailureIsReportedAndLeavesTheCountAtZero) {
    struct Case {
        const char* what;
        std::string installDir;
        platform::DWORD lastError;
    };
    std::string notALibrary = m_files.File("broken/");
    std::filesystem::create_directories(notALibrary);
    WriteFile("broken/nod32api.dll", "this is not a shared library");
    std::vector<Case> cases = {
        {"no trailing separator", StandInDirectory("nod32"), 1157},
        {"one entry point missing", StandInDirectory("nod32-incomplete") + "/", 1154},
        {"not a library", notALibrary, 1157},
    };
    std::string clean = WriteFile("clean.txt", "clean");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        RegisterNod32(c.installDir);
        Nod32Engine engine;
        std::string message;
        std::int32_t infected = 1;
        EXPECT_EQ(1, Scan(engine, clean, message, infected));
        EXPECT_EQ(c.lastError, platform::GetLastError());
        EXPECT_EQ(0, infected);
        EXPECT_EQ("Error Loading NOD32", message);
        EXPECT_EQ(0, Nod32LoadCount());
        EXPECT_EQ(0u, engine.Session());
    }
}

TEST_F(Nod32EngineTest, MissingRegistryEntryAndFailedInitialisationAreRetriedAtTheNextScan) {
    core::RegistryKey::DeleteKeyTree(platform::HKEY_LOCAL_MACHINE, "Software\\Eset");
    std::string clean = WriteFile("clean.txt", "clean");
    Nod32Engine engine;
    std::string message;
    std::int32_t infected = 0;
    EXPECT_EQ(1, Scan(engine, clean, message, infected));
    EXPECT_EQ("Error Loading NOD32", message);

    RegisterNod32(StandInDirectory("nod32") + "/");
    ::setenv("QBRIX_STANDIN_FAIL_INIT", "1", 1);
    message.clear();
    EXPECT_EQ(1, Scan(engine, clean, message, infected));
    EXPECT_EQ(1114u, platform::GetLastError());
    EXPECT_EQ("Error Loading NOD32", message);
    EXPECT_EQ(0, Nod32LoadCount());

    ::unsetenv("QBRIX_STANDIN_FAIL_INIT");
    message.clear();
    EXPECT_EQ(0, Scan(engine, clean, message, infected));
    EXPECT_EQ(1, Nod32LoadCount());
}

TEST_F(Nod32EngineTest, ScanCallFailuresGiveAvError) {
    Nod32Engine engine;
    for (const std::string& path :
         {WriteFile("refused.txt", "qbrix-stand-in:scan-error"), m_files.File("missing.txt")}) {
        std::string message;
        std::int32_t infected = 1;
        EXPECT_EQ(1, Scan(engine, path, message, infected)) << path;
        EXPECT_EQ(0, infected);
        EXPECT_EQ("AV error", message);
    }
}

TEST_F(Nod32EngineTest, UnterminatedDetectionTextIsReadWithinItsBuffer) {
    std::string path = WriteInfected("long.com", "qbrix-stand-in:long-name");
    Nod32Engine engine;
    std::string message;
    std::int32_t infected = 0;
    EXPECT_EQ(1, Scan(engine, path, message, infected));
    EXPECT_EQ(std::string(kNod32TextSize, 'N'), message);
}

TEST_F(Nod32EngineTest, SessionsShareOneCountedLibrary) {
    std::string clean = WriteFile("clean.txt", "clean");
    auto first = std::make_unique<Nod32Engine>();
    auto second = std::make_unique<Nod32Engine>();
    std::string message;
    std::int32_t infected = 0;
    EXPECT_EQ(0, Scan(*first, clean, message, infected));
    EXPECT_EQ(0, Scan(*second, clean, message, infected));
    EXPECT_EQ(2, Nod32LoadCount());
    EXPECT_NE(first->Session(), second->Session());
    first.reset();
    EXPECT_EQ(1, Nod32LoadCount());
    EXPECT_EQ(0, Scan(*second, clean, message, infected));
    second.reset();
    EXPECT_EQ(0, Nod32LoadCount());
    EXPECT_EQ(2u, LogLinesStartingWith("Deinit").size());
}

// Takes about five seconds: the stand-in sleeps past the limit.
TEST_F(Nod32EngineTest, ScanPastTheTimeLimitIsAbandonedAndTheSessionStaysOpen) {
    std::string hanging = WriteInfected("hang.com", "qbrix-stand-in:hang");
    std::string clean = WriteFile("clean.txt", "clean");
    auto engine = std::make_unique<Nod32Engine>();
    std::string message;
    std::int32_t infected = 0;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(1, Scan(*engine, hanging, message, infected));
    auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_EQ("AV Thread fail", message);
    EXPECT_EQ(0, infected);
    EXPECT_GE(waited, std::chrono::milliseconds(4900));
    EXPECT_LT(waited, std::chrono::milliseconds(5500));
    EXPECT_NE(0u, engine->Session());

    message.clear();
    EXPECT_EQ(0, Scan(*engine, clean, message, infected));
    // The abandoned worker is still inside the library: the connector goes and the library is
    // freed while it runs, and the worker ends on its own later.
    engine.reset();
    EXPECT_EQ(0, Nod32LoadCount());
}

}  // namespace
}  // namespace qbrix::antivirus::test
