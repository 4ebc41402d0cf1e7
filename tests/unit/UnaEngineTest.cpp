// The UNA connector against its stand-in library: the registry entry and the library name, the
// path buffer, the detection record and the time limit.
#include <chrono>

#include "AntivirusFixture.h"
#include "antivirus/UnaEngine.h"

namespace qbrix::antivirus::test {
namespace {

class UnaEngineTest : public AntivirusFixture {
  protected:
    std::int32_t Scan(UnaEngine& engine, const std::string& path, std::string& message,
                      std::int32_t& infected) {
        return engine.ScanFile(path.c_str(), message, infected);
    }
};

TEST_F(UnaEngineTest, MachineWithoutTheEngineGetsAnEmptyPathValueAndALoadingError) {
    UnaEngine engine;
    std::string message;
    std::int32_t infected = 1;
    EXPECT_EQ(1, Scan(engine, WriteFile("clean.txt", "clean"), message, infected));
    EXPECT_EQ(0, infected);
    EXPECT_EQ("Error Loading Unasoft", message);
    EXPECT_FALSE(engine.IsLoaded());

    platform::HKEY key = nullptr;
    ASSERT_EQ(0, platform::Current().Reg().OpenKeyEx(platform::HKEY_LOCAL_MACHINE,
                                                     "SOFTWARE\\Ukranian Antivirus center\\UNA",
                                                     platform::KEY_READ, &key));
    char value[16] = {'x'};
    platform::DWORD size = sizeof(value);
    platform::DWORD type = 0;
    EXPECT_EQ(0, platform::Current().Reg().QueryValueEx(
                     key, "Path", &type, reinterpret_cast<platform::BYTE*>(value), &size));
    platform::Current().Reg().CloseKey(key);
    EXPECT_EQ(platform::REG_SZ, type);
    EXPECT_STREQ("", value);
}

TEST_F(UnaEngineTest, PathWithOrWithoutTrailingSeparatorLoadsTheLibrary) {
    std::string clean = WriteFile("clean.txt", "clean");
    std::string infectedFile = WriteInfected("sample.com");
    for (const std::string& path :
         {StandInDirectory("una"), StandInDirectory("una") + "/", StandInDirectory("una") + "\\"}) {
        SCOPED_TRACE(path);
        RegisterUna(path);
        UnaEngine engine;
        std::string message;
        std::int32_t infected = 1;
        EXPECT_EQ(0, Scan(engine, clean, message, infected));
        EXPECT_EQ(0, infected);
        EXPECT_EQ("", message);
        EXPECT_EQ(1, Scan(engine, infectedFile, message, infected));
        EXPECT_EQ(1, infected);
        EXPECT_EQ("Eicar-Test-Signature", message);
    }
    EXPECT_EQ("UnaAPIFileTest " + std::to_string(clean.size()) + " 0 1",
              LogLinesStartingWith("UnaAPIFileTest").front());
}

TEST_F(UnaEngineTest, LibraryWithoutTheEntryPointIsFreedAndRetriedAtTheNextScan) {
    RegisterUna(StandInDirectory("una-incomplete"));
    UnaEngine engine;
    std::string clean = WriteFile("clean.txt", "clean");
    std::string message;
    std::int32_t infected = 0;
    EXPECT_EQ(1, Scan(engine, clean, message, infected));
    EXPECT_EQ("Error Loading Unasoft", message);
    EXPECT_FALSE(engine.IsLoaded());

    RegisterUna(StandInDirectory("una"));
    message.clear();
    EXPECT_EQ(0, Scan(engine, clean, message, infected));
    EXPECT_TRUE(engine.IsLoaded());
}

TEST_F(UnaEngineTest, OverlongPathIsCutAndUnterminatedThreatNameIsBounded) {
    RegisterUna(StandInDirectory("una"));
    UnaEngine engine;
    std::string message;
    std::int32_t infected = 0;
    std::string longPath = "/" + std::string(5000, 'p');
    EXPECT_EQ(0, Scan(engine, longPath, message, infected));
    EXPECT_EQ("UnaAPIFileTest 4095 0 1", LogLinesStartingWith("UnaAPIFileTest").back());

    std::string named = WriteInfected("long.com", "qbrix-stand-in:long-name");
    EXPECT_EQ(1, Scan(engine, named, message, infected));
    EXPECT_EQ(std::string(kUnaThreatNameSize, 'U'), message);
}

// Takes about five seconds: the stand-in sleeps past the limit.
TEST_F(UnaEngineTest, ScanPastTheTimeLimitFailsAndTheConnectorStaysUsable) {
    RegisterUna(StandInDirectory("una"));
    auto engine = std::make_unique<UnaEngine>();
    std::string message;
    std::int32_t infected = 0;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(1,
              Scan(*engine, WriteInfected("hang.com", "qbrix-stand-in:hang"), message, infected));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(5500));
    EXPECT_EQ("AV Thread fail", message);
    EXPECT_EQ(0, infected);

    message.clear();
    EXPECT_EQ(1, Scan(*engine, WriteInfected("sample.com"), message, infected));
    EXPECT_EQ("Eicar-Test-Signature", message);
    engine.reset();  // frees the library while the abandoned worker still runs in it
}

}  // namespace
}  // namespace qbrix::antivirus::test
