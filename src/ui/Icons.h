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

}  // namespace qbrix::ui
