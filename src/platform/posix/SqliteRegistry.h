// The registry service kept in one SQLite database file, shared safely by every process and
// thread that opens it (write-ahead log, each change one immediate transaction, a busy wait on
// lock contention). HKEY_CURRENT_USER is HKEY_USERS\<uid> of the calling user.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "platform/Registry.h"

struct sqlite3;
struct sqlite3_stmt;

namespace qbrix::platform {

class SqliteRegistry : public Registry {
  public:
    // The database is opened on first use; a store that cannot be opened (unreadable, corrupt,
    // locked) makes every call fail with an error code and leaves the file untouched.
    SqliteRegistry(std::string databasePath, std::uint32_t uid);
    ~SqliteRegistry() override;

    LONG CreateKeyEx(HKEY key, std::string_view subKey, DWORD options, REGSAM access, HKEY* result,
                     DWORD* disposition) override;
    LONG OpenKeyEx(HKEY key, std::string_view subKey, REGSAM access, HKEY* result) override;
    LONG CloseKey(HKEY key) override;
    LONG QueryValueEx(HKEY key, std::string_view name, DWORD* type, BYTE* data,
                      DWORD* size) override;
    LONG SetValueEx(HKEY key, std::string_view name, DWORD type, const BYTE* data,
                    DWORD size) override;
    LONG DeleteValue(HKEY key, std::string_view name) override;
    LONG DeleteKey(HKEY key, std::string_view subKey) override;
    LONG EnumKeyEx(HKEY key, DWORD index, char* name, DWORD* nameSize) override;
    LONG EnumValue(HKEY key, DWORD index, char* name, DWORD* nameSize, DWORD* type, BYTE* data,
                   DWORD* dataSize) override;
    LONG QueryInfoKey(HKEY key, DWORD* subKeys, DWORD* maxSubKeyLength, DWORD* values,
                      DWORD* maxValueNameLength, DWORD* maxValueLength) override;

    LONG BeginTransaction() override;
    LONG EndTransaction(bool commit) override;

    // Milliseconds a call waits for another process's write before giving up (ERROR_BUSY). The
    // open of the store waits at most this long in all.
    void SetBusyTimeoutMs(int timeoutMs);
    // Caps the store file at `pages` database pages for this connection: a change that needs
    // more fails as it would on a full disk (how the tests make a disk full).
    void LimitSizeInPages(int pages);

  private:
    struct OpenKey {
        std::int64_t id;
        REGSAM access;
    };
    // Where the last enumeration through a handle stopped, so the next index continues from
    // that row instead of counting from the first. Valid only while the store is as it was
    // then: no change by this connection (its change count) nor by any other (the data
    // version). Otherwise the index is counted from the first row again.
    struct EnumCursor {
        bool valid = false;
        std::int64_t keyId = 0;
        DWORD index = 0;
        std::string fold;      // sub-keys: the upper-cased name of the row at `index`
        std::int64_t seq = 0;  // values: the creation sequence of the row at `index`
        std::int64_t changes = 0;
        std::int64_t dataVersion = 0;
    };
    struct EnumCursors {
        EnumCursor subKeys;
        EnumCursor values;
    };
    class Statement;
    class Transaction;

    // Opens the store on first use; inside a doomed transaction scope, the error that doomed it.
    LONG EnsureOpen();
    // A failed statement inside a transaction scope dooms the scope: every later call in it
    // fails with the first error and its end rolls everything back.
    void NoteFailure(int sqliteResult);
    // Opens the store for a change and begins the change's transaction.
    LONG StartChange(std::optional<Transaction>& tx);
    LONG InitializeSchema();
    void CloseDatabase();
    sqlite3_stmt* Prepare(const char* sql);
    // The key a handle stands for; an open handle's key must still exist unless `checkExists` is
    // false (the caller then knows it does).
    LONG Resolve(HKEY key, REGSAM needed, std::int64_t* id, bool checkExists = true);
    LONG CurrentUserKey(bool create, std::int64_t* id);
    LONG FindChild(std::int64_t parent, std::string_view name, std::int64_t* id);
    LONG KeyExists(std::int64_t id);
    LONG WalkPath(std::int64_t start, std::string_view path, bool create, std::int64_t* id,
                  bool* created);
    HKEY NewHandle(std::int64_t id, REGSAM access);
    // Whether `cursor` still describes the store for an enumeration of `keyId` at `index`;
    // stamps the cursor with the store's current state either way (false: the state could not
    // be read, and the cursor is not used).
    bool CursorUsable(EnumCursor& cursor, std::int64_t keyId, DWORD index);
    // CursorUsable, and without a usable cursor the check that a handle's key still exists.
    LONG StartEnumeration(HKEY key, EnumCursor& cursor, std::int64_t keyId, DWORD index,
                          bool* usable);

    std::string m_path;
    std::uint32_t m_uid;
    int m_busyTimeoutMs = 10000;
    std::recursive_mutex m_lock;
    sqlite3* m_db = nullptr;
    bool m_readOnly = false;
    std::map<const char*, sqlite3_stmt*> m_statements;
    std::map<std::uintptr_t, OpenKey> m_handles;
    std::map<std::uintptr_t, EnumCursors> m_cursors;  // by handle, the predefined roots included
    std::uintptr_t m_nextHandle = 0x1000;
    int m_transactionDepth = 0;  // open transaction scopes; m_lock is held while it is above 0
    LONG m_doomed = 0;           // the error that doomed the open scopes, 0 while none has
};

}  // namespace qbrix::platform
