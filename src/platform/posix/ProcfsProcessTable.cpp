// The process table over /proc: every numeric directory is a process; its "exe" link names the
// executable (readable only for processes the caller may inspect), "stat" its parent and thread
// count, and "maps" the files mapped into it.
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "platform/Processes.h"

namespace qbrix::platform {

namespace {

std::string ProcPath(DWORD processId, const char* item) {
    return "/proc/" + std::to_string(processId) + "/" + item;
}

bool ReadExecutable(DWORD processId, std::string& path, DWORD& error) {
    char buffer[PATH_MAX];
    ssize_t length = ::readlink(ProcPath(processId, "exe").c_str(), buffer, sizeof buffer - 1);
    if (length <= 0) {
        // A process that has gone loses its directory; one we may not inspect (or a kernel
        // thread, which has no executable) keeps it.
        bool exists = ::access(ProcPath(processId, "").c_str(), F_OK) == 0;
        error = exists ? ERROR_ACCESS_DENIED : ERROR_INVALID_PARAMETER;
        return false;
    }
    path.assign(buffer, static_cast<std::size_t>(length));
    // An executable replaced while running reads "<path> (deleted)".
    static const std::string kDeleted = " (deleted)";
    if (path.size() > kDeleted.size() &&
        path.compare(path.size() - kDeleted.size(), kDeleted.size(), kDeleted) == 0) {
        path.resize(path.size() - kDeleted.size());
    }
    return true;
}

void ReadStat(ProcessEntry& entry) {
    char text[1024];
    int fd = ::open(ProcPath(entry.processId, "stat").c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return;
    }
    ssize_t length = ::read(fd, text, sizeof text - 1);
    ::close(fd);
    if (length <= 0) {
        return;
    }
    text[length] = '\0';
    // The command name in parentheses may itself contain blanks and parentheses.
    const char* close = std::strrchr(text, ')');
    if (close == nullptr) {
        return;
    }
    // After the name: state, parent, then 15 fields up to the thread count.
    char state = 0;
    long parent = 0;
    long threads = 0;
    int fields = std::sscanf(close + 1,
                             " %c %ld %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s "
                             "%*s %ld",
                             &state, &parent, &threads);
    if (fields >= 2) {
        entry.parentProcessId = static_cast<DWORD>(parent);
    }
    if (fields == 3) {
        entry.threads = static_cast<DWORD>(threads);
    }
}

class ProcfsProcessTable : public ProcessTable {
  public:
    std::vector<ProcessEntry> List() override {
        std::vector<ProcessEntry> processes;
        DIR* proc = ::opendir("/proc");
        if (proc == nullptr) {
            return processes;
        }
        while (const dirent* item = ::readdir(proc)) {
            char* end = nullptr;
            unsigned long id = std::strtoul(item->d_name, &end, 10);
            if (end == item->d_name || *end != '\0' || id == 0 || id > 0xFFFFFFFFul) {
                continue;
            }
            ProcessEntry entry;
            entry.processId = static_cast<DWORD>(id);
            DWORD ignored = 0;
            ReadExecutable(entry.processId, entry.executable, ignored);
            ReadStat(entry);
            processes.push_back(std::move(entry));
        }
        ::closedir(proc);
        std::sort(
            processes.begin(), processes.end(),
            [](const ProcessEntry& a, const ProcessEntry& b) { return a.processId < b.processId; });
        return processes;
    }

    DWORD ExecutablePath(DWORD processId, std::string& path) override {
        DWORD error = ERROR_SUCCESS;
        return ReadExecutable(processId, path, error) ? ERROR_SUCCESS : error;
    }

    DWORD Modules(DWORD processId, std::vector<std::string>& files) override {
        files.clear();
        std::string executable;
        if (DWORD error = ExecutablePath(processId, executable); error != ERROR_SUCCESS) {
            return error;
        }
        files.push_back(executable);
        std::ifstream maps(ProcPath(processId, "maps"));
        std::string line;
        while (std::getline(maps, line)) {
            std::size_t slash = line.find('/');
            if (slash == std::string::npos) {
                continue;
            }
            std::string file = line.substr(slash);
            if (std::find(files.begin(), files.end(), file) == files.end()) {
                files.push_back(file);
            }
        }
        return ERROR_SUCCESS;
    }
};

}  // namespace

std::unique_ptr<ProcessTable> MakeProcfsProcessTable() {
    return std::make_unique<ProcfsProcessTable>();
}

}  // namespace qbrix::platform
