// The message the socket provider sends to the control program's mailslot for everything it did
// to Web or mail content.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qbrix::events {

// Exactly 664 bytes as the provider writes it. Texts are NUL-terminated within their width, but
// a sender that fills a field completely leaves no terminator, so readers bound them.
struct ContentEvent {
    std::int32_t type;     // the event kind (ContentKind)
    char address[200];     // shown under "Address"
    char name[200];        // shown under "Name"
    char quarantine[260];  // full path of the copy put into quarantine, or empty
};

static_assert(sizeof(ContentEvent) == 664);
static_assert(offsetof(ContentEvent, type) == 0);
static_assert(offsetof(ContentEvent, address) == 4);
static_assert(offsetof(ContentEvent, name) == 204);
static_assert(offsetof(ContentEvent, quarantine) == 404);

// The kinds the provider sends. Found items (0, 1) were put into quarantine and pop the panel up;
// 2 and 3 are the same findings reported quietly; 4 and 5 are content-rule hits.
enum ContentKind : std::int32_t {
    kMailFound = 0,
    kWebFound = 1,
    kMailQuiet = 2,
    kWebQuiet = 3,
    kRuleFound = 4,
    kRuleApplied = 5,
};

// The mailslot the provider writes to, its largest message and the reader's wait per read.
inline constexpr char kContentMailslotName[] = "\\\\.\\mailslot\\korvel";
inline constexpr std::uint32_t kContentMailslotMaxMessage = sizeof(ContentEvent);
inline constexpr std::uint32_t kContentMailslotReadTimeoutMs = 5000;

}  // namespace qbrix::events
