// Named mutexes as advisory lock files in the data root's run directory. The lock is held for as
// long as a handle to the name is open, so "already exists" means that a live handle exists
// somewhere; the kernel drops the lock when its holder dies.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "platform/Kernel.h"
#include "platform/Platform.h"
#include "platform/posix/PosixPlatform.h"

namespace qbrix::platform {

namespace {

class LockFileMutex : public KernelObject {
public:
    LockFileMutex(int fd, bool owned, bool exclusive)
        : m_fd(fd), m_owned(owned), m_exclusive(exclusive) {}
    ~LockFileMutex() override { ::close(m_fd); }

    bool Release() {
        if (!m_owned) {
            return false;
        }
        m_owned = false;
        return true;
    }
    bool Exclusive() const { return m_exclusive; }

private:
    int m_fd;
    bool m_owned;
    bool m_exclusive;
};

std::string LockPath(std::string_view name) {
    std::string space = "Local";
    if (name.substr(0, 7) == "Global\\") {
        space = "Global";
        name.remove_prefix(7);
    } else if (name.substr(0, 6) == "Local\\") {
        name.remove_prefix(6);
    }
    std::string file;
    for (char c : name) {
        file.push_back(c == '/' || c == '\\' ? '_' : c);
    }
    return JoinPath(JoinPath(Current().RunDirectory(), "mutex"), JoinPath(space, file + ".lock"));
}

}  // namespace

HANDLE CreateMutex(BOOL initialOwner, std::string_view name) {
    std::string path = LockPath(name);
    // Only root and the administrators may open the lock file (a read-only descriptor would do
    // to take the lock), whatever the umask.
    const std::string& root = Current().Info().dataRoot;
    MakeDataDirectory(root, std::filesystem::path(path).parent_path().string());
    int fd = OpenDataFile(root, path, O_RDWR | O_CREAT);
    if (fd < 0) {
        SetLastError(errno == EACCES ? ERROR_ACCESS_DENIED : ERROR_PATH_NOT_FOUND);
        return nullptr;
    }
    // The first holder takes the lock exclusively; every later handle takes nothing and only
    // learns that the name exists.
    bool exclusive = ::flock(fd, LOCK_EX | LOCK_NB) == 0;
    if (!exclusive && errno != EWOULDBLOCK) {
        ::close(fd);
        SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    HANDLE handle = Current().Handles().Add(
        std::make_shared<LockFileMutex>(fd, exclusive && initialOwner != 0, exclusive));
    SetLastError(exclusive ? ERROR_SUCCESS : ERROR_ALREADY_EXISTS);
    return handle;
}

BOOL ReleaseMutex(HANDLE mutex) {
    auto object = Current().Handles().FindAs<LockFileMutex>(mutex);
    if (object == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    if (!object->Release()) {
        SetLastError(288);  // ERROR_NOT_OWNER
        return 0;
    }
    return 1;
}

BOOL CloseHandle(HANDLE handle) {
    if (!Current().Handles().Remove(handle)) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    return 1;
}

}  // namespace qbrix::platform
