// A stand-in for the UNA library "UNAMSCAN.DLL": its one entry point "UnaAPIFileTest". Built a
// second time under the name but without the entry point (STANDIN_WITHOUT_FILE_TEST).
#include <cstdint>
#include <cstring>
#include <string>

#include "StandIn.h"

namespace {

struct ScanRecord {
    std::uint8_t infected;
    char threatName[259];
    char* path;
    void* test;
};

}  // namespace

#ifndef STANDIN_WITHOUT_FILE_TEST
STANDIN_EXPORT std::int32_t UnaAPIFileTest(char* path, std::uint32_t reserved, std::uint32_t mode,
                                           ScanRecord* record) {
    standin::Log("UnaAPIFileTest %zu %u %u", std::strlen(path), reserved, mode);
    std::string content;
    if (reserved != 0 || mode != 1 || !standin::ReadWholeFile(path, content)) {
        return 0;
    }
    standin::HangIfAsked(content);
    if (standin::HasMarker(content, "other-threat")) {
        record->infected = 1;
        std::strcpy(record->threatName, standin::kOtherThreatName);
    } else if (standin::CountSignatures(content) > 0) {
        record->infected = 1;
        if (standin::HasMarker(content, "long-name")) {
            std::memset(record->threatName, 'U', sizeof(record->threatName));
        } else {
            std::strcpy(record->threatName, standin::kThreatName);
        }
    }
    return 1;
}
#else
STANDIN_EXPORT std::int32_t UnaAPIFileScan() {
    return 0;
}
#endif
