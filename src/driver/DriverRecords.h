// The records exchanged with the filter driver. They are wire formats: the driver is built against
// exactly these layouts, so every field sits at a fixed offset (checked below) and text fields are
// NUL-padded byte arrays that may carry no terminator when filled to their full width.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

namespace qbrix::driver {

// One firewall rule. Protocol: 0 both, 1 TCP, 2 UDP; direction: 0 both, 1 incoming, 2 outgoing;
// result: 0 let pass, 1 block (in an ActivityRecord: 0 approved, nonzero rejected).
struct ZoneRule {
    std::uint8_t enabled;
    char name[15];
    std::uint32_t reserved;  // the terminator of a 15-character name may fall into its first byte
    std::uint32_t address;   // host order: 127.0.0.1 is 0x7F000001
    std::uint32_t mask;
    std::uint16_t localPort;
    std::uint16_t remotePort;
    std::uint32_t protocol;
    std::uint32_t direction;
    std::uint32_t result;
};

inline constexpr int kZoneRuleSlots = 10;

struct ZoneRecord {
    char name[260];
    ZoneRule rules[kZoneRuleSlots];
    std::uint32_t result;  // for traffic that no enabled rule matches
};

// An unsigned 64-bit counter, low word first. Kept as two words because the counters of an
// AppRecord sit at offset 540, which a naturally aligned 64-bit field cannot.
struct Counter64 {
    std::uint32_t low;
    std::uint32_t high;

    std::uint64_t Value() const { return (static_cast<std::uint64_t>(high) << 32) | low; }
    void Set(std::uint64_t value) {
        low = static_cast<std::uint32_t>(value);
        high = static_cast<std::uint32_t>(value >> 32);
    }
};

struct AppRecord {
    std::uint32_t reserved;  // written as 0, never read
    char imageName[16];      // the key by which the driver identifies the application
    char path[260];
    char description[260];
    Counter64 counters[4];  // bytes: TCP in, TCP out, UDP in, UDP out
    ZoneRecord zone;
};

struct ActivityRecord {
    // NT family: a file time. 9x family: milliseconds in the low 16 bits of the low word, the
    // MS-DOS date and time in the high and low halves of the high word.
    std::uint64_t timeStamp;
    std::uint8_t reserved[16];
    char application[260];
    ZoneRule connection;  // address, ports, protocol, direction, deciding rule's name, result
};

static_assert(std::is_standard_layout_v<ZoneRule> && std::is_trivially_copyable_v<ZoneRule>);
static_assert(sizeof(ZoneRule) == 44);
static_assert(offsetof(ZoneRule, enabled) == 0);
static_assert(offsetof(ZoneRule, name) == 1);
static_assert(offsetof(ZoneRule, reserved) == 16);
static_assert(offsetof(ZoneRule, address) == 20);
static_assert(offsetof(ZoneRule, mask) == 24);
static_assert(offsetof(ZoneRule, localPort) == 28);
static_assert(offsetof(ZoneRule, remotePort) == 30);
static_assert(offsetof(ZoneRule, protocol) == 32);
static_assert(offsetof(ZoneRule, direction) == 36);
static_assert(offsetof(ZoneRule, result) == 40);

static_assert(std::is_standard_layout_v<ZoneRecord> && std::is_trivially_copyable_v<ZoneRecord>);
static_assert(sizeof(ZoneRecord) == 704);
static_assert(offsetof(ZoneRecord, name) == 0);
static_assert(offsetof(ZoneRecord, rules) == 260);
static_assert(offsetof(ZoneRecord, result) == 700);

static_assert(sizeof(Counter64) == 8 && alignof(Counter64) == 4);
static_assert(std::is_standard_layout_v<AppRecord> && std::is_trivially_copyable_v<AppRecord>);
static_assert(sizeof(AppRecord) == 1276);
static_assert(offsetof(AppRecord, reserved) == 0);
static_assert(offsetof(AppRecord, imageName) == 4);
static_assert(offsetof(AppRecord, path) == 20);
static_assert(offsetof(AppRecord, description) == 280);
static_assert(offsetof(AppRecord, counters) == 540);
static_assert(offsetof(AppRecord, counters) + 8 == 548);
static_assert(offsetof(AppRecord, counters) + 16 == 556);
static_assert(offsetof(AppRecord, counters) + 24 == 564);
static_assert(offsetof(AppRecord, zone) == 572);
// The connection attempt of a pending question lies in the first rule slot of the zone.
static_assert(offsetof(AppRecord, zone) + offsetof(ZoneRecord, rules) +
                  offsetof(ZoneRule, address) ==
              852);
static_assert(offsetof(AppRecord, zone) + offsetof(ZoneRecord, rules) +
                  offsetof(ZoneRule, remotePort) ==
              862);
static_assert(offsetof(AppRecord, zone) + offsetof(ZoneRecord, rules) +
                  offsetof(ZoneRule, protocol) ==
              864);
static_assert(offsetof(AppRecord, zone) + offsetof(ZoneRecord, rules) +
                  offsetof(ZoneRule, direction) ==
              868);

static_assert(std::is_standard_layout_v<ActivityRecord> &&
              std::is_trivially_copyable_v<ActivityRecord>);
static_assert(sizeof(ActivityRecord) == 328);
static_assert(offsetof(ActivityRecord, timeStamp) == 0);
static_assert(offsetof(ActivityRecord, reserved) == 8);
static_assert(offsetof(ActivityRecord, application) == 24);
static_assert(offsetof(ActivityRecord, connection) == 284);
static_assert(offsetof(ActivityRecord, connection) + offsetof(ZoneRule, direction) == 320);
static_assert(offsetof(ActivityRecord, connection) + offsetof(ZoneRule, result) == 324);

// A text field read up to its first NUL, never past its width.
template <std::size_t N>
std::string_view FieldText(const char (&field)[N]) {
    const void* end = std::memchr(field, 0, N);
    return std::string_view(field, end == nullptr ? N : static_cast<const char*>(end) - field);
}

// A bounded copy of the text into the field: NUL-padded, no terminator when the text fills it.
template <std::size_t N>
void SetFieldText(char (&field)[N], std::string_view text) {
    std::memset(field, 0, N);
    std::memcpy(field, text.data(), text.size() < N ? text.size() : N);
}

}  // namespace qbrix::driver
