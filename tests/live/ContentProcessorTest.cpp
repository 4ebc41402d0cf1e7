// The content processor on real connections, through the transparent path: programs connect to
// servers on port 80 and 110 of the test's own network namespace, the processor's redirection
// sends them to q-brix-content, and what they receive is compared with what the rule engine (the
// one the rule tester and q-brixctl use) makes of the same content.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/streambuf.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

#include "antivirus/AntivirusSelfTest.h"
#include "content/ContentStore.h"
#include "content/LspSettings.h"
#include "content/RuleEngine.h"
#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "driver/DriverControl.h"
#include "driver/DriverErrors.h"
#include "driver/DriverRecords.h"
#include "events/ContentEvent.h"
#include "platform/Device.h"
#include "platform/Kernel.h"
#include "platform/Mailslot.h"
#include "platform/posix/live/FirewallRules.h"
#include "support/Compress.h"
#include "support/Process.h"
#include "support/TempPlatform.h"
#include "support/TestNetwork.h"
#include "support/ThreadedServer.h"

namespace qbrix {
namespace {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = net::ip::tcp;
using test::BackgroundProcess;

std::string g_skipReason;
constexpr char kServer[] = "10.77.0.1";

std::string Page() {
    std::string page = "<html><body>\n";
    for (int i = 0; i < 1500; ++i) {
        page += "<p>line " + std::to_string(i) + ": a banner here, some text there</p>\n";
    }
    return page + "</body></html>\n";  // about 75 KB: under the default MaxSize
}

// The web server: /plain, /chunked, /gzip, /big (over MaxSize), /eicar, and /echo, which
// answers with the request's head as it arrived.
class WebServer {
  public:
    WebServer(std::string eicar)
        : m_eicar(std::move(eicar)),
          m_server(kServer, 80, [this](tcp::socket& socket) { Serve(socket); }) {}

  private:
    void Serve(tcp::socket& socket) {
        beast::flat_buffer buffer;
        for (;;) {
            http::request<http::string_body> request;
            beast::error_code ec;
            http::read(socket, buffer, request, ec);
            if (ec) {
                return;
            }
            std::ostringstream head;
            head << request.base();
            http::response<http::string_body> answer{http::status::ok, 11};
            answer.set(http::field::content_type, "text/html");
            std::string target(request.target());
            if (target == "/gzip") {
                answer.set(http::field::content_encoding, "gzip");
                answer.body() = test::Compress(Page(), 15 + 16);
            } else if (target == "/big") {
                answer.body() = std::string(300000, 'x') + Page();
            } else if (target == "/eicar") {
                answer.set(http::field::content_type, "application/octet-stream");
                answer.body() = m_eicar;
            } else if (target == "/crash" || target == "/hang") {
                answer.body() = "qbrix-stand-in:" + target.substr(1);
            } else if (target == "/echo") {
                answer.body() = head.str();
            } else {
                answer.body() = Page();
            }
            answer.prepare_payload();
            if (target == "/chunked") {
                answer.chunked(true);
            }
            http::write(socket, answer, ec);
            if (ec) {
                return;
            }
        }
    }

    std::string m_eicar;
    test::ThreadedServer m_server;  // last: its threads end before the rest goes
};

// A mail server holding one message; RETR 1 sends it dot-stuffed.
class MailServer {
  public:
    explicit MailServer(std::string stuffed)
        : m_stuffed(std::move(stuffed)),
          m_server(kServer, 110, [this](tcp::socket& socket) { Serve(socket); }) {}

  private:
    void Serve(tcp::socket& socket) {
        beast::error_code ec;
        net::write(socket, net::buffer(std::string("+OK ready\r\n")), ec);
        net::streambuf in;
        while (!ec) {
            std::size_t n = net::read_until(socket, in, "\r\n", ec);
            if (ec) {
                break;
            }
            std::string line(net::buffers_begin(in.data()), net::buffers_begin(in.data()) + n);
            in.consume(n);
            std::string answer = line.rfind("RETR", 0) == 0
                                     ? "+OK message\r\n" + m_stuffed + ".\r\n"
                                 : line.rfind("QUIT", 0) == 0 ? "+OK bye\r\n"
                                                              : "+OK\r\n";
            net::write(socket, net::buffer(answer), ec);
            if (line.rfind("QUIT", 0) == 0) {
                break;
            }
        }
    }

    std::string m_stuffed;
    test::ThreadedServer m_server;
};

content::RegRule Unit(const std::string& find, const std::string& replace) {
    content::RegRule unit;
    unit.find = find;
    unit.findFlag = 1;
    unit.replace = replace;
    unit.replaceFlag = replace.empty() ? 0 : 1;
    return unit;
}

std::unique_ptr<content::ContentRule> Rule(const std::string& name, int direction,
                                           const std::string& find, const std::string& replace) {
    return std::make_unique<content::ContentRule>(1, direction, name, Unit(find, replace), 1,
                                                  content::RegRule{},
                                                  std::vector<content::RegRule>{}, 1, 0, "");
}

class ContentProcessorTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!g_skipReason.empty()) {
            GTEST_SKIP() << g_skipReason;
        }
        antivirus::WriteTestSample(295, m_files.File("eicar"), 0x3C);
        std::ifstream in(m_files.File("eicar"), std::ios::binary);
        m_eicar.assign(std::istreambuf_iterator<char>(in), {});
        ASSERT_EQ(68u, m_eicar.size());
        SetRules(content::kHttpRow, "banner", "BANNER");
        m_events =
            platform::CreateMailslot(events::kContentMailslotName, sizeof(events::ContentEvent), 0);
        ASSERT_NE(platform::INVALID_HANDLE_VALUE, m_events);
        m_web = std::make_unique<WebServer>(m_eicar);
    }
    void TearDown() override {
        if (m_processor != nullptr) {
            EXPECT_EQ(0, m_processor->Stop(SIGTERM));
            test::ProcessResult left = test::RunProcess({"iptables", "-t", "nat", "-S"});
            EXPECT_EQ(std::string::npos, left.out.find("QBRIX-CONTENT")) << left.out;
        }
        if (m_events != nullptr && m_events != platform::INVALID_HANDLE_VALUE) {
            platform::CloseHandle(m_events);
        }
    }

    // The rules of a protocol: one incoming rule, and for HTTP an outgoing one for the header.
    void SetRules(std::size_t row, const std::string& find, const std::string& replace) {
        content::RuleList list;
        list.Append(Rule("Rewrite", 0, find, replace));
        if (row == content::kHttpRow) {
            list.Append(Rule("Header", 1, "X-Secret: [a-z]+", "X-Secret: hidden"));
        }
        ASSERT_EQ(0, content::SaveContentRules(content::kProtocolTable[row].rulesKey, list));
    }
    void SetOption(const char* protocolKey, const char* name, platform::DWORD value) {
        core::RegistryKey(protocolKey, core::kLspRootPath).SetDword(name, value);
    }
    void StartProcessor() {
        m_processor = std::make_unique<BackgroundProcess>(
            std::vector<std::string>{QBRIX_CONTENT_BINARY, "--root", m_platform.DataRoot(),
                                     "--transparent"},
            std::map<std::string, std::string>{}, m_files.File("content.err"));
        std::string line = m_processor->ReadLine(10000);
        ASSERT_NE(std::string::npos, line.find("listening")) << line << Errors();
    }
    std::string Errors() const {
        std::ifstream in(m_files.File("content.err"));
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    // What the engine makes of a text with the stored incoming rule, as the tester shows it.
    std::string Expected(std::string text, const std::string& find, const std::string& replace) {
        auto rule = Rule("Rewrite", 0, find, replace);
        content::ApplyContentRule(*rule, text);
        return text;
    }
    http::response<http::string_body> Get(tcp::socket& socket, const std::string& target,
                                          const std::string& extraHeader = {}) {
        http::request<http::string_body> request{http::verb::get, target, 11};
        request.set(http::field::host, "test.example");
        if (!extraHeader.empty()) {
            request.set("X-Secret", extraHeader);
        }
        http::write(socket, request);
        beast::flat_buffer buffer;
        http::response<http::string_body> response;
        http::read(socket, buffer, response);
        return response;
    }
    tcp::socket Connect(unsigned short port) {
        tcp::socket socket(m_io);
        socket.connect({net::ip::make_address(kServer), port});
        return socket;
    }
    std::vector<events::ContentEvent> Events(std::size_t atLeast) {
        std::vector<events::ContentEvent> got;
        test::WaitFor([&] {
            events::ContentEvent event{};
            platform::DWORD read = 0;
            while (platform::ReadMailslot(m_events, &event, sizeof(event), &read) &&
                   read == sizeof(event)) {
                got.push_back(event);
            }
            return got.size() >= atLeast;
        });
        return got;
    }

    test::TempDirectory m_files;
    test::TempPlatform m_platform;
    std::string m_eicar;
    platform::HANDLE m_events = nullptr;
    net::io_context m_io;
    std::unique_ptr<WebServer> m_web;
    std::unique_ptr<BackgroundProcess> m_processor;
};

TEST_F(ContentProcessorTest, PagesAreRewrittenAsTheEngineRewritesThem) {
    StartProcessor();
    std::string expected = Expected(Page(), "banner", "BANNER");
    ASSERT_NE(expected, Page());
    tcp::socket socket = Connect(80);
    // One kept-alive connection for every coding.
    for (const char* target : {"/plain", "/chunked", "/gzip"}) {
        auto response = Get(socket, target);
        EXPECT_EQ(200u, response.result_int()) << target;
        EXPECT_EQ(expected, response.body()) << target;
        EXPECT_EQ(response[http::field::content_encoding], "") << target;
        EXPECT_EQ(std::to_string(expected.size()), response[http::field::content_length]);
    }
    // The outgoing rule rewrites the request head.
    auto echo = Get(socket, "/echo", "topsecret");
    EXPECT_NE(std::string::npos, echo.body().find("X-Secret: hidden\r\n")) << echo.body();
    // Over MaxSize: passed as it came.
    auto big = Get(socket, "/big");
    EXPECT_EQ(std::string(300000, 'x') + Page(), big.body());

    auto events = Events(4);
    ASSERT_GE(events.size(), 4u);
    EXPECT_EQ(events::kRuleApplied, events[0].type);
    EXPECT_STREQ("Rewrite", events[0].name);
    EXPECT_STREQ("http://test.example/plain", events[0].address);

    // A rule changed in the store applies to the next request, without a restart.
    SetRules(content::kHttpRow, "text", "TEXT");
    EXPECT_EQ(Expected(Page(), "text", "TEXT"), Get(socket, "/plain").body());
}

TEST_F(ContentProcessorTest, MailIsRewrittenWithItsDotStuffingIntact) {
    SetRules(content::kPop3Row, "secret", ".hidden");
    // Lines that begin with a dot arrive stuffed; the rewrite makes one more such line.
    std::string message = "Subject: test\r\n\r\n.dot line\r\nsecret\r\nlast\r\n";
    std::string stuffed = "Subject: test\r\n\r\n..dot line\r\nsecret\r\nlast\r\n";
    MailServer mail(stuffed);
    StartProcessor();
    tcp::socket socket = Connect(110);
    net::streambuf in;
    auto line = [&] {
        std::size_t n = net::read_until(socket, in, "\r\n");
        std::string text(net::buffers_begin(in.data()), net::buffers_begin(in.data()) + n);
        in.consume(n);
        return text;
    };
    EXPECT_EQ("+OK ready\r\n", line());
    net::write(socket, net::buffer(std::string("RETR 1\r\n")));
    std::string answer;
    while (answer.size() < 5 || answer.compare(answer.size() - 5, 5, "\r\n.\r\n") != 0) {
        answer += line();
    }
    EXPECT_EQ("+OK message\r\nSubject: test\r\n\r\n..dot line\r\n..hidden\r\nlast\r\n.\r\n",
              answer);
    net::write(socket, net::buffer(std::string("QUIT\r\n")));
    EXPECT_EQ("+OK bye\r\n", line());
}

class ContentProcessorScanTest : public ContentProcessorTest,
                                 public ::testing::WithParamInterface<const char*> {};

TEST_P(ContentProcessorScanTest, AVirusIsBlockedAndQuarantined) {
    std::string engine = GetParam();
    core::RegistryKey av("\\AV", core::kLspRootPath);
    av.SetString("AVName", engine);
    std::string quarantine = m_files.File("quarantine");
    av.SetString("Quarantine", quarantine);
    if (engine == "ClamAV") {
        // A database of one signature, the test file's MD5 hash.
        std::filesystem::create_directories(m_files.File("signatures"));
        std::ofstream(m_files.File("signatures/test.hdb"))
            << "44d88612fea8a8f36de82e1278abb02f:68:Eicar-Test-Signature\n";
        av.SetString("Repository", m_files.File("signatures"));
    } else {
        core::RegistryKey("", "Software\\Eset\\Nod\\CurrentVersion\\Info")
            .SetString("InstallDir", std::string(QBRIX_STANDIN_DIR) + "/nod32/");
    }
    StartProcessor();
    tcp::socket socket = Connect(80);
    auto blocked = Get(socket, "/eicar");
    EXPECT_EQ(403u, blocked.result_int());
    EXPECT_NE(std::string::npos, blocked.body().find("q-Brix blocked")) << blocked.body();
    auto clean = Get(socket, "/plain");
    EXPECT_EQ(200u, clean.result_int());

    auto events = Events(2);
    ASSERT_GE(events.size(), 2u) << Errors();
    EXPECT_EQ(events::kWebFound, events[0].type);
    std::string found = events[0].name;
    std::transform(found.begin(), found.end(), found.begin(), ::toupper);
    EXPECT_NE(std::string::npos, found.find("EICAR")) << events[0].name;
    std::ifstream kept(events[0].quarantine, std::ios::binary);
    EXPECT_EQ(m_eicar, std::string(std::istreambuf_iterator<char>(kept), {}));
    EXPECT_EQ(0u, std::string(events[0].quarantine).rfind(quarantine, 0));
    EXPECT_EQ(events::kWebQuiet, events[1].type);
    EXPECT_STREQ("Scanned", events[1].name);
}

// Allows TCP to port 80 of 10.77.0.0/24 and nothing else.
driver::ZoneRecord WebOnly(std::uint32_t result) {
    driver::ZoneRecord zone{};
    driver::SetFieldText(zone.name, "Web only");
    zone.result = result;
    driver::ZoneRule& rule = zone.rules[0];
    rule.enabled = 1;
    driver::SetFieldText(rule.name, "web");
    rule.address = 0x0A4D0000;
    rule.mask = 0xFFFFFF00;
    rule.remotePort = 80;
    rule.protocol = 1;
    rule.direction = 2;
    return zone;
}

TEST_F(ContentProcessorTest, TheLiveDriverRunsItAndJudgesWebByTheServerAskedFor) {
    BackgroundProcess driverProcess({QBRIX_DRIVER_BINARY, "--root", m_platform.DataRoot(),
                                     "--foreground", "--live", "--content", "--hold-ms", "1000"},
                                    {}, m_files.File("driver.err"));
    ASSERT_TRUE(test::WaitFor([] { return std::filesystem::exists(platform::DeviceSocketPath()); }))
        << Errors();
    driver::ResetDriverLink();
    ASSERT_EQ(0, driver::OpenDriverDevice(1)) << driver::DriverErrorText();
    // This program may reach port 80 of the servers only: a connection judged by the
    // processor's address (after the redirection) would be refused.
    driver::AppRecord record{};
    driver::SetFieldText(record.imageName,
                         std::filesystem::read_symlink("/proc/self/exe").filename().string());
    driver::SetFieldText(record.path, std::filesystem::read_symlink("/proc/self/exe").string());
    record.zone = WebOnly(1);
    ASSERT_EQ(0, driver::SetAppRecord(driver::g_hDriver, record));
    {
        tcp::socket socket = Connect(80);
        EXPECT_EQ(Expected(Page(), "banner", "BANNER"), Get(socket, "/plain").body());
    }
    // With the port rule switched off the zone's result refuses it.
    record.zone.rules[0].enabled = 0;
    ASSERT_EQ(0, driver::SetAppRecord(driver::g_hDriver, record));
    tcp::socket refused(m_io);
    beast::error_code ec;
    refused.connect({net::ip::make_address(kServer), 80}, ec);
    EXPECT_EQ(net::error::connection_refused, ec);
    driver::ResetDriverLink();
    EXPECT_EQ(0, driverProcess.Stop(SIGTERM));
    EXPECT_FALSE(platform::live::RulesPresent());
    test::ProcessResult left = test::RunProcess({"iptables", "-t", "nat", "-S"});
    EXPECT_EQ(std::string::npos, left.out.find("QBRIX-CONTENT")) << left.out;
}

TEST_F(ContentProcessorTest, AnEngineThatHangsOrCrashesLetsContentPassAndIsStartedAgain) {
    core::RegistryKey av("\\AV", core::kLspRootPath);
    av.SetString("AVName", "NOD32");
    av.SetString("Quarantine", m_files.File("quarantine"));
    core::RegistryKey("", "Software\\Eset\\Nod\\CurrentVersion\\Info")
        .SetString("InstallDir", std::string(QBRIX_STANDIN_DIR) + "/nod32/");
    SetOption(content::kProtocolTable[content::kHttpRow].protocolKey, "MaxAvTimeout", 500);
    StartProcessor();
    tcp::socket socket = Connect(80);
    EXPECT_EQ("qbrix-stand-in:hang", Get(socket, "/hang").body());
    EXPECT_EQ("qbrix-stand-in:crash", Get(socket, "/crash").body());
    EXPECT_EQ(403u, Get(socket, "/eicar").result_int());  // a new helper, the same engine
    auto events = Events(3);
    ASSERT_GE(events.size(), 3u);
    EXPECT_STREQ("AV timeout, content passed", events[0].name);
    EXPECT_STREQ("AV engine ended unexpectedly", events[1].name);
    EXPECT_EQ(events::kWebFound, events[2].type);
}

INSTANTIATE_TEST_SUITE_P(Engines, ContentProcessorScanTest, ::testing::Values("ClamAV", "NOD32"));

}  // namespace
}  // namespace qbrix

int main(int argc, char** argv) {
    qbrix::g_skipReason = qbrix::test::EnterTestNetwork();
    if (!qbrix::g_skipReason.empty()) {
        std::fprintf(stderr, "content processor tests skipped: %s\n", qbrix::g_skipReason.c_str());
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
