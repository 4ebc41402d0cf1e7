// The zone list `g_zones`: the ordered, owning list of every zone the program knows. It is the
// model behind the Zones page, the zone selectors and the application dialogs; edits are made
// on its records and reach the registry and the driver only when the zones are saved.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>
#include <vector>

#include "driver/DriverRecords.h"

namespace qbrix::policy {

using driver::AppRecord;
using driver::ZoneRecord;
using driver::ZoneRule;

class ZoneList {
  public:
    std::size_t Size() const { return m_zones.size(); }
    bool Empty() const { return m_zones.empty(); }
    ZoneRecord& At(std::size_t index) { return *m_zones[index]; }
    const ZoneRecord& At(std::size_t index) const { return *m_zones[index]; }

    // Appends a copy of the record and returns the list's own record.
    ZoneRecord& Append(const ZoneRecord& zone);
    // Takes ownership of a record allocated elsewhere.
    ZoneRecord& Append(std::unique_ptr<ZoneRecord> zone);
    // Removes (and frees) the list's record; false when the record is not in the list.
    bool Remove(const ZoneRecord* zone);
    void Clear() { m_zones.clear(); }

    // The position of the list's record, or -1.
    int IndexOf(const ZoneRecord* zone) const;

  private:
    std::vector<std::unique_ptr<ZoneRecord>> m_zones;
};

// The zone list of the process. Tests empty it with g_zones.Clear().
extern ZoneList g_zones;

// The first zone whose name equals `name` exactly (byte for byte), or null.
ZoneRecord* FindZone(std::string_view name);

// A zone's name as text (bounded to its 260 bytes).
std::string_view ZoneName(const ZoneRecord& zone);

// An all-zero zone record.
ZoneRecord EmptyZone();

}  // namespace qbrix::policy
