// q-brixctl app and filtering: the Programs page's operations from the command line, against
// the reference driver served in process.
#include <gtest/gtest.h>

#include <sstream>

#include "AppCommand.h"
#include "InProcessDriver.h"
#include "ReferenceDriver.h"
#include "support/TempPlatform.h"

namespace qbrix::tools {
namespace {

class CtlAppTest : public ::testing::Test {
  protected:
    int Run(const std::vector<std::string>& args) {
        m_out.str("");
        m_err.str("");
        std::vector<std::string> rest(args.begin() + 1, args.end());
        return args[0] == "filtering" ? RunFilteringCommand(rest, m_out, m_err)
                                      : RunAppCommand(rest, m_out, m_err);
    }

    test::TempPlatform m_platform;
    std::ostringstream m_out;
    std::ostringstream m_err;
};

TEST_F(CtlAppTest, SetListDeleteAndFilteringGoThroughTheDriver) {
    test::InProcessDriver driver(m_platform.DataRoot());
    driver.AddApp("mailer", "/usr/bin/mailer");
    ASSERT_EQ(0, Run({"app", "set", "mailer", "OnlyOutgoing"}));
    ASSERT_EQ(0, Run({"app", "set", "browser", "Internet Client"}));
    // The zone went whole: its rules decide (EnableOut lets the outgoing one pass).
    EXPECT_EQ("ok approved by EnableOut", driver.Connect("browser tcp out 93.184.216.34:80"));
    EXPECT_EQ("ok rejected by OnlyOutgoing", driver.Connect("mailer tcp in 93.184.216.34:25"));
    ASSERT_EQ(0, Run({"app", "list"}));
    EXPECT_EQ(
        "image\tzone\ttcp in\ttcp out\tudp in\tudp out\tpath\n"
        "mailer\tOnlyOutgoing\t0\t0\t0\t0\t/usr/bin/mailer\n"
        "browser\tInternet Client\t0\t0\t0\t0\t\n",
        m_out.str());
    ASSERT_EQ(0, Run({"app", "delete", "mailer"}));
    ASSERT_EQ(0, Run({"filtering", "off"}));
    EXPECT_EQ("ok approved by filtering off", driver.Connect("browser udp out 1.2.3.4:53"));
    ASSERT_EQ(0, Run({"app", "list"}));
    EXPECT_EQ(std::string::npos, m_out.str().find("mailer"));
}

TEST_F(CtlAppTest, BadRequestsFailWithTheReason) {
    struct Case {
        std::vector<std::string> args;
        int status;
        const char* reason;
    };
    {
        test::InProcessDriver driver(m_platform.DataRoot());
        const Case cases[] = {
            {{"app", "set", "browser", "No Such Zone"}, 1, "no zone named 'No Such Zone'"},
            {{"app", "set", "a-name-of-17-byte", "EnableAll"}, 1, "1 to 16 bytes"},
            {{"app", "delete", "unknown"}, 1, "does not know unknown"},
            {{"app", "set", "browser"}, 2, "usage: q-brixctl app list"},
            {{"filtering", "maybe"}, 2, "usage: q-brixctl filtering on|off"},
        };
        for (const Case& c : cases) {
            EXPECT_EQ(c.status, Run(c.args)) << c.args[1];
            EXPECT_NE(std::string::npos, m_err.str().find(c.reason)) << m_err.str();
        }
    }
    EXPECT_EQ(1, Run({"app", "list"}));
    EXPECT_NE(std::string::npos, m_err.str().find("no driver serves this data root"));
}

}  // namespace
}  // namespace qbrix::tools
