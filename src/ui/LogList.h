// The list of a log page: one row per entry, newest on top, columns of fixed starting widths.
#pragma once

#include <QStringList>
#include <initializer_list>

class QTreeWidget;
class QWidget;

namespace qbrix::ui {

// A flat, row-selecting list with the given column headers and widths, added to `page`'s
// vertical layout (created here).
QTreeWidget* MakeLogList(QWidget* page, const QStringList& headers,
                         std::initializer_list<int> widths);

// Drops the oldest (bottom) row, when there is one.
void DeleteBottomRow(QTreeWidget* list);

}  // namespace qbrix::ui
