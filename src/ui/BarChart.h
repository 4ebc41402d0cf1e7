// The statistics chart: grouped bars drawn with the painter, flat or three-dimensional, with an
// optional legend. One group per row and one bar per column, or the other way round when the
// series come from the rows. In 3D mode dragging with Ctrl held turns the view.
#pragma once

#include <QStringList>
#include <QWidget>

#include "ui/ChartModel.h"

namespace qbrix::ui {

class BarChart : public QWidget {
    Q_OBJECT
  public:
    explicit BarChart(QWidget* parent = nullptr);

    ChartModel& Model() { return m_model; }
    // Redraws after the model changed.
    void Refresh() { update(); }

    void SetThreeD(bool on);
    void SetLegend(bool on);
    // Series from the rows (buckets) when on, from the columns (directions) when off.
    void SetSeriesFromRows(bool on);
    bool ThreeD() const { return m_threeD; }
    bool Legend() const { return m_legend; }
    bool SeriesFromRows() const { return m_seriesFromRows; }
    // The view angle of the 3D bars, in degrees (the depth goes up and to the right when
    // positive, up and to the left when negative).
    double Angle() const { return m_angle; }
    double Depth() const { return m_depth; }

    int GroupCount() const;
    int SeriesCount() const;
    QString GroupLabel(int group) const;
    QString SeriesLabel(int series) const;
    double BarValue(int group, int series) const;
    QString BarText(int group, int series) const;
    // The value axis: its labels from zero up, and the width of the column they are drawn in,
    // sized from the widest of them.
    QStringList AxisLabels() const;
    int AxisLabelWidth() const;
    // The colour of a series, the same in bars and legend.
    static QColor SeriesColour(int series);

    QSize sizeHint() const override { return {480, 280}; }
    QSize minimumSizeHint() const override { return {200, 140}; }

  protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;

  private:
    // Steps of 1, 2 or 5, at most five of them above zero; `top` is the highest tick.
    double AxisStep() const;
    double AxisTop() const;

    ChartModel m_model;
    bool m_threeD = true;
    bool m_legend = true;
    bool m_seriesFromRows = false;
    double m_angle = 40;
    double m_depth = 1.0;
    bool m_rotating = false;
    QPoint m_dragFrom;
};

// Axis steps: the smallest of 1, 2 and 5 times a power of ten that covers `maximum` in at
// most `ticks` steps.
double NiceStep(double maximum, int ticks);

}  // namespace qbrix::ui
