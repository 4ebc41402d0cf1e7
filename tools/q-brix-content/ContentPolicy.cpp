#include "ContentPolicy.h"

#include <sys/stat.h>

#include "antivirus/EngineSelection.h"
#include "content/ContentStore.h"

namespace qbrix::contentproc {

std::shared_ptr<const ContentPolicy> ContentPolicy::Load() {
    auto policy = std::make_shared<ContentPolicy>();
    policy->m_settings = std::make_unique<content::LspSettings>();
    content::LspSettings& settings = *policy->m_settings;
    content::LoadLspSettings(settings, 1);
    policy->engineName = settings.avName;
    policy->repository = settings.repository;
    policy->quarantine = settings.quarantine;
    for (std::size_t row = 0; row < content::kProtocolCount; ++row) {
        const content::ProtocolRow& protocol = content::kProtocolTable[row];
        content::ProtocolOptions& options = settings.protocols[protocol.optionsIndex];
        // A store that cannot be read leaves the list empty: content then passes unchanged.
        content::LoadContentRules(protocol.rulesKey, options.rules);
        ProtocolPolicy& out = policy->protocols[row];
        // Without an engine there is nothing to scan with: content is not held for it.
        out.scan = options.enableAV != 0 && antivirus::NamesAnEngine(policy->engineName);
        out.logScans = options.enableAVLOG != 0;
        out.block = options.blockAV != 0;
        out.rules = options.enableREG != 0;
        out.maxSize = options.maxSize;
        out.scanTimeoutMs = options.maxAvTimeout;
        for (std::size_t i = 0; i < options.rules.Size(); ++i) {
            const content::ContentRule& rule = options.rules.At(i);
            if (rule.enable == 0) {
                continue;
            }
            (rule.direction == 1 ? out.outgoing : out.incoming).push_back(&rule);
        }
    }
    return policy;
}

PolicyWatcher::PolicyWatcher(std::string databasePath) : m_database(std::move(databasePath)) {}

PolicyWatcher::Stamp PolicyWatcher::Look() const {
    Stamp stamp;
    struct stat info {};
    if (::stat(m_database.c_str(), &info) == 0) {
        stamp.mainNs = info.st_mtim.tv_sec * 1000000000LL + info.st_mtim.tv_nsec;
        stamp.mainSize = info.st_size;
    }
    if (::stat((m_database + "-wal").c_str(), &info) == 0) {
        stamp.logNs = info.st_mtim.tv_sec * 1000000000LL + info.st_mtim.tv_nsec;
        stamp.logSize = info.st_size;
    }
    return stamp;
}

std::shared_ptr<const ContentPolicy> PolicyWatcher::Current() {
    Stamp now = Look();
    if (!m_policy || !(now == m_stamp)) {
        m_policy = ContentPolicy::Load();
        // Taken after the load: the defaults it wrote back are not a change to load again.
        m_stamp = Look();
    }
    return m_policy;
}

}  // namespace qbrix::contentproc
