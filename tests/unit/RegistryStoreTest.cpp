// The registry service over its SQLite store: the Windows semantics the callers rely on.
#include <gtest/gtest.h>

#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>

#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "core/RegistryKey.h"
#include "platform/posix/PosixPlatform.h"
#include "platform/posix/SqliteRegistry.h"
#include "support/TempPlatform.h"

namespace qbrix::platform {
namespace {

class RegistryStoreTest : public ::testing::Test {
protected:
    Registry& Reg() { return m_platform.Get().Reg(); }

    HKEY Create(HKEY parent, const std::string& path, REGSAM access = KEY_ALL_ACCESS) {
        HKEY key = nullptr;
        DWORD disposition = 0;
        EXPECT_EQ(ERROR_SUCCESS, static_cast<DWORD>(Reg().CreateKeyEx(
                                     parent, path, 0, access, &key, &disposition)));
        return key;
    }
    void SetText(HKEY key, const std::string& name, const std::string& text) {
        ASSERT_EQ(0, Reg().SetValueEx(key, name, REG_SZ,
                                      reinterpret_cast<const BYTE*>(text.c_str()),
                                      static_cast<DWORD>(text.size() + 1)));
    }
    std::vector<std::string> SubkeyNames(HKEY key) {
        std::vector<std::string> names;
        for (DWORD i = 0;; ++i) {
            char name[256];
            DWORD size = sizeof(name);
            if (Reg().EnumKeyEx(key, i, name, &size) != 0) {
                break;
            }
            names.emplace_back(name, size);
        }
        return names;
    }
    std::vector<std::string> ValueNames(HKEY key) {
        std::vector<std::string> names;
        for (DWORD i = 0;; ++i) {
            char name[256];
            DWORD size = sizeof(name);
            if (Reg().EnumValue(key, i, name, &size, nullptr, nullptr, nullptr) != 0) {
                break;
            }
            names.emplace_back(name, size);
        }
        return names;
    }

    test::TempPlatform m_platform;
};

TEST_F(RegistryStoreTest, NamesAreCaseInsensitiveAndCasePreserving) {
    HKEY key = Create(HKEY_LOCAL_MACHINE, "Software\\Vendor");
    SetText(key, "FileName", "a.log");
    HKEY again = nullptr;
    DWORD disposition = 0;
    ASSERT_EQ(0, Reg().CreateKeyEx(HKEY_LOCAL_MACHINE, "SOFTWARE\\VENDOR", 0, KEY_READ, &again,
                                   &disposition));
    EXPECT_EQ(REG_OPENED_EXISTING_KEY, disposition);
    char buffer[32];
    DWORD size = sizeof(buffer);
    DWORD type = 0;
    ASSERT_EQ(0, Reg().QueryValueEx(again, "FILENAME", &type, reinterpret_cast<BYTE*>(buffer),
                                    &size));
    EXPECT_EQ(REG_SZ, type);
    EXPECT_STREQ("a.log", buffer);
    EXPECT_EQ(6u, size);
    EXPECT_EQ(std::vector<std::string>{"FileName"}, ValueNames(again));
    EXPECT_EQ(std::vector<std::string>{"Vendor"}, SubkeyNames(Create(HKEY_LOCAL_MACHINE, "software")));
    Reg().CloseKey(key);
    Reg().CloseKey(again);
}

TEST_F(RegistryStoreTest, SubkeysEnumerateInUpperCasedOrderAndValuesInCreationOrder) {
    HKEY key = Create(HKEY_LOCAL_MACHINE, "Order");
    // Upper-cased comparison puts "A_B" after "AAB", as the Windows registry does.
    for (const char* name : {"b", "A_b", "10", "aab", "2", "C", "1"}) {
        Reg().CloseKey(Create(key, name));
    }
    EXPECT_EQ((std::vector<std::string>{"1", "10", "2", "aab", "A_b", "b", "C"}), SubkeyNames(key));

    for (const char* name : {"zeta", "Alpha", "mid"}) {
        SetText(key, name, "x");
    }
    SetText(key, "ALPHA", "rewritten keeps its place and its name");
    EXPECT_EQ((std::vector<std::string>{"zeta", "Alpha", "mid"}), ValueNames(key));
    Reg().CloseKey(key);
}

TEST_F(RegistryStoreTest, ErrorCodesOfQueriesAndEnumerations) {
    HKEY key = Create(HKEY_LOCAL_MACHINE, "Codes");
    DWORD size = 4;
    BYTE small[4];
    EXPECT_EQ(static_cast<LONG>(ERROR_FILE_NOT_FOUND),
              Reg().QueryValueEx(key, "missing", nullptr, small, &size));
    SetText(key, "long", "more than four bytes");
    size = sizeof(small);
    EXPECT_EQ(static_cast<LONG>(ERROR_MORE_DATA), Reg().QueryValueEx(key, "long", nullptr, small, &size));
    EXPECT_EQ(21u, size);  // the size needed
    size = 0;
    EXPECT_EQ(0, Reg().QueryValueEx(key, "long", nullptr, nullptr, &size));
    EXPECT_EQ(21u, size);

    char name[4];
    DWORD nameSize = sizeof(name);
    EXPECT_EQ(static_cast<LONG>(ERROR_MORE_DATA), Reg().EnumValue(key, 0, name, &nameSize, nullptr, nullptr, nullptr));
    nameSize = sizeof(name);
    EXPECT_EQ(static_cast<LONG>(ERROR_NO_MORE_ITEMS), Reg().EnumValue(key, 1, name, &nameSize, nullptr, nullptr, nullptr));
    nameSize = sizeof(name);
    EXPECT_EQ(static_cast<LONG>(ERROR_NO_MORE_ITEMS), Reg().EnumKeyEx(key, 0, name, &nameSize));

    HKEY missing = nullptr;
    EXPECT_EQ(static_cast<LONG>(ERROR_FILE_NOT_FOUND), Reg().OpenKeyEx(key, "nothing\\here", KEY_READ, &missing));
    EXPECT_EQ(nullptr, missing);
    EXPECT_EQ(static_cast<LONG>(ERROR_BAD_PATHNAME), Reg().OpenKeyEx(key, "\\leading", KEY_READ, &missing));
    EXPECT_EQ(static_cast<LONG>(ERROR_INVALID_HANDLE),
              Reg().QueryValueEx(reinterpret_cast<HKEY>(std::uintptr_t{0x7777}), "x", nullptr, nullptr, &size));
    Reg().CloseKey(key);
}

TEST_F(RegistryStoreTest, TypesAndRawBytesAreKeptExactly) {
    HKEY key = Create(HKEY_LOCAL_MACHINE, "Types");
    const BYTE binary[] = {0x00, 0xFF, 0x10, 0x00};
    const DWORD number = 0x0A0B0C0D;
    ASSERT_EQ(0, Reg().SetValueEx(key, "bin", REG_BINARY, binary, sizeof(binary)));
    ASSERT_EQ(0, Reg().SetValueEx(key, "num", REG_DWORD, reinterpret_cast<const BYTE*>(&number), 4));
    ASSERT_EQ(0, Reg().SetValueEx(key, "odd", 0x1234, binary, 3));
    ASSERT_EQ(0, Reg().SetValueEx(key, "", REG_SZ, nullptr, 0));  // the unnamed value, empty

    struct Expect { const char* name; DWORD type; std::vector<BYTE> bytes; };
    for (const Expect& e : {Expect{"bin", REG_BINARY, {0x00, 0xFF, 0x10, 0x00}},
                            Expect{"num", REG_DWORD, {0x0D, 0x0C, 0x0B, 0x0A}},
                            Expect{"odd", 0x1234, {0x00, 0xFF, 0x10}},
                            Expect{"", REG_SZ, {}}}) {
        BYTE data[16];
        DWORD size = sizeof(data);
        DWORD type = 0;
        ASSERT_EQ(0, Reg().QueryValueEx(key, e.name, &type, data, &size)) << e.name;
        EXPECT_EQ(e.type, type) << e.name;
        EXPECT_EQ(e.bytes, std::vector<BYTE>(data, data + size)) << e.name;
    }
    // The unnamed value enumerates with an empty name and no bytes.
    char name[8] = "x";
    DWORD nameSize = sizeof(name);
    BYTE data[8];
    DWORD size = sizeof(data);
    ASSERT_EQ(0, Reg().EnumValue(key, 3, name, &nameSize, nullptr, data, &size));
    EXPECT_EQ(0u, nameSize);
    EXPECT_STREQ("", name);
    EXPECT_EQ(0u, size);
    Reg().CloseKey(key);
}

TEST_F(RegistryStoreTest, DeleteKeyRefusesKeysWithSubkeysAndInvalidatesHandles) {
    HKEY parent = Create(HKEY_LOCAL_MACHINE, "Del\\Child");
    Reg().CloseKey(parent);
    HKEY del = Create(HKEY_LOCAL_MACHINE, "Del");
    EXPECT_EQ(static_cast<LONG>(ERROR_ACCESS_DENIED), Reg().DeleteKey(HKEY_LOCAL_MACHINE, "Del"));
    HKEY child = Create(del, "Child");
    SetText(child, "v", "x");
    EXPECT_EQ(0, Reg().DeleteKey(del, "child"));
    EXPECT_EQ(static_cast<LONG>(ERROR_KEY_DELETED), Reg().SetValueEx(child, "v", REG_SZ, nullptr, 0));
    EXPECT_EQ(static_cast<LONG>(ERROR_FILE_NOT_FOUND), Reg().DeleteKey(del, "child"));
    EXPECT_EQ(0, Reg().DeleteKey(HKEY_LOCAL_MACHINE, "Del"));
    Reg().CloseKey(child);
    Reg().CloseKey(del);
}

TEST_F(RegistryStoreTest, AccessRightsOfAHandleAreEnforced) {
    Reg().CloseKey(Create(HKEY_LOCAL_MACHINE, "Rights"));
    HKEY reader = nullptr;
    ASSERT_EQ(0, Reg().OpenKeyEx(HKEY_LOCAL_MACHINE, "Rights", KEY_READ, &reader));
    EXPECT_EQ(static_cast<LONG>(ERROR_ACCESS_DENIED), Reg().SetValueEx(reader, "v", REG_SZ, nullptr, 0));
    HKEY child = nullptr;
    DWORD disposition = 0;
    EXPECT_EQ(static_cast<LONG>(ERROR_ACCESS_DENIED),
              Reg().CreateKeyEx(reader, "new", 0, KEY_ALL_ACCESS, &child, &disposition));
    Reg().CloseKey(reader);
}

TEST_F(RegistryStoreTest, CurrentUserIsKeptPerUser) {
    HKEY mine = Create(HKEY_CURRENT_USER, "Software\\Prefs");
    SetText(mine, "answer", "mine");
    Reg().CloseKey(mine);

    m_platform.SetUser(1001, {"users"});
    HKEY theirs = nullptr;
    EXPECT_EQ(static_cast<LONG>(ERROR_FILE_NOT_FOUND),
              Reg().OpenKeyEx(HKEY_CURRENT_USER, "Software\\Prefs", KEY_READ, &theirs));

    m_platform.SetUser(1000, {"users"});
    ASSERT_EQ(0, Reg().OpenKeyEx(HKEY_CURRENT_USER, "Software\\Prefs", KEY_READ, &theirs));
    Reg().CloseKey(theirs);
}

TEST_F(RegistryStoreTest, ThreadsWritingAtOnceLoseNothing) {
    constexpr int kThreads = 4;
    constexpr int kValues = 50;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([this, t] {
            for (int i = 0; i < kValues; ++i) {
                HKEY key = Create(HKEY_LOCAL_MACHINE, "Threads\\T" + std::to_string(t));
                DWORD value = static_cast<DWORD>(i);
                Reg().SetValueEx(key, "v" + std::to_string(i), REG_DWORD,
                                 reinterpret_cast<const BYTE*>(&value), 4);
                Reg().CloseKey(key);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    HKEY root = Create(HKEY_LOCAL_MACHINE, "Threads");
    EXPECT_EQ(static_cast<std::size_t>(kThreads), SubkeyNames(root).size());
    for (int t = 0; t < kThreads; ++t) {
        HKEY key = Create(root, "T" + std::to_string(t));
        EXPECT_EQ(static_cast<std::size_t>(kValues), ValueNames(key).size());
        Reg().CloseKey(key);
    }
    Reg().CloseKey(root);
}

// A store that is not a database, or cannot be read, fails every call and is never rewritten.
TEST(RegistryStoreFailureTest, CorruptStoreFailsWithoutTouchingTheFile) {
    test::TempDirectory dir;
    std::string path = dir.File("registry.db");
    const std::string garbage(4096, 'Z');
    std::ofstream(path, std::ios::binary) << garbage;

    SqliteRegistry registry(path, 1000);
    HKEY key = nullptr;
    DWORD disposition = 0;
    EXPECT_EQ(static_cast<LONG>(ERROR_BADDB),
              registry.CreateKeyEx(HKEY_LOCAL_MACHINE, "A", 0, KEY_ALL_ACCESS, &key, &disposition));
    EXPECT_EQ(nullptr, key);
    EXPECT_EQ(static_cast<LONG>(ERROR_BADDB), registry.SetValueEx(HKEY_LOCAL_MACHINE, "v", REG_SZ, nullptr, 0));
    EXPECT_EQ(garbage, test::ReadFile(path));
}

// Enumeration by index continues from where the previous call stopped; any change between two
// calls, by this connection or by another one, makes the index count over the store as it now is.
TEST(RegistryEnumerationTest, IndexesFollowChangesMadeBetweenCalls) {
    test::TempDirectory dir;
    SqliteRegistry mine(dir.File("registry.db"), 1000);
    SqliteRegistry other(dir.File("registry.db"), 1000);
    HKEY key = nullptr;
    DWORD disposition = 0;
    ASSERT_EQ(0, mine.CreateKeyEx(HKEY_LOCAL_MACHINE, "E", 0, KEY_ALL_ACCESS, &key, &disposition));
    for (const char* name : {"s0", "s1", "s2", "s3", "s4", "s5"}) {
        HKEY child = nullptr;
        ASSERT_EQ(0, mine.CreateKeyEx(key, name, 0, KEY_ALL_ACCESS, &child, &disposition));
        mine.CloseKey(child);
        ASSERT_EQ(0, mine.SetValueEx(key, std::string("v") + (name + 1), REG_SZ, nullptr, 0));
    }
    HKEY otherKey = nullptr;
    ASSERT_EQ(0, other.OpenKeyEx(HKEY_LOCAL_MACHINE, "E", KEY_ALL_ACCESS, &otherKey));
    auto subKey = [&](DWORD index) {
        char name[16];
        DWORD size = sizeof(name);
        LONG rc = mine.EnumKeyEx(key, index, name, &size);
        return rc == 0 ? std::string(name, size) : "rc " + std::to_string(rc);
    };
    auto value = [&](DWORD index) {
        char name[16];
        DWORD size = sizeof(name);
        LONG rc = mine.EnumValue(key, index, name, &size, nullptr, nullptr, nullptr);
        return rc == 0 ? std::string(name, size) : "rc " + std::to_string(rc);
    };
    EXPECT_EQ("s0", subKey(0));
    EXPECT_EQ("s1", subKey(1));
    EXPECT_EQ("v0", value(0));
    EXPECT_EQ("v1", value(1));
    // Another connection's commit.
    ASSERT_EQ(0, other.DeleteKey(otherKey, "s0"));
    ASSERT_EQ(0, other.DeleteValue(otherKey, "v0"));
    EXPECT_EQ("s3", subKey(2));
    EXPECT_EQ("v3", value(2));
    // This connection's own change, through another handle.
    HKEY again = nullptr;
    ASSERT_EQ(0, mine.OpenKeyEx(HKEY_LOCAL_MACHINE, "E", KEY_ALL_ACCESS, &again));
    ASSERT_EQ(0, mine.DeleteKey(again, "s1"));
    ASSERT_EQ(0, mine.DeleteValue(again, "v1"));
    EXPECT_EQ("s5", subKey(3));
    EXPECT_EQ("v5", value(3));
    // The same index again, an index behind, and past the end.
    EXPECT_EQ("s5", subKey(3));
    EXPECT_EQ("s3", subKey(1));
    EXPECT_EQ("v2", value(0));
    EXPECT_EQ("rc " + std::to_string(ERROR_NO_MORE_ITEMS), subKey(4));
    EXPECT_EQ("rc " + std::to_string(ERROR_NO_MORE_ITEMS), value(4));
    // The key itself deleted elsewhere: the next index finds the handle's key gone.
    EXPECT_EQ("v3", value(1));
    for (const char* name : {"s2", "s3", "s4", "s5"}) {
        ASSERT_EQ(0, other.DeleteKey(otherKey, name));
    }
    ASSERT_EQ(0, other.DeleteKey(HKEY_LOCAL_MACHINE, "E"));
    EXPECT_EQ("rc " + std::to_string(ERROR_KEY_DELETED), value(2));
    mine.CloseKey(again);
    mine.CloseKey(key);
    other.CloseKey(otherKey);
}

// Deleting what index 0 names, over and over, takes every entry once, in index order.
TEST(RegistryEnumerationTest, DeletingIndexZeroRepeatedlyTakesEachEntryOnce) {
    test::TempDirectory dir;
    SqliteRegistry registry(dir.File("registry.db"), 1000);
    HKEY key = nullptr;
    DWORD disposition = 0;
    ASSERT_EQ(0,
              registry.CreateKeyEx(HKEY_LOCAL_MACHINE, "D", 0, KEY_ALL_ACCESS, &key, &disposition));
    std::vector<std::string> expected;
    for (int i = 0; i < 40; ++i) {
        std::string name = "n" + std::to_string(100 + i);
        expected.push_back(name);
        HKEY child = nullptr;
        ASSERT_EQ(0, registry.CreateKeyEx(key, name, 0, KEY_ALL_ACCESS, &child, &disposition));
        registry.CloseKey(child);
        ASSERT_EQ(0, registry.SetValueEx(key, name, REG_SZ, nullptr, 0));
    }
    std::vector<std::string> subKeys;
    std::vector<std::string> values;
    char name[16];
    for (DWORD size = sizeof(name); registry.EnumKeyEx(key, 0, name, &size) == 0;
         size = sizeof(name)) {
        subKeys.emplace_back(name, size);
        ASSERT_EQ(0, registry.DeleteKey(key, subKeys.back()));
        ASSERT_LE(subKeys.size(), expected.size());
    }
    for (DWORD size = sizeof(name);
         registry.EnumValue(key, 0, name, &size, nullptr, nullptr, nullptr) == 0;
         size = sizeof(name)) {
        values.emplace_back(name, size);
        ASSERT_EQ(0, registry.DeleteValue(key, values.back()));
        ASSERT_LE(values.size(), expected.size());
    }
    EXPECT_EQ(expected, subKeys);
    EXPECT_EQ(expected, values);
    registry.CloseKey(key);
}

TEST(RegistryStoreFailureTest, LockedStoreGivesUpAfterItsBusyTimeAndKeepsData) {
    test::TempDirectory dir;
    std::string path = dir.File("registry.db");
    {
        SqliteRegistry first(path, 1000);
        HKEY key = nullptr;
        DWORD disposition = 0;
        ASSERT_EQ(0, first.CreateKeyEx(HKEY_LOCAL_MACHINE, "Kept", 0, KEY_ALL_ACCESS, &key, &disposition));
        first.CloseKey(key);
    }
    sqlite3* holder = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(path.c_str(), &holder));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(holder, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr));

    SqliteRegistry blocked(path, 1000);
    blocked.SetBusyTimeoutMs(50);
    HKEY key = nullptr;
    DWORD disposition = 0;
    EXPECT_NE(0, blocked.CreateKeyEx(HKEY_LOCAL_MACHINE, "New", 0, KEY_ALL_ACCESS, &key, &disposition));

    sqlite3_exec(holder, "ROLLBACK", nullptr, nullptr, nullptr);
    sqlite3_close(holder);
    ASSERT_EQ(0, blocked.OpenKeyEx(HKEY_LOCAL_MACHINE, "Kept", KEY_READ, &key));
    blocked.CloseKey(key);
}

// A store locked for longer than the busy time: opening it (a new store needs its tables
// written) gives up with ERROR_BUSY once the busy time is over, however long the lock is held.
TEST(RegistryStoreFailureTest, OpeningALockedNewStoreGivesUpWithBusy) {
    test::TempDirectory dir;
    std::string path = dir.File("registry.db");
    sqlite3* holder = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(path.c_str(), &holder));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(holder,
                                      "PRAGMA journal_mode=WAL; CREATE TABLE other(a);"
                                      "BEGIN EXCLUSIVE",
                                      nullptr, nullptr, nullptr));
    std::atomic<LONG> result{-1};
    std::thread caller([&] {
        SqliteRegistry blocked(path, 1000);
        blocked.SetBusyTimeoutMs(100);
        HKEY key = nullptr;
        DWORD disposition = 0;
        result =
            blocked.CreateKeyEx(HKEY_LOCAL_MACHINE, "New", 0, KEY_ALL_ACCESS, &key, &disposition);
    });
    // Released well after the busy time: a caller still waiting then would get the store.
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    sqlite3_exec(holder, "ROLLBACK", nullptr, nullptr, nullptr);
    caller.join();
    sqlite3_close(holder);
    EXPECT_EQ(static_cast<LONG>(ERROR_BUSY), result.load());
}

// A write that fails inside a transaction (here the disk fills up) dooms it: the later writes
// fail too and its end commits nothing, rather than the writes after the failure reaching the
// store one by one.
TEST(RegistryStoreFailureTest, AFailedWriteDoomsItsTransaction) {
    test::TempDirectory dir;
    std::string path = dir.File("registry.db");
    SqliteRegistry registry(path, 1000);
    HKEY root = nullptr;
    DWORD disposition = 0;
    ASSERT_EQ(0, registry.CreateKeyEx(HKEY_LOCAL_MACHINE, "Rules", 0, KEY_ALL_ACCESS, &root,
                                      &disposition));
    ASSERT_EQ(0, registry.SetValueEx(root, "old", REG_DWORD,
                                     reinterpret_cast<const BYTE*>("\1\0\0\0"), 4));
    sqlite3* reader = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(path.c_str(), &reader));
    auto count = [reader](const char* sql) {
        sqlite3_stmt* stmt = nullptr;
        sqlite3_prepare_v2(reader, sql, -1, &stmt, nullptr);
        sqlite3_step(stmt);
        int n = sqlite3_column_int(stmt, 0);
        sqlite3_finalize(stmt);
        return n;
    };
    int keysBefore = count("SELECT count(*) FROM keys");
    registry.LimitSizeInPages(count("PRAGMA page_count") + 8);

    ASSERT_EQ(0, registry.BeginTransaction());
    const std::string block(3000, 'x');
    LONG failed = 0;
    int written = 0;
    for (int i = 0; i < 100 && failed == 0; ++i) {
        HKEY key = nullptr;
        failed = registry.CreateKeyEx(root, "Sub" + std::to_string(i), 0, KEY_ALL_ACCESS, &key,
                                      &disposition);
        if (failed == 0) {
            failed = registry.SetValueEx(key, "Find", REG_SZ,
                                         reinterpret_cast<const BYTE*>(block.data()),
                                         static_cast<DWORD>(block.size()));
            registry.CloseKey(key);
            written += failed == 0 ? 1 : 0;
        }
    }
    EXPECT_EQ(static_cast<LONG>(ERROR_DISK_FULL), failed);
    EXPECT_GT(written, 0);
    // A small write that would fit on its own fails as well.
    EXPECT_EQ(
        static_cast<LONG>(ERROR_DISK_FULL),
        registry.SetValueEx(root, "late", REG_DWORD, reinterpret_cast<const BYTE*>("\2\0\0\0"), 4));
    EXPECT_EQ(static_cast<LONG>(ERROR_DISK_FULL), registry.EndTransaction(true));
    EXPECT_EQ(keysBefore, count("SELECT count(*) FROM keys"));
    EXPECT_EQ(0, count("SELECT count(*) FROM vals WHERE name = CAST('late' AS BLOB)"));
    sqlite3_close(reader);

    // The next transaction starts afresh.
    registry.LimitSizeInPages(1 << 20);
    ASSERT_EQ(0, registry.BeginTransaction());
    EXPECT_EQ(0, registry.SetValueEx(root, "late", REG_DWORD,
                                     reinterpret_cast<const BYTE*>("\2\0\0\0"), 4));
    EXPECT_EQ(0, registry.EndTransaction(true));
    registry.CloseKey(root);
}

}  // namespace
}  // namespace qbrix::platform

namespace qbrix::platform {
namespace {

class RegistryTransactionTest : public ::testing::Test {
protected:
    bool HasValue(const char* path, const char* name) {
        HKEY key = nullptr;
        if (Current().Reg().OpenKeyEx(HKEY_LOCAL_MACHINE, path, KEY_READ, &key) != 0) {
            return false;
        }
        LONG rc = Current().Reg().QueryValueEx(key, name, nullptr, nullptr, nullptr);
        Current().Reg().CloseKey(key);
        return rc == 0;
    }
    void Write(const char* path, const char* name) {
        HKEY key = nullptr;
        DWORD disposition = 0;
        ASSERT_EQ(0, Current().Reg().CreateKeyEx(HKEY_LOCAL_MACHINE, path, 0, KEY_ALL_ACCESS,
                                                 &key, &disposition));
        const DWORD one = 1;
        ASSERT_EQ(0, Current().Reg().SetValueEx(key, name, REG_DWORD,
                                                reinterpret_cast<const BYTE*>(&one), 4));
        Current().Reg().CloseKey(key);
    }

    test::TempPlatform m_platform;
};

TEST_F(RegistryTransactionTest, ScopesKeepAllOrNothingAndNest) {
    {
        RegistryTransaction scope;
        ASSERT_TRUE(scope.Active());
        Write("T\\Dropped", "a");
        Write("T\\Dropped", "b");
    }
    EXPECT_FALSE(HasValue("T\\Dropped", "a"));
    {
        RegistryTransaction outer;
        Write("T\\Kept", "outer");
        {
            RegistryTransaction inner;
            Write("T\\Kept", "inner");
        }
        EXPECT_FALSE(HasValue("T\\Kept", "inner"));
        EXPECT_EQ(0, outer.Commit());
    }
    EXPECT_TRUE(HasValue("T\\Kept", "outer"));
    EXPECT_FALSE(HasValue("T\\Kept", "inner"));
}

TEST_F(RegistryTransactionTest, AnotherThreadWaitsForTheScope) {
    std::atomic<bool> written{false};
    std::thread other;
    {
        RegistryTransaction scope;
        other = std::thread([&] {
            Write("T\\Other", "v");
            written = true;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        EXPECT_FALSE(written.load());
        Write("T\\Mine", "v");
        scope.Commit();
    }
    other.join();
    EXPECT_TRUE(HasValue("T\\Mine", "v"));
    EXPECT_TRUE(HasValue("T\\Other", "v"));
}

// A process killed in the middle of a save leaves the tree it had before.
TEST_F(RegistryTransactionTest, KilledSaveLeavesTheOldTree) {
    Write("T\\Tree\\Old", "v");
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ScopedPlatform own(MakePosixPlatform(Current().Info()));
        RegistryTransaction scope;
        core::RegistryKey t("", "T");
        core::RegistryKey::DeleteKeyTree(t.Handle(), "Tree");
        core::RegistryKey half("\\Tree\\New", "T");
        half.SetDword("v", 2);
        ::_exit(9);  // dies before the scope commits
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_TRUE(HasValue("T\\Tree\\Old", "v"));
    EXPECT_FALSE(HasValue("T\\Tree\\New", "v"));
}

}  // namespace
}  // namespace qbrix::platform
