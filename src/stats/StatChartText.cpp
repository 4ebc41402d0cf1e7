#include "stats/StatChartText.h"

#include <cstdio>

namespace qbrix::stats {

std::string ChartCellText(std::int64_t bytes) {
    char text[64];
    std::snprintf(text, sizeof(text), "%g", static_cast<double>(bytes) / 1000000.0);
    std::string cell(text);
    if (std::string::size_type point = cell.find('.'); point != std::string::npos) {
        cell[point] = ',';
    }
    return cell;
}

}  // namespace qbrix::stats
