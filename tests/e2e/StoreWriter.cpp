// Test helper: writes COUNT values and sub-keys below HKLM\SOFTWARE\Test\Shared of the data root,
// each through its own open-write-close, as the program's own operations do.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "core/RegistryKey.h"
#include "platform/posix/PosixPlatform.h"

int main(int argc, char** argv) {
    using namespace qbrix;
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s ROOT PREFIX COUNT\n", argv[0]);
        return 2;
    }
    platform::SystemInfo info = platform::DetectSystemInfo();
    info.dataRoot = argv[1];
    platform::ScopedPlatform installed(platform::MakePosixPlatform(info));
    std::string prefix = argv[2];
    int count = std::atoi(argv[3]);
    int failures = 0;
    for (int i = 0; i < count; ++i) {
        std::string name = prefix + std::to_string(i);
        core::RegistryKey key;
        platform::LONG rc = key.Open("\\Shared", "SOFTWARE\\Test");
        if (rc == 0) {
            rc = key.SetDword(name, static_cast<platform::DWORD>(i));
        }
        core::RegistryKey child;
        if (rc == 0) {
            rc = child.Open("\\Shared\\" + name, "SOFTWARE\\Test");
        }
        if (rc != 0) {
            std::fprintf(stderr, "%s: error %d\n", name.c_str(), static_cast<int>(rc));
            ++failures;
        }
    }
    return failures == 0 ? 0 : 1;
}
