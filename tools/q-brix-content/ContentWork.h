// What the processor does to one message's content: the antivirus scan (incoming content) and
// the side's enabled rules, with the events the control program's Content Log shows. Runs on a
// worker thread; touches no socket.
#pragma once

#include <sys/types.h>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ContentPolicy.h"
#include "antivirus/ScanEngine.h"
#include "events/ContentEvent.h"

namespace qbrix::contentproc {

// How long one rule may run over one text; a rule that needs longer lets the content through
// unchanged. A page's rules run far below this (a 100 KB page takes microseconds per rule).
inline constexpr std::uint32_t kRuleTimeLimitMs = 2000;

struct Event {
    events::ContentKind kind;
    std::string address;
    std::string name;
    std::string quarantine;
};

// One content event as the mailslot carries it, each text cut to its field.
events::ContentEvent ToRecord(const Event& event);

struct ScanVerdict {
    enum class State : std::uint8_t { Clean, Infected, Failed, TimedOut } state = State::Clean;
    std::string text;  // the engine's name of what it found, or the failure text
};

// The selected antivirus engine, run in a helper process of its own (this program started with
// --scan-helper): an engine library that crashes or hangs ends only the helper, which is started
// again for the next scan. The helper creates the engine by name as the control program's
// selection does ("Sophos", "Una", "NOD32", "ClamAV" in the name) and keeps it while the name and
// the signature folder stay. Scans go one at a time; a scan (waiting for its turn included) that
// takes longer than its limit ends the helper, and the content passes.
class Scanner {
  public:
    // `helper`: the program and arguments that start the helper; the socket to it is given to
    // the helper as descriptor 3.
    explicit Scanner(std::vector<std::string> helper);
    ~Scanner();
    Scanner(const Scanner&) = delete;
    Scanner& operator=(const Scanner&) = delete;
    ScanVerdict ScanFile(const std::string& name, const std::string& repository,
                         const std::string& path, std::uint32_t timeoutMs);

  private:
    bool Start();
    void Stop();

    std::vector<std::string> m_helper;
    std::timed_mutex m_lock;
    int m_pid = -1;
    int m_socket = -1;
};

using EngineFactory = std::function<std::unique_ptr<antivirus::ScanEngine>(
    const std::string& name, const std::string& repository)>;
// The helper's side: answers scan requests on `socket` until it closes. Returns the exit status.
int RunScanHelper(int socket, const EngineFactory& factory);

struct WorkRequest {
    std::size_t protocol = content::kHttpRow;
    Side side = Side::Incoming;
    std::string address;        // the URL, or the mail's server and message number
    std::string suggestedName;  // a file name for the quarantined copy
};

struct WorkResult {
    bool changed = false;  // `text` was rewritten or replaced
    bool blocked = false;  // replaced by a notice: a virus was found
    std::vector<Event> events;
};

// The quarantine folder: the stored value when it is a path of this system, else the data
// root's "quarantine".
std::string QuarantineFolderOf(const ContentPolicy& policy, const std::string& dataRoot);

class ContentWorker {
  public:
    ContentWorker(Scanner& scanner, std::string dataRoot);
    // Scans (incoming content, when the protocol asks for it) and runs the side's rules over
    // `text`. A blocked text is replaced by `notice(virusName, quarantinePath)`.
    WorkResult Process(
        const ContentPolicy& policy, const WorkRequest& request, std::string& text,
        const std::function<std::string(const std::string&, const std::string&)>& notice);

  private:
    Scanner& m_scanner;
    std::string m_dataRoot;
    std::mutex m_lock;
    std::uint64_t m_sequence = 0;
};

// Runs the rules in order over the text; what they found and did becomes events (for rules
// whose Log is on). True when the text changed.
bool RunRules(const std::vector<const content::ContentRule*>& rules, std::string& text,
              const std::string& address, std::vector<Event>& events);

}  // namespace qbrix::contentproc
