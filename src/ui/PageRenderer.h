// Writes a PNG of every page of the panel and of the program's dialogs, for review without a
// display (run with QT_QPA_PLATFORM=offscreen).
#pragma once

#include <QString>
#include <QStringList>

namespace qbrix::ui {

class ControlPanel;

// Returns the files written; empty when the directory cannot be written.
QStringList RenderPages(ControlPanel& panel, const QString& directory);

}  // namespace qbrix::ui
