// The driver's own packet-filter rules: two chains, "QBRIX-IN" and "QBRIX-OUT", in the filter
// table of IPv4 and IPv6, entered from the top of INPUT and OUTPUT, and "QBRIX-WEB" in the mangle
// table's OUTPUT for outgoing web and mail connections (judged there before the content
// processor's redirection changes their address). They send the first packet of
// every new TCP connection and UDP flow (the tracking entry's first packet) to the driver's
// queues, with the bypass flag, so traffic
// passes whenever no driver reads the queues; established traffic never reaches them. Installed
// through iptables-restore (the nftables queue expression is not available on every kernel, the
// iptables NFQUEUE target is); installing first removes anything a killed driver left.
#pragma once

#include <cstdint>
#include <string>

namespace qbrix::platform::live {

struct RuleSettings {
    std::uint16_t firstQueue = 0;
    std::uint16_t queueCount = 1;
};

struct InstalledFamilies {
    bool ipv4 = false;
    bool ipv6 = false;
};

// The rules as iptables-restore reads them (--noflush), for one family.
std::string RuleScript(const RuleSettings& settings, bool ipv6);

// Installs the rules for IPv4 and, where the machine has it, IPv6. Fails (1, the reason in
// *error) when IPv4 cannot be filtered: no iptables-restore, no NFQUEUE target, no permission.
// An IPv6 failure is reported in *warning and leaves IPv6 unfiltered.
int InstallRules(const RuleSettings& settings, InstalledFamilies* installed, std::string* error,
                 std::string* warning);

// Removes the jumps and both chains of both families; quiet when there are none.
void RemoveRules();

// Whether any of the driver's chains exists (a running or killed driver left them).
bool RulesPresent();

// The content processor's redirection: new TCP connections of the machine's programs to port 80
// (HTTP) and 110 (POP3) go to the processor's own ports instead ("QBRIX-CONTENT" in the nat
// table, entered from the top of OUTPUT). The processor's own connections to the servers carry
// kUpstreamMark and pass. Redirected connections carry kRedirectedMark on their tracking entry,
// so the driver judges them by the program that opened them and the address it asked for, not
// by the processor that receives them.
inline constexpr std::uint32_t kUpstreamMark = 0x00200000u;
inline constexpr std::uint32_t kRedirectedMark = 0x00400000u;

struct RedirectSettings {
    std::uint16_t httpPort = 0;  // 0: HTTP not redirected
    std::uint16_t pop3Port = 0;  // 0: POP3 not redirected
};

// The same for both families.
std::string RedirectScript(const RedirectSettings& settings);
// Installs the redirection for IPv4 and, where possible, IPv6 (failures as InstallRules).
int InstallRedirect(const RedirectSettings& settings, InstalledFamilies* installed,
                    std::string* error, std::string* warning);
void RemoveRedirect();

}  // namespace qbrix::platform::live
