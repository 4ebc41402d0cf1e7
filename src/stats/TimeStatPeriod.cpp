#include "stats/TimeStatPeriod.h"

#include <cstring>

#include "core/DiagLog.h"
#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "platform/Platform.h"

namespace qbrix::stats {

using platform::DWORD;

void EncodeStatValue(const StatCounters& counters, unsigned char (&bytes)[kStatValueSize]) {
    for (int k = 0; k < kStatCounterCount; ++k) {
        auto value = static_cast<std::uint64_t>(counters[k]);
        for (int i = 0; i < 8; ++i) {
            bytes[k * 8 + i] = static_cast<unsigned char>(value >> (8 * i));
        }
    }
}

StatCounters DecodeStatValue(const unsigned char (&bytes)[kStatValueSize]) {
    StatCounters counters{};
    for (int k = 0; k < kStatCounterCount; ++k) {
        std::uint64_t value = 0;
        for (int i = 7; i >= 0; --i) {
            value = (value << 8) | bytes[k * 8 + i];
        }
        counters[k] = static_cast<std::int64_t>(value);
    }
    return counters;
}

TimeStatPeriod::TimeStatPeriod(std::string name, const std::vector<std::string>& labels)
    : StatPeriod(std::move(name)) {
    for (const std::string& label : labels) {
        m_entries.push_back(StatEntry{label, {}});
    }
    Reset();
    Load();
}

std::string TimeStatPeriod::KeyPath() const {
    return std::string(core::kGuiRootPath) + core::kStatSuffix + "\\" + m_name;
}

void TimeStatPeriod::Reset() {
    m_current = -1;
    for (StatEntry& entry : m_entries) {
        entry.counters.fill(0);
    }
}

void TimeStatPeriod::Load() {
    core::RegistryKey key;
    if (key.OpenBelow(platform::HKEY_LOCAL_MACHINE, KeyPath()) != platform::ERROR_SUCCESS) {
        return;
    }
    for (StatEntry& entry : m_entries) {
        unsigned char bytes[kStatValueSize] = {};
        DWORD type = platform::REG_NONE;
        DWORD size = sizeof(bytes);
        if (platform::Current().Reg().QueryValueEx(key.Handle(), entry.label, &type, bytes,
                                                   &size) == platform::ERROR_SUCCESS) {
            entry.counters = DecodeStatValue(bytes);
        }
    }
}

void TimeStatPeriod::Save() {
    core::RegistryKey key;
    if (key.OpenBelow(platform::HKEY_LOCAL_MACHINE, KeyPath()) != platform::ERROR_SUCCESS) {
        return;
    }
    for (const StatEntry& entry : m_entries) {
        unsigned char bytes[kStatValueSize];
        EncodeStatValue(entry.counters, bytes);
        platform::Current().Reg().SetValueEx(key.Handle(), entry.label, platform::REG_BINARY, bytes,
                                             sizeof(bytes));
    }
}

void TimeStatPeriod::Update(std::uint32_t bucket, const StatCounters& totals) {
    if (m_entries.empty() || bucket >= m_entries.size()) {
        return;
    }
    StatEntry& entry = m_entries[bucket];
    if (static_cast<int>(bucket) == m_current) {
        // Totals that fell (a driver restart, an application gone) add nothing and become the
        // new baseline, so such an event costs at most one interval's traffic.
        for (int k = 0; k < kStatCounterCount; ++k) {
            if (totals[k] > m_previous[k]) {
                // Wrapping arithmetic: counters near the 64-bit limit must not be undefined.
                std::uint64_t growth = static_cast<std::uint64_t>(totals[k]) -
                                       static_cast<std::uint64_t>(m_previous[k]);
                entry.counters[k] = static_cast<std::int64_t>(
                    static_cast<std::uint64_t>(entry.counters[k]) + growth);
            }
        }
    } else {
        // A bucket being entered again holds last hour's (day's, ...) traffic of that name. The
        // first tick after start keeps it: the stored running bucket goes on growing.
        if (m_current != -1) {
            entry.counters.fill(0);
        }
        m_current = static_cast<int>(bucket);
    }
    core::DiagLog("\n STAT (%s) %lld %lld %lld %lld", m_name.c_str(),
                  static_cast<long long>(totals[0]), static_cast<long long>(totals[1]),
                  static_cast<long long>(totals[2]), static_cast<long long>(totals[3]));
    m_previous = totals;
    Save();
}

}  // namespace qbrix::stats
