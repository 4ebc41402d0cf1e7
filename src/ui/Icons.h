// The program's icon, drawn rather than loaded so the program carries no image files.
#pragma once

#include <QIcon>

namespace qbrix::ui {

// The application icon at every size, or one pixmap of `size` pixels.
QIcon AppIcon(int size = 0);

}  // namespace qbrix::ui
