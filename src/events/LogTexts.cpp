#include "events/LogTexts.h"

#include <cstdio>
#include <cstring>

#include "core/StringTable.h"
#include "platform/LocalTime.h"
#include "platform/Platform.h"

namespace qbrix::events {

namespace {

constexpr std::size_t kAddressTextSize = 100;

template <std::size_t N>
std::string BoundedText(const char (&field)[N]) {
    return std::string(field, strnlen(field, N));
}

// Appends one field of a log line. Fields come from other programs (any local program can send a
// content event, and image names are chosen by whoever names the file), so a line break or a tab
// inside one would start a forged line or column: each becomes a blank.
void AppendField(std::string& line, std::string_view field) {
    for (char c : field) {
        line.push_back(c == '\r' || c == '\n' || c == '\t' ? ' ' : c);
    }
}

}  // namespace

std::string AddressText(std::uint32_t address, std::uint32_t protocol, std::uint16_t remotePort) {
    if (address == 0) {
        return {};
    }
    char text[kAddressTextSize];
    std::snprintf(text, sizeof(text), "%s %d.%d.%d.%d:%d", protocol == 1 ? "TCP" : "UDP",
                  static_cast<int>(address >> 24), static_cast<int>((address >> 16) & 0xFF),
                  static_cast<int>((address >> 8) & 0xFF), static_cast<int>(address & 0xFF),
                  static_cast<int>(remotePort));
    return text;
}

std::string DirectionText(std::uint32_t direction) {
    if (direction == 0) {
        return {};
    }
    return core::LoadString(direction == 2 ? kOutgoingString : kIncomingString);
}

std::string ResultText(std::uint32_t result) {
    return core::LoadString(result == 0 ? kApprovedString : kRejectedString);
}

void TimeStampTexts(std::uint64_t timeStamp, std::string* date, std::string* time) {
    platform::SystemTime fields;
    bool valid;
    if (platform::IsNtPlatform()) {
        valid = platform::FileTimeToLocalSystemTime(timeStamp, &fields) != 0;
    } else {
        auto high = static_cast<std::uint32_t>(timeStamp >> 32);
        auto low = static_cast<std::uint32_t>(timeStamp);
        valid = platform::DosDateTimeToSystemTime(static_cast<std::uint16_t>(high >> 16),
                                                  static_cast<std::uint16_t>(high & 0xFFFF),
                                                  &fields) != 0;
        auto milliseconds = static_cast<std::uint16_t>(low & 0xFFFF);
        fields.second = static_cast<std::uint16_t>(fields.second + milliseconds / 1000);
        fields.milliseconds = static_cast<std::uint16_t>(milliseconds % 1000);
    }
    // Fields the formatting refuses (a seconds value pushed past 59) give empty texts.
    *date = valid ? platform::GetDateText(fields) : std::string();
    *time = valid ? platform::GetTimeText(fields) : std::string();
}

std::string InternetLogLine(const ActivityFields& fields) {
    std::string date;
    std::string time;
    TimeStampTexts(fields.timeStamp, &date, &time);
    return InternetLogLine(fields, date, time);
}

std::string InternetLogLine(const ActivityFields& fields, std::string_view date,
                            std::string_view time) {
    std::string line;
    line.append(date).append("\t").append(time).append("\t");
    AppendField(line, fields.application);
    line.append("\t");
    AppendField(line, fields.ruleName);
    line.append("\t");
    line.append(AddressText(fields.address, fields.protocol, fields.remotePort)).append("\t");
    line.append(ResultText(fields.result)).append("\t");
    line.append(DirectionText(fields.direction)).append("\r\n");
    return line;
}

std::string ContentKindLabel(std::int32_t type) {
    switch (type) {
        case kMailFound:
        case kMailQuiet:
            return core::LoadString(kMailKindString);
        case kWebFound:
        case kWebQuiet:
            return core::LoadString(kWebKindString);
        case kRuleFound:
            return core::LoadString(kRuleFoundKindString);
        case kRuleApplied:
            return core::LoadString(kRuleAppliedKindString);
        default:
            return {};
    }
}

bool ContentKindPopsUp(std::int32_t type) {
    return type == kMailFound || type == kWebFound;
}

std::string EventAddress(const ContentEvent& event) {
    return BoundedText(event.address);
}

std::string EventName(const ContentEvent& event) {
    return BoundedText(event.name);
}

std::string EventQuarantine(const ContentEvent& event) {
    return BoundedText(event.quarantine);
}

std::string ContentLogLine(const ContentEvent& event) {
    std::string line = ContentKindLabel(event.type);
    line.append("\t");
    AppendField(line, EventName(event));
    line.append("\t");
    AppendField(line, EventAddress(event));
    line.append("\t");
    AppendField(line, EventQuarantine(event));
    line.append("\r\n");
    return line;
}

}  // namespace qbrix::events
