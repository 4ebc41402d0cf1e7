// Test helper: writes COUNT values and sub-keys below HKLM\SOFTWARE\Test\Shared of the data root,
// each through its own open-write-close, as the program's own operations do. With "hold" it
// instead keeps the store locked in a transaction for MS milliseconds (one value written in it),
// writing the file FLAG once it holds the lock.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include "core/RegistryKey.h"
#include "platform/posix/PosixPlatform.h"

namespace {

int Hold(int milliseconds, const char* flag) {
    using namespace qbrix;
    platform::RegistryTransaction transaction;
    core::RegistryKey key;
    if (!transaction.Active() || key.Open("\\Held", "SOFTWARE\\Test") != 0 ||
        key.SetDword("Held", 1) != 0) {
        std::fprintf(stderr, "could not take the store\n");
        return 1;
    }
    std::ofstream(flag) << "held\n";
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
    key.Close();
    return transaction.Commit() == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    using namespace qbrix;
    bool hold = argc == 5 && std::string(argv[2]) == "hold";
    if (argc != 4 && !hold) {
        std::fprintf(stderr, "usage: %s ROOT PREFIX COUNT\n       %s ROOT hold MS FLAG\n",
                     argv[0], argv[0]);
        return 2;
    }
    platform::SystemInfo info = platform::DetectSystemInfo();
    info.dataRoot = argv[1];
    platform::ScopedPlatform installed(platform::MakePosixPlatform(info));
    if (hold) {
        return Hold(std::atoi(argv[3]), argv[4]);
    }
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
