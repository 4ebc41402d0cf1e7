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
    painter.drawPolyline(QPolygonF({QPointF(s * 0.3, s * 0.5), QPointF(s * 0.45, s * 0.65),
                                    QPointF(s * 0.7, s * 0.35)}));
    return pixmap;
}

}  // namespace

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
