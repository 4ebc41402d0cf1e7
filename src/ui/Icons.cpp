#include "ui/Icons.h"

#include <array>

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

namespace {
QIcon DrawRuleLineIcon(int image) {
    const bool outgoing = (image & 1) != 0;
    const bool on = image >= 2;
    constexpr int kSize = 16;
    QPixmap pixmap(kSize, kSize);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    // The box stands for this computer; the arrow points into it or away from it.
    painter.setPen(QPen(QColor(0x60, 0x60, 0x60), 1));
    painter.setBrush(on ? QColor(0xe8, 0xf0, 0xff) : QColor(0xee, 0xee, 0xee));
    painter.drawRect(QRectF(9.5, 3.5, 5, 9));
    const QColor arrow = on ? (outgoing ? QColor(0xc0, 0x50, 0x10) : QColor(0x10, 0x80, 0x30))
                            : QColor(0xa0, 0xa0, 0xa0);
    painter.setPen(QPen(arrow, 2, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    painter.setBrush(arrow);
    const qreal y = 8;
    if (outgoing) {
        painter.drawLine(QPointF(8, y), QPointF(2.5, y));
        painter.drawPolygon(QPolygonF({QPointF(1, y), QPointF(4, y - 3), QPointF(4, y + 3)}));
    } else {
        painter.drawLine(QPointF(1, y), QPointF(6.5, y));
        painter.drawPolygon(QPolygonF({QPointF(8, y), QPointF(5, y - 3), QPointF(5, y + 3)}));
    }
    return QIcon(pixmap);
}

QIcon DrawActivityIcon(int image) {
    const bool outgoing = (image & 1) != 0;
    const bool approved = image >= 2;
    constexpr int kSize = 16;
    QPixmap pixmap(kSize, kSize);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    const QColor colour = approved ? QColor(0x18, 0x90, 0x38) : QColor(0xc8, 0x20, 0x20);
    painter.setPen(QPen(colour, 2, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    painter.setBrush(colour);
    // An arrow up for outgoing, down for incoming; a rejected one ends at a bar.
    const qreal x = 6;
    if (outgoing) {
        painter.drawLine(QPointF(x, 14), QPointF(x, 5));
        painter.drawPolygon(QPolygonF({QPointF(x, 2), QPointF(x - 3.5, 6), QPointF(x + 3.5, 6)}));
    } else {
        painter.drawLine(QPointF(x, 2), QPointF(x, 11));
        painter.drawPolygon(
            QPolygonF({QPointF(x, 14), QPointF(x - 3.5, 10), QPointF(x + 3.5, 10)}));
    }
    if (approved) {
        painter.setBrush(Qt::NoBrush);
        painter.drawPolyline(QPolygonF({QPointF(10, 9), QPointF(12, 12), QPointF(15, 5)}));
    } else {
        painter.drawLine(QPointF(10, 5), QPointF(15, 12));
        painter.drawLine(QPointF(15, 5), QPointF(10, 12));
    }
    return QIcon(pixmap);
}

}  // namespace

// Drawn once per process: a burst of log rows must not paint a pixmap per row. Never freed,
// so no pixmap outlives the application object at exit.
QIcon RuleLineIcon(int image) {
    static const auto* icons = new std::array<QIcon, 4>{DrawRuleLineIcon(0), DrawRuleLineIcon(1),
                                                        DrawRuleLineIcon(2), DrawRuleLineIcon(3)};
    return (*icons)[image & 3];
}

QIcon ActivityIcon(int image) {
    static const auto* icons = new std::array<QIcon, 4>{DrawActivityIcon(0), DrawActivityIcon(1),
                                                        DrawActivityIcon(2), DrawActivityIcon(3)};
    return (*icons)[image & 3];
}

QPixmap CheckBoxBitmap(int id) {
    if (id < 116 || id > 121) {
        return QPixmap();
    }
    const bool settingsSet = id >= 119;
    const int state = (id - 116) % 3;  // 0 not ticked, 1 ticked, 2 held down
    constexpr int kSize = 13;
    QPixmap pixmap(kSize, kSize);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF box(0.5, 0.5, kSize - 1, kSize - 1);
    if (settingsSet) {
        // Sunken: dark upper-left edge, light lower-right edge.
        painter.fillRect(box, state == 2 ? QColor(0xe4, 0xe4, 0xe4) : Qt::white);
        painter.setPen(QColor(0x80, 0x80, 0x80));
        painter.drawLine(QPointF(0.5, 0.5), QPointF(kSize - 0.5, 0.5));
        painter.drawLine(QPointF(0.5, 0.5), QPointF(0.5, kSize - 0.5));
        painter.setPen(QColor(0xf0, 0xf0, 0xf0));
        painter.drawLine(QPointF(kSize - 0.5, 0.5), QPointF(kSize - 0.5, kSize - 0.5));
        painter.drawLine(QPointF(0.5, kSize - 0.5), QPointF(kSize - 0.5, kSize - 0.5));
    } else {
        painter.setPen(QColor(0x40, 0x40, 0x40));
        painter.setBrush(state == 2 ? QColor(0xe4, 0xe4, 0xe4) : QColor(0xfa, 0xfa, 0xfa));
        painter.drawRect(box);
    }
    if (state == 1) {
        QColor tick = settingsSet ? QColor(0x2a, 0x6f, 0xd6) : QColor(0x20, 0x20, 0x20);
        painter.setPen(QPen(tick, 2, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        painter.drawPolyline(QPolygonF({QPointF(3, 6.5), QPointF(5.5, 9), QPointF(10, 3.5)}));
    }
    return pixmap;
}

}  // namespace qbrix::ui
