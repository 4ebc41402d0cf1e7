// The program's icon, drawn rather than loaded so the program carries no image files.
#pragma once

#include <QIcon>

namespace qbrix::ui {

// The application icon at every size, or one pixmap of `size` pixels.
QIcon AppIcon(int size = 0);

// The four images of a content rule's list line, by index: 0 incoming off, 1 outgoing off,
// 2 incoming on, 3 outgoing on. An arrow into or out of a box, coloured when the rule is on.
QIcon RuleLineIcon(int image);

}  // namespace qbrix::ui
