// q-brixctl av: scan and self-test from the command line, against the stand-in engines.
#include <sstream>

#include "AntivirusFixture.h"
#include "AvCommand.h"

namespace qbrix::antivirus::test {
namespace {

class AvCommandTest : public AntivirusFixture {
  protected:
    AvCommandTest() { RegisterAllStandIns(); }

    int Run(const std::vector<std::string>& args) {
        out.str("");
        err.str("");
        return tools::RunAvCommand(args, out, err);
    }

    std::ostringstream out;
    std::ostringstream err;
};

TEST_F(AvCommandTest, ScanPrintsTheResultAndItsText) {
    std::string infectedFile = WriteInfected("sample.com");
    EXPECT_EQ(0, Run({"scan", infectedFile, "--engine", "Sophos"}));
    EXPECT_EQ("1 Eicar-Test-Signature\n", out.str());
    EXPECT_EQ(0, Run({"scan", WriteFile("clean.txt", "clean"), "--engine", "Unasoft"}));
    EXPECT_EQ("0 Scanned\n", out.str());
    EXPECT_EQ(nullptr, CurrentEngine());
}

TEST_F(AvCommandTest, WithoutEngineTheStoredNameIsUsed) {
    EXPECT_EQ(0, Run({"scan", WriteInfected("sample.com")}));
    EXPECT_EQ("0 AV not installed\n", out.str());
}

TEST_F(AvCommandTest, TestPrintsTheReportWithoutAsking) {
    qbrix::test::ScriptedMessages messages;
    EXPECT_EQ(0, Run({"test", "--engine", "NOD32"}));
    EXPECT_EQ("Plain File ... OK\nE-mail ... OK\nArchive ... OK\n", out.str());
    EXPECT_TRUE(messages.shown.empty());
    EXPECT_FALSE(qbrix::test::FileExists(Quarantine() + "/tmp.forAVCheck"));
}

TEST_F(AvCommandTest, UsageErrorsExitWithTwo) {
    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{},
                                               {"scan"},
                                               {"scan", "a", "b"},
                                               {"scan", "a", "--engine"},
                                               {"test", "file"},
                                               {"sweep"}}) {
        EXPECT_EQ(2, Run(args));
        EXPECT_NE(std::string::npos, err.str().find("usage: q-brixctl av")) << err.str();
        EXPECT_EQ("", out.str());
    }
}

}  // namespace
}  // namespace qbrix::antivirus::test
