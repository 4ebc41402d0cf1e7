#include "platform/posix/LiveMode.h"

#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "platform/Platform.h"
#include "platform/posix/PosixPlatform.h"

extern char** environ;

namespace qbrix::platform {

namespace {

std::string ModeFile(const std::string& dataRoot) {
    return JoinPath(dataRoot, kDriverModeFile);
}

std::string UnitFile(const std::string& unitDirectory) {
    return JoinPath(unitDirectory, kDriverUnitName);
}

// Runs systemctl with the words; its output goes where ours goes. True on exit status 0.
bool Systemctl(std::vector<std::string> words) {
    words.insert(words.begin(), "systemctl");
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (::posix_spawnp(&pid, "systemctl", nullptr, nullptr, argv.data(), environ) != 0) {
        return false;
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

bool AsksForLiveMode(std::string_view commandText) {
    std::istringstream words{std::string(commandText)};
    std::string word;
    while (words >> word) {
        if (word == "--live") {
            return true;
        }
    }
    return false;
}

bool DriverModeIsLive(const std::string& dataRoot) {
    std::ifstream in(ModeFile(dataRoot));
    std::string mode;
    return static_cast<bool>(in >> mode) && mode == "live";
}

bool SetDriverMode(const std::string& dataRoot, bool live) {
    if (!live) {
        return ::unlink(ModeFile(dataRoot).c_str()) == 0 || errno == ENOENT;
    }
    return WriteDataFile(dataRoot, ModeFile(dataRoot), "live\n", 0644);
}

std::vector<std::string> DriverServiceWords(const std::string& image, const std::string& dataRoot) {
    std::vector<std::string> words = {image, "--root", dataRoot, "--foreground"};
    if (DriverModeIsLive(dataRoot)) {
        // The live firewall and, with it, the content processor for web and mail.
        words.insert(words.end(), {"--live", "--content"});
    }
    // Traffic for the reference driver to play when started this way (scripts/run's demo).
    if (const char* scenario = std::getenv("QBRIX_DRIVER_SCENARIO");
        scenario != nullptr && *scenario != '\0') {
        words.insert(words.end(), {"--scenario", scenario});
    }
    return words;
}

std::string DriverUnitText(const std::string& driverImage, const std::string& dataRoot) {
    return "[Unit]\n"
           "Description=q-Brix firewall driver (live mode)\n"
           "Wants=network-pre.target\n"
           "After=network-pre.target\n"
           "Before=network.target\n"
           "\n"
           "[Service]\n"
           "ExecStart=" +
           driverImage + " --root " + dataRoot +
           " --foreground --live --content\n"
           "Restart=on-failure\n"
           "\n"
           "[Install]\n"
           "WantedBy=multi-user.target\n";
}

bool InstallDriverUnit(const std::string& unitDirectory, const std::string& driverImage,
                       const std::string& dataRoot, bool runSystemctl) {
    {
        std::ofstream out(UnitFile(unitDirectory), std::ios::trunc);
        out << DriverUnitText(driverImage, dataRoot);
        if (!out.flush()) {
            return false;
        }
    }
    ::chmod(UnitFile(unitDirectory).c_str(), 0644);
    return !runSystemctl ||
           (Systemctl({"daemon-reload"}) && Systemctl({"enable", "--quiet", kDriverUnitName}));
}

bool RemoveDriverUnit(const std::string& unitDirectory, bool runSystemctl) {
    struct stat info {};
    if (::stat(UnitFile(unitDirectory).c_str(), &info) != 0) {
        return true;
    }
    if (runSystemctl) {
        Systemctl({"disable", "--quiet", kDriverUnitName});
    }
    bool removed = ::unlink(UnitFile(unitDirectory).c_str()) == 0;
    if (runSystemctl) {
        Systemctl({"daemon-reload"});
    }
    return removed;
}

bool SystemdRuns() {
    struct stat info {};
    return ::stat("/run/systemd/system", &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace qbrix::platform
