// RegistryKey: read-with-default, listing with seeding, and tree deletion.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "platform/Platform.h"
#include "support/TempPlatform.h"

namespace qbrix::core {
namespace {

using namespace qbrix::platform;

class RegistryKeyTest : public ::testing::Test {
protected:
    // The stored type and bytes of a value below HKEY_LOCAL_MACHINE, or type REG_NONE and no
    // bytes when it is missing.
    std::pair<DWORD, std::string> Stored(const std::string& path, const std::string& name) {
        HKEY key = nullptr;
        if (Current().Reg().OpenKeyEx(HKEY_LOCAL_MACHINE, path, KEY_READ, &key) != 0) {
            return {REG_NONE, ""};
        }
        char data[2048];
        DWORD size = sizeof(data);
        DWORD type = REG_NONE;
        LONG rc = Current().Reg().QueryValueEx(key, name, &type, reinterpret_cast<BYTE*>(data), &size);
        Current().Reg().CloseKey(key);
        return rc == 0 ? std::make_pair(type, std::string(data, size)) : std::make_pair(REG_NONE, std::string());
    }
    static std::string Dword(DWORD value) { return std::string(reinterpret_cast<char*>(&value), 4); }

    test::TempPlatform m_platform;
    const std::string m_fwLog = std::string(kGuiRootPath) + kFwLogSuffix;
};

TEST_F(RegistryKeyTest, ReadingAMissingDwordWritesTheDefaultBack) {
    RegistryKey key(kFwLogSuffix, kGuiRootPath);
    ASSERT_TRUE(key.IsOpen());
    EXPECT_EQ(1u, key.GetDword(kFileSizeValue, 1));
    EXPECT_EQ(std::make_pair(REG_DWORD, Dword(1)), Stored(m_fwLog, kFileSizeValue));
    key.SetDword(kFileSizeValue, 7);
    EXPECT_EQ(7u, key.GetDword(kFileSizeValue, 1));
}

TEST_F(RegistryKeyTest, DwordOfWrongTypeOrSizeIsReplacedByTheDefault) {
    RegistryKey key(kFwLogSuffix, kGuiRootPath);
    key.SetString(kUseLogValue, "1");
    EXPECT_EQ(1u, key.GetDword(kUseLogValue, 1));
    EXPECT_EQ(std::make_pair(REG_DWORD, Dword(1)), Stored(m_fwLog, kUseLogValue));

    const BYTE eight[8] = {5, 0, 0, 0, 0, 0, 0, 0};
    Current().Reg().SetValueEx(key.Handle(), "Wide", REG_DWORD, eight, 8);
    EXPECT_EQ(3u, key.GetDword("Wide", 3));
    const BYTE two[2] = {9, 0};
    Current().Reg().SetValueEx(key.Handle(), "Short", REG_DWORD, two, 2);
    EXPECT_EQ(4u, key.GetDword("Short", 4));
    EXPECT_EQ(std::make_pair(REG_DWORD, Dword(4)), Stored(m_fwLog, "Short"));
}

TEST_F(RegistryKeyTest, StringsReadWithDefaultAndTheReadBufferLimit) {
    RegistryKey key(kFwLogSuffix, kGuiRootPath);
    EXPECT_EQ("/x/firewall.log", key.GetString(kFileNameValue, "/x/firewall.log"));
    EXPECT_EQ(std::make_pair(REG_SZ, std::string("/x/firewall.log", 16)), Stored(m_fwLog, kFileNameValue));

    // 998 characters and the terminator fill the 999-byte buffer; one more is unreadable.
    key.SetString("Fits", std::string(998, 'a'));
    EXPECT_EQ(std::string(998, 'a'), key.GetString("Fits", "d"));
    key.SetString("TooLong", std::string(999, 'a'));
    EXPECT_EQ("d", key.GetString("TooLong", "d"));
    EXPECT_EQ(std::make_pair(REG_SZ, std::string("d", 2)), Stored(m_fwLog, "TooLong"));

    // No default: nothing is written.
    EXPECT_EQ("", key.GetString("Absent", nullptr));
    EXPECT_EQ(REG_NONE, Stored(m_fwLog, "Absent").first);

    key.SetDword("Number", 5);
    char buffer[16];
    DWORD size = sizeof(buffer);
    EXPECT_EQ(static_cast<LONG>(ERROR_INVALID_DATA), key.QueryString("Number", buffer, &size));
    EXPECT_EQ(0u, size);
}

TEST_F(RegistryKeyTest, ClosedKeyReturnsDefaultsAndLeavesListsAlone) {
    RegistryKey key;
    EXPECT_EQ(9u, key.GetDword("x", 9));
    EXPECT_EQ("t", key.GetString("x", "t"));
    std::vector<std::string> list{"kept"};
    key.ListValueNames(list);
    key.ListSubkeys(list);
    EXPECT_EQ(std::vector<std::string>{"kept"}, list);
    key.Close();  // closing a closed key does nothing
}

TEST_F(RegistryKeyTest, ListValueNamesSeedsOnlyAnEmptyKey) {
    const char* const seed[] = {"First", "Second", "", "NotReached"};
    RegistryKey key("\\Seeded", kGuiRootPath);
    std::vector<std::string> names{"stale"};
    key.ListValueNames(names, seed);
    EXPECT_EQ((std::vector<std::string>{"First", "Second"}), names);
    EXPECT_EQ(std::make_pair(REG_SZ, std::string("", 1)), Stored(std::string(kGuiRootPath) + "\\Seeded", "Second"));

    RegistryKey other("\\OneValue", kGuiRootPath);
    other.SetDword("Only", 1);
    other.ListValueNames(names, seed);
    EXPECT_EQ(std::vector<std::string>{"Only"}, names);
}

TEST_F(RegistryKeyTest, ListSubkeysStopsAtANameTooLongForItsBuffer) {
    RegistryKey key("\\Subs", kGuiRootPath);
    for (const std::string& name : std::vector<std::string>{"b", std::string(98, 'c'), std::string(99, 'd'), "e"}) {
        RegistryKey child("\\Subs\\" + name, kGuiRootPath);
    }
    std::vector<std::string> names;
    key.ListSubkeys(names);
    EXPECT_EQ((std::vector<std::string>{"b", std::string(98, 'c')}), names);
}

TEST_F(RegistryKeyTest, ReopenAfterFailureHoldsNothing) {
    RegistryKey key(kFwLogSuffix, kGuiRootPath);
    EXPECT_NE(0, key.Reopen("\\\\bad", kGuiRootPath));
    EXPECT_FALSE(key.IsOpen());
    EXPECT_EQ(0, key.Reopen(kLspLogSuffix, kGuiRootPath));
    EXPECT_TRUE(key.IsOpen());
}

TEST_F(RegistryKeyTest, DeleteKeyTreeRemovesThreeLevels) {
    for (const char* path : {"\\Tree\\A\\X", "\\Tree\\A\\Y", "\\Tree\\B", "\\Tree\\B\\Z"}) {
        RegistryKey key(path, kGuiRootPath);
        key.SetDword("v", 1);
    }
    RegistryKey gui("", kGuiRootPath);
    EXPECT_EQ(0, RegistryKey::DeleteKeyTree(gui.Handle(), "Tree"));
    HKEY gone = nullptr;
    EXPECT_EQ(static_cast<LONG>(ERROR_FILE_NOT_FOUND),
              Current().Reg().OpenKeyEx(gui.Handle(), "Tree", KEY_READ, &gone));
    std::vector<std::string> remaining;
    gui.ListSubkeys(remaining);
    EXPECT_TRUE(remaining.empty());
}

TEST_F(RegistryKeyTest, DeleteKeyTreeOnAMissingKeyReturnsTheOpenError) {
    RegistryKey gui(kFwLogSuffix, kGuiRootPath);
    gui.SetDword("v", 1);
    RegistryKey parent("", kGuiRootPath);
    EXPECT_EQ(static_cast<LONG>(ERROR_FILE_NOT_FOUND), RegistryKey::DeleteKeyTree(parent.Handle(), "Missing"));
    EXPECT_EQ(std::make_pair(REG_DWORD, Dword(1)), Stored(m_fwLog, "v"));
}

// A store that cannot be opened: reads give their defaults, writes are skipped, no crash.
TEST(RegistryKeyFailureTest, UnusableStoreReadsDefaultsAndWritesNothing) {
    test::TempPlatform platform;
    std::string db = platform.DataRoot() + "/registry.db";
    {
        std::FILE* file = std::fopen(db.c_str(), "wb");
        ASSERT_NE(nullptr, file);
        std::fputs("this is not a registry", file);
        std::fclose(file);
    }
    RegistryKey key(kFwLogSuffix, kGuiRootPath);
    EXPECT_FALSE(key.IsOpen());
    EXPECT_EQ(1u, key.GetDword(kUseLogValue, 1));
    EXPECT_EQ("dflt", key.GetString(kFileNameValue, "dflt"));
    EXPECT_EQ("this is not a registry", test::ReadFile(db));
}

}  // namespace
}  // namespace qbrix::core
