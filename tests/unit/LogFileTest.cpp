// Log files: appending, and the trim that keeps about nine tenths of the limit from a line start.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>

#include "EventTestSupport.h"
#include "events/LogFile.h"
#include "platform/Kernel.h"
#include "support/TempPlatform.h"

namespace qbrix::events {
namespace {

using testing::SameBytes;

void WriteWhole(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

// Lines of varying length, so that the cut lands inside a line.
std::string Lines(std::size_t total) {
    std::string content;
    for (int i = 0; content.size() < total; ++i) {
        content += "line " + std::to_string(i) +
                   std::string(static_cast<std::size_t>(i % 37), '.') + "\r\n";
    }
    content.resize(total);
    return content;
}

class LogFileTest : public ::testing::Test {
  protected:
    std::string Path() const { return m_dir.File("firewall.log"); }
    void Trim(platform::DWORD sizeMb,
              platform::FileMappings& mappings = platform::SystemFileMappings()) {
        LogFile file(mappings);
        file.Open(Path(), sizeMb);
        ASSERT_TRUE(file.IsOpen());
        file.CloseAndTrim();
        EXPECT_FALSE(file.IsOpen());
    }

    test::TempPlatform m_platform;
    test::ScriptedMessages m_messages;
    test::TempDirectory m_dir;
};

TEST_F(LogFileTest, OpenCreatesOrAppendsAndNeverTruncates) {
    {
        LogFile file;
        file.Open(Path(), 1);
        file.Write("a\r\n");
        file.CloseAndTrim();
    }
    LogFile file;
    file.Open(Path(), 1);
    file.Write("b\r\n");
    file.CloseAndTrim();
    EXPECT_EQ("a\r\nb\r\n", test::ReadFile(Path()));
}

TEST_F(LogFileTest, AFileThatCannotBeOpenedIsSkippedQuietly) {
    LogFile file;
    file.Open(m_dir.File("missing/dir/content.log"), 1);
    EXPECT_FALSE(file.IsOpen());
    file.Write("lost\r\n");
    file.CloseAndTrim();
    EXPECT_FALSE(test::FileExists(m_dir.File("missing")));
    EXPECT_TRUE(m_messages.shown.empty());
}

TEST_F(LogFileTest, FilesUpToTheLimitAreLeftAlone) {
    std::string content = Lines(1000000);
    WriteWhole(Path(), content);
    Trim(1);
    EXPECT_TRUE(SameBytes(content, test::ReadFile(Path())));
}

TEST_F(LogFileTest, LongerFilesLoseTheirOldestPartUpToTheNextLineStart) {
    std::string content = Lines(1200000);
    WriteWhole(Path(), content);
    Trim(1);
    // cut = 1,000,000 / 10 + 200,000, moved just behind the next line feed
    std::size_t cut = content.find('\n', 300000) + 1;
    ASSERT_GT(cut, 300000u);
    std::string kept = test::ReadFile(Path());
    EXPECT_TRUE(SameBytes(content.substr(cut), kept));
    EXPECT_EQ("line ", kept.substr(0, 5));
    EXPECT_NEAR(900000.0, static_cast<double>(kept.size()), 200.0);
}

TEST_F(LogFileTest, ALineFeedRightAtTheCutIsCutWithIt) {
    std::string content(1000100, 'x');
    content[100000 + 100] = '\n';
    WriteWhole(Path(), content);
    Trim(1);
    EXPECT_TRUE(SameBytes(content.substr(100101), test::ReadFile(Path())));
}

TEST_F(LogFileTest, WithoutALineFeedAfterTheCutTheCutStaysWhereItIs) {
    std::string content = std::string(50, 'a') + "\n" + std::string(1100000, 'b');
    WriteWhole(Path(), content);
    Trim(1);
    EXPECT_TRUE(
        SameBytes(content.substr(100000 + (content.size() - 1000000)), test::ReadFile(Path())));
}

TEST_F(LogFileTest, LimitIsComputedInUnsigned32BitArithmetic) {
    LogFile file;
    file.Open(Path(), 4295);  // 4,295,000,000 wraps to 32,704
    EXPECT_EQ(32704u, file.LimitBytes());
    file.Write(Lines(40000));
    file.CloseAndTrim();
    std::string content = Lines(40000);
    std::size_t cut = content.find('\n', 3270 + (40000 - 32704)) + 1;
    EXPECT_TRUE(SameBytes(content.substr(cut), test::ReadFile(Path())));

    WriteWhole(Path(), "x\ny");
    Trim(0);  // a zero limit keeps nothing
    EXPECT_EQ("", test::ReadFile(Path()));
}

// A burst of lines within one opening never takes the file more than a line past its limit,
// and the lines written after a trim follow at the new end.
TEST_F(LogFileTest, ABurstOfLinesIsTrimmedAsItIsWritten) {
    LogFile file;
    file.Open(Path(), 4295);  // a limit of 32,704 bytes
    std::string all;
    std::uintmax_t largest = 0;
    for (int i = 0; i < 3000; ++i) {
        std::string line = "line " + std::to_string(i) + std::string(i % 37, '.') + "\r\n";
        file.Write(line);
        all += line;
        largest = std::max(largest, std::filesystem::file_size(Path()));
    }
    file.CloseAndTrim();
    EXPECT_LE(largest, 32704u + 50u);
    std::string kept = test::ReadFile(Path());
    ASSERT_GT(kept.size(), 20000u);
    EXPECT_EQ("line ", kept.substr(0, 5));
    EXPECT_TRUE(SameBytes(all.substr(all.size() - kept.size()), kept));
}

// Mappings that fail at one chosen step and pass the others on to the system.
class FailingMappings : public platform::FileMappings {
  public:
    explicit FailingMappings(int failingStep) : m_step(failingStep) {}
    platform::HANDLE CreateFileMapping(int file, std::uint64_t length) override {
        if (m_step == 1) {
            return nullptr;
        }
        m_mapping = platform::SystemFileMappings().CreateFileMapping(file, length);
        return m_mapping;
    }
    void* MapViewOfFile(platform::HANDLE mapping) override {
        return m_step == 2 ? nullptr : platform::SystemFileMappings().MapViewOfFile(mapping);
    }
    platform::BOOL UnmapViewOfFile(void* view) override {
        platform::BOOL result = platform::SystemFileMappings().UnmapViewOfFile(view);
        return m_step == 3 ? 0 : result;
    }
    platform::HANDLE m_mapping = nullptr;

  private:
    int m_step;
};

TEST_F(LogFileTest, MappingFailuresAreShownAndLeaveTheFileUntrimmed) {
    std::string content = Lines(1100000);
    const char* const kTexts[] = {"Unable to open shared file\n", "Unable to map view of a file"};
    for (int step = 1; step <= 2; ++step) {
        WriteWhole(Path(), content);
        FailingMappings mappings(step);
        Trim(1, mappings);
        EXPECT_TRUE(SameBytes(content, test::ReadFile(Path()))) << "step " << step;
        ASSERT_EQ(static_cast<std::size_t>(step), m_messages.shown.size());
        EXPECT_EQ(kTexts[step - 1], m_messages.shown.back().text);
        EXPECT_EQ("q-Brix", m_messages.shown.back().caption);
        if (step == 2) {
            EXPECT_FALSE(platform::CloseHandle(mappings.m_mapping));  // closed by the trim
        }
    }
}

TEST_F(LogFileTest, AnUnmapFailureIsShownButTheTrimCompletes) {
    std::string content = Lines(1100000);
    WriteWhole(Path(), content);
    FailingMappings mappings(3);
    Trim(1, mappings);
    ASSERT_EQ(1u, m_messages.shown.size());
    EXPECT_EQ("Unable to Unmap View", m_messages.shown[0].text);
    EXPECT_TRUE(SameBytes(content.substr(content.find('\n', 200000) + 1), test::ReadFile(Path())));
}

}  // namespace
}  // namespace qbrix::events
