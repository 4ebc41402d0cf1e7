#include "ui/ChartModel.h"

#include <algorithm>

namespace qbrix::ui {

namespace {
const QString kEmpty;
}

double ChartNumber(const QString& text) {
    QString number = text.trimmed();
    number.replace(',', '.');
    bool ok = false;
    const double value = number.toDouble(&ok);
    return ok ? value : 0.0;
}

void ChartModel::SetColumnCount(int count) {
    const int rows = RowCount();
    std::vector<QString> texts(static_cast<std::size_t>(rows) * std::max(count, 0));
    for (int r = 0; r < rows; ++r) {
        for (int c = 0; c < std::min(count, ColumnCount()); ++c) {
            texts[static_cast<std::size_t>(r) * count + c] = CellText(r, c);
        }
    }
    m_texts = std::move(texts);
    while (ColumnCount() < count) {
        m_columnLabels << QString();
    }
    while (ColumnCount() > std::max(count, 0)) {
        m_columnLabels.removeLast();
    }
}

void ChartModel::SetRowCount(int count) {
    count = std::max(count, 0);
    m_texts.resize(static_cast<std::size_t>(count) * ColumnCount());
    while (RowCount() < count) {
        m_rowLabels << QString();
    }
    while (RowCount() > count) {
        m_rowLabels.removeLast();
    }
}

void ChartModel::SetColumnLabel(int column, const QString& label) {
    if (column >= 0 && column < ColumnCount()) {
        m_columnLabels[column] = label;
    }
}

void ChartModel::SetRowLabel(int row, const QString& label) {
    if (row >= 0 && row < RowCount()) {
        m_rowLabels[row] = label;
    }
}

void ChartModel::SetCellText(int row, int column, const QString& text) {
    if (row >= 0 && row < RowCount() && column >= 0 && column < ColumnCount()) {
        m_texts[static_cast<std::size_t>(row) * ColumnCount() + column] = text;
    }
}

const QString& ChartModel::CellText(int row, int column) const {
    if (row < 0 || row >= RowCount() || column < 0 || column >= ColumnCount()) {
        return kEmpty;
    }
    return m_texts[static_cast<std::size_t>(row) * ColumnCount() + column];
}

double ChartModel::Value(int row, int column) const {
    return ChartNumber(CellText(row, column));
}

double ChartModel::MaxValue() const {
    double most = 0;
    for (const QString& text : m_texts) {
        most = std::max(most, ChartNumber(text));
    }
    return most;
}

}  // namespace qbrix::ui
