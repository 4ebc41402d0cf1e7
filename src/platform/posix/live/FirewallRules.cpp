#include "platform/posix/live/FirewallRules.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <utility>
#include <vector>

#include "platform/posix/live/PacketQueue.h"

extern char** environ;

namespace qbrix::platform::live {

namespace {

constexpr const char* kChains[] = {"QBRIX-IN", "QBRIX-OUT"};
constexpr const char* kHooks[] = {"INPUT", "OUTPUT"};
// The driver's chain in the mangle table, for the ports the content processor serves.
constexpr char kContentChain[] = "QBRIX-WEB";
constexpr char kContentPorts[] = "80,110";

struct Outcome {
    int status = -1;  // exit status; -1 when the program could not run
    std::string output;
};

// Runs a program found on the path with the given input; its output and errors come back.
Outcome Run(const std::vector<std::string>& words, const std::string& input = {}) {
    Outcome outcome;
    int in[2] = {-1, -1};
    int out[2] = {-1, -1};
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
        return outcome;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, out[1], 2);
    std::vector<char*> argv;
    for (const std::string& word : words) {
        argv.push_back(const_cast<char*>(word.c_str()));
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    int spawned = ::posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    if (spawned == 0) {
        std::size_t written = 0;
        while (written < input.size()) {
            ssize_t n = ::write(in[1], input.data() + written, input.size() - written);
            if (n <= 0 && errno != EINTR) {
                break;
            }
            written += n > 0 ? static_cast<std::size_t>(n) : 0;
        }
    }
    ::close(in[1]);
    char chunk[4096];
    for (ssize_t n; (n = ::read(out[0], chunk, sizeof(chunk))) != 0;) {
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            break;
        }
        outcome.output.append(chunk, static_cast<std::size_t>(n));
    }
    ::close(out[0]);
    if (spawned != 0) {
        outcome.output = words[0] + ": not found";
        return outcome;
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return outcome;
}

std::string Tool(bool ipv6, const char* suffix) {
    return std::string(ipv6 ? "ip6tables" : "iptables") + suffix;
}

std::string QueueTarget(const RuleSettings& settings) {
    std::string target = "-j NFQUEUE ";
    if (settings.queueCount > 1) {
        target += "--queue-balance " + std::to_string(settings.firstQueue) + ":" +
                  std::to_string(settings.firstQueue + settings.queueCount - 1) +
                  " --queue-cpu-fanout";
    } else {
        target += "--queue-num " + std::to_string(settings.firstQueue);
    }
    return target + " --queue-bypass";
}

// Removes every jump from `hook` to `chain` of a table, then the chain itself.
void RemoveChain(bool ipv6, const char* table, const char* hook, const char* chain) {
    std::string tool = Tool(ipv6, "");
    // Every jump to the chain, in whatever form and however many a crashed start left.
    Outcome listing = Run({tool, "-w", "-t", table, "-S", hook});
    std::size_t at = 0;
    while ((at = listing.output.find("-A ", at)) != std::string::npos) {
        std::size_t end = listing.output.find('\n', at);
        std::string rule = listing.output.substr(at, end - at);
        at = end;
        if (rule.find(std::string("-j ") + chain) == std::string::npos) {
            continue;
        }
        std::vector<std::string> words = {tool, "-w", "-t", table, "-D"};
        std::size_t start = 3;  // after "-A "
        while (start < rule.size()) {
            std::size_t space = rule.find(' ', start);
            words.push_back(rule.substr(start, space - start));
            start = space == std::string::npos ? rule.size() : space + 1;
        }
        Run(words);
    }
    Run({tool, "-w", "-t", table, "-F", chain});
    Run({tool, "-w", "-t", table, "-X", chain});
}

void RemoveFamily(bool ipv6) {
    for (int i = 0; i < 2; ++i) {
        RemoveChain(ipv6, "filter", kHooks[i], kChains[i]);
    }
    RemoveChain(ipv6, "mangle", "OUTPUT", kContentChain);
}

constexpr char kRedirectChain[] = "QBRIX-CONTENT";

std::string Mark(std::uint32_t bit) {
    char mark[32];
    std::snprintf(mark, sizeof(mark), "0x%x/0x%x", bit, bit);
    return mark;
}

// Runs a rule script for both families (see InstallRules for the failure rules).
int InstallScripts(const std::function<std::string(bool)>& script,
                   const std::function<void(bool)>& remove, InstalledFamilies* installed,
                   std::string* error, std::string* warning, const char* needs) {
    *installed = InstalledFamilies{};
    for (bool ipv6 : {false, true}) {
        remove(ipv6);
        Outcome outcome = Run({Tool(ipv6, "-restore"), "-w", "--noflush"}, script(ipv6));
        if (outcome.status == 0) {
            (ipv6 ? installed->ipv6 : installed->ipv4) = true;
            continue;
        }
        std::string reason =
            outcome.status < 0 && outcome.output.find("not found") != std::string::npos
                ? Tool(ipv6, "-restore") + " is missing (install the Debian package iptables)"
                : Tool(ipv6, "-restore") + " failed: " + outcome.output;
        while (!reason.empty() && (reason.back() == '\n' || reason.back() == ' ')) {
            reason.pop_back();
        }
        if (!ipv6) {
            *error = reason + " (" + needs + ", and the right to change the packet filter)";
            return 1;
        }
        *warning = "IPv6 traffic is not filtered: " + reason;
        remove(true);
    }
    return 0;
}

}  // namespace

std::string RuleScript(const RuleSettings& settings, bool ipv6) {
    std::string mark = Mark(kRejectMark);
    std::string queue = QueueTarget(settings);
    std::string firstPacket =
        " -m connbytes --connbytes 0:1 --connbytes-dir original --connbytes-mode packets ";
    // Web and mail connections are judged before the content processor's redirection (mangle
    // runs before nat), while they still carry the address the program asked for; a refused one
    // comes back marked and is answered in the filter table's chain.
    std::string script = std::string("*mangle\n:") + kContentChain + " - [0:0]\n";
    script += std::string("-A ") + kContentChain + " -m mark --mark " + mark + " -j RETURN\n";
    script += std::string("-A ") + kContentChain + " -m mark --mark " + Mark(kUpstreamMark) +
              " -j RETURN\n";
    script += std::string("-A ") + kContentChain + " -p tcp -m multiport --dports " +
              kContentPorts + firstPacket + queue + "\n";
    script += std::string("-I OUTPUT 1 -m conntrack --ctstate NEW -j ") + kContentChain +
              "\nCOMMIT\n";
    script += "*filter\n:QBRIX-IN - [0:0]\n:QBRIX-OUT - [0:0]\n";
    // A rejected outgoing packet comes back marked: the program gets a refusal at once instead
    // of waiting for a time-out.
    script += "-A QBRIX-OUT -p tcp -m mark --mark " + mark + " -j REJECT --reject-with tcp-reset\n";
    script += "-A QBRIX-OUT -m mark --mark " + mark + " -j REJECT --reject-with " +
              (ipv6 ? "icmp6-port-unreachable" : "icmp-port-unreachable") + "\n";
    // Judged in mangle already: web and mail, and the content processor's own connections.
    script += std::string("-A QBRIX-OUT -p tcp -m multiport --dports ") + kContentPorts +
              " -j RETURN\n";
    script += "-A QBRIX-OUT -m mark --mark " + Mark(kUpstreamMark) + " -j RETURN\n";
    // The processor's side of a redirected connection was judged as the program's outgoing one.
    script += "-A QBRIX-IN -m connmark --mark " + Mark(kRedirectedMark) + " -j RETURN\n";
    for (const char* chain : kChains) {
        for (const char* protocol : {"tcp", "udp"}) {
            // Only a connection's first packet: a TCP retransmission or a UDP datagram after
            // an approved first one is already counted by the tracking entry.
            script += std::string("-A ") + chain + " -p " + protocol + firstPacket + queue + "\n";
        }
    }
    // Only packets of new connections enter the chains: an established flow's packet costs
    // one match.
    script +=
        "-I INPUT 1 -m conntrack --ctstate NEW -j QBRIX-IN\n"
        "-I OUTPUT 1 -m conntrack --ctstate NEW -j QBRIX-OUT\nCOMMIT\n";
    return script;
}

int InstallRules(const RuleSettings& settings, InstalledFamilies* installed, std::string* error,
                 std::string* warning) {
    return InstallScripts([&](bool ipv6) { return RuleScript(settings, ipv6); }, RemoveFamily,
                          installed, error, warning,
                          "the NFQUEUE target, the conntrack match and the REJECT target are "
                          "needed");
}

void RemoveRules() {
    RemoveFamily(false);
    RemoveFamily(true);
}

bool RulesPresent() {
    for (bool ipv6 : {false, true}) {
        for (const char* chain : kChains) {
            if (Run({Tool(ipv6, ""), "-w", "-t", "filter", "-n", "-L", chain}).status == 0) {
                return true;
            }
        }
        if (Run({Tool(ipv6, ""), "-w", "-t", "mangle", "-n", "-L", kContentChain}).status == 0) {
            return true;
        }
    }
    return false;
}

std::string RedirectScript(const RedirectSettings& settings) {
    std::string script = std::string("*nat\n:") + kRedirectChain + " - [0:0]\n";
    script += std::string("-A ") + kRedirectChain + " -m mark --mark " + Mark(kUpstreamMark) +
              " -j RETURN\n";
    for (auto [port, to] : {std::pair<int, std::uint16_t>{80, settings.httpPort},
                            std::pair<int, std::uint16_t>{110, settings.pop3Port}}) {
        if (to == 0) {
            continue;
        }
        std::string match = std::string("-A ") + kRedirectChain + " -p tcp --dport " +
                            std::to_string(port);
        script += match + " -j CONNMARK --or-mark " + std::to_string(kRedirectedMark) + "\n";
        script += match + " -j REDIRECT --to-ports " + std::to_string(to) + "\n";
    }
    return script + std::string("-I OUTPUT 1 -j ") + kRedirectChain + "\nCOMMIT\n";
}

int InstallRedirect(const RedirectSettings& settings, InstalledFamilies* installed,
                    std::string* error, std::string* warning) {
    auto remove = [](bool ipv6) { RemoveChain(ipv6, "nat", "OUTPUT", kRedirectChain); };
    return InstallScripts([&](bool) { return RedirectScript(settings); }, remove,
                          installed, error, warning,
                          "the nat table with the REDIRECT and CONNMARK targets is needed");
}

void RemoveRedirect() {
    for (bool ipv6 : {false, true}) {
        RemoveChain(ipv6, "nat", "OUTPUT", kRedirectChain);
    }
}

}  // namespace qbrix::platform::live
