#include "antivirus/ClamAvEngine.h"

#include <clamav.h>

#include "core/DiagLog.h"

namespace qbrix::antivirus {

ClamAvEngine::ClamAvEngine(std::string databaseDirectory)
    : m_directory(std::move(databaseDirectory)) {}

ClamAvEngine::~ClamAvEngine() {
    if (m_engine != nullptr) {
        cl_engine_free(m_engine);
    }
}

namespace {

// The library's own messages go to the diagnostic log, not to the program's error output.
void ToDiagLog(enum cl_msg, const char* fullMessage, const char*, void*) {
    core::DiagLog("\n ClamAV: %s", fullMessage);
}

}  // namespace

bool ClamAvEngine::Load() {
    std::call_once(m_loadOnce, [this] {
        static const cl_error_t initialised = [] {
            cl_set_clcb_msg(ToDiagLog);
            return cl_init(CL_INIT_DEFAULT);
        }();
        if (initialised != CL_SUCCESS) {
            m_problem = std::string("cl_init: ") + cl_strerror(initialised);
            return;
        }
        cl_engine* engine = cl_engine_new();
        if (engine == nullptr) {
            m_problem = "cl_engine_new failed";
            return;
        }
        std::string directory = m_directory.empty() ? cl_retdbdir() : m_directory;
        unsigned int signatures = 0;
        cl_error_t rc = cl_load(directory.c_str(), engine, &signatures, CL_DB_STDOPT);
        if (rc == CL_SUCCESS && signatures == 0) {
            m_problem = "no signatures in " + directory;
        } else if (rc != CL_SUCCESS) {
            m_problem = directory + ": " + cl_strerror(rc);
        } else if ((rc = cl_engine_compile(engine)) != CL_SUCCESS) {
            m_problem = std::string("cl_engine_compile: ") + cl_strerror(rc);
        }
        if (!m_problem.empty()) {
            cl_engine_free(engine);
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
    cl_error_t rc = cl_scanfile(path, &name, &scanned, m_engine, &options);
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
