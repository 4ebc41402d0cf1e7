// The install (I) and deinstall (D) commands of the real program, run as separate processes on
// a fresh data root, seen through the socket catalog of that root.
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "platform/SocketCatalog.h"
#include "platform/Utf16.h"
#include "platform/posix/LiveMode.h"
#include "platform/posix/PosixPlatform.h"
#include "support/TempPlatform.h"

extern char** environ;

namespace qbrix {
namespace {

using namespace qbrix::platform;

class ProviderInstallE2eTest : public ::testing::Test {
  protected:
    ProviderInstallE2eTest() {
        SystemInfo info;
        info.programDirectory = m_dir.File("program/");
        info.dataRoot = m_dir.File("root");
        info.user = UserIdentity{1000, {"users"}};
        m_scope = std::make_unique<ScopedPlatform>(MakePosixPlatform(info));
    }

    // Runs the program with `command` (and a switch) on the test's data root; its exit status.
    int RunProgram(const char* command, const char* option = nullptr) {
        std::string root = "QBRIX_ROOT=" + m_dir.File("root");
        std::vector<char*> env;
        for (char** e = environ; *e != nullptr; ++e) {
            if (std::strncmp(*e, "QBRIX_ROOT=", 11) != 0) {
                env.push_back(*e);
            }
        }
        env.push_back(root.data());
        env.push_back(nullptr);
        std::string program = QBRIX_PROGRAM;
        char* argv[] = {program.data(), const_cast<char*>(command), const_cast<char*>(option),
                        nullptr};
        pid_t pid = 0;
        if (posix_spawn(&pid, program.c_str(), nullptr, nullptr, argv, env.data()) != 0) {
            return -1;
        }
        int status = 0;
        waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    std::vector<WSAPROTOCOL_INFOW> Catalog() {
        DWORD size = 0;
        int error = 0;
        WSCEnumProtocols(nullptr, nullptr, &size, &error);
        std::vector<WSAPROTOCOL_INFOW> list(size / sizeof(WSAPROTOCOL_INFOW));
        int count = WSCEnumProtocols(nullptr, list.data(), &size, &error);
        list.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
        return list;
    }
    static std::string Raw(const std::vector<WSAPROTOCOL_INFOW>& list) {
        return std::string(reinterpret_cast<const char*>(list.data()),
                           list.size() * sizeof(WSAPROTOCOL_INFOW));
    }

    test::TempDirectory m_dir;
    std::unique_ptr<ScopedPlatform> m_scope;
};

TEST_F(ProviderInstallE2eTest, InstallThenDeinstallLeavesTheCatalogAsItWas) {
    const std::vector<WSAPROTOCOL_INFOW> before = Catalog();
    ASSERT_EQ(6u, before.size());

    ASSERT_EQ(0, RunProgram("I"));
    std::vector<WSAPROTOCOL_INFOW> installed = Catalog();
    ASSERT_EQ(9u, installed.size());
    std::vector<std::string> names;
    for (const WSAPROTOCOL_INFOW& entry : installed) {
        names.push_back(Utf16ToUtf8(BoundedUtf16(entry.szProtocol, WSAPROTOCOL_LEN + 1)));
    }
    EXPECT_EQ("KORVELED_MSAFD Tcpip [TCP/IP]", names[0]);
    EXPECT_EQ("KORVELED_MSAFD Tcpip [UDP/IP]", names[1]);
    EXPECT_EQ("KORVEL_PROVIDER", names[8]);
    std::vector<std::string> guids;
    core::RegistryKey(core::kGuidsSuffix, core::kLspRootPath).ListValueNames(guids);
    EXPECT_EQ(2u, guids.size());

    ASSERT_EQ(0, RunProgram("d"));
    EXPECT_EQ(Raw(before), Raw(Catalog()));
}

// Live mode is only ever an explicit choice of the install step, and goes with the product.
TEST_F(ProviderInstallE2eTest, OnlyAnInstallWithTheLiveSwitchChoosesLiveMode) {
    const std::string root = m_dir.File("root");
    struct Step {
        const char* command;
        const char* option;
        bool live;
    };
    const Step steps[] = {{"I", nullptr, false},
                          {"I", "--live", true},
                          {"I", nullptr, false},
                          {"I", "--live", true},
                          {"D", nullptr, false}};
    for (const Step& step : steps) {
        ASSERT_EQ(0, RunProgram(step.command, step.option));
        EXPECT_EQ(step.live, DriverModeIsLive(root))
            << step.command << " " << (step.option ? step.option : "");
        std::vector<std::string> words = DriverServiceWords("/d/q-brix-driver", root);
        EXPECT_EQ(step.live, std::find(words.begin(), words.end(), "--live") != words.end());
        EXPECT_EQ(step.live, std::find(words.begin(), words.end(), "--content") != words.end());
    }
    // The boot unit, written to a directory of the test's (never the system's).
    ASSERT_TRUE(
        InstallDriverUnit(m_dir.File(""), "/opt/q/q-brix-driver", "/var/lib/q-brix", false));
    std::ifstream unit(m_dir.File(kDriverUnitName));
    std::string text((std::istreambuf_iterator<char>(unit)), {});
    EXPECT_NE(std::string::npos,
              text.find("\nExecStart=/opt/q/q-brix-driver --root /var/lib/q-brix --foreground "
                        "--live --content\n"))
        << text;
    EXPECT_NE(std::string::npos, text.find("\nWantedBy=multi-user.target\n"));
    EXPECT_TRUE(RemoveDriverUnit(m_dir.File(""), false));
    EXPECT_FALSE(std::filesystem::exists(m_dir.File(kDriverUnitName)));
}

}  // namespace
}  // namespace qbrix
