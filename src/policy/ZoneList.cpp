#include "policy/ZoneList.h"

#include <algorithm>
#include <cstring>

namespace qbrix::policy {

ZoneList g_zones;

ZoneRecord& ZoneList::Append(const ZoneRecord& zone) {
    auto copy = std::make_unique<ZoneRecord>();
    std::memcpy(copy.get(), &zone, sizeof(ZoneRecord));
    return Append(std::move(copy));
}

ZoneRecord& ZoneList::Append(std::unique_ptr<ZoneRecord> zone) {
    m_zones.push_back(std::move(zone));
    return *m_zones.back();
}

bool ZoneList::Remove(const ZoneRecord* zone) {
    auto found = std::find_if(m_zones.begin(), m_zones.end(),
                              [zone](const auto& owned) { return owned.get() == zone; });
    if (found == m_zones.end()) {
        return false;
    }
    m_zones.erase(found);
    return true;
}

int ZoneList::IndexOf(const ZoneRecord* zone) const {
    for (std::size_t i = 0; i < m_zones.size(); ++i) {
        if (m_zones[i].get() == zone) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

ZoneRecord* FindZone(std::string_view name) {
    for (std::size_t i = 0; i < g_zones.Size(); ++i) {
        if (ZoneName(g_zones.At(i)) == name) {
            return &g_zones.At(i);
        }
    }
    return nullptr;
}

std::string_view ZoneName(const ZoneRecord& zone) {
    return driver::FieldText(zone.name);
}

ZoneRecord EmptyZone() {
    ZoneRecord zone;
    std::memset(&zone, 0, sizeof zone);
    return zone;
}

}  // namespace qbrix::policy
