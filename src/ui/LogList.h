// The list of a log page: one row per entry, newest on top, columns of fixed starting widths.
#pragma once

#include <QStringList>
#include <functional>
#include <initializer_list>
#include <string>

class QTreeWidget;
class QWidget;

namespace qbrix::ui {

// A flat, row-selecting list with the given column headers and widths, added to `page`'s
// vertical layout (created here).
QTreeWidget* MakeLogList(QWidget* page, const QStringList& headers,
                         std::initializer_list<int> widths);

// Drops the oldest (bottom) row, when there is one.
void DeleteBottomRow(QTreeWidget* list);

// The list's right-click menu with "Delete", which runs `deleteLog`.
void AddDeleteLogMenu(QTreeWidget* list, std::function<void()> deleteLog);

// "Delete" of a log page: asks "Are You sure to delete log?" (caption "Deleting Log"); on Yes
// empties the log file `fileName` (a missing file is already empty) and then the list. A file
// that cannot be emptied is reported as "Cannot write log" (caption "Error") and the rows stay.
void DeleteLog(QTreeWidget* list, const std::string& fileName);

}  // namespace qbrix::ui
