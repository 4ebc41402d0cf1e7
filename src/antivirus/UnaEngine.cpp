#include "antivirus/UnaEngine.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "antivirus/ScanWorker.h"
#include "core/RegistryKey.h"
#include "platform/Platform.h"

namespace qbrix::antivirus {

namespace {

constexpr char kUnaKey[] = "SOFTWARE\\Ukranian Antivirus center\\UNA";
constexpr char kPathValue[] = "Path";
constexpr char kLibraryName[] = "\\UNAMSCAN.DLL";
constexpr char kTestEntry[] = "UnaAPIFileTest";

}  // namespace

std::int32_t UnaEngine::LoadUnaLibrary() {
    if (m_test != nullptr) {
        return 0;
    }
    // Reading a missing "Path" writes the empty default back, so a machine without the engine
    // gets the key and an empty value.
    core::RegistryKey key("", kUnaKey);
    std::string path = key.GetString(kPathValue, "") + kLibraryName;
    std::replace(path.begin(), path.end(), '\\', '/');
    platform::Libraries& libraries = platform::Current().Libs();
    m_library = libraries.Load(path);
    if (m_library != nullptr) {
        m_test = reinterpret_cast<UnaFileTestFn>(libraries.GetProcAddress(m_library, kTestEntry));
        if (m_test != nullptr) {
            return 0;
        }
        libraries.Free(m_library);
        m_library = nullptr;
    }
    return 1;
}

std::int32_t UnaEngine::ScanFile(const char* path, std::string& message, std::int32_t& infected) {
    infected = 0;
    if (LoadUnaLibrary() != 0) {
        message += kErrorLoadingUnasoft;
        return 1;
    }
    // A fresh record and path buffer per scan, owned jointly with the worker: an abandoned
    // worker keeps them until it ends, and the record's result area starts cleared.
    auto job = std::make_shared<UnaScanJob>();
    if (path != nullptr) {
        std::size_t length = strnlen(path, kUnaPathBufferSize - 1);
        std::memcpy(job->pathBuffer.data(), path, length);
    }
    job->record.path = job->pathBuffer.data();
    job->record.test = m_test;
    std::shared_ptr<void> code =
        platform::Libraries::HoldLibraryOf(reinterpret_cast<void*>(m_test));
    bool finished =
        RunScanWorker([job, code] { job->record.test(job->record.path, 0, 1, &job->record); });
    if (!finished) {
        message += kThreadFail;
        return 1;
    }
    if (job->record.infected == 0) {
        return 0;
    }
    message.append(job->record.threatName, strnlen(job->record.threatName, kUnaThreatNameSize));
    infected = 1;
    return 1;
}

UnaEngine::~UnaEngine() {
    if (m_library != nullptr && platform::IsInstalled()) {
        platform::Current().Libs().Free(m_library);
    }
}

}  // namespace qbrix::antivirus
