#include "ui/BarChart.h"

#include <QFontMetrics>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <algorithm>
#include <cmath>

namespace qbrix::ui {

namespace {

QString AxisText(double value) {
    QString text = QString::number(value, 'g', 6);
    return text.replace('.', ',');
}

}  // namespace

double NiceStep(double maximum, int ticks) {
    if (!(maximum > 0) || ticks < 1) {
        return 1;
    }
    const double raw = maximum / ticks;
    const double power = std::pow(10.0, std::floor(std::log10(raw)));
    for (double factor : {1.0, 2.0, 5.0, 10.0}) {
        if (factor * power >= raw) {
            return factor * power;
        }
    }
    return 10 * power;
}

BarChart::BarChart(QWidget* parent) : QWidget(parent) {
    setObjectName("290");
    setAttribute(Qt::WA_OpaquePaintEvent);
    setMouseTracking(false);
}

void BarChart::SetThreeD(bool on) {
    m_threeD = on;
    update();
}

void BarChart::SetLegend(bool on) {
    m_legend = on;
    update();
}

void BarChart::SetSeriesFromRows(bool on) {
    m_seriesFromRows = on;
    update();
}

int BarChart::GroupCount() const {
    return m_seriesFromRows ? m_model.ColumnCount() : m_model.RowCount();
}

int BarChart::SeriesCount() const {
    return m_seriesFromRows ? m_model.RowCount() : m_model.ColumnCount();
}

QString BarChart::GroupLabel(int group) const {
    return m_seriesFromRows ? m_model.ColumnLabel(group) : m_model.RowLabel(group);
}

QString BarChart::SeriesLabel(int series) const {
    return m_seriesFromRows ? m_model.RowLabel(series) : m_model.ColumnLabel(series);
}

double BarChart::BarValue(int group, int series) const {
    return m_seriesFromRows ? m_model.Value(series, group) : m_model.Value(group, series);
}

QString BarChart::BarText(int group, int series) const {
    return m_seriesFromRows ? m_model.CellText(series, group) : m_model.CellText(group, series);
}

double BarChart::AxisStep() const {
    return NiceStep(m_model.MaxValue(), 5);
}

double BarChart::AxisTop() const {
    const double step = AxisStep();
    return std::max(step, std::ceil(m_model.MaxValue() / step) * step);
}

QStringList BarChart::AxisLabels() const {
    const double step = AxisStep();
    const int ticks = static_cast<int>(std::lround(AxisTop() / step));
    QStringList labels;
    for (int tick = 0; tick <= ticks; ++tick) {
        labels << AxisText(tick * step);
    }
    return labels;
}

int BarChart::AxisLabelWidth() const {
    const QFontMetrics metrics(font());
    int widest = 0;
    for (const QString& label : AxisLabels()) {
        widest = std::max(widest, metrics.horizontalAdvance(label));
    }
    return widest + 2;
}

QColor BarChart::SeriesColour(int series) {
    static const QColor kColours[] = {
        QColor(0x2a, 0x6f, 0xd6), QColor(0xe0, 0x7b, 0x1f), QColor(0x2e, 0xa0, 0x4a),
        QColor(0xc8, 0x32, 0x3c), QColor(0x7b, 0x4f, 0xc0), QColor(0x1f, 0xa5, 0xa8),
        QColor(0xb0, 0x8e, 0x10), QColor(0x8a, 0x5a, 0x3c),
    };
    constexpr int kCount = sizeof(kColours) / sizeof(kColours[0]);
    const QColor base = kColours[series % kCount];
    // Later rounds of the palette are lighter so neighbouring series stay apart.
    return series < kCount ? base : base.lighter(100 + 25 * (series / kCount));
}

void BarChart::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.fillRect(rect(), palette().base());
    const QFontMetrics metrics(font());
    const int groups = GroupCount();
    const int series = SeriesCount();

    // The legend takes the right side; what does not fit ends with an ellipsis line.
    QRect area = rect().adjusted(6, 8, -8, -6);
    if (m_legend && series > 0) {
        int widest = 0;
        for (int s = 0; s < series; ++s) {
            widest = std::max(widest, metrics.horizontalAdvance(SeriesLabel(s)));
        }
        const int legendWidth = std::min(widest + 30, area.width() / 3);
        QRect legend(area.right() - legendWidth, area.top(), legendWidth, area.height());
        area.setRight(legend.left() - 10);
        const int line = metrics.height() + 2;
        const int fits = std::max(1, legend.height() / line);
        painter.setPen(palette().text().color());
        for (int s = 0; s < series; ++s) {
            const int y = legend.top() + s * line;
            if (s == fits - 1 && series > fits) {
                painter.drawText(QPoint(legend.left() + 16, y + metrics.ascent()), "...");
                break;
            }
            painter.fillRect(QRect(legend.left(), y + (line - 10) / 2, 10, 10), SeriesColour(s));
            painter.drawText(
                QRect(legend.left() + 16, y, legend.width() - 16, line),
                Qt::AlignVCenter | Qt::AlignLeft,
                metrics.elidedText(SeriesLabel(s), Qt::ElideRight, legend.width() - 16));
        }
    }

    const double step = AxisStep();
    const double top = AxisTop();
    const QStringList axisLabels = AxisLabels();
    const int labelWidth = AxisLabelWidth();
    const int axisWidth = labelWidth + 6;
    QRectF plot(area.left() + axisWidth, area.top() + metrics.height() / 2.0,
                area.width() - axisWidth, area.height() - metrics.height() * 2 - 6);
    if (plot.width() < 20 || plot.height() < 20) {
        return;
    }

    // The 3D offset of a bar's back face from its front face.
    double groupWidth = plot.width() / std::max(groups, 1);
    double barWidth = groupWidth * 0.8 / std::max(series, 1);
    QPointF depth(0, 0);
    if (m_threeD) {
        const double length = std::clamp(std::min(barWidth, groupWidth * 0.4), 4.0, 18.0) * m_depth;
        const double radians = m_angle * M_PI / 180.0;
        depth = QPointF(length * std::cos(std::abs(radians)) * (m_angle < 0 ? -1 : 1),
                        -length * std::sin(std::abs(radians)));
        // Keep room for the depth inside the plot.
        plot.setTop(plot.top() - depth.y());
        if (depth.x() > 0) {
            plot.setRight(plot.right() - depth.x());
        } else {
            plot.setLeft(plot.left() - depth.x());
        }
        groupWidth = plot.width() / std::max(groups, 1);
        barWidth = groupWidth * 0.8 / std::max(series, 1);
    }
    const double scale = plot.height() / top;
    auto yOf = [&](double value) { return plot.bottom() - value * scale; };

    // Walls and grid.
    const QColor grid = palette().mid().color();
    if (m_threeD) {
        QPolygonF back({plot.topLeft() + depth, plot.topRight() + depth, plot.bottomRight() + depth,
                        plot.bottomLeft() + depth});
        painter.setPen(Qt::NoPen);
        painter.setBrush(palette().alternateBase());
        painter.drawPolygon(back);
        QPolygonF floor({plot.bottomLeft(), plot.bottomRight(), plot.bottomRight() + depth,
                         plot.bottomLeft() + depth});
        painter.setBrush(palette().window().color().darker(108));
        painter.drawPolygon(floor);
    }
    for (int tick = 0; tick < axisLabels.size(); ++tick) {
        const double value = tick * step;
        const double y = yOf(value);
        painter.setPen(QPen(grid, 1, value == 0 ? Qt::SolidLine : Qt::DotLine));
        if (m_threeD) {
            painter.drawLine(QPointF(plot.left(), y), QPointF(plot.left(), y) + depth);
            painter.drawLine(QPointF(plot.left(), y) + depth, QPointF(plot.right(), y) + depth);
        } else {
            painter.drawLine(QPointF(plot.left(), y), QPointF(plot.right(), y));
        }
        painter.setPen(palette().text().color());
        painter.drawText(
            QRectF(area.left(), y - metrics.height() / 2.0, labelWidth, metrics.height()),
            Qt::AlignRight | Qt::AlignVCenter, axisLabels[tick]);
    }
    painter.setPen(QPen(palette().text().color(), 1));
    painter.drawLine(plot.bottomLeft(), plot.bottomRight());
    painter.drawLine(plot.bottomLeft(), plot.topLeft() + QPointF(0, 0));

    // Bars, back to front: with the depth going right the left bars are drawn first.
    struct Bar {
        QRectF front;
        int series;
        QString text;
    };
    std::vector<Bar> bars;
    for (int g = 0; g < groups; ++g) {
        const double left = plot.left() + g * groupWidth + groupWidth * 0.1;
        for (int s = 0; s < series; ++s) {
            const double value = BarValue(g, s);
            const double x = left + s * barWidth;
            const double y = yOf(std::max(value, 0.0));
            bars.push_back({QRectF(x, y, barWidth * (m_threeD ? 1.0 : 0.9), plot.bottom() - y), s,
                            BarText(g, s)});
        }
    }
    if (depth.x() < 0) {
        std::reverse(bars.begin(), bars.end());
    }
    for (const Bar& bar : bars) {
        const QColor colour = SeriesColour(bar.series);
        if (m_threeD) {
            const QRectF& f = bar.front;
            QPolygonF topFace(
                {f.topLeft(), f.topRight(), f.topRight() + depth, f.topLeft() + depth});
            QPolygonF side = depth.x() >= 0
                                 ? QPolygonF({f.topRight(), f.bottomRight(),
                                              f.bottomRight() + depth, f.topRight() + depth})
                                 : QPolygonF({f.topLeft(), f.bottomLeft(), f.bottomLeft() + depth,
                                              f.topLeft() + depth});
            painter.setPen(QPen(colour.darker(150), 0.6));
            painter.setBrush(colour.darker(125));
            painter.drawPolygon(side);
            painter.setBrush(colour.lighter(125));
            painter.drawPolygon(topFace);
        } else {
            painter.setPen(QPen(colour.darker(140), 0.6));
        }
        painter.setBrush(colour);
        painter.drawRect(bar.front);
    }

    // Cell texts over the bars, in a smaller font, only when every one of them fits over its
    // bar: a chart with some values labelled and others not reads as if the others were zero.
    QFont small = font();
    small.setPointSizeF(std::max(6.0, small.pointSizeF() * 0.85));
    const QFontMetrics smallMetrics(small);
    bool allFit = !bars.empty();
    for (const Bar& bar : bars) {
        allFit = allFit && smallMetrics.horizontalAdvance(bar.text) <= barWidth + 1;
    }
    if (allFit) {
        painter.setFont(small);
        painter.setPen(palette().text().color());
        for (const Bar& bar : bars) {
            const int width = smallMetrics.horizontalAdvance(bar.text);
            const QPointF at(bar.front.center().x() - width / 2.0 + depth.x() / 2,
                             bar.front.top() + depth.y() - 3);
            painter.drawText(at, bar.text);
        }
        painter.setFont(font());
    }

    // Group labels under the groups, thinned out when they would overlap.
    painter.setPen(palette().text().color());
    int every = 1;
    int widest = 0;
    for (int g = 0; g < groups; ++g) {
        widest = std::max(widest, metrics.horizontalAdvance(GroupLabel(g)));
    }
    while (groups > 0 && every * groupWidth < widest + 6 && every < groups) {
        ++every;
    }
    for (int g = 0; g < groups; g += every) {
        QRectF cell(plot.left() + g * groupWidth - groupWidth * (every - 1) / 2.0,
                    plot.bottom() + 4, groupWidth * every, metrics.height());
        painter.drawText(
            cell, Qt::AlignHCenter | Qt::AlignTop,
            metrics.elidedText(GroupLabel(g), Qt::ElideRight, static_cast<int>(cell.width())));
    }
    if (groups == 0) {
        painter.setPen(palette().placeholderText().color());
        painter.drawText(plot, Qt::AlignCenter, "No traffic counted");
    }
}

void BarChart::mousePressEvent(QMouseEvent* event) {
    if (m_threeD && event->button() == Qt::LeftButton &&
        (event->modifiers() & Qt::ControlModifier)) {
        m_rotating = true;
        m_dragFrom = event->position().toPoint();
        return;
    }
    QWidget::mousePressEvent(event);
}

void BarChart::mouseMoveEvent(QMouseEvent* event) {
    if (!m_rotating) {
        QWidget::mouseMoveEvent(event);
        return;
    }
    if (!(event->modifiers() & Qt::ControlModifier)) {
        m_rotating = false;
        return;
    }
    const QPoint delta = event->position().toPoint() - m_dragFrom;
    m_dragFrom = event->position().toPoint();
    // Sideways turns the view, up and down changes how deep the bars look.
    m_angle = std::clamp(m_angle + delta.x() * 0.5, -80.0, 80.0);
    m_depth = std::clamp(m_depth - delta.y() * 0.01, 0.3, 2.0);
    update();
}

void BarChart::mouseReleaseEvent(QMouseEvent* event) {
    m_rotating = false;
    QWidget::mouseReleaseEvent(event);
}

}  // namespace qbrix::ui
