// Process identification: the image-name match, the searches of both families over a process
// table (the real /proc one with this test's own process, and scripted ones), and the file
// lookup that ignores case.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "platform/Kernel.h"
#include "platform/PathNames.h"
#include "platform/Platform.h"
#include "platform/Processes.h"
#include "platform/Text.h"
#include "policy/ProcessLookup.h"
#include "support/TempPlatform.h"

namespace qbrix::policy {
namespace {

std::string OwnExecutable() {
    return std::filesystem::read_symlink("/proc/self/exe").string();
}

std::string OwnImageName() {
    std::string name = std::filesystem::path(OwnExecutable()).filename().string();
    return name.substr(0, 15);
}

// A table of made-up processes with Windows paths; every process is inspectable.
class ScriptedProcesses : public platform::ProcessTable {
  public:
    ScriptedProcesses() : m_scope(*this) {}
    void Add(platform::DWORD id, std::string path) { m_entries.push_back({id, 0, 1, path}); }
    std::vector<platform::ProcessEntry> List() override {
        ++lists;
        return m_entries;
    }
    platform::DWORD ExecutablePath(platform::DWORD id, std::string& path) override {
        ++executables;
        for (const auto& entry : m_entries) {
            if (entry.processId == id) {
                path = entry.executable;
                return entry.executable.empty() ? platform::ERROR_ACCESS_DENIED : 0;
            }
        }
        return platform::ERROR_INVALID_PARAMETER;
    }
    platform::DWORD Modules(platform::DWORD id, std::vector<std::string>& files) override {
        ++modules;
        std::string path;
        platform::DWORD error = ExecutablePath(id, path);
        files = {path, "C:\\WINDOWS\\SYSTEM\\KERNEL32.DLL"};
        return error;
    }

    int lists = 0;  // calls of each kind the searches made
    int executables = 0;
    int modules = 0;

  private:
    std::vector<platform::ProcessEntry> m_entries;
    platform::ScopedProcessTable m_scope;
};

TEST(MatchImageNameTest, ComparesBaseNamesOverTheWantedLength) {
    EXPECT_TRUE(MatchImageName("C:\\TOOLS\\TOOL.BIN", "TOOL.EXE"));
    EXPECT_FALSE(MatchImageName("C:\\TOOLS\\TOOLBOX.EXE", "TOOL.EXE"));
    EXPECT_TRUE(MatchImageName("C:\\SETUP.COM", "SETUP.EXE"));
    EXPECT_TRUE(MatchImageName("C:\\A\\ABCDEFGHIJKLMNOPQ.EXE", "ABCDEFGHIJKLMNO"));
    EXPECT_FALSE(MatchImageName("C:\\A\\ABCDEFGHIJKLMNX.EXE", "ABCDEFGHIJKLMNO"));
    EXPECT_TRUE(MatchImageName("/USR/BIN/PYTHON3.11", "PYTHON3.EXE"));
    EXPECT_FALSE(MatchImageName("/usr/bin/tool", "TOOL"));  // callers upper-case both
    EXPECT_FALSE(MatchImageName("C:\\TOOL.EXE", "TOOLS"));
}

TEST(SplitPathTest, SplitsLikeTheRuntimeLibrary) {
    platform::PathParts parts = platform::SplitPath("C:\\PROGRAM FILES\\MAIL\\MAIL.V2.EXE");
    EXPECT_EQ(parts.drive, "C:");
    EXPECT_EQ(parts.directory, "\\PROGRAM FILES\\MAIL\\");
    EXPECT_EQ(parts.baseName, "MAIL.V2");
    EXPECT_EQ(parts.extension, ".EXE");
    parts = platform::SplitPath("/usr/bin/env");
    EXPECT_EQ(parts.directory, "/usr/bin/");
    EXPECT_EQ(parts.baseName, "env");
    EXPECT_EQ(parts.extension, "");
}

TEST(ProcessLookupTest, FindsThisTestsOwnProcessOnBothFamilies) {
    std::string wanted = platform::ToUpperAscii(OwnImageName());
    {
        test::TempPlatform platform;
        // Only the first 200 processes are looked at; on a busy machine this one may lie beyond.
        std::vector<platform::ProcessEntry> all = platform::CurrentProcessTable().List();
        bool early = false;
        for (std::size_t i = 0; i < all.size() && i < 200; ++i) {
            early = early || all[i].processId == static_cast<platform::DWORD>(::getpid());
        }
        if (early) {
            std::string path;
            ASSERT_EQ(FindProcessPathNt(wanted, path), 0);
            EXPECT_EQ(path, platform::ToUpperAscii(OwnExecutable()));
        }
    }
    test::TempPlatform platform(platform::Family::Win9x);
    std::string path;
    ASSERT_EQ(FindProcessPath9x(wanted, path), 0);
    EXPECT_EQ(platform::SplitPath(path).baseName,
              platform::SplitPath(OwnExecutable()).baseName);  // a process of this binary
}

TEST(ProcessLookupTest, OwnProcessModulesStartWithTheExecutable) {
    test::TempPlatform platform;
    platform::HANDLE process = platform::OpenProcess(platform::PROCESS_QUERY_INFORMATION, 0,
                                                     static_cast<platform::DWORD>(::getpid()));
    ASSERT_NE(process, nullptr);
    platform::HMODULE module = nullptr;
    platform::DWORD needed = 0;
    ASSERT_TRUE(platform::EnumProcessModules(process, &module, sizeof module, &needed));
    EXPECT_GT(needed, sizeof module);  // shared libraries follow
    char name[260];
    EXPECT_GT(platform::GetModuleFileNameExA(process, module, name, sizeof name), 0u);
    EXPECT_EQ(std::string(name), OwnExecutable());
    platform::CloseHandle(process);
    EXPECT_EQ(platform::OpenProcess(0, 0, 0x7FFFFFF0), nullptr);
    EXPECT_EQ(platform::GetLastError(), platform::ERROR_INVALID_PARAMETER);
}

TEST(ProcessLookupTest, NtSearchUpperCasesTheFirstMatchAndSkipsClosedProcesses) {
    test::TempPlatform platform;
    ScriptedProcesses processes;
    processes.Add(4, "");  // not inspectable
    processes.Add(8, "C:\\Program Files\\Mail\\MailTool.exe");
    processes.Add(12, "C:\\Program Files\\Mail\\Mail.exe");
    processes.Add(16, "D:\\Mail.exe");
    std::string path;
    std::string description;
    ASSERT_EQ(GetProcessName("mail.exe", path, description), 0);
    EXPECT_EQ(path, "C:\\PROGRAM FILES\\MAIL\\MAIL.EXE");
    EXPECT_EQ(description, "mail.exe");  // no such file: the image name stays
}

TEST(ProcessLookupTest, NtSearchLooksAtTheFirstTwoHundredProcessesOnly) {
    test::TempPlatform platform;
    ScriptedProcesses processes;
    for (platform::DWORD i = 1; i <= 200; ++i) {
        processes.Add(i * 4, "C:\\BUSY" + std::to_string(i) + ".EXE");
    }
    processes.Add(1000, "C:\\LATE.EXE");
    std::string path;
    EXPECT_EQ(FindProcessPathNt("LATE.EXE", path), 1);
    EXPECT_EQ(FindProcessPathNt("BUSY200.EXE", path), 0);
}

TEST(ProcessLookupTest, NineXSearchTakesThePathFromTheModuleSnapshot) {
    test::TempPlatform platform(platform::Family::Win9x);
    ScriptedProcesses processes;
    processes.Add(4, "C:\\Windows\\Explorer.exe");
    processes.Add(8, "C:\\Apps\\Tool.exe");
    std::string path;
    std::string description;
    ASSERT_EQ(GetProcessName("TOOL.EXE", path, description), 0);
    EXPECT_EQ(path, "C:\\Apps\\Tool.exe");
}

TEST(ProcessLookupTest, MissingProcessGivesQuestionMarkAndTheImageName) {
    for (platform::Family family : {platform::Family::Nt, platform::Family::Win9x}) {
        test::TempPlatform platform(family);
        std::string path;
        std::string description;
        EXPECT_EQ(GetProcessName("no-such-prog.exe", path, description), 1);
        EXPECT_EQ(path, "?");
        EXPECT_EQ(description, "no-such-prog.exe");
    }
}

TEST(ProcessLookupTest, MissingLibraryFunctionsFailTheSearch) {
    test::TempPlatform platform;
    platform.Get().Libs().RegisterBuiltin("PSAPI.DLL", {});
    platform.Get().Libs().RegisterBuiltin("KERNEL32.DLL", {});
    std::string path;
    EXPECT_EQ(FindProcessPathNt(platform::ToUpperAscii(OwnImageName()), path), 1);
    EXPECT_EQ(FindProcessPath9x(platform::ToUpperAscii(OwnImageName()), path), 1);
}

TEST(CaseInsensitiveFileTest, FindsFilesWhateverTheCaseAndPrefersExactNames) {
    test::TempDirectory dir;
    std::filesystem::create_directories(dir.File("Program Files/Mail"));
    std::ofstream(dir.File("Program Files/Mail/Mail.exe")) << "x";
    std::ofstream(dir.File("Program Files/Mail/MAIL.EXE")) << "y";
    std::string upper = platform::ToUpperAscii(dir.Path()) + "/PROGRAM FILES/MAIL/MAIL.EXE";
    std::string found = platform::FindFileIgnoringCase(upper);
    EXPECT_EQ(found, dir.File("Program Files/Mail/MAIL.EXE"));
    EXPECT_EQ(platform::FindFileIgnoringCase(dir.Path() + "/program files/mail/mail.exe").empty(),
              false);
    EXPECT_EQ(platform::FindFileIgnoringCase(dir.Path() + "/PROGRAM FILES/NONE.EXE"), "");
}

// Within a snapshot the processes are listed once and each executable read once, whatever the
// number of lookups; no lookup lists the other mapped files. A nested snapshot, and any lookup
// after the last one ends, see the processes anew.
TEST(ProcessLookupTest, ASnapshotServesEveryLookupFromOneViewOfTheProcesses) {
    test::TempPlatform platform;
    ScriptedProcesses processes;
    processes.Add(4, "C:\\A.EXE");
    processes.Add(8, "C:\\B.EXE");
    std::string path;
    std::string description;
    {
        platform::ProcessSnapshot snapshot;
        EXPECT_EQ(GetProcessName("none.exe", path, description), 1);
        EXPECT_EQ(GetProcessName("b.exe", path, description), 0);
        EXPECT_EQ(path, "C:\\B.EXE");
        processes.Add(12, "C:\\LATE.EXE");
        EXPECT_EQ(GetProcessName("late.exe", path, description), 1);
        EXPECT_EQ(processes.lists, 1);
        EXPECT_EQ(processes.executables, 2);
        {
            platform::ProcessSnapshot nested;
            EXPECT_EQ(GetProcessName("late.exe", path, description), 0);
        }
        EXPECT_EQ(processes.lists, 2);
        EXPECT_EQ(processes.executables, 5);
    }
    processes.Add(16, "C:\\AFTER.EXE");
    EXPECT_EQ(GetProcessName("after.exe", path, description), 0);
    EXPECT_EQ(GetProcessName("after.exe", path, description), 0);
    EXPECT_EQ(processes.lists, 4);
    EXPECT_EQ(processes.modules, 0);
}

}  // namespace
}  // namespace qbrix::policy
