// A stand-in for the NOD32 programming library "nod32api.dll": the eight entry points as the
// connector calls them. It logs every session and option call so that a test can compare them
// with the option block the connector must set. Built a second time without
// "NOD32_FreeMemory" (STANDIN_WITHOUT_FREE_MEMORY) to test the all-eight rule.
#include <atomic>
#include <cstdint>
#include <cstring>
#include <string>

#include "StandIn.h"

namespace {

struct InitRecord {
    std::uint32_t size;
    std::uint32_t version;
    std::uint32_t reserved8;
    std::uint32_t reserved12;
    std::uint32_t engine16;
    std::uint32_t engine20;
};

struct ScanRequest {
    std::uint32_t size;
    std::uint32_t kind;
    const char* path;
    std::uint32_t zero;
    std::uint32_t infected;
    std::uint8_t engine[12];
    char* text;
};

constexpr std::size_t kTextSize = 1024;
std::atomic<std::uint32_t> g_nextSession{0x5E550001};

std::string ValueText(const void* value, std::uint32_t size) {
    if (value == nullptr) {
        return "-";
    }
    if (size == 4) {
        std::uint32_t number = 0;
        std::memcpy(&number, value, 4);
        return std::to_string(number);
    }
    std::string hex;
    char digits[3];
    for (std::uint32_t i = 0; i < size; ++i) {
        std::snprintf(digits, sizeof(digits), "%02X", static_cast<const unsigned char*>(value)[i]);
        hex += digits;
    }
    return hex;
}

}  // namespace

STANDIN_EXPORT std::int32_t NOD32_Init() {
    return 0;
}

STANDIN_EXPORT std::uint32_t NOD32_InitEx(InitRecord* record) {
    standin::Log("InitEx %u %08X", record->size, record->version);
    if (standin::InitialisationShouldFail() || record->size != sizeof(InitRecord) ||
        record->version != 0x70331001) {
        return 0;
    }
    return g_nextSession++;
}

STANDIN_EXPORT std::int32_t NOD32_Deinit(std::uint32_t session) {
    standin::Log("Deinit %08X", session);
    return 0;
}

STANDIN_EXPORT std::int32_t NOD32_SetOption(std::uint32_t session, std::uint32_t scope,
                                            std::uint32_t optionId, const void* value,
                                            std::uint32_t size) {
    standin::Log("SetOption %08X %u %08X %u %s", session, scope, optionId, size,
                 ValueText(value, size).c_str());
    return 0;
}

STANDIN_EXPORT std::int32_t NOD32_GetOption(std::uint32_t, std::uint32_t, std::uint32_t, void*,
                                            std::uint32_t) {
    return -1;
}

STANDIN_EXPORT std::int32_t NOD32_ScanA(std::uint32_t session, ScanRequest* request) {
    standin::Log("ScanA %08X %s", session, request->path);
    if (request->size != sizeof(ScanRequest) || request->kind != 4) {
        return 87;
    }
    std::string content;
    if (!standin::ReadWholeFile(request->path, content)) {
        return 2;
    }
    standin::HangIfAsked(content);
    if (standin::HasMarker(content, "scan-error")) {
        return 1;
    }
    if (standin::HasMarker(content, "other-threat")) {
        request->infected = 1;
        std::strcpy(request->text, standin::kOtherThreatName);
    } else if (standin::CountSignatures(content) > 0) {
        request->infected = 1;
        if (standin::HasMarker(content, "long-name")) {
            std::memset(request->text, 'N', kTextSize);
        } else {
            std::strcpy(request->text, standin::kThreatName);
        }
    }
    return 0;
}

STANDIN_EXPORT std::int32_t NOD32_ScanW(std::uint32_t, void*) {
    return -1;
}

#ifndef STANDIN_WITHOUT_FREE_MEMORY
STANDIN_EXPORT void NOD32_FreeMemory(void*) {}
#endif
