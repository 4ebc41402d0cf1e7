#include "antivirus/EngineSelection.h"

#include <memory>
#include <new>

#include "antivirus/ClamAvEngine.h"
#include "antivirus/Nod32Engine.h"
#include "antivirus/SophosEngine.h"
#include "antivirus/UnaEngine.h"
#include "content/LspSettings.h"
#include "core/DiagLog.h"

namespace qbrix::antivirus {

namespace {

std::unique_ptr<ScanEngine> g_currentEngine;
std::string g_currentEngineName;
EngineFactory g_engineFactory;

ScanEngine* MakeEngine(EngineKind kind) {
    if (g_engineFactory) {
        return g_engineFactory(kind);
    }
    switch (kind) {
        case EngineKind::Sophos:
            return new (std::nothrow) SophosEngine();
        case EngineKind::Una:
            return new (std::nothrow) UnaEngine();
        case EngineKind::Nod32:
            return new (std::nothrow) Nod32Engine();
        case EngineKind::ClamAv: {
            // The signature folder is stored beside the engine name.
            content::LoadLspSettings(content::g_lspSettings, 0);
            std::string repository;
            {
                std::lock_guard<std::recursive_mutex> lock(content::g_lspSettings.lock);
                repository = content::g_lspSettings.repository;
            }
            return new (std::nothrow) ClamAvEngine(repository);
        }
    }
    return nullptr;
}

// Independent tests: a name holding two of the words gets the engine of the later test.
void CreateEngineForCurrentName() {
    if (g_currentEngineName.find("Sophos") != std::string::npos) {
        g_currentEngine.reset(MakeEngine(EngineKind::Sophos));
        core::DiagLog("\n Sophos created");
    }
    if (g_currentEngineName.find("Una") != std::string::npos) {
        g_currentEngine.reset(MakeEngine(EngineKind::Una));
        core::DiagLog("\n Una created");
    }
    if (g_currentEngineName.find("NOD32") != std::string::npos) {
        g_currentEngine.reset(MakeEngine(EngineKind::Nod32));
        core::DiagLog("\n NOD32 created");
    }
    if (g_currentEngineName.find("ClamAV") != std::string::npos) {
        g_currentEngine.reset(MakeEngine(EngineKind::ClamAv));
        core::DiagLog("\n ClamAV created");
    }
}

}  // namespace

std::int32_t ScanWithEngine(const char* path, std::string& result, const char* engineName) {
    std::string name = engineName != nullptr ? std::string(engineName) : StoredEngineName();
    if (name != g_currentEngineName) {
        core::DiagLog("\n AV changed to '%s'", name.c_str());
        g_currentEngineName = name;
        g_currentEngine.reset();
    }
    if (g_currentEngine == nullptr) {
        CreateEngineForCurrentName();
        if (g_currentEngine == nullptr) {
            result = kAvNotInstalled;
            return 0;
        }
    }
    result.clear();
    std::int32_t infected = 0;
    std::int32_t status = g_currentEngine->ScanFile(path, result, infected);
    if (infected != 0) {
        return 1;
    }
    if (status == 0) {
        result = kScanned;
    }
    return 0;
}

void ReleaseScanEngine() {
    g_currentEngine.reset();
    g_currentEngineName.clear();
}

ScanEngine* CurrentEngine() {
    return g_currentEngine.get();
}

const std::string& CurrentEngineName() {
    return g_currentEngineName;
}

std::string StoredEngineName() {
    return content::LoadAvEngineName(content::g_lspSettings);
}

std::unique_ptr<ScanEngine> CreateEngineByName(const std::string& name,
                                               const std::string& repository) {
    std::unique_ptr<ScanEngine> engine;
    if (name.find("Sophos") != std::string::npos) {
        engine = std::make_unique<SophosEngine>();
    }
    if (name.find("Una") != std::string::npos) {
        engine = std::make_unique<UnaEngine>();
    }
    if (name.find("NOD32") != std::string::npos) {
        engine = std::make_unique<Nod32Engine>();
    }
    if (name.find("ClamAV") != std::string::npos) {
        engine = std::make_unique<ClamAvEngine>(repository);
    }
    return engine;
}

bool NamesAnEngine(const std::string& name) {
    for (const char* word : {"Sophos", "Una", "NOD32", "ClamAV"}) {
        if (name.find(word) != std::string::npos) {
            return true;
        }
    }
    return false;
}

void SetEngineFactory(EngineFactory factory) {
    g_engineFactory = std::move(factory);
}

void ResetEngineSelection() {
    ReleaseScanEngine();
    g_engineFactory = nullptr;
}

}  // namespace qbrix::antivirus
