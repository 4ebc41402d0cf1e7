// q-brixctl zone run as a process on a fresh data root: every preset exported and imported
// back over itself dumps the same 704 bytes.
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

}  // namespace
}  // namespace qbrix
