// The content processor's part of the policy: per protocol the switches, limits and enabled rules
// of each direction, read from the store where the control program writes them. A loaded policy
// never changes; a newer one replaces it as a whole when the store changes, so a connection works
// with one consistent policy per message.
#pragma once

#include <sys/types.h>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "content/LspSettings.h"
#include "content/ProtocolTable.h"

namespace qbrix::contentproc {

enum class Side : std::uint8_t { Incoming = 0, Outgoing = 1 };

struct ProtocolPolicy {
    bool scan = true;      // EnableAV, and an engine is selected
    bool logScans = true;  // EnableAVLOG
    bool block = true;     // BlockAV
    bool rules = true;     // EnableREG
    std::size_t maxSize = 100000;
    std::uint32_t scanTimeoutMs = 5000;
    // The enabled rules of each side, in list order.
    std::vector<const content::ContentRule*> incoming;
    std::vector<const content::ContentRule*> outgoing;

    const std::vector<const content::ContentRule*>& RulesOf(Side side) const {
        return side == Side::Incoming ? incoming : outgoing;
    }
    // Whether a message of this side needs its content at all.
    bool WantsContent(Side side) const {
        return (rules && !RulesOf(side).empty()) || (scan && side == Side::Incoming);
    }
};

class ContentPolicy {
  public:
    ProtocolPolicy protocols[content::kProtocolCount];
    std::string engineName;  // AVName
    std::string repository;  // the engine's signature folder, when it needs one
    std::string quarantine;  // where blocked content is kept

    // Reads the store (values missing are written back with the control program's defaults).
    static std::shared_ptr<const ContentPolicy> Load();

  private:
    std::unique_ptr<content::LspSettings> m_settings;  // owns the rules
};

// Notices changes of the store by its files (the database and its write-ahead log), so a rule
// saved by the control program or q-brixctl takes effect on the next message.
class PolicyWatcher {
  public:
    explicit PolicyWatcher(std::string databasePath);
    // The current policy, reloaded first when the store changed since the last look.
    std::shared_ptr<const ContentPolicy> Current();

  private:
    struct Stamp {
        std::int64_t mainNs = 0, logNs = 0;
        off_t mainSize = 0, logSize = 0;
        bool operator==(const Stamp&) const = default;
    };
    Stamp Look() const;

    std::string m_database;
    Stamp m_stamp;
    std::shared_ptr<const ContentPolicy> m_policy;
};

}  // namespace qbrix::contentproc
