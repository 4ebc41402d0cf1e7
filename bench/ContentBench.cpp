// The content processor against Privoxy and against a direct connection, in a network namespace
// of its own (a whole-process harness; needs root and the Debian package privoxy). Both proxies
// are used as explicit HTTP proxies on the loopback, with the same rewrite rules (1 and 10) over
// the same 100 KB page, and for a 100 MB download that no rule touches. Every page a proxy returns
// is checked against what the rule engine makes of the page.
//
//   bench_content [SECONDS per measurement, default 3]
#include <signal.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "content/ContentStore.h"
#include "content/ProtocolTable.h"
#include "content/RuleEngine.h"
#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "support/Process.h"
#include "support/TempPlatform.h"
#include "support/TestNetwork.h"
#include "support/ThreadedServer.h"

namespace {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = net::ip::tcp;
using Clock = std::chrono::steady_clock;
using namespace qbrix;

constexpr char kOrigin[] = "10.77.0.1";
constexpr unsigned short kProcessorPort = 18810;
constexpr unsigned short kPrivoxyPort = 18118;
constexpr std::size_t kDownload = std::size_t{100} << 20;

// A 100 KB page. Dense: every line holds something a rule rewrites (about 1,700 matches for the
// first rule, 170 for each other). Sparse: one line in 200 does, as on a page with a few ads.
bool g_dense = true;
bool g_none = false;  // no line matches (what the processor costs besides the rules)

std::string Page() {
    std::string page = "<html><body>\n";
    for (int i = 0; page.size() < 100 * 1024; ++i) {
        bool match = !g_none && (g_dense || i % 200 == 0);
        page += "<p>line " + std::to_string(i) + ": " +
                (match ? "word" + std::to_string(i % 10) + " a banner" : "a plain line") +
                " here, some more text there</p>\n";
    }
    return page + "</body></html>\n";
}

// The origin: "/page" and "/download", kept-alive connections, one thread each.
class Origin {
  public:
    Origin()
        : m_page(std::make_shared<const std::string>(Page())),
          m_server(kOrigin, 80, [this](tcp::socket& socket) { Serve(socket); }) {}
    void SetPage(std::string page) {
        std::lock_guard<std::mutex> lock(m_lock);
        m_page = std::make_shared<const std::string>(std::move(page));
    }

  private:
    void Serve(tcp::socket& socket) {
        beast::flat_buffer buffer;
        std::string download(1 << 20, 'd');
        for (;;) {
            http::request<http::empty_body> request;
            beast::error_code ec;
            http::read(socket, buffer, request, ec);
            if (ec) {
                return;
            }
            if (request.target() == "/download") {
                http::response<http::empty_body> head{http::status::ok, 11};
                head.set(http::field::content_type, "application/octet-stream");
                head.content_length(kDownload);
                http::response_serializer<http::empty_body> serializer{head};
                http::write_header(socket, serializer, ec);
                for (std::size_t sent = 0; sent < kDownload && !ec; sent += download.size()) {
                    net::write(socket, net::buffer(download), ec);
                }
                continue;
            }
            http::response<http::string_body> answer{http::status::ok, 11};
            answer.set(http::field::content_type, "text/html");
            {
                std::lock_guard<std::mutex> lock(m_lock);
                answer.body() = *m_page;
            }
            answer.prepare_payload();
            http::write(socket, answer, ec);
        }
    }

    std::mutex m_lock;
    std::shared_ptr<const std::string> m_page;
    test::ThreadedServer m_server;
};

struct Rule {
    std::string find, replace;
};

// QBRIX_BENCH_NO_RULES: both proxies without rules, what passing a page through costs at all.
std::vector<Rule> Rules(int count) {
    if (std::getenv("QBRIX_BENCH_NO_RULES") != nullptr) {
        return {};
    }
    std::vector<Rule> rules = {{"banner", "BANNER"}};
    for (int i = 1; i < count; ++i) {
        rules.push_back({"word" + std::to_string(i), "WORD" + std::to_string(i)});
    }
    return rules;
}

// Incoming, enabled, every match (Recurse), not logged.
std::unique_ptr<content::ContentRule> Compiled(const Rule& rule, const std::string& name) {
    content::RegRule unit;
    unit.find = rule.find;
    unit.findFlag = 1;
    unit.replace = rule.replace;
    unit.replaceFlag = 1;
    return std::make_unique<content::ContentRule>(1, 0, name, unit, 1, content::RegRule{},
                                                  std::vector<content::RegRule>{}, 0, 0, "");
}

void StoreRules(const std::vector<Rule>& rules) {
    content::RuleList list;
    int n = 0;
    for (const Rule& rule : rules) {
        list.Append(Compiled(rule, "Rule " + std::to_string(n++)));
    }
    content::SaveContentRules(content::kProtocolTable[content::kHttpRow].rulesKey, list);
}

std::string Expected(const std::vector<Rule>& rules) {
    std::string page = Page();
    for (const Rule& rule : rules) {
        content::ApplyContentRule(*Compiled(rule, "r"), page);
    }
    return page;
}

// Privoxy's configuration with the same rules as a filter (case-insensitive, every match).
std::string WritePrivoxy(const std::string& dir, const std::vector<Rule>& rules) {
    std::filesystem::create_directories(dir);
    std::ofstream(dir + "/bench.filter")
        << "FILTER: bench the benchmark's rules\n"
        << [&] {
               std::string lines;
               for (const Rule& rule : rules) {
                   lines += "s/" + rule.find + "/" + rule.replace + "/ig\n";
               }
               return lines;
           }();
    std::ofstream(dir + "/bench.action") << "{+filter{bench}}\n/\n";
    std::ofstream(dir + "/config")
        << "confdir " << dir << "\nactionsfile bench.action\nfilterfile bench.filter\n"
        << "listen-address 127.0.0.1:" << kPrivoxyPort << "\n"
        << "buffer-limit 65536\nkeep-alive-timeout 30\nsocket-timeout 30\n"
        << "max-client-connections 512\ndefault-server-timeout 30\n";
    return dir + "/config";
}

struct Target {
    const char* name;
    unsigned short proxyPort;  // 0: straight to the origin
};

tcp::socket Open(net::io_context& io, const Target& target) {
    tcp::socket socket(io);
    socket.connect({net::ip::make_address(target.proxyPort ? "127.0.0.1" : kOrigin),
                    target.proxyPort ? target.proxyPort : static_cast<unsigned short>(80)});
    socket.set_option(tcp::no_delay(true));
    return socket;
}

http::response<http::string_body> Fetch(tcp::socket& socket, beast::flat_buffer& buffer,
                                        const Target& target, const char* path) {
    std::string url = target.proxyPort ? std::string("http://") + kOrigin + path : path;
    http::request<http::empty_body> request{http::verb::get, url, 11};
    request.set(http::field::host, kOrigin);
    http::write(socket, request);
    http::response_parser<http::string_body> parser;
    parser.body_limit(boost::none);
    http::read(socket, buffer, parser);
    return parser.release();
}

struct Figures {
    double pagesPerSecond = 0;
    double latencyUs = 0;  // median, one client
    bool correct = true;
};

Figures MeasurePages(const Target& target, const std::string& expected, double seconds) {
    Figures figures;
    net::io_context io;
    {
        tcp::socket socket = Open(io, target);
        beast::flat_buffer buffer;
        std::vector<double> samples;
        for (int i = 0; i < 300; ++i) {
            auto start = Clock::now();
            auto response = Fetch(socket, buffer, target, "/page");
            samples.push_back(
                std::chrono::duration<double, std::micro>(Clock::now() - start).count());
            figures.correct = figures.correct && response.body() == expected;
        }
        std::sort(samples.begin(), samples.end());
        figures.latencyUs = samples[samples.size() / 2];
    }
    std::atomic<long> pages{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> clients;
    for (int c = 0; c < 4; ++c) {
        clients.emplace_back([&] {
            net::io_context own;
            tcp::socket socket = Open(own, target);
            beast::flat_buffer buffer;
            while (!stop) {
                Fetch(socket, buffer, target, "/page");
                ++pages;
            }
        });
    }
    auto start = Clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    stop = true;
    for (std::thread& client : clients) {
        client.join();
    }
    figures.pagesPerSecond = pages / std::chrono::duration<double>(Clock::now() - start).count();
    return figures;
}

double MeasureDownload(const Target& target) {
    net::io_context io;
    tcp::socket socket = Open(io, target);
    beast::flat_buffer buffer;
    std::string url =
        target.proxyPort ? std::string("http://") + kOrigin + "/download" : "/download";
    http::request<http::empty_body> request{http::verb::get, url, 11};
    request.set(http::field::host, kOrigin);
    auto start = Clock::now();
    http::write(socket, request);
    http::response_parser<http::buffer_body> parser;
    parser.body_limit(boost::none);
    std::vector<char> piece(1 << 20);
    std::size_t got = 0;
    http::read_header(socket, buffer, parser);
    while (!parser.is_done()) {
        parser.get().body().data = piece.data();
        parser.get().body().size = piece.size();
        beast::error_code ec;
        http::read(socket, buffer, parser, ec);
        if (ec && ec != http::error::need_buffer) {
            break;
        }
        got += piece.size() - parser.get().body().size;
    }
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return got == kDownload ? kDownload / seconds / 1e6 : 0;
}

}  // namespace

int main(int argc, char** argv) {
    double seconds = argc > 1 ? std::atof(argv[1]) : 3;
    if (std::string why = test::EnterTestNetwork(); !why.empty()) {
        std::fprintf(stderr, "bench_content: skipped: %s\n", why.c_str());
        return 0;
    }
    if (!std::filesystem::exists("/usr/sbin/privoxy")) {
        std::fprintf(stderr, "bench_content: install the Debian package privoxy\n");
        return 1;
    }
    ::signal(SIGPIPE, SIG_IGN);
    test::TempPlatform platform;
    core::RegistryKey(content::kProtocolTable[content::kHttpRow].protocolKey, core::kLspRootPath)
        .SetDword("MaxSize", 200000);
    Origin origin;
    std::printf("%-22s %10s %12s %12s %8s\n", "", "pages/s", "latency µs", "added µs", "output");
    const Target direct{"direct", 0};
    const Target processor{"q-brix-content", kProcessorPort};
    const Target privoxy{"privoxy", kPrivoxyPort};
    for (auto [count, dense] : {std::pair{1, true}, {10, true}, {1, false}, {10, false}}) {
        g_dense = dense;
        g_none = std::getenv("QBRIX_BENCH_NO_MATCH") != nullptr;
        origin.SetPage(Page());
        std::vector<Rule> rules = Rules(count);
        StoreRules(rules);
        std::string expected = Expected(rules);
        test::BackgroundProcess content({QBRIX_CONTENT, "--root", platform.DataRoot(),
                                         "--http-port", std::to_string(kProcessorPort),
                                         "--pop3-port", "0", "--listen", "127.0.0.1"});
        content.ReadLine(10000);
        test::BackgroundProcess proxy({"/usr/sbin/privoxy", "--no-daemon",
                                       WritePrivoxy(platform.DataRoot() + "/privoxy", rules)});
        test::WaitFor([&] {
            net::io_context io;
            tcp::socket socket(io);
            beast::error_code ec;
            socket.connect({net::ip::make_address("127.0.0.1"), kPrivoxyPort}, ec);
            return !ec;
        });
        Figures base = MeasurePages(direct, Page(), seconds);
        std::printf("%zu rule%s, %s page\n", rules.size(), rules.size() == 1 ? "" : "s",
                    dense ? "dense" : "sparse");
        std::printf("  %-20s %10.0f %12.1f %12s %8s\n", direct.name, base.pagesPerSecond,
                    base.latencyUs, "", "");
        for (const Target& target : {processor, privoxy}) {
            Figures figures = MeasurePages(target, expected, seconds);
            std::printf("  %-20s %10.0f %12.1f %12.1f %8s\n", target.name, figures.pagesPerSecond,
                        figures.latencyUs, figures.latencyUs - base.latencyUs,
                        figures.correct ? "same" : "DIFFERS");
        }
        if (count == 10 && !dense) {
            double straight = MeasureDownload(direct);
            std::printf("100 MB download: direct %.0f MB/s", straight);
            for (const Target& target : {processor, privoxy}) {
                double rate = MeasureDownload(target);
                std::printf(", %s %.0f MB/s (%.2f)", target.name, rate, rate / straight);
            }
            std::printf("\n");
        }
    }
    return 0;
}
