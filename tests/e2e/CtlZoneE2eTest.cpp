// q-brixctl zone run as a process on a fresh data root: every preset exported and imported
// back over itself dumps the same 704 bytes, and failures end with status 1 and a message.
#include <gtest/gtest.h>

#include "support/Process.h"
#include "support/TempPlatform.h"

namespace qbrix {
namespace {

class CtlZoneE2eTest : public ::testing::Test {
  protected:
    test::ProcessResult Ctl(std::vector<std::string> args) {
        args.insert(args.begin(), {QBRIX_CTL, "--root", m_dir.File("root")});
        return test::RunProcess(args);
    }
    test::TempDirectory m_dir;
};

TEST_F(CtlZoneE2eTest, EveryPresetSurvivesExportAndImportOverwrite) {
    const char* presets[] = {"EnableAll",        "Internet Download", "DisableAll",
                             "Disable External", "Internet Client",   "OnlyIncoming",
                             "OnlyOutgoing"};
    test::ProcessResult list = Ctl({"zone", "list"});
    ASSERT_EQ(list.exitCode, 0) << list.err;
    for (const char* preset : presets) {
        EXPECT_NE(list.out.find(std::string(preset) + "\n"), std::string::npos) << preset;
        test::ProcessResult before = Ctl({"zone", "dump", preset});
        ASSERT_EQ(before.exitCode, 0) << before.err;
        ASSERT_EQ(before.out.size(), 704u);
        std::string file = m_dir.File("zone.xml");
        ASSERT_EQ(Ctl({"zone", "export", preset, file}).exitCode, 0);
        ASSERT_EQ(Ctl({"zone", "import", file, "--overwrite"}).exitCode, 0);
        EXPECT_EQ(Ctl({"zone", "dump", preset}).out, before.out) << preset;
    }
}

TEST_F(CtlZoneE2eTest, RefusalsExitWithOneAndSayWhy) {
    test::ProcessResult missing = Ctl({"zone", "import", m_dir.File("missing.xml")});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_NE(missing.err.find("holds no zone"), std::string::npos);
    std::string file = m_dir.File("zone.xml");
    ASSERT_EQ(Ctl({"zone", "export", "DisableAll", file}).exitCode, 0);
    test::ProcessResult exists = Ctl({"zone", "import", file});
    EXPECT_EQ(exists.exitCode, 1);
    EXPECT_NE(exists.err.find("--overwrite"), std::string::npos);
    EXPECT_EQ(Ctl({"zone", "frobnicate"}).exitCode, 2);
}

}  // namespace
}  // namespace qbrix
