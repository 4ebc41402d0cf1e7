#include "antivirus/ClamAvEngine.h"

#include <clamav.h>

#include "core/DiagLog.h"
#include "platform/Platform.h"

namespace qbrix::antivirus {

struct ClamAvEngine::Calls {
    decltype(&cl_set_clcb_msg) setMessages = nullptr;
    decltype(&cl_init) init = nullptr;
    decltype(&cl_strerror) errorText = nullptr;
    decltype(&cl_engine_new) engineNew = nullptr;
    decltype(&cl_engine_free) engineFree = nullptr;
    decltype(&cl_retdbdir) databaseFolder = nullptr;
    decltype(&cl_load) load = nullptr;
    decltype(&cl_engine_compile) compile = nullptr;
    decltype(&cl_scanfile) scanFile = nullptr;
};

namespace {

// The library's own messages go to the diagnostic log, not to the program's error output.
void ToDiagLog(enum cl_msg, const char* fullMessage, const char*, void*) {
    core::DiagLog("\n ClamAV: %s", fullMessage);
}

}  // namespace

ClamAvEngine::ClamAvEngine(std::string databaseDirectory)
    : m_directory(std::move(databaseDirectory)) {}

ClamAvEngine::~ClamAvEngine() {
    if (m_engine != nullptr) {
        m_calls->engineFree(m_engine);
    }
    if (m_library != nullptr) {
        platform::Current().Libs().Free(static_cast<platform::HMODULE>(m_library));
    }
}

bool ClamAvEngine::Load() {
    std::call_once(m_loadOnce, [this] {
        platform::Libraries& libraries = platform::Current().Libs();
        auto library = libraries.Load(QBRIX_CLAMAV_LIBRARY);
        if (library == nullptr) {
            m_problem = std::string("cannot load ") + QBRIX_CLAMAV_LIBRARY +
                        " (install the Debian package libclamav12 or its successor)";
            core::DiagLog("\n ClamAV: %s", m_problem.c_str());
            return;
        }
        m_library = library;
        auto calls = std::make_unique<Calls>();
        bool found = true;
        auto resolve = [&](auto& entry, const char* name) {
            entry = reinterpret_cast<std::remove_reference_t<decltype(entry)>>(
                libraries.GetProcAddress(library, name));
            found = found && entry != nullptr;
        };
        resolve(calls->setMessages, "cl_set_clcb_msg");
        resolve(calls->init, "cl_init");
        resolve(calls->errorText, "cl_strerror");
        resolve(calls->engineNew, "cl_engine_new");
        resolve(calls->engineFree, "cl_engine_free");
        resolve(calls->databaseFolder, "cl_retdbdir");
        resolve(calls->load, "cl_load");
        resolve(calls->compile, "cl_engine_compile");
        resolve(calls->scanFile, "cl_scanfile");
        if (!found) {
            m_problem = std::string(QBRIX_CLAMAV_LIBRARY) + " lacks an entry point";
            core::DiagLog("\n ClamAV: %s", m_problem.c_str());
            return;
        }
        // cl_init sets up the library's process-wide state: it stays loaded from here on.
        platform::Libraries::KeepLibraryOf(reinterpret_cast<const void*>(calls->init));
        m_calls = std::move(calls);
        const Calls& cl = *m_calls;
        cl.setMessages(ToDiagLog);
        if (cl_error_t initialised = cl.init(CL_INIT_DEFAULT); initialised != CL_SUCCESS) {
            m_problem = std::string("cl_init: ") + cl.errorText(initialised);
            return;
        }
        cl_engine* engine = cl.engineNew();
        if (engine == nullptr) {
            m_problem = "cl_engine_new failed";
            return;
        }
        std::string directory = m_directory.empty() ? cl.databaseFolder() : m_directory;
        unsigned int signatures = 0;
        cl_error_t rc = cl.load(directory.c_str(), engine, &signatures, CL_DB_STDOPT);
        if (rc == CL_SUCCESS && signatures == 0) {
            m_problem = "no signatures in " + directory;
        } else if (rc != CL_SUCCESS) {
            m_problem = directory + ": " + cl.errorText(rc);
        } else if ((rc = cl.compile(engine)) != CL_SUCCESS) {
            m_problem = std::string("cl_engine_compile: ") + cl.errorText(rc);
        }
        if (!m_problem.empty()) {
            cl.engineFree(engine);
            core::DiagLog("\n ClamAV: %s", m_problem.c_str());
            return;
        }
        m_engine = engine;
    });
    return m_engine != nullptr;
}

std::int32_t ClamAvEngine::ScanFile(const char* path, std::string& message,
                                    std::int32_t& infected) {
    infected = 0;
    if (!Load()) {
        message += kErrorLoadingClamAv;
        return 1;
    }
    cl_scan_options options{};
    options.parse = ~0u;  // archives, mail, documents: everything the engine can open
    const char* name = nullptr;
    unsigned long scanned = 0;
    cl_error_t rc = m_calls->scanFile(path, &name, &scanned, m_engine, &options);
    if (rc == CL_VIRUS) {
        message += name != nullptr ? name : "virus";
        infected = 1;
        return 1;
    }
    if (rc != CL_CLEAN) {
        message += kAvError;
        return 1;
    }
    return 0;
}

}  // namespace qbrix::antivirus
