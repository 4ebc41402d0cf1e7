#include "ContentWork.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <thread>

#include "content/RuleEngine.h"

namespace qbrix::contentproc {

namespace {

template <std::size_t N>
void CopyField(char (&field)[N], const std::string& text) {
    std::size_t length = std::min(text.size(), N - 1);
    std::memcpy(field, text.data(), length);
    field[length] = '\0';
}

bool WriteWhole(const std::string& path, const std::string& data) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        return false;
    }
    std::size_t done = 0;
    while (done < data.size()) {
        ssize_t n = ::write(fd, data.data() + done, data.size() - done);
        if (n <= 0) {
            ::close(fd);
            ::unlink(path.c_str());
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return ::close(fd) == 0;
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

struct Scanner::State {
    Factory factory;
    std::mutex engineLock;  // one scan at a time through the engine
    std::string name;
    std::string repository;
    std::unique_ptr<antivirus::ScanEngine> engine;
};

Scanner::Scanner(Factory factory) : m_state(std::make_shared<State>()) {
    m_state->factory = std::move(factory);
}

bool Scanner::Selects(const std::string& name) {
    for (const char* word : {"Sophos", "Una", "NOD32", "ClamAV"}) {
        if (name.find(word) != std::string::npos) {
            return true;
        }
    }
    return false;
}

ScanVerdict Scanner::ScanFile(const std::string& name, const std::string& repository,
                              const std::string& path, std::uint32_t timeoutMs) {
    struct Job {
        std::mutex lock;
        std::condition_variable done;
        bool finished = false;
        ScanVerdict verdict;
    };
    auto job = std::make_shared<Job>();
    std::shared_ptr<State> state = m_state;
    // The scan runs on a thread of its own so that a hung engine costs the caller no more than
    // the time limit; the thread owns everything it touches (the file is the caller's until the
    // verdict is taken, so an abandoned scan reads a file that may be gone: the engine reports it).
    std::thread([state, job, name, repository, path] {
        ScanVerdict verdict;
        {
            std::lock_guard<std::mutex> engineLock(state->engineLock);
            if (!state->engine || state->name != name || state->repository != repository) {
                state->engine.reset();
                state->engine = state->factory(name, repository);
                state->name = name;
                state->repository = repository;
            }
            if (!state->engine) {
                verdict = {ScanVerdict::State::Failed, "AV not installed"};
            } else {
                std::string message;
                std::int32_t infected = 0;
                std::int32_t rc = state->engine->ScanFile(path.c_str(), message, infected);
                if (infected != 0) {
                    verdict = {ScanVerdict::State::Infected, message};
                } else if (rc != 0) {
                    verdict = {ScanVerdict::State::Failed, message};
                }
            }
        }
        std::lock_guard<std::mutex> lock(job->lock);
        job->verdict = std::move(verdict);
        job->finished = true;
        job->done.notify_all();
    }).detach();
    std::unique_lock<std::mutex> lock(job->lock);
    if (!job->done.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                            [&] { return job->finished; })) {
        return {ScanVerdict::State::TimedOut, "AV timeout"};
    }
    return job->verdict;
}

std::string QuarantineFolderOf(const ContentPolicy& policy, const std::string& dataRoot) {
    if (!policy.quarantine.empty() && policy.quarantine.front() == '/') {
        return policy.quarantine;
    }
    return dataRoot + "/quarantine";
}

bool RunRules(const std::vector<const content::ContentRule*>& rules, std::string& text,
              const std::string& address, std::vector<Event>& events) {
    bool changed = false;
    content::RunLimits limits;
    limits.time = std::chrono::milliseconds(kRuleTimeLimitMs);
    for (const content::ContentRule* rule : rules) {
        std::string before = text;
        std::string stopReason;
        int verdict = content::ApplyContentRule(*rule, text, limits, &stopReason);
        bool ruleChanged = text != before;
        changed = changed || ruleChanged;
        if (rule->log == 0) {
            continue;
        }
        if (verdict == content::kRuleStopped) {
            events.push_back({events::kRuleFound, address,
                              rule->name + " (stopped, content passed: " + stopReason + ")", ""});
        } else if (ruleChanged) {
            events.push_back({events::kRuleApplied, address, rule->name, ""});
        } else if (verdict >= content::kRuleFound) {
            events.push_back({events::kRuleFound, address, rule->name, ""});
        }
    }
    return changed;
}

ContentWorker::ContentWorker(Scanner& scanner, std::string dataRoot)
    : m_scanner(scanner), m_dataRoot(std::move(dataRoot)) {}

WorkResult ContentWorker::Process(
    const ContentPolicy& policy, const WorkRequest& request, std::string& text,
    const std::function<std::string(const std::string&, const std::string&)>& notice) {
    WorkResult result;
    const ProtocolPolicy& protocol = policy.protocols[request.protocol];
    bool mail = request.protocol == content::kPop3Row;
    if (request.side == Side::Incoming && protocol.scan && Scanner::Selects(policy.engineName)) {
        std::uint64_t sequence;
        {
            std::lock_guard<std::mutex> lock(m_lock);
            sequence = ++m_sequence;
        }
        std::string scratch = m_dataRoot + "/run/content-scan";
        ::mkdir(scratch.c_str(), 0700);
        std::string path = scratch + "/" + std::to_string(::getpid()) + "-" +
                           std::to_string(sequence) + ".scan";
        ScanVerdict verdict{ScanVerdict::State::Failed, "cannot write the scan file"};
        if (WriteWhole(path, text)) {
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
            if (::rename(path.c_str(), kept.c_str()) != 0 && !WriteWhole(kept, text)) {
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
                case ScanVerdict::State::Clean: what = "Scanned"; break;
                case ScanVerdict::State::Infected: what += " (not blocked)"; break;
                case ScanVerdict::State::TimedOut: what = "AV timeout, content passed"; break;
                case ScanVerdict::State::Failed: break;
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
