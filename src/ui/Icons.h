// The program's icon, drawn rather than loaded so the program carries no image files.
#pragma once

#include <QIcon>

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

}  // namespace qbrix::ui
