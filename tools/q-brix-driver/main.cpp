// q-brix-driver: the reference driver. Serves the driver side of the control protocol on the
// data root's device socket, so the control program runs for real without the kernel driver,
// and takes simulated connections from a scenario or from the command line.
//
//   q-brix-driver [--root DIR] [--foreground] [--scenario FILE|demo] [--version-text TEXT]
//                 [--hold-ms MS] [--flood] [--live [--queues N] [--content]]
//   q-brix-driver [--root DIR] --inject "connect IMAGE tcp|udp in|out A.B.C.D:PORT [BYTES] ..."
//   q-brix-driver [--root DIR] --status
//   q-brix-driver --help
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "ContentChild.h"
#include "DriverServer.h"
#include "LiveFilter.h"
#include "Scenario.h"
#include "platform/posix/PosixPlatform.h"

namespace {

using qbrix::refdriver::DriverServer;
using qbrix::refdriver::ReferenceDriver;

constexpr char kUsage[] =
    "usage: q-brix-driver [--root DIR] [--foreground] [--scenario FILE|demo]\n"
    "                     [--version-text TEXT] [--hold-ms MS] [--flood]\n"
    "                     [--live [--queues N] [--content]]\n"
    "       q-brix-driver [--root DIR] --inject \"connect IMAGE tcp|udp in|out "
    "A.B.C.D:PORT [BYTES] [local=PORT] [path=P]\"\n"
    "       q-brix-driver [--root DIR] --status\n"
    "       q-brix-driver --help\n";

int Usage() {
    std::fputs(kUsage, stderr);
    return 2;
}

int Client(const std::string& root, const std::string& command) {
    std::string answer;
    int result = qbrix::refdriver::SendControlCommand(root, command, &answer);
    std::fprintf(result == 0 && answer.rfind("ok", 0) == 0 ? stdout : stderr, "%s\n",
                 answer.c_str());
    return result == 0 && answer.rfind("ok", 0) == 0 ? 0 : 1;
}

// Detaches from the terminal; the parent returns once the driver serves its socket.
bool Daemonize(int ready[2]) {
    if (::pipe(ready) != 0) {
        return false;
    }
    pid_t child = ::fork();
    if (child < 0) {
        return false;
    }
    if (child > 0) {
        ::close(ready[1]);
        char status = 1;
        ssize_t got = ::read(ready[0], &status, 1);
        ::_exit(got == 1 && status == 0 ? 0 : 1);
    }
    ::close(ready[0]);
    ::setsid();
    int null = ::open("/dev/null", O_RDWR);
    if (null >= 0) {
        ::dup2(null, 0);
        ::dup2(null, 1);
        ::close(null);
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    std::string root = qbrix::platform::DefaultDataRoot();
    bool foreground = false;
    std::string scenario;
    std::string inject;
    bool status = false;
    bool live = false;
    bool content = false;
    qbrix::refdriver::LiveFilter::Settings liveSettings;
    ReferenceDriver::Options options;
    options.nineX = qbrix::platform::FamilyFromEnvironment() == qbrix::platform::Family::Win9x;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        bool hasValue = i + 1 < argc;
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (arg == "--root" && hasValue) {
            root = argv[++i];
        } else if (arg == "--foreground") {
            foreground = true;
        } else if (arg == "--scenario" && hasValue) {
            scenario = argv[++i];
        } else if (arg == "--version-text" && hasValue) {
            options.versionText = argv[++i];
        } else if (arg == "--hold-ms" && hasValue) {
            std::string_view value = argv[++i];
            long ms = 0;
            auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), ms);
            if (error != std::errc() || end != value.data() + value.size() || ms < 0) {
                return Usage();
            }
            options.holdTime = std::chrono::milliseconds(ms);
        } else if (arg == "--live") {
            live = true;
        } else if (arg == "--content") {
            content = true;
        } else if (arg == "--queues" && hasValue) {
            std::string_view value = argv[++i];
            unsigned count = 0;
            auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), count);
            if (error != std::errc() || end != value.data() + value.size() || count < 1 ||
                count > 64) {
                return Usage();
            }
            liveSettings.queueCount = static_cast<std::uint16_t>(count);
        } else if (arg == "--flood") {
            options.flood = true;
        } else if (arg == "--inject" && hasValue) {
            inject = argv[++i];
        } else if (arg == "--status") {
            status = true;
        } else {
            return Usage();
        }
    }
    if (content && !live) {
        return Usage();
    }
    if (!inject.empty()) {
        return Client(root, inject.rfind("connect ", 0) == 0 ? inject : "connect " + inject);
    }
    if (status) {
        return Client(root, "status");
    }

    std::vector<qbrix::refdriver::ScenarioStep> steps;
    if (!scenario.empty()) {
        std::string text;
        if (scenario == "demo") {
            text = std::string(qbrix::refdriver::DemoScenario());
        } else {
            std::ifstream in(scenario, std::ios::binary);
            if (!in) {
                std::fprintf(stderr, "q-brix-driver: cannot read %s\n", scenario.c_str());
                return 1;
            }
            std::ostringstream content;
            content << in.rdbuf();
            text = content.str();
        }
        std::string error;
        if (qbrix::refdriver::ParseScenario(text, &steps, &error) != 0) {
            std::fprintf(stderr, "q-brix-driver: %s: %s\n", scenario.c_str(), error.c_str());
            return 1;
        }
    }

    ReferenceDriver driver(options);
    DriverServer server(driver, root);
    std::string error;
    // Live mode: the machine's own connections, from the kernel's queue. Set up before the
    // device socket is served (a driver that answers is filtering) and before the driver
    // detaches, so that what is missing is said where it was started.
    std::unique_ptr<qbrix::refdriver::LiveFilter> filter;
    if (live) {
        filter = std::make_unique<qbrix::refdriver::LiveFilter>(driver, liveSettings);
        std::string warning;
        if (filter->Start(&error, &warning) != 0) {
            std::fprintf(stderr, "q-brix-driver: live mode: %s\n", error.c_str());
            return 1;
        }
        if (!warning.empty()) {
            std::fprintf(stderr, "q-brix-driver: live mode: %s\n", warning.c_str());
        }
        server.AddSource(filter.get());
    }
    if (server.Open(&error) != 0) {
        std::fprintf(stderr, "q-brix-driver: %s\n", error.c_str());
        return 1;
    }
    if (!foreground) {
        // The sockets stay bound across the fork; only the pid file names the parent.
        int ready[2] = {-1, -1};
        if (!Daemonize(ready)) {
            std::fputs("q-brix-driver: cannot detach\n", stderr);
            return 1;
        }
        server.WritePidFile();
        char ok = 0;
        [[maybe_unused]] ssize_t ignored = ::write(ready[1], &ok, 1);
        ::close(ready[1]);
    }
    // The content processor, after the driver has detached: it ends with the process that
    // started it.
    std::unique_ptr<qbrix::refdriver::ContentChild> processor;
    if (content) {
        std::string self = qbrix::platform::DetectSystemInfo().programDirectory;
        std::vector<std::string> arguments = {"--transparent"};
        if (!root.empty()) {
            arguments.insert(arguments.begin(), {"--root", root});
        }
        processor = std::make_unique<qbrix::refdriver::ContentChild>(self + "q-brix-content",
                                                                     std::move(arguments));
        // The firewall runs on without it: web and mail then pass unfiltered, as said.
        if (processor->Start(&error) != 0) {
            std::fprintf(stderr, "q-brix-driver: %s; web and mail content is not filtered\n",
                         error.c_str());
            processor.reset();
        } else {
            server.AddSource(processor.get());
        }
    }
    server.SetScenario(std::move(steps));
    server.Run();
    processor.reset();
    return 0;
}
