// The "Statistics" page: one of the five traffic breakdowns as a bar chart, with the switches
// for 3D bars, the legend and the series direction, a Reset of the shown breakdown and a button
// that enlarges the panel. The list and the chart are set up when the page is first shown, so
// the first view charts the breakdown as it is then, not as it was when the panel was built.
// After that the page shows a breakdown when it is picked or reset; it does not follow the
// timer.
#pragma once

#include "stats/StatPeriodList.h"
#include "ui/PropertyPage.h"

class QCheckBox;
class QComboBox;
class QLabel;
class QToolButton;

namespace qbrix::ui {

class BarChart;

class StatisticsPage : public PropertyPage {
    Q_OBJECT
  public:
    explicit StatisticsPage(stats::StatPeriodList& periods, QWidget* parent = nullptr);

    // Refreshes the selected breakdown and charts it.
    void ShowSelected();
    // Asks before erasing the selected breakdown's history; redraws it after Yes.
    void ResetSelected();
    // Maximises the panel, or restores it when it is maximised.
    void ToggleEnlarged();

    BarChart* Chart() const { return m_chart; }
    stats::StatPeriod* SelectedPeriod() const;

  protected:
    void showEvent(QShowEvent* event) override;

  private:
    // Fills the chart's columns and the list, selects the first breakdown and shows it.
    void SetUp();
    void Draw(const stats::StatPeriod& period);

    stats::StatPeriodList& m_periods;
    QComboBox* m_list = nullptr;
    QCheckBox* m_threeD = nullptr;
    QCheckBox* m_legend = nullptr;
    QCheckBox* m_swap = nullptr;
    BarChart* m_chart = nullptr;
    bool m_setUp = false;
};

}  // namespace qbrix::ui
