// q-brixctl zone: listing, import with and without --overwrite, deletion, and the failures it
// reports with exit status 1 (the preset round trip runs the built program, in tests/e2e).
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "ZoneCommand.h"
#include "policy/ZoneExchange.h"
#include "policy/ZoneList.h"
#include "policy/ZoneRules.h"
#include "support/TempPlatform.h"
#include "unit/policy/PolicyTestSupport.h"

namespace qbrix::tools {
namespace {

using policy::test_support::CleanPolicyState;
using policy::test_support::FixedInterfaces;

class CtlZoneTest : public ::testing::Test {
  protected:
    int Run(const std::vector<std::string>& args) {
        m_out.str("");
        m_err.str("");
        return RunZoneCommand(args, m_out, m_err);
    }
    test::TempPlatform m_platform;
    CleanPolicyState m_state;
    FixedInterfaces m_interfaces;
    test::TempDirectory m_dir;
    std::ostringstream m_out;
    std::ostringstream m_err;
};

// A command-line tool never asks the Zone Wizard question: the first run goes on as after No.
TEST_F(CtlZoneTest, FirstListAsksNoWizardAndListsInStoreOrder) {
    m_interfaces.Add(0xC0A8010A, 0xFFFFFF00, "eth0", 2);
    test::ScriptedMessages messages;
    ASSERT_EQ(Run({"list"}), 0);
    EXPECT_EQ(m_out.str(),
              "LAN only\nLAN Internet\nLAN Download\nEnableAll\nInternet Download\nDisableAll\n"
              "Disable External\nInternet Client\nOnlyIncoming\nOnlyOutgoing\n");
    EXPECT_EQ(m_err.str(), "");
    EXPECT_TRUE(messages.shown.empty());
}

TEST_F(CtlZoneTest, ImportIgnoringCaseReplacesAndDeleteRemoves) {
    ASSERT_EQ(Run({"list"}), 0);
    std::string file = m_dir.File("lower.xml");
    policy::ZoneRecord zone = policy::test_support::Zone("internet client", {}, 0);
    policy::ExportZone(zone, file);
    ASSERT_EQ(Run({"import", file, "--overwrite"}), 0);
    ASSERT_EQ(Run({"list"}), 0);
    EXPECT_EQ(m_out.str().find("Internet Client"), std::string::npos);
    EXPECT_NE(m_out.str().find("internet client\n"), std::string::npos);
    ASSERT_EQ(Run({"delete", "internet client"}), 0);
    ASSERT_EQ(Run({"list"}), 0);
    EXPECT_EQ(m_out.str().find("nternet client"), std::string::npos);
    EXPECT_EQ(Run({"delete", "internet client"}), 1);
}

TEST_F(CtlZoneTest, FailuresAndUsage) {
    EXPECT_EQ(Run({"dump", "Nowhere"}), 1);
    EXPECT_NE(m_err.str().find("no zone named 'Nowhere'"), std::string::npos);
    EXPECT_EQ(Run({"import", m_dir.File("missing.xml")}), 1);
    std::string bad = m_dir.File("bad.xml");
    std::ofstream(bad) << "<MASTER_ZONE NAME='x'/><!--after-->";
    EXPECT_EQ(Run({"import", bad}), 1);
    EXPECT_NE(m_err.str().find("'" + bad +
                               "' holds no zone: the file does not end with the "
                               "element MASTER_ZONE"),
              std::string::npos);
    EXPECT_EQ(Run({"export", "EnableAll", m_dir.File("none/x.xml")}), 1);
    EXPECT_EQ(Run({"lan"}), 1);
    EXPECT_NE(m_err.str().find("No Lan found"), std::string::npos);
    EXPECT_EQ(Run({}), 2);
    EXPECT_EQ(Run({"import", "a", "--force"}), 2);
    EXPECT_EQ(Run({"list", "extra"}), 2);
}

TEST_F(CtlZoneTest, LanPrintsTheDetectedRules) {
    m_interfaces.Add(0xC0A8010A, 0xFFFFFF00, "Realtek PCI Fast Ethernet Adapter", 3);
    ASSERT_EQ(Run({"lan"}), 0);
    EXPECT_EQ(m_out.str(), "NET Realtek PCI\t192.168.1.10\t255.255.255.0\n");
}

}  // namespace
}  // namespace qbrix::tools
