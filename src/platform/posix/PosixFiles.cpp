#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <mutex>
#include <string>

#include "platform/Files.h"
#include "platform/Kernel.h"
#include "platform/Platform.h"

namespace qbrix::platform {

namespace {

DWORD ErrorFromErrno(int error) {
    switch (error) {
        case ENOENT:
            return ERROR_PATH_NOT_FOUND;
        case EACCES:
        case EPERM:
        case EROFS:
        case EISDIR:
            return ERROR_ACCESS_DENIED;
        case ENOMEM:
            return ERROR_NOT_ENOUGH_MEMORY;
        default:
            return ERROR_GEN_FAILURE;
    }
}

class FileMapping : public KernelObject {
  public:
    FileMapping(int file, std::uint64_t length) : m_file(file), m_length(length) {}
    ~FileMapping() override { ::close(m_file); }
    int File() const { return m_file; }
    std::uint64_t Length() const { return m_length; }

  private:
    int m_file;  // a duplicate, so the mapping outlives the caller's descriptor as on Windows
    std::uint64_t m_length;
};

class PosixFileMappings : public FileMappings {
  public:
    HANDLE CreateFileMapping(int file, std::uint64_t length) override {
        struct stat info;
        if (::fstat(file, &info) != 0) {
            SetLastError(ERROR_INVALID_HANDLE);
            return nullptr;
        }
        // A mapping of nothing, or of more than the file holds, is refused as on Windows for a
        // read-write mapping of a file that cannot grow through it.
        if (length == 0 || !S_ISREG(info.st_mode) ||
            length > static_cast<std::uint64_t>(info.st_size)) {
            SetLastError(ERROR_INVALID_PARAMETER);
            return nullptr;
        }
        int copy = ::fcntl(file, F_DUPFD_CLOEXEC, 0);
        if (copy < 0) {
            SetLastError(ErrorFromErrno(errno));
            return nullptr;
        }
        return Current().Handles().Add(std::make_shared<FileMapping>(copy, length));
    }

    void* MapViewOfFile(HANDLE mapping) override {
        auto object = Current().Handles().FindAs<FileMapping>(mapping);
        if (object == nullptr) {
            SetLastError(ERROR_INVALID_HANDLE);
            return nullptr;
        }
        void* view = ::mmap(nullptr, object->Length(), PROT_READ | PROT_WRITE, MAP_SHARED,
                            object->File(), 0);
        if (view == MAP_FAILED) {
            SetLastError(ErrorFromErrno(errno));
            return nullptr;
        }
        std::lock_guard guard(m_lock);
        m_views[view] = object->Length();
        return view;
    }

    BOOL UnmapViewOfFile(void* view) override {
        std::size_t length;
        {
            std::lock_guard guard(m_lock);
            auto it = m_views.find(view);
            if (it == m_views.end()) {
                SetLastError(ERROR_INVALID_PARAMETER);
                return 0;
            }
            length = it->second;
            m_views.erase(it);
        }
        if (::munmap(view, length) != 0) {
            SetLastError(ErrorFromErrno(errno));
            return 0;
        }
        return 1;
    }

  private:
    std::mutex m_lock;
    std::map<void*, std::size_t> m_views;
};

}  // namespace

int OpenFileAtEnd(std::string_view path) {
    std::string name(path);
    int file = ::open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (file < 0) {
        SetLastError(ErrorFromErrno(errno));
        return -1;
    }
    ::lseek(file, 0, SEEK_END);
    return file;
}

BOOL WriteToFile(int file, const void* data, std::size_t size) {
    const char* bytes = static_cast<const char*>(data);
    while (size > 0) {
        ssize_t written = ::write(file, bytes, size);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            SetLastError(ErrorFromErrno(errno));
            return 0;
        }
        bytes += written;
        size -= static_cast<std::size_t>(written);
    }
    return 1;
}

std::int64_t GetFileLength(int file) {
    struct stat info;
    if (::fstat(file, &info) != 0) {
        SetLastError(ERROR_INVALID_HANDLE);
        return -1;
    }
    return info.st_size;
}

BOOL SetFileLength(int file, std::uint64_t length) {
    if (::ftruncate(file, static_cast<off_t>(length)) != 0) {
        SetLastError(ErrorFromErrno(errno));
        return 0;
    }
    return 1;
}

BOOL MoveToFileEnd(int file) {
    if (::lseek(file, 0, SEEK_END) < 0) {
        SetLastError(ErrorFromErrno(errno));
        return 0;
    }
    return 1;
}

BOOL FlushFile(int file) {
    return ::fsync(file) == 0 ? 1 : 0;
}

void CloseFile(int file) {
    if (file >= 0) {
        ::close(file);
    }
}

FileMappings& SystemFileMappings() {
    static PosixFileMappings mappings;
    return mappings;
}

}  // namespace qbrix::platform
