#include "stats/StatPeriod.h"

#include <utility>

namespace qbrix::stats {

StatPeriod::StatPeriod(std::string name) : m_name(std::move(name)) {}

void StatPeriod::Reset() {
    m_entries.clear();
}

void StatPeriod::Save() {}

void StatPeriod::Refresh() {}

}  // namespace qbrix::stats
