// The live driver's cost on real connections, in network namespaces of the benchmark's own: this
// process is the machine (its namespace gets the driver), a child in a second namespace behind a
// veth pair is the remote server, as for a program reaching a server elsewhere. The same
// connections with no rules and with the live driver deciding them (the benchmark is a known
// program in the "EnableAll" zone), in one run.
//   - latency of a new TCP connection (connect to established), p50 and p99;
//   - new connections per second from two threads for 2 s, and how many failed or took longer
//     than 500 ms (a dropped first packet is only sent again after a second);
//   - throughput of one established connection (256 MB), without and with the driver in turns.
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "BenchProcess.h"
#include "driver/DriverControl.h"
#include "platform/Device.h"
#include "policy/PresetZones.h"
#include "support/TempPlatform.h"
#include "support/TestNetwork.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::uint16_t kPort = 9000;

sockaddr_in Server(std::uint16_t port = kPort) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(0x0A4E0002);  // 10.78.0.2, the server's namespace
    return address;
}

// Port 9000 accepts connections and closes them (two threads, so the backlog never fills);
// port 9001 reads one bulk connection until its peer closes. Both run until the process ends.
void Serve() {
    for (std::uint16_t port : {kPort, static_cast<std::uint16_t>(kPort + 1)}) {
        int listener = ::socket(AF_INET, SOCK_STREAM, 0);
        int on = 1;
        ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        sockaddr_in address = Server(port);
        ::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        ::listen(listener, 4096);
        for (int thread = 0; thread < (port == kPort ? 2 : 1); ++thread) {
            std::thread([listener, port] {
                std::vector<char> buffer(1 << 18);
                for (;;) {
                    int peer = ::accept(listener, nullptr, nullptr);
                    while (port != kPort && ::recv(peer, buffer.data(), buffer.size(), 0) > 0) {
                    }
                    ::close(peer);
                }
            }).detach();
        }
    }
}

// One connection up and torn down with a reset (no TIME_WAIT left behind); its set-up time in
// microseconds, or -1 when it failed.
double ConnectOnce() {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    linger reset{1, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    sockaddr_in address = Server();
    Clock::time_point start = Clock::now();
    int result = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    double micros = std::chrono::duration<double, std::micro>(Clock::now() - start).count();
    ::close(fd);
    return result == 0 ? micros : -1;
}

// User and system time of a process so far, from /proc/PID/stat.
double ProcessorSeconds(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), {});
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    unsigned long long ticks = 0;
    for (int index = 3; fields >> field && index <= 15; ++index) {
        if (index == 14 || index == 15) {
            ticks += std::stoull(field);
        }
    }
    return static_cast<double>(ticks) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

struct Figures {
    double p50 = 0, p99 = 0;
    double perSecond = 0;
    long failed = 0, slow = 0;
    long connections = 0;  // made in all, for the processor time per connection
    double megabytesPerSecond = 0;
};

// One established connection moving 256 MB; megabytes per second.
double Throughput() {
    std::vector<char> chunk(1 << 18, 'b');
    constexpr long kTotal = 1L << 28;
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = Server(kPort + 1);
    ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    Clock::time_point began = Clock::now();
    for (long sent = 0; sent < kTotal;) {
        ssize_t n = ::send(fd, chunk.data(), chunk.size(), MSG_NOSIGNAL);
        if (n <= 0) {
            break;
        }
        sent += n;
    }
    ::close(fd);
    return (kTotal / 1e6) / std::chrono::duration<double>(Clock::now() - began).count();
}

// The live driver for the data root, with this program known in "EnableAll"; -1 on failure.
pid_t StartDriver(const std::string& dataRoot) {
    std::filesystem::remove(qbrix::platform::DeviceSocketPath());
    pid_t driver =
        qbrix::bench::Spawn({QBRIX_DRIVER, "--root", dataRoot, "--foreground", "--live"});
    for (int i = 0; i < 250 && !std::filesystem::exists(qbrix::platform::DeviceSocketPath()); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    qbrix::driver::ResetDriverLink();
    if (driver < 0 || qbrix::driver::OpenDriverDevice(1) != 0) {
        return -1;
    }
    qbrix::driver::AppRecord record{};
    std::string self = std::filesystem::read_symlink("/proc/self/exe").filename().string();
    qbrix::driver::SetFieldText(record.imageName, self);
    record.zone = qbrix::policy::PresetZones()[1];  // EnableAll
    qbrix::driver::SetAppRecord(qbrix::driver::g_hDriver, record);
    return driver;
}

void StopDriver(pid_t driver) {
    qbrix::driver::ResetDriverLink();
    ::kill(driver, SIGTERM);
    ::waitpid(driver, nullptr, 0);
}

Figures Measure() {
    Figures figures;
    std::vector<double> latencies;
    for (int i = 0; i < 3000; ++i) {
        double micros = ConnectOnce();
        if (micros < 0) {
            ++figures.failed;
        } else {
            latencies.push_back(micros);
        }
    }
    std::sort(latencies.begin(), latencies.end());
    if (!latencies.empty()) {
        figures.p50 = latencies[latencies.size() / 2];
        figures.p99 = latencies[latencies.size() * 99 / 100];
    }

    std::atomic<long> made{0}, failed{0}, slow{0};
    Clock::time_point end = Clock::now() + std::chrono::seconds(2);
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&] {
            while (Clock::now() < end) {
                double micros = ConnectOnce();
                (micros < 0 ? failed : micros > 500000 ? slow : made)++;
            }
        });
    }
    Clock::time_point start = Clock::now();
    for (std::thread& thread : threads) {
        thread.join();
    }
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    figures.perSecond = static_cast<double>(made + slow) / seconds;
    figures.connections = static_cast<long>(latencies.size()) + made + slow + 5;
    figures.failed += failed;
    figures.slow = slow;

    return figures;
}

}  // namespace

int main() {
    using namespace qbrix;
    std::string why = test::EnterTestNetwork();
    if (!why.empty()) {
        std::printf("bench_live skipped: %s\n", why.c_str());
        return 0;
    }
    // The remote server: a child in a namespace of its own, joined by a veth pair.
    int ready[2];
    int go[2];
    if (::pipe(ready) != 0 || ::pipe(go) != 0) {
        return 1;
    }
    pid_t server = ::fork();
    if (server == 0) {
        char byte = 0;
        bool alone = ::unshare(CLONE_NEWNET) == 0;
        [[maybe_unused]] ssize_t written = ::write(ready[1], &byte, 1);
        if (!alone || ::read(go[0], &byte, 1) != 1 ||
            std::system("ip link set lo up && ip addr add 10.78.0.2/24 dev qb1 && "
                        "ip link set qb1 up") != 0) {
            ::_exit(1);
        }
        Serve();
        written = ::write(ready[1], &byte, 1);
        ::pause();
        ::_exit(0);
    }
    char byte = 0;
    std::string link = "ip link add qb0 type veth peer name qb1 netns " + std::to_string(server) +
                       " && ip addr add 10.78.0.1/24 dev qb0 && ip link set qb0 up";
    if (::read(ready[0], &byte, 1) != 1 || std::system(link.c_str()) != 0 ||
        ::write(go[1], &byte, 1) != 1 || ::read(ready[0], &byte, 1) != 1) {
        std::puts("bench_live: cannot set up the server's namespace");
        ::kill(server, SIGKILL);
        return 1;
    }
    test::TempPlatform platform;
    Figures bare = Measure();

    pid_t driverProcess = StartDriver(platform.DataRoot());
    if (driverProcess < 0) {
        std::puts("bench_live: the live driver did not start");
        return 1;
    }
    double before = ProcessorSeconds(driverProcess);
    Figures live = Measure();
    double during = ProcessorSeconds(driverProcess) - before;
    StopDriver(driverProcess);
    // An established flow, without and with the driver in turns (the driver restarted each
    // time), best of nine each: single runs on a shared machine vary by more than the effect.
    for (int round = 0; round < 9; ++round) {
        bare.megabytesPerSecond = std::max(bare.megabytesPerSecond, Throughput());
        driverProcess = StartDriver(platform.DataRoot());
        if (driverProcess < 0) {
            std::puts("bench_live: the live driver did not start");
            return 1;
        }
        live.megabytesPerSecond = std::max(live.megabytesPerSecond, Throughput());
        StopDriver(driverProcess);
    }
    ::kill(server, SIGKILL);
    ::waitpid(server, nullptr, 0);

    std::printf("%-34s %12s %12s %8s\n", "", "no rules", "live driver", "ratio");
    auto row = [](const char* name, double base, double with, const char* unit) {
        std::printf("%-34s %9.1f %-2s %9.1f %-2s %8.2f\n", name, base, unit, with, unit,
                    base > 0 ? with / base : 0.0);
    };
    row("new TCP connection p50", bare.p50, live.p50, "us");
    row("new TCP connection p99", bare.p99, live.p99, "us");
    std::printf("%-34s %9.1f us (p50) %9.1f us (p99)\n", "added by the driver", live.p50 - bare.p50,
                live.p99 - bare.p99);
    row("new connections per second", bare.perSecond, live.perSecond, "/s");
    std::printf("%-34s %9ld    %9ld\n", "failed connections", bare.failed, live.failed);
    std::printf("%-34s %9ld    %9ld\n", "connections over 500 ms", bare.slow, live.slow);
    row("established flow throughput", bare.megabytesPerSecond, live.megabytesPerSecond, "MB");
    std::printf("%-34s %9.1f us\n", "driver processor time per connection",
                during * 1e6 / static_cast<double>(live.connections));
    return 0;
}
