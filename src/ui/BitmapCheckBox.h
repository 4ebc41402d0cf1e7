// A check box whose box is one of three bitmaps instead of the style's own drawing: not ticked,
// ticked, and held down under the mouse. The settings page uses the set 119, 120, 121; the
// panel's other style is the set 116, 117, 118 in the same roles. A box that is switched off
// shows its bitmap faded.
#pragma once

#include <QCheckBox>

namespace qbrix::ui {

class BitmapCheckBox : public QCheckBox {
    Q_OBJECT
  public:
    // `firstBitmap` is the not-ticked image of a set of three (119 or 116).
    BitmapCheckBox(const QString& text, int firstBitmap, QWidget* parent = nullptr);

    // The bitmap the box shows now.
    int CurrentBitmap() const;

  protected:
    void paintEvent(QPaintEvent* event) override;

  private:
    int m_firstBitmap;
};

}  // namespace qbrix::ui
