// Version details from PE files the test writes itself: the resource section, the version tree,
// the translation table and the string table, found whatever the case of the path.
#include <gtest/gtest.h>

#include <fstream>
#include <map>

#include "platform/Platform.h"
#include "platform/VersionInfo.h"
#include "policy/VersionDetails.h"
#include "support/TempPlatform.h"

namespace qbrix::policy {
namespace {

void Put16(std::string& bytes, std::size_t at, std::uint32_t value) {
    bytes[at] = static_cast<char>(value & 0xFF);
    bytes[at + 1] = static_cast<char>(value >> 8 & 0xFF);
}
void Put32(std::string& bytes, std::size_t at, std::uint32_t value) {
    Put16(bytes, at, value & 0xFFFF);
    Put16(bytes, at + 2, value >> 16);
}
void Pad4(std::string& bytes) {
    bytes.resize((bytes.size() + 3) & ~std::size_t{3}, '\0');
}

// Each byte as the UTF-16 unit of the same number (Latin-1).
std::string Utf16(const std::string& ascii) {
    std::string out;
    for (char c : ascii) {
        out += c;
        out += '\0';
    }
    return out + std::string(2, '\0');
}

// One node of a version tree: wLength, wValueLength, wType, key, value, children.
std::string Node(const std::string& key, const std::string& value, std::uint16_t valueLength,
                 bool text, const std::vector<std::string>& children) {
    std::string node(6, '\0');
    node += Utf16(key);
    Pad4(node);
    node += value;
    for (const std::string& child : children) {
        Pad4(node);
        node += child;
    }
    Put16(node, 0, static_cast<std::uint32_t>(node.size()));
    Put16(node, 2, valueLength);
    Put16(node, 4, text ? 1 : 0);
    return node;
}

std::string StringNode(const std::string& key, const std::string& value) {
    return Node(key, Utf16(value), static_cast<std::uint16_t>(value.size() + 1), true, {});
}

std::string VersionInfo(const std::map<std::string, std::string>& strings,
                        bool withTranslation = true) {
    std::string fixed(52, '\0');
    Put32(fixed, 0, 0xFEEF04BD);
    std::vector<std::string> entries;
    for (const auto& [key, value] : strings) {
        entries.push_back(StringNode(key, value));
    }
    std::string table = Node("040904b0", "", 0, true, entries);
    std::vector<std::string> children = {Node("StringFileInfo", "", 0, true, {table})};
    if (withTranslation) {
        std::string pair(4, '\0');
        Put16(pair, 0, 0x0409);
        Put16(pair, 2, 0x04B0);
        children.push_back(
            Node("VarFileInfo", "", 0, true, {Node("Translation", pair, 4, false, {})}));
    }
    return Node("VS_VERSION_INFO", fixed, 52, false, children);
}

// A 32-bit PE file with one ".rsrc" section holding a version resource (or another type).
std::string PeFile(const std::string& versionInfo, std::uint32_t resourceType = 16) {
    std::string file(0x200, '\0');
    file[0] = 'M';
    file[1] = 'Z';
    Put32(file, 0x3C, 0x40);
    file.replace(0x40, 4, std::string("PE\0\0", 4));
    Put16(file, 0x44, 0x14C);
    Put16(file, 0x46, 1);     // one section
    Put16(file, 0x54, 0xE0);  // optional header size
    std::size_t optional = 0x58;
    Put16(file, optional, 0x10B);
    Put32(file, optional + 92, 16);  // data directories
    std::string resources(0x58, '\0');
    Put16(resources, 14, 1);  // root: one id entry
    Put32(resources, 16, resourceType);
    Put32(resources, 20, 0x80000018);
    Put16(resources, 0x18 + 14, 1);  // names: one
    Put32(resources, 0x18 + 16, 1);
    Put32(resources, 0x18 + 20, 0x80000030);
    Put16(resources, 0x30 + 14, 1);  // languages: one, a data entry
    Put32(resources, 0x30 + 16, 0x409);
    Put32(resources, 0x30 + 20, 0x48);
    Put32(resources, 0x48, 0x1000 + 0x58);
    Put32(resources, 0x4C, static_cast<std::uint32_t>(versionInfo.size()));
    resources += versionInfo;
    Pad4(resources);
    Put32(file, optional + 96 + 16, 0x1000);
    Put32(file, optional + 96 + 20, static_cast<std::uint32_t>(resources.size()));
    std::size_t section = optional + 0xE0;
    file.replace(section, 5, ".rsrc");
    Put32(file, section + 8, static_cast<std::uint32_t>(resources.size()));
    Put32(file, section + 12, 0x1000);
    Put32(file, section + 16, static_cast<std::uint32_t>(resources.size()));
    Put32(file, section + 20, 0x200);
    return file + resources;
}

class VersionDetailsTest : public ::testing::Test {
  protected:
    std::string Write(const std::string& name, const std::string& bytes) {
        std::string path = m_dir.File(name);
        std::ofstream(path, std::ios::binary) << bytes;
        return path;
    }
    test::TempPlatform m_platform;
    test::TempDirectory m_dir;
};

TEST_F(VersionDetailsTest, DescriptionAndDetailsComeFromTheFirstTranslation) {
    // Texts come in the program's code page: U+00E9 is the byte E9.
    std::string path = Write("Tool.exe", PeFile(VersionInfo({{"FileDescription",
                                                              "Mail R\xE9"
                                                              "ader"},
                                                             {"CompanyName", "Example Ltd"},
                                                             {"ProductVersion", "2.1"},
                                                             {"Comments", ""}})));
    std::string description;
    std::string details;
    ASSERT_EQ(GetVersionDetails(path, description, details, true), 0);
    EXPECT_EQ(description,
              "Mail R\xE9"
              "ader");
    EXPECT_EQ(details,
              "Example Ltd\r\nMail R\xE9"
              "ader\r\n2.1\r\n");
    ASSERT_EQ(GetVersionDetails(path, description, details, false), 0);
    EXPECT_EQ(details, "");
}

TEST_F(VersionDetailsTest, UpperCasedPathsFindTheFile) {
    std::string path = Write("Tool.exe", PeFile(VersionInfo({{"FileDescription", "Tool"}})));
    std::string upper = path;
    for (char& c : upper)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    std::string description;
    std::string details;
    ASSERT_EQ(GetVersionDetails(upper, description, details, false), 0);
    EXPECT_EQ(description, "Tool");
}

TEST_F(VersionDetailsTest, TranslationWithoutDescriptionGivesAnEmptyOne) {
    std::string path = Write("a.exe", PeFile(VersionInfo({{"CompanyName", "X"}})));
    std::string description = "stale";
    std::string details;
    EXPECT_EQ(GetVersionDetails(path, description, details, false), 0);
    EXPECT_EQ(description, "");
}

TEST_F(VersionDetailsTest, FilesWithoutAUsableVersionResourceFail) {
    std::string description;
    std::string details;
    std::string noTranslation =
        Write("b.exe", PeFile(VersionInfo({{"FileDescription", "X"}}, false)));
    EXPECT_EQ(GetVersionDetails(noTranslation, description, details, true), 1);
    std::string iconOnly = Write("c.exe", PeFile(VersionInfo({}), 3));
    EXPECT_EQ(GetVersionDetails(iconOnly, description, details, true), 1);
    EXPECT_EQ(platform::GetLastError(), platform::ERROR_RESOURCE_TYPE_NOT_FOUND);
    EXPECT_EQ(GetVersionDetails("/proc/self/exe", description, details, true), 1);  // ELF
    EXPECT_EQ(platform::GetLastError(), platform::ERROR_BAD_EXE_FORMAT);
    EXPECT_EQ(GetVersionDetails(m_dir.File("missing.exe"), description, details, true), 1);
}

TEST_F(VersionDetailsTest, DamagedFilesFailWithoutReadingOutOfBounds) {
    std::string good = PeFile(VersionInfo({{"FileDescription", "Tool"}}));
    std::string description;
    std::string details;
    for (std::size_t cut : {std::size_t{2}, std::size_t{0x50}, std::size_t{0x150},
                            std::size_t{0x220}, good.size() - 8}) {
        std::string path = Write("cut.exe", good.substr(0, cut));
        EXPECT_EQ(GetVersionDetails(path, description, details, true), 1) << cut;
    }
    std::string badLength = good;
    Put16(badLength, 0x258, 0xFFFF);  // the version tree claims more than the resource holds
    EXPECT_EQ(GetVersionDetails(Write("len.exe", badLength), description, details, true), 1);
    // Any single damaged byte of the resource section gives some outcome, never a bad read.
    for (std::size_t at = 0x200; at < good.size(); at += 3) {
        std::string damaged = good;
        damaged[at] = static_cast<char>(damaged[at] ^ 0xA5);
        GetVersionDetails(Write("bit.exe", damaged), description, details, true);
    }
    std::string badEntry = good;
    Put32(badEntry, 0x200 + 20, 0x8FFFFFF0);  // a directory far outside the section
    EXPECT_EQ(GetVersionDetails(Write("dir.exe", badEntry), description, details, true), 1);
}

TEST_F(VersionDetailsTest, QueriesIgnoreKeyCaseAndRejectUnknownPaths) {
    std::string path = Write("q.exe", PeFile(VersionInfo({{"FileDescription", "Tool"}})));
    platform::DWORD handle = 1;
    platform::DWORD size = platform::GetFileVersionInfoSizeA(path, &handle);
    ASSERT_GT(size, 0u);
    EXPECT_EQ(handle, 0u);
    std::vector<unsigned char> block(size);
    EXPECT_FALSE(platform::GetFileVersionInfoA(path, 0, size - 1, block.data()));
    ASSERT_TRUE(platform::GetFileVersionInfoA(path, 0, size, block.data()));
    void* value = nullptr;
    platform::UINT length = 0;
    ASSERT_TRUE(platform::VerQueryValueA(
        block.data(), "\\stringfileinfo\\040904B0\\filedescription", &value, &length));
    EXPECT_EQ(std::string(static_cast<char*>(value)), "Tool");
    EXPECT_EQ(length, 5u);
    ASSERT_TRUE(platform::VerQueryValueA(block.data(), "\\", &value, &length));
    EXPECT_EQ(length, 52u);
    EXPECT_FALSE(
        platform::VerQueryValueA(block.data(), "\\StringFileInfo\\04070000\\X", &value, &length));
}

}  // namespace
}  // namespace qbrix::policy
