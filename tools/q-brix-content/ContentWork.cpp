#include "ContentWork.h"

#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "content/RuleEngine.h"
#include "platform/posix/PosixPlatform.h"

extern char** environ;

namespace qbrix::contentproc {

namespace {

template <std::size_t N>
void CopyField(char (&field)[N], const std::string& text) {
    std::size_t length = std::min(text.size(), N - 1);
    std::memcpy(field, text.data(), length);
    field[length] = '\0';
}

// A file name made of the safe characters of `hint`, so a URL cannot name a path.
std::string SafeName(const std::string& hint) {
    std::string name;
    for (char c : hint) {
        bool safe = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    c == '.' || c == '-' || c == '_';
        name += safe ? c : '_';
        if (name.size() >= 60) {
            break;
        }
    }
    return name.empty() ? "content" : name;
}

}  // namespace

events::ContentEvent ToRecord(const Event& event) {
    events::ContentEvent record{};
    record.type = event.kind;
    CopyField(record.address, event.address);
    CopyField(record.name, event.name);
    CopyField(record.quarantine, event.quarantine);
    return record;
}

namespace {

// Requests: engine name, signature folder and file path, each ended by a zero byte. Answers: the
// verdict's state as one byte, then its text. One packet each.
constexpr std::size_t kPacket = 8192;

bool SendPacket(int socket, const std::string& packet) {
    return ::send(socket, packet.data(), packet.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(packet.size());
}

}  // namespace

Scanner::Scanner(std::vector<std::string> helper) : m_helper(std::move(helper)) {}

Scanner::~Scanner() {
    Stop();
}

bool Scanner::Start() {
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) {
        return false;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pair[1], 3);
    std::vector<char*> argv;
    for (std::string& word : m_helper) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    int rc = ::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pair[1]);
    if (rc != 0) {
        ::close(pair[0]);
        return false;
    }
    m_pid = pid;
    m_socket = pair[0];
    return true;
}

void Scanner::Stop() {
    if (m_socket >= 0) {
        ::close(m_socket);
        m_socket = -1;
    }
    if (m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
        m_pid = -1;
    }
}

ScanVerdict Scanner::ScanFile(const std::string& name, const std::string& repository,
                              const std::string& path, std::uint32_t timeoutMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    std::unique_lock<std::timed_mutex> lock(m_lock, deadline);
    if (!lock.owns_lock()) {
        return {ScanVerdict::State::TimedOut, "AV timeout"};
    }
    if (m_socket < 0 && !Start()) {
        return {ScanVerdict::State::Failed, "cannot start the antivirus helper"};
    }
    std::string request = name + '\0' + repository + '\0' + path + '\0';
    if (!SendPacket(m_socket, request)) {
        Stop();
        return {ScanVerdict::State::Failed, "AV engine ended unexpectedly"};
    }
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd ready{m_socket, POLLIN, 0};
    int polled = ::poll(&ready, 1, static_cast<int>(std::max<long long>(left.count(), 0)));
    if (polled <= 0) {
        // A hung engine: the helper goes, the next scan starts a new one.
        Stop();
        return {ScanVerdict::State::TimedOut, "AV timeout"};
    }
    char answer[kPacket];
    ssize_t got = ::recv(m_socket, answer, sizeof(answer), 0);
    if (got <= 0) {
        Stop();
        return {ScanVerdict::State::Failed, "AV engine ended unexpectedly"};
    }
    auto state = static_cast<ScanVerdict::State>(answer[0]);
    if (state != ScanVerdict::State::Clean && state != ScanVerdict::State::Infected &&
        state != ScanVerdict::State::Failed) {
        Stop();
        return {ScanVerdict::State::Failed, "AV engine ended unexpectedly"};
    }
    return {state, std::string(answer + 1, static_cast<std::size_t>(got - 1))};
}

int RunScanHelper(int socket, const EngineFactory& factory) {
    std::unique_ptr<antivirus::ScanEngine> engine;
    std::string engineName, engineRepository;
    char request[kPacket];
    for (;;) {
        ssize_t got = ::recv(socket, request, sizeof(request) - 1, 0);
        if (got <= 0) {
            return 0;  // the processor closed its end
        }
        request[got] = '\0';
        std::string name = request;
        std::string repository = request + name.size() + 1;
        std::string path = request + name.size() + repository.size() + 2;
        if (!engine || name != engineName || repository != engineRepository) {
            engine.reset();
            engine = factory(name, repository);
            engineName = name;
            engineRepository = repository;
        }
        ScanVerdict verdict;
        if (!engine) {
            verdict = {ScanVerdict::State::Failed, "AV not installed"};
        } else {
            std::string message;
            std::int32_t infected = 0;
            std::int32_t rc = engine->ScanFile(path.c_str(), message, infected);
            if (infected != 0) {
                verdict = {ScanVerdict::State::Infected, message};
            } else if (rc != 0) {
                verdict = {ScanVerdict::State::Failed, message};
            }
        }
        std::string answer(1, static_cast<char>(verdict.state));
        answer += verdict.text.substr(0, kPacket - 1);
        if (!SendPacket(socket, answer)) {
            return 0;
        }
    }
}

std::string QuarantineFolderOf(const ContentPolicy& policy, const std::string& dataRoot) {
    if (!policy.quarantine.empty() && policy.quarantine.front() == '/') {
        return policy.quarantine;
    }
    return dataRoot + "/quarantine";
}

bool RunRules(const std::vector<const content::ContentRule*>& rules, std::string& text,
              const std::string& address, std::vector<Event>& events) {
    if (rules.empty()) {
        return false;
    }
    content::RunLimits limits;
    limits.time = std::chrono::milliseconds(kRuleTimeLimitMs);
    // What a rule changed is only needed for its event: a rule that logs nothing runs without a
    // copy of the text, and the whole run is compared once.
    const std::string original = text;
    std::string before;
    for (const content::ContentRule* rule : rules) {
        if (rule->log != 0) {
            before = text;
        }
        std::string stopReason;
        int verdict = content::ApplyContentRule(*rule, text, limits, &stopReason);
        if (rule->log == 0) {
            continue;
        }
        if (verdict == content::kRuleStopped) {
            events.push_back({events::kRuleFound, address,
                              rule->name + " (stopped, content passed: " + stopReason + ")", ""});
        } else if (text != before) {
            events.push_back({events::kRuleApplied, address, rule->name, ""});
        } else if (verdict >= content::kRuleFound) {
            events.push_back({events::kRuleFound, address, rule->name, ""});
        }
    }
    return text != original;
}

ContentWorker::ContentWorker(Scanner& scanner, std::string dataRoot)
    : m_scanner(scanner), m_dataRoot(std::move(dataRoot)) {}

WorkResult ContentWorker::Process(
    const ContentPolicy& policy, const WorkRequest& request, std::string& text,
    const std::function<std::string(const std::string&, const std::string&)>& notice) {
    WorkResult result;
    const ProtocolPolicy& protocol = policy.protocols[request.protocol];
    bool mail = request.protocol == content::kPop3Row;
    if (request.side == Side::Incoming && protocol.scan) {
        std::uint64_t sequence;
        {
            std::lock_guard<std::mutex> lock(m_lock);
            sequence = ++m_sequence;
        }
        // The file the engine reads, in the data root's run directory (made as the platform
        // makes its directories).
        std::string scratch = m_dataRoot + "/run/content-scan";
        platform::MakeDataDirectory(m_dataRoot, scratch);
        std::string path =
            scratch + "/" + std::to_string(::getpid()) + "-" + std::to_string(sequence) + ".scan";
        ScanVerdict verdict{ScanVerdict::State::Failed, "cannot write the scan file"};
        if (platform::WriteDataFile(m_dataRoot, path, text, 0600)) {
            verdict = m_scanner.ScanFile(policy.engineName, policy.repository, path,
                                         protocol.scanTimeoutMs);
        }
        events::ContentKind quiet = mail ? events::kMailQuiet : events::kWebQuiet;
        if (verdict.state == ScanVerdict::State::Infected && protocol.block) {
            std::string folder = QuarantineFolderOf(policy, m_dataRoot);
            ::mkdir(folder.c_str(), 0700);
            char stamp[32];
            std::time_t now = std::time(nullptr);
            std::tm local{};
            ::localtime_r(&now, &local);
            std::strftime(stamp, sizeof(stamp), "%Y%m%d-%H%M%S", &local);
            std::string kept = folder + "/" + stamp + "-" + std::to_string(sequence) + "-" +
                               SafeName(request.suggestedName);
            if (::rename(path.c_str(), kept.c_str()) != 0 &&
                !platform::WriteDataFile(m_dataRoot, kept, text, 0600)) {
                kept.clear();
            }
            text = notice(verdict.text, kept);
            result.changed = result.blocked = true;
            if (protocol.logScans) {
                result.events.push_back({mail ? events::kMailFound : events::kWebFound,
                                         request.address, verdict.text, kept});
            }
            ::unlink(path.c_str());
            return result;
        }
        ::unlink(path.c_str());
        if (protocol.logScans) {
            std::string what = verdict.text;
            switch (verdict.state) {
                case ScanVerdict::State::Clean:
                    what = "Scanned";
                    break;
                case ScanVerdict::State::Infected:
                    what += " (not blocked)";
                    break;
                case ScanVerdict::State::TimedOut:
                    what = "AV timeout, content passed";
                    break;
                case ScanVerdict::State::Failed:
                    break;
            }
            result.events.push_back({quiet, request.address, what, ""});
        }
    }
    if (protocol.rules) {
        result.changed =
            RunRules(protocol.RulesOf(request.side), text, request.address, result.events);
    }
    return result;
}

}  // namespace qbrix::contentproc
