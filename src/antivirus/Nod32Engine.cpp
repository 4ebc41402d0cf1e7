#include "antivirus/Nod32Engine.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <mutex>

#include "antivirus/ScanWorker.h"
#include "platform/Platform.h"

namespace qbrix::antivirus {

namespace {

constexpr char kInstallKey[] = "Software\\Eset\\Nod\\CurrentVersion\\Info";
constexpr char kInstallDirValue[] = "InstallDir";
constexpr char kLibraryName[] = "nod32api.dll";
constexpr platform::DWORD kInstallDirBytes = 260;

constexpr platform::DWORD kErrorUnknownProduct = 1614;
constexpr platform::DWORD kErrorDllNotFound = 1157;
constexpr platform::DWORD kErrorEntryPointNotFound = 1154;
constexpr platform::DWORD kErrorDllInitFailed = 1114;

enum EntryPoint { kInit, kInitEx, kDeinit, kSetOption, kGetOption, kScanA, kScanW, kFreeMemory };
constexpr std::array<const char*, 8> kEntryPointNames = {
    "NOD32_Init",      "NOD32_InitEx", "NOD32_Deinit", "NOD32_SetOption",
    "NOD32_GetOption", "NOD32_ScanA",  "NOD32_ScanW",  "NOD32_FreeMemory"};

struct Nod32Library {
    std::int32_t loadCount = 0;
    platform::HMODULE module = nullptr;
    std::array<void*, 8> entries = {};
    // The unnamed mutex serialising load, unload, session open and close. Each initialisation
    // creates a new one over the previous; a holder keeps the one it waits on alive.
    std::shared_ptr<std::mutex> mutex;
};

Nod32Library g_nod32;

template <typename Fn>
Fn Entry(EntryPoint which) {
    return reinterpret_cast<Fn>(g_nod32.entries[which]);
}

// The directory is expected to end with a separator, so the name is appended as it is.
std::string LibraryPath() {
    std::string directory;
    platform::Registry& registry = platform::Current().Reg();
    platform::HKEY key = nullptr;
    char buffer[kInstallDirBytes + 1] = {};
    platform::DWORD size = kInstallDirBytes;
    platform::DWORD type = 0;
    if (registry.OpenKeyEx(platform::HKEY_LOCAL_MACHINE, kInstallKey, platform::KEY_READ, &key) !=
        0) {
        platform::SetLastError(kErrorUnknownProduct);
    } else {
        if (registry.QueryValueEx(key, kInstallDirValue, &type,
                                  reinterpret_cast<platform::BYTE*>(buffer), &size) != 0) {
            platform::SetLastError(kErrorUnknownProduct);
        } else {
            directory.assign(buffer, strnlen(buffer, std::min(size, kInstallDirBytes)));
        }
        registry.CloseKey(key);
    }
    std::string path = directory + kLibraryName;
    std::replace(path.begin(), path.end(), '\\', '/');
    return path;
}

std::shared_ptr<std::mutex> CurrentMutex() {
    return g_nod32.mutex;
}

std::int32_t SetScalar(std::uint32_t session, std::uint32_t optionId, std::uint32_t value) {
    return Nod32SetOption(session, 0, optionId, &value, sizeof(value));
}

std::int32_t SetAllScopes(std::uint32_t session, std::uint32_t optionId, std::uint32_t a,
                          std::uint32_t b) {
    std::int32_t r2 = Nod32SetOption(session, 2, optionId, &b, sizeof(b));
    std::int32_t r1 = Nod32SetOption(session, 1, optionId, &a, sizeof(a));
    std::int32_t r0 = Nod32SetOption(session, 0, optionId, &a, sizeof(a));
    return (r2 != 0 || r1 != 0 || r0 != 0) ? 1 : 0;
}

void SetAllScopesWithData(std::uint32_t session, std::uint32_t optionId, const void* block,
                          std::uint32_t size, std::uint32_t b) {
    Nod32SetOption(session, 2, optionId, &b, sizeof(b));
    Nod32SetOption(session, 1, optionId, block, size);
    Nod32SetOption(session, 0, optionId, block, size);
}

void SetOptionBlock(std::uint32_t session) {
    // The UTF-16 text "|*|" with its terminator: 8 bytes.
    static constexpr char16_t kAllFiles[] = u"|*|";
    static_assert(sizeof(kAllFiles) == 8);

    Nod32SetOption(session, 0, 0, nullptr, 0);
    SetScalar(session, 0x4002, 1);
    SetScalar(session, 0x4000, 1);
    SetScalar(session, 0x4001, 1);
    SetAllScopes(session, 0xFFF10000, 1, 1);
    SetAllScopes(session, 0xFFF20000, 1, 1);
    SetAllScopes(session, 0xFFF30000, 1, 1);
    SetAllScopesWithData(session, 7, kAllFiles, sizeof(kAllFiles), 1);
    SetAllScopes(session, 1, 1, 1);
    SetAllScopes(session, 2, 1, 1);
    SetAllScopes(session, 3, 1, 1);
    SetAllScopes(session, 6, 1, 1);
    SetAllScopes(session, 4, 0, 1);
    Nod32SetOption(session, 0, 0, nullptr, 0);
}

std::int32_t ScanWith(Nod32ScanAFn scan, std::uint32_t session, Nod32ScanRequest* request) {
    if (session == 0 || scan == nullptr) {
        return -1;
    }
    return scan(session, request);
}

}  // namespace

std::int32_t Nod32LoadLibrary() {
    if (g_nod32.loadCount > 0) {
        ++g_nod32.loadCount;
        return 0;
    }
    platform::Libraries& libraries = platform::Current().Libs();
    bool resolved = false;
    g_nod32.module = libraries.Load(LibraryPath());
    if (g_nod32.module == nullptr) {
        platform::SetLastError(kErrorDllNotFound);
    } else {
        resolved = true;
        for (std::size_t i = 0; i < kEntryPointNames.size(); ++i) {
            g_nod32.entries[i] = libraries.GetProcAddress(g_nod32.module, kEntryPointNames[i]);
            resolved = resolved && g_nod32.entries[i] != nullptr;
        }
        if (!resolved) {
            platform::SetLastError(kErrorEntryPointNotFound);
            libraries.Free(g_nod32.module);
            g_nod32.module = nullptr;
            g_nod32.entries = {};
        }
    }
    // Counted after a failure too: the caller's unload gives the count back.
    ++g_nod32.loadCount;
    return resolved ? 0 : -1;
}

void Nod32UnloadLibrary() {
    if (g_nod32.loadCount < 1) {
        return;
    }
    if (g_nod32.loadCount-- == 1) {
        if (g_nod32.module != nullptr && platform::IsInstalled()) {
            platform::Current().Libs().Free(g_nod32.module);
        }
        g_nod32.module = nullptr;
        g_nod32.entries = {};
    }
}

std::uint32_t Nod32OpenSession(Nod32InitRecord* record) {
    std::shared_ptr<std::mutex> mutex = CurrentMutex();
    std::unique_lock<std::mutex> guard;
    if (mutex != nullptr) {
        guard = std::unique_lock(*mutex);
    }
    if (Nod32LoadLibrary() == 0 && g_nod32.entries[kInit] != nullptr) {
        std::uint32_t session = Entry<Nod32InitExFn>(kInitEx)(record);
        if (session != 0) {
            return session;
        }
        platform::SetLastError(kErrorDllInitFailed);
    }
    Nod32UnloadLibrary();
    return 0;
}

void Nod32CloseSession(std::uint32_t session) {
    std::shared_ptr<std::mutex> mutex = CurrentMutex();
    std::unique_lock<std::mutex> guard;
    if (mutex != nullptr) {
        guard = std::unique_lock(*mutex);
    }
    if (session != 0) {
        if (auto deinit = Entry<Nod32DeinitFn>(kDeinit); deinit != nullptr) {
            deinit(session);
        }
        Nod32UnloadLibrary();
    }
}

std::int32_t Nod32SetOption(std::uint32_t session, std::uint32_t scope, std::uint32_t optionId,
                            const void* value, std::uint32_t size) {
    auto setOption = Entry<Nod32SetOptionFn>(kSetOption);
    if (session == 0 || setOption == nullptr) {
        return -1;
    }
    return setOption(session, scope, optionId, value, size);
}

std::int32_t Nod32Scan(std::uint32_t session, Nod32ScanRequest* request) {
    return ScanWith(Entry<Nod32ScanAFn>(kScanA), session, request);
}

std::int32_t Nod32LoadCount() {
    return g_nod32.loadCount;
}

void ResetNod32Library() {
    g_nod32 = Nod32Library();
}

std::int32_t Nod32Engine::Initialise() {
    if (m_session != 0) {
        return 0;
    }
    Nod32InitRecord record = {};
    record.size = sizeof(Nod32InitRecord);
    record.version = kNod32InterfaceVersion;
    g_nod32.mutex = std::make_shared<std::mutex>();
    m_session = Nod32OpenSession(&record);
    if (m_session == 0) {
        return 1;
    }
    SetOptionBlock(m_session);
    return 0;
}

std::int32_t Nod32Engine::ScanFile(const char* path, std::string& message, std::int32_t& infected) {
    infected = 0;
    if (Initialise() != 0) {
        message += kErrorLoadingNod32;
        return 1;
    }
    // A fresh record per scan: a worker abandoned by an earlier scan still owns its own.
    auto job = std::make_shared<Nod32ScanJob>();
    job->path = path != nullptr ? path : "";
    job->request.size = sizeof(Nod32ScanRequest);
    job->request.kind = 4;
    job->request.path = job->path.c_str();
    job->request.zero = 0;
    job->request.text = job->text;
    m_lastScan = job;

    auto scan = Entry<Nod32ScanAFn>(kScanA);
    std::uint32_t session = m_session;
    std::shared_ptr<void> code = platform::Libraries::HoldLibraryOf(reinterpret_cast<void*>(scan));
    bool finished = RunScanWorker(
        [job, scan, session, code] { job->status = ScanWith(scan, session, &job->request); });
    if (!finished) {
        message += kThreadFail;
        return 1;
    }
    if (job->status != 0) {
        message += kAvError;
        return 1;
    }
    if (job->request.infected == 0) {
        return 0;
    }
    message.append(job->text, strnlen(job->text, kNod32TextSize));
    infected = 1;
    return 1;
}

Nod32Engine::~Nod32Engine() {
    // Without a platform the library went with its loader: there is nothing left to call.
    if (!platform::IsInstalled()) {
        return;
    }
    SetScalar(m_session, 0x4003, 1);
    Nod32CloseSession(m_session);
    // The session value names no kernel object of this platform, so waiting on it as on a
    // waitable object would end at once; there is nothing to wait for.
    g_nod32.mutex.reset();
    m_session = 0;
}

}  // namespace qbrix::antivirus
