#include "ui/StatisticsPage.h"

#include <QCheckBox>
#include <QComboBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QSignalBlocker>
#include <QToolButton>
#include <QVBoxLayout>

#include "stats/StatChartText.h"
#include "ui/AnsiText.h"
#include "ui/BarChart.h"
#include "ui/Icons.h"

namespace qbrix::ui {

StatisticsPage::StatisticsPage(stats::StatPeriodList& periods, QWidget* parent)
    : PropertyPage("Statistics", parent), m_periods(periods) {
    setObjectName("2970");
    auto* layout = new QVBoxLayout(this);
    auto* top = new QHBoxLayout();
    m_list = new QComboBox(this);
    m_list->setObjectName("275");
    top->addWidget(m_list);
    auto* reset = new QPushButton("Reset", this);
    reset->setObjectName("258");
    top->addWidget(reset);
    top->addSpacing(12);
    m_threeD = new QCheckBox("3D View", this);
    m_threeD->setObjectName("291");
    m_legend = new QCheckBox("Legend", this);
    m_legend->setObjectName("292");
    m_swap = new QCheckBox("Swap X/Y", this);
    m_swap->setObjectName("293");
    top->addWidget(m_threeD);
    top->addWidget(m_legend);
    top->addWidget(m_swap);
    top->addStretch(1);
    auto* enlarge = new QToolButton(this);
    enlarge->setObjectName("294");
    enlarge->setIcon(AppIcon(32));
    enlarge->setIconSize(QSize(24, 24));
    enlarge->setAutoRaise(true);
    enlarge->setToolTip("Enlarge or restore the window");
    top->addWidget(enlarge);
    layout->addLayout(top);

    m_chart = new BarChart(this);
    layout->addWidget(m_chart, 1);
    auto* hint = new QLabel(
        "Rotate the graph with Ctrl key and mouse     Enlarge window for best view", this);
    hint->setObjectName("230");
    layout->addWidget(hint);

    // The boxes start as the chart does: 3D bars with a legend, series from the columns.
    m_threeD->setChecked(m_chart->ThreeD());
    m_legend->setChecked(m_chart->Legend());
    m_swap->setChecked(m_chart->SeriesFromRows());

    connect(m_list, &QComboBox::currentIndexChanged, this, [this] { ShowSelected(); });
    connect(reset, &QPushButton::clicked, this, [this] { ResetSelected(); });
    connect(m_threeD, &QCheckBox::clicked, this,
            [this] { m_chart->SetThreeD(m_threeD->isChecked()); });
    connect(m_legend, &QCheckBox::clicked, this,
            [this] { m_chart->SetLegend(m_legend->isChecked()); });
    connect(m_swap, &QCheckBox::clicked, this,
            [this] { m_chart->SetSeriesFromRows(m_swap->isChecked()); });
    connect(enlarge, &QToolButton::clicked, this, [this] { ToggleEnlarged(); });
}

void StatisticsPage::showEvent(QShowEvent* event) {
    PropertyPage::showEvent(event);
    if (!m_setUp) {
        SetUp();
    }
}

void StatisticsPage::SetUp() {
    m_setUp = true;
    ChartModel& model = m_chart->Model();
    model.SetColumnCount(static_cast<int>(stats::kStatColumnLabels.size()));
    for (int column = 0; column < model.ColumnCount(); ++column) {
        model.SetColumnLabel(column, stats::kStatColumnLabels[column]);
    }
    {
        // Filling the list selects its first entry: show it once, below.
        const QSignalBlocker quiet(m_list);
        for (stats::StatPeriod* period : m_periods.Periods()) {
            m_list->addItem(FromAnsi(period->Name()),
                            QVariant::fromValue(reinterpret_cast<quintptr>(period)));
        }
        m_list->setCurrentIndex(0);
    }
    ShowSelected();
}

stats::StatPeriod* StatisticsPage::SelectedPeriod() const {
    if (m_list->currentIndex() < 0) {
        return nullptr;
    }
    return reinterpret_cast<stats::StatPeriod*>(m_list->currentData().value<quintptr>());
}

void StatisticsPage::ShowSelected() {
    stats::StatPeriod* period = SelectedPeriod();
    if (!period) {
        return;
    }
    period->Refresh();
    Draw(*period);
}

void StatisticsPage::ResetSelected() {
    stats::StatPeriod* period = SelectedPeriod();
    if (period && stats::AskEraseHistory(*period) == 1) {
        Draw(*period);
    }
}

void StatisticsPage::Draw(const stats::StatPeriod& period) {
    ChartModel& model = m_chart->Model();
    const std::vector<stats::StatEntry>& entries = period.Entries();
    model.SetRowCount(static_cast<int>(entries.size()));
    for (int row = 0; row < model.RowCount(); ++row) {
        const stats::StatEntry& entry = entries[row];
        model.SetRowLabel(row, FromAnsi(entry.label));
        for (int column = 0; column < model.ColumnCount(); ++column) {
            model.SetCellText(row, column, FromAnsi(stats::ChartCellText(entry.counters[column])));
        }
    }
    m_chart->Refresh();
}

void StatisticsPage::ToggleEnlarged() {
    QWidget* panel = window();
    if (panel->isMaximized()) {
        panel->showNormal();
    } else {
        panel->showMaximized();
    }
}

}  // namespace qbrix::ui
