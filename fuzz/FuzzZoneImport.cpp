// libFuzzer target: zone exchange files of any content, imported and exported again.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "policy/ZoneExchange.h"
#include "policy/ZoneList.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::string path = "/tmp/qbrix-fuzz-zone-" + std::to_string(getpid()) + ".xml";
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) {
        return 0;
    }
    std::fwrite(data, 1, size, file);
    std::fclose(file);
    qbrix::policy::ZoneRecord zone = qbrix::policy::EmptyZone();
    if (qbrix::policy::ImportZone(zone, path) == 0) {
        qbrix::policy::ExportZone(zone, path);
        qbrix::policy::ZoneRecord again = qbrix::policy::EmptyZone();
        qbrix::policy::ImportZone(again, path);
    }
    return 0;
}
