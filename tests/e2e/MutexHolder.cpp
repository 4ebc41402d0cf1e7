// Test helper: takes a named mutex on the data root, says "held" or "exists", and keeps it until
// it is killed.
#include <unistd.h>

#include <cstdio>

#include "platform/Kernel.h"
#include "platform/posix/PosixPlatform.h"

int main(int argc, char** argv) {
    using namespace qbrix;
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s ROOT NAME\n", argv[0]);
        return 2;
    }
    platform::SystemInfo info = platform::DetectSystemInfo();
    info.dataRoot = argv[1];
    platform::ScopedPlatform installed(platform::MakePosixPlatform(info));
    platform::HANDLE mutex = platform::CreateMutex(1, argv[2]);
    bool exists = platform::GetLastError() == platform::ERROR_ALREADY_EXISTS;
    std::printf("%s\n", mutex == nullptr ? "failed" : exists ? "exists" : "held");
    std::fflush(stdout);
    while (true) {
        ::pause();
    }
}
