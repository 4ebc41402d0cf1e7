// The texts of the two log pages and their log files: addresses, directions, results, time
// stamps, content kinds, and one file line per connection decision or content event.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "events/ContentEvent.h"

namespace qbrix::events {

// String-table numbers of the texts shown here.
inline constexpr int kApprovedString = 8;
inline constexpr int kRejectedString = 9;
inline constexpr int kIncomingString = 10;
inline constexpr int kOutgoingString = 11;
inline constexpr int kMailKindString = 120;
inline constexpr int kWebKindString = 121;
inline constexpr int kRuleFoundKindString = 122;
inline constexpr int kRuleAppliedKindString = 123;

// What a connection decision of the driver carries, as the Internet log shows it. The address
// is a host-order number (first octet most significant); the protocol is 1 for TCP.
struct ActivityFields {
    std::uint64_t timeStamp =
        0;  // a file time (NT family) or the DOS date, time and milliseconds (9x)
    std::string application;
    std::string ruleName;
    std::uint32_t address = 0;
    std::uint16_t remotePort = 0;
    std::uint32_t protocol = 0;
    std::uint32_t direction = 0;
    std::uint32_t result = 0;
};

// "TCP 10.0.0.1:80"; empty when the address is 0. Any protocol but 1 shows as "UDP".
std::string AddressText(std::uint32_t address, std::uint32_t protocol, std::uint16_t remotePort);
// Empty for 0, "outgoing" for 2, "incoming" for anything else.
std::string DirectionText(std::uint32_t direction);
// "approved" for 0, "rejected" for anything else.
std::string ResultText(std::uint32_t result);

// The date and time texts of a time stamp in the family's form. On the NT family the stamp is a
// file time shown in local time; on the 9x family its high word holds the DOS date (high half)
// and time (low half), its low word the milliseconds, which are added to the seconds. A stamp
// that does not give a valid time gives empty texts.
void TimeStampTexts(std::uint64_t timeStamp, std::string* date, std::string* time);

// Date, time, application, rule name, address, result, direction: TAB-separated, CR LF ended.
std::string InternetLogLine(const ActivityFields& fields);
// The same with the date and time texts already made (the list row needs them too, and they are
// the dearest part of the line).
std::string InternetLogLine(const ActivityFields& fields, std::string_view date,
                            std::string_view time);

// The label of a content kind (empty for kinds not known) and whether the kind pops the panel up.
std::string ContentKindLabel(std::int32_t type);
bool ContentKindPopsUp(std::int32_t type);

// A content event's text fields, bounded by their widths.
std::string EventAddress(const ContentEvent& event);
std::string EventName(const ContentEvent& event);
std::string EventQuarantine(const ContentEvent& event);

// Kind label, name, address, quarantine path: TAB-separated, CR LF ended, no time stamp.
std::string ContentLogLine(const ContentEvent& event);

}  // namespace qbrix::events
