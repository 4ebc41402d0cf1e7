// The chart's data: a grid of rows and columns, a label per row and per column and one numeric
// text per cell. The chart draws the numbers the texts stand for; the texts use a decimal comma.
#pragma once

#include <QString>
#include <QStringList>
#include <vector>

namespace qbrix::ui {

class ChartModel {
  public:
    void SetColumnCount(int count);
    void SetRowCount(int count);
    int ColumnCount() const { return static_cast<int>(m_columnLabels.size()); }
    int RowCount() const { return static_cast<int>(m_rowLabels.size()); }
    void SetColumnLabel(int column, const QString& label);
    void SetRowLabel(int row, const QString& label);
    const QString& ColumnLabel(int column) const { return m_columnLabels[column]; }
    const QString& RowLabel(int row) const { return m_rowLabels[row]; }
    // A text that is not a number counts as 0.
    void SetCellText(int row, int column, const QString& text);
    const QString& CellText(int row, int column) const;
    double Value(int row, int column) const;
    double MaxValue() const;

  private:
    QStringList m_columnLabels;
    QStringList m_rowLabels;
    std::vector<QString> m_texts;  // row-major
};

// The number of a cell text, read with "," or "." as the decimal mark; 0 when it is none.
double ChartNumber(const QString& text);

}  // namespace qbrix::ui
