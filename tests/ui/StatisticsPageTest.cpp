// The "Statistics" page and its chart, offscreen: the set-up on first view, the list of
// breakdowns, the cell texts with the decimal comma, the switches, Reset with its question, and
// the chart's series, scale and axis labels.
#include <gtest/gtest.h>

#include <QCheckBox>
#include <QComboBox>
#include <QFontMetrics>
#include <QImage>
#include <QPushButton>

#include "PolicyTestSupport.h"
#include "core/Messages.h"
#include "stats/StatPeriodList.h"
#include "support/TempPlatform.h"
#include "ui/BarChart.h"
#include "ui/StatisticsPage.h"

namespace qbrix::ui {
namespace {

class StatisticsPageTest : public ::testing::Test {
  protected:
    // 1,500,000 bytes of TCP in and 250,000 of UDP out on the fourth day of the month.
    void CountDay() {
        m_periods->Days().Update(3, {0, 0, 0, 0});
        m_periods->Days().Update(3, {1500000, 0, 0, 250000});
    }
    template <typename T>
    T* Find(QWidget& page, const char* id) {
        T* widget = page.findChild<T*>(id);
        EXPECT_NE(nullptr, widget) << id;
        return widget;
    }

    test::TempPlatform m_platform;
    test::ScriptedMessages m_messages;
    std::unique_ptr<stats::StatPeriodList> m_periods = std::make_unique<stats::StatPeriodList>();
};

TEST_F(StatisticsPageTest, ListsTheFiveBreakdownsAndStartsWithApplications) {
    StatisticsPage page(*m_periods);
    page.show();
    auto* list = Find<QComboBox>(page, "275");
    ASSERT_EQ(list->count(), 5);
    EXPECT_EQ(list->itemText(0), "by Applications");
    EXPECT_EQ(list->itemText(4), "by Months");
    EXPECT_EQ(page.SelectedPeriod(), &m_periods->Applications());
    // No driver: no rows, but the four directions.
    ChartModel& model = page.Chart()->Model();
    EXPECT_EQ(model.RowCount(), 0);
    ASSERT_EQ(model.ColumnCount(), 4);
    EXPECT_EQ(model.ColumnLabel(0), "TCP in");
    EXPECT_EQ(model.ColumnLabel(3), "UDP out");
    EXPECT_TRUE(Find<QCheckBox>(page, "291")->isChecked());
    EXPECT_TRUE(Find<QCheckBox>(page, "292")->isChecked());
    EXPECT_FALSE(Find<QCheckBox>(page, "293")->isChecked());
    EXPECT_TRUE(page.Chart()->ThreeD());
    EXPECT_TRUE(page.Chart()->Legend());
}

// The page is set up when it is first shown: the first view charts the driver's programs as
// they are then, not as they were when the panel was built.
TEST_F(StatisticsPageTest, FirstViewShowsTheDataOfThatMoment) {
    policy::test_support::RecordingDriver driver;
    StatisticsPage page(*m_periods);
    driver.Put(policy::test_support::App("BROWSE.EXE"));
    page.show();
    ChartModel& model = page.Chart()->Model();
    ASSERT_EQ(model.RowCount(), 1);
    EXPECT_EQ(model.RowLabel(0), "BROWSE.EXE");
    ASSERT_EQ(model.ColumnCount(), 4);
    EXPECT_EQ(Find<QComboBox>(page, "275")->count(), 5);
}

TEST_F(StatisticsPageTest, CellsShowMegabytesWithADecimalComma) {
    CountDay();
    StatisticsPage page(*m_periods);
    page.show();
    Find<QComboBox>(page, "275")->setCurrentIndex(2);
    ChartModel& model = page.Chart()->Model();
    ASSERT_EQ(model.RowCount(), 31);
    EXPECT_EQ(model.CellText(3, 0), "1,5");
    EXPECT_EQ(model.CellText(3, 3), "0,25");
    EXPECT_EQ(model.CellText(3, 1), "0");
    EXPECT_DOUBLE_EQ(model.Value(3, 0), 1.5);
    EXPECT_EQ(model.RowLabel(3), QString::fromStdString(stats::DayLabels()[3]));
}

TEST_F(StatisticsPageTest, SwitchesReachTheChartWhenClicked) {
    CountDay();
    StatisticsPage page(*m_periods);
    page.show();
    Find<QComboBox>(page, "275")->setCurrentIndex(2);
    BarChart* chart = page.Chart();
    // Series from the columns: one group per day, one bar per direction.
    EXPECT_EQ(chart->GroupCount(), 31);
    EXPECT_EQ(chart->SeriesCount(), 4);
    EXPECT_DOUBLE_EQ(chart->BarValue(3, 3), 0.25);
    Find<QCheckBox>(page, "293")->click();
    EXPECT_TRUE(chart->SeriesFromRows());
    EXPECT_EQ(chart->GroupCount(), 4);
    EXPECT_EQ(chart->SeriesCount(), 31);
    EXPECT_EQ(chart->GroupLabel(0), "TCP in");
    EXPECT_DOUBLE_EQ(chart->BarValue(3, 3), 0.25);
    EXPECT_EQ(chart->BarText(0, 3), "1,5");
    Find<QCheckBox>(page, "291")->click();
    EXPECT_FALSE(chart->ThreeD());
    Find<QCheckBox>(page, "292")->click();
    EXPECT_FALSE(chart->Legend());
}

TEST_F(StatisticsPageTest, ResetAsksAndNoChangesNothing) {
    CountDay();
    StatisticsPage page(*m_periods);
    page.show();
    Find<QComboBox>(page, "275")->setCurrentIndex(2);
    m_messages.QueueBoxAnswer(core::IDNO);
    Find<QPushButton>(page, "258")->click();
    ASSERT_EQ(m_messages.shown.size(), 1u);
    EXPECT_EQ(m_messages.shown[0].text, "History will be erased\nContinue?");
    EXPECT_EQ(m_messages.shown[0].caption, "q-Brix Warning");
    EXPECT_EQ(page.Chart()->Model().CellText(3, 0), "1,5");
    EXPECT_EQ(m_periods->Days().Entries()[3].counters[0], 1500000);

    m_messages.QueueBoxAnswer(core::IDYES);
    Find<QPushButton>(page, "258")->click();
    EXPECT_EQ(page.Chart()->Model().CellText(3, 0), "0");
    EXPECT_EQ(m_periods->Days().Entries()[3].counters[0], 0);
}

TEST(ChartScale, StepsAreOneTwoOrFiveTimesAPowerOfTen) {
    EXPECT_DOUBLE_EQ(NiceStep(1.5, 5), 0.5);
    EXPECT_DOUBLE_EQ(NiceStep(10, 5), 2);
    EXPECT_DOUBLE_EQ(NiceStep(4700, 5), 1000);
    EXPECT_DOUBLE_EQ(NiceStep(0, 5), 1);
    EXPECT_DOUBLE_EQ(ChartNumber("1,5"), 1.5);
    EXPECT_DOUBLE_EQ(ChartNumber("x"), 0);
}

// The value axis is as wide as its widest label, so "1,5" is not cut under a top of "2".
TEST(ChartScale, AxisLabelsFitTheirColumn) {
    BarChart chart;
    ChartModel& model = chart.Model();
    model.SetColumnCount(1);
    model.SetRowCount(1);
    model.SetCellText(0, 0, "2");
    EXPECT_EQ(chart.AxisLabels(), (QStringList{"0", "0,5", "1", "1,5", "2"}));
    const QFontMetrics metrics(chart.font());
    for (const QString& label : chart.AxisLabels()) {
        EXPECT_LE(metrics.horizontalAdvance(label), chart.AxisLabelWidth()) << label.toStdString();
    }
}

TEST(ChartDrawing, FlatAndThreeDBarsPaintTheirSeriesColour) {
    BarChart chart;
    chart.resize(400, 240);
    ChartModel& model = chart.Model();
    model.SetColumnCount(2);
    model.SetRowCount(1);
    model.SetCellText(0, 0, "4");
    model.SetCellText(0, 1, "0");
    for (bool threeD : {false, true}) {
        chart.SetThreeD(threeD);
        QImage image = chart.grab().toImage();
        int coloured = 0;
        for (int y = 0; y < image.height(); ++y) {
            for (int x = 0; x < image.width(); ++x) {
                coloured += image.pixelColor(x, y) == BarChart::SeriesColour(0);
            }
        }
        // The front face of the only non-zero bar covers a good part of the plot.
        EXPECT_GT(coloured, 2000) << "3D " << threeD;
    }
}

}  // namespace
}  // namespace qbrix::ui
