#include "ui/Icons.h"

#include <QPainter>
#include <QPainterPath>
#include <QPixmap>

namespace qbrix::ui {

namespace {

// A shield in the product's blue with a white check bar.
QPixmap DrawShield(int size) {
    QPixmap pixmap(size, size);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    const qreal s = size;
    QPainterPath shield;
    shield.moveTo(s * 0.5, s * 0.04);
    shield.lineTo(s * 0.9, s * 0.18);
    shield.cubicTo(s * 0.9, s * 0.62, s * 0.72, s * 0.84, s * 0.5, s * 0.96);
    shield.cubicTo(s * 0.28, s * 0.84, s * 0.1, s * 0.62, s * 0.1, s * 0.18);
    shield.closeSubpath();
    painter.setPen(QPen(QColor(0x10, 0x3a, 0x7a), qMax(1.0, s / 24)));
    painter.setBrush(QColor(0x2a, 0x6f, 0xd6));
    painter.drawPath(shield);
    QPen mark(Qt::white, qMax(1.5, s / 9), Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
    painter.setPen(mark);
    painter.drawPolyline(QPolygonF(
        {QPointF(s * 0.3, s * 0.5), QPointF(s * 0.45, s * 0.65), QPointF(s * 0.7, s * 0.35)}));
    return pixmap;
}

QPixmap DrawRule(int index) {
    const int size = 16;
    QPixmap pixmap(size, size);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    bool outgoing = index % 2 == 1;
    bool blocks = (index / 2) % 2 == 1;
    bool off = index >= 4;
    QColor fill = blocks ? QColor(0xc6, 0x28, 0x28) : QColor(0x2e, 0x8b, 0x3a);
    if (off) {
        fill = blocks ? QColor(0xe8, 0xb0, 0xb0) : QColor(0xb0, 0xd8, 0xb5);
    }
    painter.setPen(QPen(fill.darker(140), 1));
    painter.setBrush(fill);
    painter.drawEllipse(QRectF(1.5, 1.5, 13, 13));
    QPen arrow(off ? QColor(0xf4, 0xf4, 0xf4) : Qt::white, 1.8, Qt::SolidLine, Qt::RoundCap,
               Qt::RoundJoin);
    painter.setPen(arrow);
    painter.drawLine(QPointF(4.5, 8), QPointF(11.5, 8));
    if (outgoing) {
        painter.drawPolyline(QPolygonF({QPointF(8.5, 5), QPointF(11.5, 8), QPointF(8.5, 11)}));
    } else {
        painter.drawPolyline(QPolygonF({QPointF(7.5, 5), QPointF(4.5, 8), QPointF(7.5, 11)}));
    }
    return pixmap;
}

QPixmap DrawProgram(int size) {
    QPixmap pixmap(size, size);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    const qreal s = size;
    painter.setPen(QPen(QColor(0x40, 0x40, 0x48), 1));
    painter.setBrush(Qt::white);
    painter.drawRect(QRectF(s * 0.08, s * 0.14, s * 0.84, s * 0.72));
    painter.fillRect(QRectF(s * 0.08, s * 0.14, s * 0.84, s * 0.2), QColor(0x2a, 0x6f, 0xd6));
    return pixmap;
}

}  // namespace

QIcon RuleImage(int index) {
    return QIcon(DrawRule(index < 0 || index > 7 ? 0 : index));
}

QIcon DefaultProgramIcon() {
    QIcon icon;
    icon.addPixmap(DrawProgram(16));
    icon.addPixmap(DrawProgram(32));
    return icon;
}

QIcon AppIcon(int size) {
    QIcon icon;
    if (size > 0) {
        icon.addPixmap(DrawShield(size));
        return icon;
    }
    for (int each : {16, 24, 32, 48, 64, 128}) {
        icon.addPixmap(DrawShield(each));
    }
    return icon;
}

}  // namespace qbrix::ui
