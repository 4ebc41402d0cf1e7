#include "Connection.h"

#include <charconv>
#include <sstream>
#include <vector>

namespace qbrix::refdriver {

namespace {

template <typename T>
bool ParseNumber(std::string_view text, T max, T* value) {
    unsigned long long parsed = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), parsed);
    if (error != std::errc() || end != text.data() + text.size() || text.empty() ||
        parsed > static_cast<unsigned long long>(max)) {
        return false;
    }
    *value = static_cast<T>(parsed);
    return true;
}

}  // namespace

int ParseAddress(std::string_view text, std::uint32_t* address) {
    std::uint32_t result = 0;
    for (int part = 0; part < 4; ++part) {
        std::size_t dot = text.find('.');
        if ((dot == std::string_view::npos) != (part == 3)) {
            return 1;
        }
        std::uint32_t octet = 0;
        if (!ParseNumber<std::uint32_t>(text.substr(0, dot), 255, &octet)) {
            return 1;
        }
        result = (result << 8) | octet;
        text = dot == std::string_view::npos ? std::string_view() : text.substr(dot + 1);
    }
    *address = result;
    return 0;
}

std::string FormatAddress(std::uint32_t address) {
    return std::to_string(address >> 24) + "." + std::to_string((address >> 16) & 0xFF) + "." +
           std::to_string((address >> 8) & 0xFF) + "." + std::to_string(address & 0xFF);
}

int ParseConnection(std::string_view words, Connection* connection, std::string* error) {
    std::istringstream in{std::string(words)};
    std::vector<std::string> parts;
    for (std::string word; in >> word;) {
        parts.push_back(word);
    }
    auto fail = [error](std::string reason) {
        *error = std::move(reason);
        return 1;
    };
    if (parts.size() < 4) {
        return fail("expected: IMAGE tcp|udp in|out A.B.C.D:PORT [BYTES] [local=PORT] [path=P]");
    }
    Connection result;
    result.image = parts[0];
    if (result.image.size() > 15) {
        return fail("image name longer than 15 characters: " + result.image);
    }
    if (parts[1] == "tcp") {
        result.protocol = 1;
    } else if (parts[1] == "udp") {
        result.protocol = 2;
    } else {
        return fail("protocol must be tcp or udp: " + parts[1]);
    }
    if (parts[2] == "in") {
        result.direction = 1;
    } else if (parts[2] == "out") {
        result.direction = 2;
    } else {
        return fail("direction must be in or out: " + parts[2]);
    }
    std::size_t colon = parts[3].find(':');
    if (colon == std::string::npos || ParseAddress(parts[3].substr(0, colon), &result.address) ||
        !ParseNumber<std::uint16_t>(std::string_view(parts[3]).substr(colon + 1), 65535,
                                    &result.remotePort)) {
        return fail("expected A.B.C.D:PORT: " + parts[3]);
    }
    for (std::size_t i = 4; i < parts.size(); ++i) {
        std::string_view part = parts[i];
        if (part.substr(0, 6) == "local=") {
            if (!ParseNumber<std::uint16_t>(part.substr(6), 65535, &result.localPort)) {
                return fail("bad local port: " + parts[i]);
            }
        } else if (part.substr(0, 5) == "path=") {
            result.path = std::string(part.substr(5));
        } else if (i != 4 || !ParseNumber<std::uint64_t>(part, UINT64_MAX, &result.bytes)) {
            return fail("unexpected word: " + parts[i]);
        }
    }
    *connection = result;
    return 0;
}

}  // namespace qbrix::refdriver
