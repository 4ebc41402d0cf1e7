#include "ui/BitmapCheckBox.h"

#include <QStyleOptionButton>
#include <QStylePainter>

#include "ui/Icons.h"

namespace qbrix::ui {

BitmapCheckBox::BitmapCheckBox(const QString& text, int firstBitmap, QWidget* parent)
    : QCheckBox(text, parent), m_firstBitmap(firstBitmap) {}

int BitmapCheckBox::CurrentBitmap() const {
    if (isDown()) {
        return m_firstBitmap + 2;
    }
    return m_firstBitmap + (isChecked() ? 1 : 0);
}

void BitmapCheckBox::paintEvent(QPaintEvent*) {
    QStylePainter painter(this);
    QStyleOptionButton option;
    initStyleOption(&option);
    // The label where the style puts it, with its focus frame; the box from the bitmap.
    QStyleOptionButton label = option;
    label.rect = style()->subElementRect(QStyle::SE_CheckBoxContents, &option, this);
    painter.drawControl(QStyle::CE_CheckBoxLabel, label);
    if ((option.state & QStyle::State_HasFocus) != 0) {
        QStyleOptionFocusRect focus;
        focus.QStyleOption::operator=(option);
        focus.rect = style()->subElementRect(QStyle::SE_CheckBoxFocusRect, &option, this);
        painter.drawPrimitive(QStyle::PE_FrameFocusRect, focus);
    }
    QRect box = style()->subElementRect(QStyle::SE_CheckBoxIndicator, &option, this);
    QPixmap image = CheckBoxBitmap(CurrentBitmap());
    QRect target(QPoint(0, 0), image.size().scaled(box.size(), Qt::KeepAspectRatio));
    target.moveCenter(box.center());
    if (!isEnabled()) {
        painter.setOpacity(0.45);
    }
    painter.drawPixmap(target, image);
}

}  // namespace qbrix::ui
