// The program's icon, drawn rather than loaded so the program carries no image files.
#pragma once

#include <QIcon>
#include <QPixmap>

namespace qbrix::ui {

// The application icon at every size, or one pixmap of `size` pixels.
QIcon AppIcon(int size = 0);
// The zone editor's row images, 0 to 7: pairs of (incoming or both, outgoing) for an enabling
// rule, a blocking rule, then the same two pairs faded for rules that are switched off.
QIcon RuleImage(int index);
// A program without an icon of its own: a small window.
QIcon DefaultProgramIcon();

// The four images of a content rule's list line, by index: 0 incoming off, 1 outgoing off,
// 2 incoming on, 3 outgoing on. An arrow into or out of a box, coloured when the rule is on.
QIcon RuleLineIcon(int image);

// The four images of an Internet log row: 0 incoming and 1 outgoing rejected, 2 incoming and
// 3 outgoing approved connections.
QIcon ActivityIcon(int image);

// The bitmaps of the bitmap check boxes, 13 by 13: 116 to 118 and 119 to 121, each set not
// ticked, ticked and held down (shaded, without a tick). The first set is a flat box with a dark tick; the second, the
// settings page's, a sunken white box with the product's blue tick. Other numbers give an empty
// pixmap.
QPixmap CheckBoxBitmap(int id);

}  // namespace qbrix::ui
