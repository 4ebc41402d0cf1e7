// q-brixctl stats: the stored breakdowns as the administrator reads them, and their reset.
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "InProcessDriver.h"
#include "StatsCommand.h"
#include "stats/StatPeriodList.h"
#include "support/TempPlatform.h"

namespace qbrix::tools {
namespace {

class CtlStatsTest : public ::testing::Test {
  protected:
    CtlStatsTest() { stats::ResetStatPeriods(); }
    ~CtlStatsTest() override { stats::ResetStatPeriods(); }

    int Run(const std::vector<std::string>& args) {
        m_out.str("");
        m_err.str("");
        // Every run of the tool reads the store afresh.
        stats::ResetStatPeriods();
        return RunStatsCommand(args, m_out, m_err);
    }
    void StoreHours() {
        stats::TimeStatPeriod& hours = stats::StatPeriods().Hours();
        hours.Update(0, {0, 0, 0, 0});
        hours.Update(0, {1500000, 250000, 0, 123456789});
    }

    test::TempPlatform m_platform;
    std::ostringstream m_out;
    std::ostringstream m_err;
};

TEST_F(CtlStatsTest, ShowsOneLinePerBucketInChartMegabytes) {
    StoreHours();
    ASSERT_EQ(0, Run({"show", "HOURS"}));
    std::string text = m_out.str();
    EXPECT_EQ(0u, text.find("by Hours (megabytes)\n"
                            "                       TCP in     TCP out      UDP in     UDP out\n"
                            " 1:00                     1,5        0,25           0     123,457\n"
                            " 2:00                       0           0           0           0\n"))
        << text;
    EXPECT_NE(std::string::npos, text.find("\n24:00      "));
    EXPECT_EQ(26u, std::count(text.begin(), text.end(), '\n'));
}

TEST_F(CtlStatsTest, ShowsEveryBreakdownInDisplayOrder) {
    ASSERT_EQ(0, Run({}));
    std::string text = m_out.str();
    std::size_t apps = text.find("by Applications (megabytes)\n");
    std::size_t months = text.find("by Months (megabytes)\n");
    ASSERT_NE(std::string::npos, apps);
    ASSERT_NE(std::string::npos, months);
    EXPECT_LT(apps, text.find("by Hours"));
    EXPECT_LT(text.find("by Weekdays"), months);
    EXPECT_NE(std::string::npos, text.find("(no driver serves this data root)\n"));
    EXPECT_NE(std::string::npos, text.find("\nDec  "));
}

TEST_F(CtlStatsTest, ResetErasesOneBreakdownOnly) {
    StoreHours();
    stats::StatPeriods().Days().Update(4, {0, 0, 0, 0});
    stats::StatPeriods().Days().Update(4, {2000000, 0, 0, 0});
    ASSERT_EQ(0, Run({"reset", "by hours"}));
    EXPECT_EQ("by Hours: history erased\n", m_out.str());
    ASSERT_EQ(0, Run({"show", "hours"}));
    EXPECT_EQ(std::string::npos, m_out.str().find("1,5"));
    ASSERT_EQ(0, Run({"show", "days"}));
    EXPECT_NE(std::string::npos, m_out.str().find("\n5" + std::string(27, ' ') + "2 "));
}

TEST_F(CtlStatsTest, ApplicationsComeFromTheDriver) {
    ASSERT_EQ(1, Run({"reset", "applications"}));
    EXPECT_EQ("q-brixctl: no driver serves this data root\n", m_err.str());

    test::InProcessDriver driver(m_platform.DataRoot());
    driver.AddApp("browser.exe", "C:\\b.exe");
    driver.Connect("browser.exe tcp in 93.184.216.34:80 3000000");
    ASSERT_EQ(0, Run({"show", "applications"}));
    EXPECT_NE(std::string::npos, m_out.str().find("\nbrowser.exe" + std::string(17, ' ') + "3 "));
    ASSERT_EQ(0, Run({"reset", "applications"}));
    ASSERT_EQ(0, Run({"show", "applications"}));
    EXPECT_NE(std::string::npos, m_out.str().find("\nbrowser.exe" + std::string(17, ' ') + "0 "));
}

TEST_F(CtlStatsTest, WrongArgumentsAreUsageErrors) {
    EXPECT_EQ(2, Run({"reset"}));
    EXPECT_EQ(2, Run({"show", "years"}));
    EXPECT_NE(std::string::npos, m_err.str().find("no statistics period 'years'"));
    EXPECT_EQ(2, Run({"erase", "hours"}));
    EXPECT_EQ(2, Run({"show", "hours", "extra"}));
}

}  // namespace
}  // namespace qbrix::tools
