// q-brix-content: the content processor. Applies the content rules and the antivirus scan of the
// control program's policy to the machine's HTTP and POP3 traffic, as a transparent proxy fed by
// the packet filter's redirection and as an explicit HTTP proxy.
//
//   q-brix-content [--root DIR] [--http-port N] [--pop3-port N] [--listen ADDR]...
//                  [--transparent] [--workers N]
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/signal_set.hpp>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "ContentPolicy.h"
#include "ContentWork.h"
#include "HttpProxy.h"
#include "Pop3Proxy.h"
#include "ProxyContext.h"
#include "antivirus/EngineSelection.h"
#include "content/TestLog.h"
#include "platform/posix/PosixPlatform.h"
#include "platform/posix/live/FirewallRules.h"

namespace {

namespace net = boost::asio;
using tcp = net::ip::tcp;
using namespace qbrix::contentproc;

constexpr char kUsage[] =
    "usage: q-brix-content [--root DIR] [--http-port N] [--pop3-port N] [--listen ADDR]...\n"
    "                      [--transparent] [--workers N]\n";

// The most connections served at once; further ones wait in the listen queue.
constexpr std::size_t kMaxConnections = 4096;

bool ParseNumber(const char* text, unsigned low, unsigned high, unsigned& value) {
    std::string_view view(text);
    auto [end, error] = std::from_chars(view.data(), view.data() + view.size(), value);
    return error == std::errc() && end == view.data() + view.size() && value >= low &&
           value <= high;
}

struct Server {
    ProxyContext& context;
    std::size_t open = 0;
};

template <typename Serve>
net::awaitable<void> Listen(Server& server, tcp::acceptor acceptor, Serve serve) {
    for (;;) {
        auto [ec, socket] = co_await acceptor.async_accept(net::as_tuple(net::use_awaitable));
        if (ec == net::error::operation_aborted) {
            co_return;
        }
        if (ec) {
            // Out of descriptors, say: wait a moment instead of spinning.
            net::steady_timer pause(server.context.io, std::chrono::milliseconds(50));
            co_await pause.async_wait(net::as_tuple(net::use_awaitable));
            continue;
        }
        if (server.open >= kMaxConnections) {
            continue;  // the socket closes: the client sees the connection end at once
        }
        ++server.open;
        net::co_spawn(server.context.io, serve(server.context, std::move(socket)),
                      [&server](std::exception_ptr) { --server.open; });
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::string_view(argv[1]) == "--scan-helper") {
        // The antivirus helper (see Scanner): the engines run here, on descriptor 3.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        qbrix::platform::ScopedPlatform scope(
            qbrix::platform::MakePosixPlatform(qbrix::platform::DetectSystemInfo()));
        return RunScanHelper(3, qbrix::antivirus::CreateEngineByName);
    }
    std::string root;
    unsigned httpPort = 8810;
    unsigned pop3Port = 8811;
    unsigned workers = 2;
    bool transparent = false;
    std::vector<std::string> listen;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        bool hasValue = i + 1 < argc;
        if (arg == "--root" && hasValue) {
            root = argv[++i];
        } else if (arg == "--http-port" && hasValue) {
            if (!ParseNumber(argv[++i], 0, 65535, httpPort)) {
                return std::fputs(kUsage, stderr), 2;
            }
        } else if (arg == "--pop3-port" && hasValue) {
            if (!ParseNumber(argv[++i], 0, 65535, pop3Port)) {
                return std::fputs(kUsage, stderr), 2;
            }
        } else if (arg == "--workers" && hasValue) {
            if (!ParseNumber(argv[++i], 1, 64, workers)) {
                return std::fputs(kUsage, stderr), 2;
            }
        } else if (arg == "--listen" && hasValue) {
            listen.emplace_back(argv[++i]);
        } else if (arg == "--transparent") {
            transparent = true;
        } else {
            std::fputs(kUsage, stderr);
            return arg == "--help" ? 0 : 2;
        }
    }
    if (!root.empty()) {
        ::setenv("QBRIX_ROOT", root.c_str(), 1);
    }
    if (listen.empty()) {
        listen = {"127.0.0.1", "::1"};
    }
    // Started by the live driver: when the driver ends, so does the processor, and with it the
    // redirection (see the stop below).
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    ::signal(SIGPIPE, SIG_IGN);

    qbrix::platform::KeepLargeBuffersInHeap();
    qbrix::platform::SystemInfo info = qbrix::platform::DetectSystemInfo();
    std::string dataRoot = info.dataRoot;
    qbrix::platform::ScopedPlatform scope(qbrix::platform::MakePosixPlatform(info));
    qbrix::content::SetTestLogEnabled(false);

    net::io_context io(1);
    net::thread_pool pool(workers);
    PolicyWatcher policies(qbrix::platform::RegistryDatabasePath(dataRoot));
    policies.Current();
    Scanner scanner({"/proc/self/exe", "--scan-helper"});
    ContentWorker worker(scanner, dataRoot);
    EventSender events;
    ProxyContext context{io, pool, policies, worker, events, 0, {}};
    if (transparent) {
        context.upstreamMark = qbrix::platform::live::kUpstreamMark;
    }
    Server server{context};

    std::vector<tcp::acceptor> acceptors;
    std::string listening;
    for (auto [port, http] : {std::pair<unsigned, bool>{httpPort, true}, {pop3Port, false}}) {
        if (port == 0) {
            continue;
        }
        for (const std::string& text : listen) {
            boost::system::error_code ec;
            net::ip::address address = net::ip::make_address(text, ec);
            if (ec) {
                std::fprintf(stderr, "q-brix-content: %s is not an address\n", text.c_str());
                return 2;
            }
            tcp::endpoint endpoint(address, static_cast<unsigned short>(port));
            tcp::acceptor acceptor(io);
            acceptor.open(endpoint.protocol(), ec);
            if (!ec) {
                acceptor.set_option(tcp::acceptor::reuse_address(true), ec);
                if (address.is_v6()) {
                    acceptor.set_option(net::ip::v6_only(true), ec);
                }
                acceptor.bind(endpoint, ec);
            }
            if (!ec) {
                acceptor.listen(net::socket_base::max_listen_connections, ec);
            }
            if (ec) {
                if (address.is_v6() && address.is_loopback() && listen.size() > 1) {
                    continue;  // a machine without IPv6
                }
                std::fprintf(stderr, "q-brix-content: cannot listen on %s port %u: %s\n",
                             text.c_str(), port, ec.message().c_str());
                return 1;
            }
            context.ownEndpoints.push_back(endpoint);
            listening += std::string(listening.empty() ? "" : ", ") + (http ? "HTTP " : "POP3 ") +
                         (address.is_v6() ? "[" + text + "]" : text) + ":" + std::to_string(port);
            if (http) {
                net::co_spawn(io, Listen(server, std::move(acceptor), ServeHttp), net::detached);
            } else {
                net::co_spawn(io, Listen(server, std::move(acceptor), ServePop3), net::detached);
            }
        }
    }
    if (transparent) {
        qbrix::platform::live::RedirectSettings redirect{static_cast<std::uint16_t>(httpPort),
                                                         static_cast<std::uint16_t>(pop3Port)};
        qbrix::platform::live::InstalledFamilies installed;
        std::string error, warning;
        if (qbrix::platform::live::InstallRedirect(redirect, &installed, &error, &warning) != 0) {
            std::fprintf(stderr, "q-brix-content: cannot redirect traffic: %s\n", error.c_str());
            return 1;
        }
        if (!warning.empty()) {
            std::fprintf(stderr, "q-brix-content: %s\n", warning.c_str());
        }
    }
    std::printf("q-brix-content: listening on %s%s\n", listening.c_str(),
                transparent ? "; HTTP and POP3 connections redirected here" : "");
    std::fflush(stdout);

    net::signal_set stop(io, SIGTERM, SIGINT);
    stop.async_wait([&](boost::system::error_code, int) { io.stop(); });
    io.run();
    if (transparent) {
        qbrix::platform::live::RemoveRedirect();
    }
    // Work still running on the pool may hold a connection's buffers; the process ends here
    // without waiting for abandoned scans.
    std::fflush(nullptr);
    std::_Exit(0);
}
