#include "core/StringTable.h"

namespace qbrix::core {

std::string LoadString(int id) {
    for (std::size_t i = 0; i < detail::kStringTableSize; ++i) {
        if (detail::kStringTable[i].id == id) {
            return detail::kStringTable[i].text;
        }
    }
    return std::string();
}

}  // namespace qbrix::core
