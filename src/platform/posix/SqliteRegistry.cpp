#include "platform/posix/SqliteRegistry.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <optional>
#include <thread>
#include <vector>

#include "platform/Text.h"
#include "platform/posix/PosixPlatform.h"

namespace qbrix::platform {

namespace {

void CreateStoreFile(const std::string& path) {
    // A new store gets the data root's file mode whatever the umask; SQLite gives its -wal and
    // -shm files the store's mode. An existing store keeps the mode it has.
    std::string root = std::filesystem::path(path).parent_path().string();
    root = root.empty() ? "." : root;
    MakeDataDirectory(root, root);
    int fd = OpenDataFile(root, path, O_RDWR | O_CREAT | O_EXCL);
    if (fd >= 0) {
        ::close(fd);
    }
}

constexpr std::int64_t kLocalMachineId = 1;
constexpr std::int64_t kClassesRootId = 2;
constexpr std::int64_t kUsersId = 3;

// Rights that change the store; a read-only store refuses handles that ask for them.
constexpr REGSAM kWriteRights =
    KEY_SET_VALUE | KEY_CREATE_SUB_KEY | KEY_CREATE_LINK | DELETE_ACCESS | 0x00040000 | 0x00080000;

// The row at an enumeration index: counted from the first row, or found from the cursor (the
// cursor's own row again, or the row after it) through the (parent, fold) and (key, seq)
// indexes.
constexpr const char* kSubKeyByOffset =
    "SELECT name, fold FROM keys WHERE parent = ? ORDER BY fold LIMIT 1 OFFSET ?";
constexpr const char* kSubKeyAtCursor =
    "SELECT name, fold FROM keys WHERE parent = ? AND fold >= ? ORDER BY fold LIMIT 1";
constexpr const char* kSubKeyAfterCursor =
    "SELECT name, fold FROM keys WHERE parent = ? AND fold > ? ORDER BY fold LIMIT 1";
constexpr const char* kValueByOffset =
    "SELECT name, type, data, seq FROM vals WHERE key = ? ORDER BY seq LIMIT 1 OFFSET ?";
constexpr const char* kValueAtCursor =
    "SELECT name, type, data, seq FROM vals WHERE key = ? AND seq >= ? ORDER BY seq LIMIT 1";
constexpr const char* kValueAfterCursor =
    "SELECT name, type, data, seq FROM vals WHERE key = ? AND seq > ? ORDER BY seq LIMIT 1";

LONG FromSqlite(int rc) {
    switch (rc & 0xFF) {
        case SQLITE_OK:
        case SQLITE_ROW:
        case SQLITE_DONE:
            return ERROR_SUCCESS;
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
            return ERROR_BUSY;
        case SQLITE_READONLY:
        case SQLITE_PERM:
        case SQLITE_CANTOPEN:
        case SQLITE_AUTH:
            return ERROR_ACCESS_DENIED;
        case SQLITE_NOMEM:
            return ERROR_NOT_ENOUGH_MEMORY;
        case SQLITE_CORRUPT:
        case SQLITE_NOTADB:
        case SQLITE_FORMAT:
        case SQLITE_SCHEMA:
            return ERROR_BADDB;
        case SQLITE_FULL:
            return ERROR_DISK_FULL;
        default:
            return ERROR_GEN_FAILURE;
    }
}

std::string_view ColumnBytes(sqlite3_stmt* stmt, int column) {
    const void* bytes = sqlite3_column_blob(stmt, column);
    int size = sqlite3_column_bytes(stmt, column);
    // An empty blob comes back as a null pointer; callers copy from data() (the unnamed value's
    // empty name), and a null source is not allowed even for zero bytes.
    return bytes == nullptr ? std::string_view("", 0)
                            : std::string_view(static_cast<const char*>(bytes), size);
}

// Splits a backslash-separated key path. A single trailing backslash is allowed; a leading one
// or an empty component in the middle is not.
LONG SplitPath(std::string_view path, std::vector<std::string_view>* parts) {
    if (path.empty()) {
        return ERROR_SUCCESS;
    }
    if (path.front() == '\\') {
        return ERROR_BAD_PATHNAME;
    }
    if (path.back() == '\\') {
        path.remove_suffix(1);
    }
    while (true) {
        std::size_t cut = path.find('\\');
        std::string_view part = path.substr(0, cut);
        if (part.empty()) {
            return ERROR_BAD_PATHNAME;
        }
        if (part.size() > kMaxKeyNameLength) {
            return ERROR_INVALID_PARAMETER;
        }
        parts->push_back(part);
        if (cut == std::string_view::npos) {
            return ERROR_SUCCESS;
        }
        path.remove_prefix(cut + 1);
    }
}

// A name into a caller's buffer of *nameSize bytes, with its terminator; on success *nameSize
// is the name's length.
LONG CopyName(std::string_view text, char* name, DWORD* nameSize) {
    if (text.size() + 1 > *nameSize) {
        return ERROR_MORE_DATA;
    }
    std::memcpy(name, text.data(), text.size());
    name[text.size()] = '\0';
    *nameSize = static_cast<DWORD>(text.size());
    return ERROR_SUCCESS;
}

// Value data as the registry calls report it: with no buffer only the size; a short buffer gives
// ERROR_MORE_DATA with the size needed.
LONG CopyData(std::string_view bytes, BYTE* data, DWORD* size) {
    if (data != nullptr && *size < bytes.size()) {
        *size = static_cast<DWORD>(bytes.size());
        return ERROR_MORE_DATA;
    }
    if (data != nullptr && !bytes.empty()) {
        std::memcpy(data, bytes.data(), bytes.size());
    }
    if (size != nullptr) {
        *size = static_cast<DWORD>(bytes.size());
    }
    return ERROR_SUCCESS;
}

}  // namespace

// A cached prepared statement, reset when the wrapper goes out of scope.
class SqliteRegistry::Statement {
  public:
    Statement(SqliteRegistry& registry, const char* sql)
        : m_registry(registry), m_stmt(registry.Prepare(sql)) {}
    ~Statement() {
        if (m_stmt != nullptr) {
            sqlite3_reset(m_stmt);
            sqlite3_clear_bindings(m_stmt);
        }
    }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    bool Valid() const { return m_stmt != nullptr; }
    Statement& Bind(int index, std::int64_t value) {
        sqlite3_bind_int64(m_stmt, index, value);
        return *this;
    }
    Statement& BindBytes(int index, const void* data, std::size_t size) {
        // A zero-length blob must still be a blob, not NULL.
        sqlite3_bind_blob(m_stmt, index, size == 0 ? "" : data, static_cast<int>(size),
                          SQLITE_TRANSIENT);
        return *this;
    }
    Statement& BindText(int index, std::string_view text) {
        return BindBytes(index, text.data(), text.size());
    }
    int Step() {
        int rc = m_stmt == nullptr ? SQLITE_ERROR : sqlite3_step(m_stmt);
        if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
            m_registry.NoteFailure(rc);
        }
        return rc;
    }
    std::int64_t Int(int column) { return sqlite3_column_int64(m_stmt, column); }
    std::string_view Bytes(int column) { return ColumnBytes(m_stmt, column); }

  private:
    SqliteRegistry& m_registry;
    sqlite3_stmt* m_stmt;
};

// One change: BEGIN IMMEDIATE ... COMMIT, or a savepoint inside a caller's transaction scope;
// rolled back unless committed.
class SqliteRegistry::Transaction {
  public:
    explicit Transaction(SqliteRegistry& registry)
        : m_registry(registry), m_db(registry.m_db), m_nested(sqlite3_get_autocommit(m_db) == 0) {
        m_rc = sqlite3_exec(m_db, m_nested ? "SAVEPOINT change" : "BEGIN IMMEDIATE", nullptr,
                            nullptr, nullptr);
        m_registry.NoteFailure(m_rc);
    }
    ~Transaction() {
        if (m_rc == SQLITE_OK && !m_committed) {
            sqlite3_exec(m_db, m_nested ? "ROLLBACK TO change; RELEASE change" : "ROLLBACK",
                         nullptr, nullptr, nullptr);
        }
    }
    LONG Begun() const { return FromSqlite(m_rc); }
    LONG Commit() {
        int rc =
            sqlite3_exec(m_db, m_nested ? "RELEASE change" : "COMMIT", nullptr, nullptr, nullptr);
        m_committed = rc == SQLITE_OK;
        m_registry.NoteFailure(rc);
        return FromSqlite(rc);
    }

  private:
    SqliteRegistry& m_registry;
    sqlite3* m_db;
    bool m_nested;
    int m_rc;
    bool m_committed = false;
};

SqliteRegistry::SqliteRegistry(std::string databasePath, std::uint32_t uid)
    : m_path(std::move(databasePath)), m_uid(uid) {}

SqliteRegistry::~SqliteRegistry() {
    CloseDatabase();
}

void SqliteRegistry::SetBusyTimeoutMs(int timeoutMs) {
    std::lock_guard guard(m_lock);
    m_busyTimeoutMs = timeoutMs;
    if (m_db != nullptr) {
        sqlite3_busy_timeout(m_db, timeoutMs);
    }
}

LONG SqliteRegistry::BeginTransaction() {
    m_lock.lock();  // held until the matching EndTransaction: other threads wait
    LONG rc = EnsureOpen();
    if (rc == ERROR_SUCCESS && m_readOnly) {
        rc = ERROR_ACCESS_DENIED;
    }
    if (rc == ERROR_SUCCESS) {
        std::string sql = m_transactionDepth == 0
                              ? std::string("BEGIN IMMEDIATE")
                              : "SAVEPOINT scope" + std::to_string(m_transactionDepth);
        rc = FromSqlite(sqlite3_exec(m_db, sql.c_str(), nullptr, nullptr, nullptr));
    }
    if (rc != ERROR_SUCCESS) {
        m_lock.unlock();
        return rc;
    }
    ++m_transactionDepth;
    return ERROR_SUCCESS;
}

LONG SqliteRegistry::EndTransaction(bool commit) {
    if (m_transactionDepth == 0) {
        return ERROR_INVALID_FUNCTION;
    }
    --m_transactionDepth;
    // A doomed scope commits nothing: its end rolls back whatever the store still holds of it
    // (SQLite may already have rolled the whole transaction back on its own).
    LONG doomed = m_doomed;
    if (doomed != ERROR_SUCCESS) {
        commit = false;
    }
    std::string sql;
    if (m_transactionDepth == 0) {
        sql = commit ? "COMMIT" : "ROLLBACK";
    } else {
        std::string name = "scope" + std::to_string(m_transactionDepth);
        sql = commit ? "RELEASE " + name : "ROLLBACK TO " + name + "; RELEASE " + name;
    }
    int rc = m_db == nullptr ? SQLITE_MISUSE
                             : sqlite3_exec(m_db, sql.c_str(), nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK && m_transactionDepth == 0 && m_db != nullptr) {
        sqlite3_exec(m_db, "ROLLBACK", nullptr, nullptr, nullptr);
    }
    if (m_transactionDepth == 0) {
        m_doomed = ERROR_SUCCESS;
    } else if (rc != SQLITE_OK) {
        NoteFailure(rc);
    }
    m_lock.unlock();
    if (doomed != ERROR_SUCCESS) {
        return doomed;
    }
    return FromSqlite(rc);
}

void SqliteRegistry::NoteFailure(int rc) {
    if (rc != SQLITE_OK && rc != SQLITE_ROW && rc != SQLITE_DONE && m_transactionDepth > 0 &&
        m_doomed == ERROR_SUCCESS) {
        m_doomed = FromSqlite(rc);
        if (m_doomed == ERROR_SUCCESS) {
            m_doomed = ERROR_GEN_FAILURE;
        }
    }
}

void SqliteRegistry::CloseDatabase() {
    for (auto& [sql, stmt] : m_statements) {
        sqlite3_finalize(stmt);
    }
    m_statements.clear();
    if (m_db != nullptr) {
        sqlite3_close_v2(m_db);
        m_db = nullptr;
    }
}

LONG SqliteRegistry::EnsureOpen() {
    if (m_transactionDepth > 0 && m_doomed != ERROR_SUCCESS) {
        return m_doomed;  // a statement of the open transaction scope failed
    }
    if (m_db != nullptr) {
        return ERROR_SUCCESS;
    }
    CreateStoreFile(m_path);
    m_readOnly = false;
    int rc = sqlite3_open_v2(m_path.c_str(), &m_db,
                             SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                             nullptr);
    if (rc != SQLITE_OK) {
        sqlite3_close_v2(m_db);
        m_db = nullptr;
        rc = sqlite3_open_v2(m_path.c_str(), &m_db, SQLITE_OPEN_READONLY | SQLITE_OPEN_FULLMUTEX,
                             nullptr);
        m_readOnly = true;
        if (rc != SQLITE_OK) {
            sqlite3_close_v2(m_db);
            m_db = nullptr;
            return FromSqlite(rc);
        }
    }
    // The whole open waits at most the busy time, measured on a steady clock: each try is given
    // only what is left of it. Two processes opening a new store at once race for switching it
    // to the write-ahead log; SQLite answers the loser at once with "busy" rather than waiting,
    // hence the retries.
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(m_busyTimeoutMs);
    LONG result = ERROR_BUSY;
    while (true) {
        auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        sqlite3_busy_timeout(m_db, static_cast<int>(left > 0 ? left : 0));
        result = InitializeSchema();
        if (result != ERROR_BUSY || Clock::now() >= deadline) {
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    sqlite3_busy_timeout(m_db, m_busyTimeoutMs);
    if (result != ERROR_SUCCESS) {
        CloseDatabase();
    }
    return result;
}

void SqliteRegistry::LimitSizeInPages(int pages) {
    std::lock_guard guard(m_lock);
    if (EnsureOpen() == ERROR_SUCCESS) {
        std::string sql = "PRAGMA max_page_count = " + std::to_string(pages);
        sqlite3_exec(m_db, sql.c_str(), nullptr, nullptr, nullptr);
    }
}

LONG SqliteRegistry::InitializeSchema() {
    // Reading the schema first: a file that is not a database fails here, before anything has
    // been written to it.
    int rc = sqlite3_exec(m_db, "SELECT count(*) FROM sqlite_master", nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) {
        return FromSqlite(rc);
    }
    if (m_readOnly) {
        return ERROR_SUCCESS;
    }
    rc = sqlite3_exec(m_db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;", nullptr, nullptr,
                      nullptr);
    if (rc != SQLITE_OK) {
        return FromSqlite(rc);
    }
    // A store that has its tables and roots needs no write to be opened, so opening it does not
    // wait for another process's change.
    {
        Statement ready(*this,
                        "SELECT (SELECT count(*) FROM sqlite_master WHERE type = 'table' AND "
                        "name IN ('keys', 'vals')) = 2 AND (SELECT count(*) FROM keys WHERE "
                        "id IN (1, 2, 3)) = 3");
        if (ready.Valid() && ready.Step() == SQLITE_ROW && ready.Int(0) == 1) {
            return ERROR_SUCCESS;
        }
    }
    static const char kSchema[] =
        "CREATE TABLE IF NOT EXISTS keys("
        "  id INTEGER PRIMARY KEY, parent INTEGER NOT NULL, name BLOB NOT NULL,"
        "  fold BLOB NOT NULL, UNIQUE(parent, fold));"
        "CREATE TABLE IF NOT EXISTS vals("
        "  seq INTEGER PRIMARY KEY AUTOINCREMENT, key INTEGER NOT NULL, name BLOB NOT NULL,"
        "  fold BLOB NOT NULL, type INTEGER NOT NULL, data BLOB NOT NULL, UNIQUE(key, fold));"
        "CREATE INDEX IF NOT EXISTS vals_order ON vals(key, seq);"
        "INSERT OR IGNORE INTO keys(id, parent, name, fold) VALUES"
        "  (1, 0, CAST('HKEY_LOCAL_MACHINE' AS BLOB), CAST('HKEY_LOCAL_MACHINE' AS BLOB)),"
        "  (2, 0, CAST('HKEY_CLASSES_ROOT' AS BLOB), CAST('HKEY_CLASSES_ROOT' AS BLOB)),"
        "  (3, 0, CAST('HKEY_USERS' AS BLOB), CAST('HKEY_USERS' AS BLOB));";
    Transaction tx(*this);
    if (tx.Begun() != ERROR_SUCCESS) {
        return tx.Begun();
    }
    rc = sqlite3_exec(m_db, kSchema, nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) {
        return FromSqlite(rc);
    }
    return tx.Commit();
}

sqlite3_stmt* SqliteRegistry::Prepare(const char* sql) {
    auto it = m_statements.find(sql);
    if (it != m_statements.end()) {
        return it->second;
    }
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(m_db, sql, -1, &stmt, nullptr) != SQLITE_OK) {
        sqlite3_finalize(stmt);
        return nullptr;
    }
    m_statements.emplace(sql, stmt);
    return stmt;
}

LONG SqliteRegistry::StartChange(std::optional<Transaction>& tx) {
    if (LONG rc = EnsureOpen(); rc != ERROR_SUCCESS) {
        return rc;
    }
    if (m_readOnly) {
        return ERROR_ACCESS_DENIED;
    }
    tx.emplace(*this);
    return tx->Begun();
}

LONG SqliteRegistry::KeyExists(std::int64_t id) {
    Statement stmt(*this, "SELECT 1 FROM keys WHERE id = ?");
    int rc = stmt.Bind(1, id).Step();
    if (rc == SQLITE_ROW) {
        return ERROR_SUCCESS;
    }
    return rc == SQLITE_DONE ? ERROR_KEY_DELETED : FromSqlite(rc);
}

LONG SqliteRegistry::FindChild(std::int64_t parent, std::string_view name, std::int64_t* id) {
    std::string fold = ToUpperAscii(name);
    Statement stmt(*this, "SELECT id FROM keys WHERE parent = ? AND fold = ?");
    int rc = stmt.Bind(1, parent).BindText(2, fold).Step();
    if (rc == SQLITE_ROW) {
        *id = stmt.Int(0);
        return ERROR_SUCCESS;
    }
    return rc == SQLITE_DONE ? ERROR_FILE_NOT_FOUND : FromSqlite(rc);
}

LONG SqliteRegistry::CurrentUserKey(bool create, std::int64_t* id) {
    std::string name = std::to_string(m_uid);
    if (create && !m_readOnly) {
        Statement insert(*this, "INSERT OR IGNORE INTO keys(parent, name, fold) VALUES(?, ?, ?)");
        int rc = insert.Bind(1, kUsersId).BindText(2, name).BindText(3, name).Step();
        if (rc != SQLITE_DONE) {
            return FromSqlite(rc);
        }
    }
    return FindChild(kUsersId, name, id);
}

LONG SqliteRegistry::Resolve(HKEY key, REGSAM needed, std::int64_t* id, bool checkExists) {
    if (key == HKEY_LOCAL_MACHINE) {
        *id = kLocalMachineId;
        return ERROR_SUCCESS;
    }
    if (key == HKEY_CLASSES_ROOT) {
        *id = kClassesRootId;
        return ERROR_SUCCESS;
    }
    if (key == HKEY_USERS) {
        *id = kUsersId;
        return ERROR_SUCCESS;
    }
    if (key == HKEY_CURRENT_USER) {
        return CurrentUserKey(true, id);
    }
    auto it = m_handles.find(reinterpret_cast<std::uintptr_t>(key));
    if (it == m_handles.end()) {
        return ERROR_INVALID_HANDLE;
    }
    if ((it->second.access & needed) != needed) {
        return ERROR_ACCESS_DENIED;
    }
    *id = it->second.id;
    return checkExists ? KeyExists(*id) : ERROR_SUCCESS;
}

LONG SqliteRegistry::WalkPath(std::int64_t start, std::string_view path, bool create,
                              std::int64_t* id, bool* created) {
    std::vector<std::string_view> parts;
    if (LONG rc = SplitPath(path, &parts); rc != ERROR_SUCCESS) {
        return rc;
    }
    *id = start;
    *created = false;
    for (std::string_view part : parts) {
        std::int64_t child = 0;
        LONG rc = FindChild(*id, part, &child);
        if (rc == ERROR_FILE_NOT_FOUND && create) {
            Statement insert(*this, "INSERT INTO keys(parent, name, fold) VALUES(?, ?, ?)");
            int step = insert.Bind(1, *id).BindText(2, part).BindText(3, ToUpperAscii(part)).Step();
            if (step != SQLITE_DONE) {
                return FromSqlite(step);
            }
            child = sqlite3_last_insert_rowid(m_db);
            *created = true;
        } else if (rc != ERROR_SUCCESS) {
            return rc;
        } else {
            *created = false;
        }
        *id = child;
    }
    return ERROR_SUCCESS;
}

bool SqliteRegistry::CursorUsable(EnumCursor& cursor, std::int64_t keyId, DWORD index) {
    std::int64_t changes = sqlite3_total_changes64(m_db);
    Statement version(*this, "PRAGMA data_version");
    if (version.Step() != SQLITE_ROW) {
        cursor.valid = false;
        return false;
    }
    std::int64_t dataVersion = version.Int(0);
    bool usable = cursor.valid && cursor.keyId == keyId && cursor.changes == changes &&
                  cursor.dataVersion == dataVersion &&
                  (index == cursor.index || index == cursor.index + 1);
    cursor.changes = changes;
    cursor.dataVersion = dataVersion;
    return usable;
}

LONG SqliteRegistry::StartEnumeration(HKEY key, EnumCursor& cursor, std::int64_t keyId, DWORD index,
                                      bool* usable) {
    *usable = CursorUsable(cursor, keyId, index);
    // A usable cursor vouches for the key: it existed at the previous call, and nothing changed
    // since. Otherwise a key held by a handle may have been deleted under it.
    if (!*usable && m_handles.count(reinterpret_cast<std::uintptr_t>(key)) != 0) {
        return KeyExists(keyId);
    }
    return ERROR_SUCCESS;
}

HKEY SqliteRegistry::NewHandle(std::int64_t id, REGSAM access) {
    std::uintptr_t value = m_nextHandle;
    m_nextHandle += 4;
    m_handles.emplace(value, OpenKey{id, access});
    return reinterpret_cast<HKEY>(value);
}

LONG SqliteRegistry::CreateKeyEx(HKEY key, std::string_view subKey, DWORD /*options*/,
                                 REGSAM access, HKEY* result, DWORD* disposition) {
    std::lock_guard guard(m_lock);
    if (result == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    *result = nullptr;
    if (LONG rc = EnsureOpen(); rc != ERROR_SUCCESS) {
        return rc;
    }
    if (m_readOnly) {
        // Only an existing key may be opened, and only for reading.
        if ((access & kWriteRights) != 0) {
            return ERROR_ACCESS_DENIED;
        }
        return OpenKeyEx(key, subKey, access, result);
    }
    Transaction tx(*this);
    if (tx.Begun() != ERROR_SUCCESS) {
        return tx.Begun();
    }
    std::int64_t parent = 0;
    if (LONG rc = Resolve(key, 0, &parent); rc != ERROR_SUCCESS) {
        return rc;
    }
    std::int64_t id = 0;
    bool created = false;
    LONG rc = WalkPath(parent, subKey, false, &id, &created);
    if (rc == ERROR_FILE_NOT_FOUND) {
        std::int64_t ignoredId = 0;
        if (Resolve(key, KEY_CREATE_SUB_KEY, &ignoredId) != ERROR_SUCCESS) {
            return ERROR_ACCESS_DENIED;
        }
        rc = WalkPath(parent, subKey, true, &id, &created);
    }
    if (rc != ERROR_SUCCESS) {
        return rc;
    }
    if (LONG commit = tx.Commit(); commit != ERROR_SUCCESS) {
        return commit;
    }
    *result = NewHandle(id, access);
    if (disposition != nullptr) {
        *disposition = created ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
    }
    return ERROR_SUCCESS;
}

LONG SqliteRegistry::OpenKeyEx(HKEY key, std::string_view subKey, REGSAM access, HKEY* result) {
    std::lock_guard guard(m_lock);
    if (result == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    *result = nullptr;
    if (LONG rc = EnsureOpen(); rc != ERROR_SUCCESS) {
        return rc;
    }
    if (m_readOnly && (access & kWriteRights) != 0) {
        return ERROR_ACCESS_DENIED;
    }
    std::int64_t start = 0;
    LONG rc = key == HKEY_CURRENT_USER ? CurrentUserKey(false, &start) : Resolve(key, 0, &start);
    if (rc != ERROR_SUCCESS) {
        return rc;
    }
    std::int64_t id = 0;
    bool created = false;
    if (rc = WalkPath(start, subKey, false, &id, &created); rc != ERROR_SUCCESS) {
        return rc;
    }
    *result = NewHandle(id, access);
    return ERROR_SUCCESS;
}

LONG SqliteRegistry::CloseKey(HKEY key) {
    std::lock_guard guard(m_lock);
    if (key == HKEY_LOCAL_MACHINE || key == HKEY_CLASSES_ROOT || key == HKEY_USERS ||
        key == HKEY_CURRENT_USER) {
        return ERROR_SUCCESS;
    }
    m_cursors.erase(reinterpret_cast<std::uintptr_t>(key));
    return m_handles.erase(reinterpret_cast<std::uintptr_t>(key)) == 1 ? ERROR_SUCCESS
                                                                       : ERROR_INVALID_HANDLE;
}

LONG SqliteRegistry::QueryValueEx(HKEY key, std::string_view name, DWORD* type, BYTE* data,
                                  DWORD* size) {
    std::lock_guard guard(m_lock);
    if (data != nullptr && size == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    if (LONG rc = EnsureOpen(); rc != ERROR_SUCCESS) {
        return rc;
    }
    std::int64_t id = 0;
    if (LONG rc = Resolve(key, KEY_QUERY_VALUE, &id); rc != ERROR_SUCCESS) {
        return rc;
    }
    Statement stmt(*this, "SELECT type, data FROM vals WHERE key = ? AND fold = ?");
    int rc = stmt.Bind(1, id).BindText(2, ToUpperAscii(name)).Step();
    if (rc != SQLITE_ROW) {
        return rc == SQLITE_DONE ? ERROR_FILE_NOT_FOUND : FromSqlite(rc);
    }
    std::string_view bytes = stmt.Bytes(1);
    if (type != nullptr) {
        *type = static_cast<DWORD>(stmt.Int(0));
    }
    return CopyData(bytes, data, size);
}

LONG SqliteRegistry::SetValueEx(HKEY key, std::string_view name, DWORD type, const BYTE* data,
                                DWORD size) {
    std::lock_guard guard(m_lock);
    if ((data == nullptr && size != 0) || name.size() > kMaxValueNameLength) {
        return ERROR_INVALID_PARAMETER;
    }
    std::optional<Transaction> tx;
    if (LONG rc = StartChange(tx); rc != ERROR_SUCCESS) {
        return rc;
    }
    std::int64_t id = 0;
    if (LONG rc = Resolve(key, KEY_SET_VALUE, &id); rc != ERROR_SUCCESS) {
        return rc;
    }
    // An existing value keeps its name's case and its place in the enumeration order.
    Statement stmt(*this,
                   "INSERT INTO vals(key, name, fold, type, data) VALUES(?, ?, ?, ?, ?) "
                   "ON CONFLICT(key, fold) DO UPDATE SET type = excluded.type, "
                   "data = excluded.data");
    int rc = stmt.Bind(1, id)
                 .BindText(2, name)
                 .BindText(3, ToUpperAscii(name))
                 .Bind(4, type)
                 .BindBytes(5, data, size)
                 .Step();
    if (rc != SQLITE_DONE) {
        return FromSqlite(rc);
    }
    return tx->Commit();
}

LONG SqliteRegistry::DeleteValue(HKEY key, std::string_view name) {
    std::lock_guard guard(m_lock);
    std::optional<Transaction> tx;
    if (LONG rc = StartChange(tx); rc != ERROR_SUCCESS) {
        return rc;
    }
    std::int64_t id = 0;
    if (LONG rc = Resolve(key, KEY_SET_VALUE, &id); rc != ERROR_SUCCESS) {
        return rc;
    }
    Statement stmt(*this, "DELETE FROM vals WHERE key = ? AND fold = ?");
    int rc = stmt.Bind(1, id).BindText(2, ToUpperAscii(name)).Step();
    if (rc != SQLITE_DONE) {
        return FromSqlite(rc);
    }
    if (sqlite3_changes(m_db) == 0) {
        return ERROR_FILE_NOT_FOUND;
    }
    return tx->Commit();
}

LONG SqliteRegistry::DeleteKey(HKEY key, std::string_view subKey) {
    std::lock_guard guard(m_lock);
    std::optional<Transaction> tx;
    if (LONG rc = StartChange(tx); rc != ERROR_SUCCESS) {
        return rc;
    }
    std::int64_t parent = 0;
    if (LONG rc = Resolve(key, 0, &parent); rc != ERROR_SUCCESS) {
        return rc;
    }
    std::int64_t id = 0;
    bool created = false;
    if (LONG rc = WalkPath(parent, subKey, false, &id, &created); rc != ERROR_SUCCESS) {
        return rc;
    }
    if (id <= kUsersId) {
        return ERROR_ACCESS_DENIED;  // the roots themselves
    }
    Statement children(*this, "SELECT 1 FROM keys WHERE parent = ? LIMIT 1");
    int rc = children.Bind(1, id).Step();
    if (rc == SQLITE_ROW) {
        return ERROR_ACCESS_DENIED;
    }
    if (rc != SQLITE_DONE) {
        return FromSqlite(rc);
    }
    Statement values(*this, "DELETE FROM vals WHERE key = ?");
    if (rc = values.Bind(1, id).Step(); rc != SQLITE_DONE) {
        return FromSqlite(rc);
    }
    Statement self(*this, "DELETE FROM keys WHERE id = ?");
    if (rc = self.Bind(1, id).Step(); rc != SQLITE_DONE) {
        return FromSqlite(rc);
    }
    return tx->Commit();
}

LONG SqliteRegistry::EnumKeyEx(HKEY key, DWORD index, char* name, DWORD* nameSize) {
    std::lock_guard guard(m_lock);
    if (name == nullptr || nameSize == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    if (LONG rc = EnsureOpen(); rc != ERROR_SUCCESS) {
        return rc;
    }
    std::int64_t id = 0;
    if (LONG rc = Resolve(key, KEY_ENUMERATE_SUB_KEYS, &id, false); rc != ERROR_SUCCESS) {
        return rc;
    }
    // The next index continues after the previous row (one index lookup); any other index, or
    // a store changed since, counts from the first row.
    EnumCursor& cursor = m_cursors[reinterpret_cast<std::uintptr_t>(key)].subKeys;
    bool usable = false;
    if (LONG rc = StartEnumeration(key, cursor, id, index, &usable); rc != ERROR_SUCCESS) {
        return rc;
    }
    Statement stmt(*this, !usable                 ? kSubKeyByOffset
                          : index == cursor.index ? kSubKeyAtCursor
                                                  : kSubKeyAfterCursor);
    stmt.Bind(1, id);
    if (usable) {
        stmt.BindText(2, cursor.fold);
    } else {
        stmt.Bind(2, index);
    }
    int rc = stmt.Step();
    if (rc != SQLITE_ROW) {
        cursor.valid = false;
        return rc == SQLITE_DONE ? ERROR_NO_MORE_ITEMS : FromSqlite(rc);
    }
    cursor.valid = true;
    cursor.keyId = id;
    cursor.index = index;
    cursor.fold.assign(stmt.Bytes(1));
    std::string_view text = stmt.Bytes(0);
    return CopyName(text, name, nameSize);
}

LONG SqliteRegistry::EnumValue(HKEY key, DWORD index, char* name, DWORD* nameSize, DWORD* type,
                               BYTE* data, DWORD* dataSize) {
    std::lock_guard guard(m_lock);
    if (name == nullptr || nameSize == nullptr || (data != nullptr && dataSize == nullptr)) {
        return ERROR_INVALID_PARAMETER;
    }
    if (LONG rc = EnsureOpen(); rc != ERROR_SUCCESS) {
        return rc;
    }
    std::int64_t id = 0;
    if (LONG rc = Resolve(key, KEY_QUERY_VALUE, &id, false); rc != ERROR_SUCCESS) {
        return rc;
    }
    EnumCursor& cursor = m_cursors[reinterpret_cast<std::uintptr_t>(key)].values;
    bool usable = false;
    if (LONG rc = StartEnumeration(key, cursor, id, index, &usable); rc != ERROR_SUCCESS) {
        return rc;
    }
    Statement stmt(*this, !usable                 ? kValueByOffset
                          : index == cursor.index ? kValueAtCursor
                                                  : kValueAfterCursor);
    int rc = stmt.Bind(1, id).Bind(2, usable ? cursor.seq : index).Step();
    if (rc != SQLITE_ROW) {
        cursor.valid = false;
        return rc == SQLITE_DONE ? ERROR_NO_MORE_ITEMS : FromSqlite(rc);
    }
    cursor.valid = true;
    cursor.keyId = id;
    cursor.index = index;
    cursor.seq = stmt.Int(3);
    std::string_view text = stmt.Bytes(0);
    std::string_view bytes = stmt.Bytes(2);
    if (LONG rc = CopyName(text, name, nameSize); rc != ERROR_SUCCESS) {
        return rc;
    }
    if (type != nullptr) {
        *type = static_cast<DWORD>(stmt.Int(1));
    }
    return CopyData(bytes, data, dataSize);
}

LONG SqliteRegistry::QueryInfoKey(HKEY key, DWORD* subKeys, DWORD* maxSubKeyLength, DWORD* values,
                                  DWORD* maxValueNameLength, DWORD* maxValueLength) {
    std::lock_guard guard(m_lock);
    if (LONG rc = EnsureOpen(); rc != ERROR_SUCCESS) {
        return rc;
    }
    std::int64_t id = 0;
    if (LONG rc = Resolve(key, KEY_QUERY_VALUE, &id); rc != ERROR_SUCCESS) {
        return rc;
    }
    Statement keys(*this,
                   "SELECT count(*), ifnull(max(length(name)), 0) FROM keys WHERE parent = ?");
    int rc = keys.Bind(1, id).Step();
    if (rc != SQLITE_ROW) {
        return FromSqlite(rc);
    }
    Statement vals(*this,
                   "SELECT count(*), ifnull(max(length(name)), 0), ifnull(max(length(data)), 0) "
                   "FROM vals WHERE key = ?");
    rc = vals.Bind(1, id).Step();
    if (rc != SQLITE_ROW) {
        return FromSqlite(rc);
    }
    if (subKeys != nullptr)
        *subKeys = static_cast<DWORD>(keys.Int(0));
    if (maxSubKeyLength != nullptr)
        *maxSubKeyLength = static_cast<DWORD>(keys.Int(1));
    if (values != nullptr)
        *values = static_cast<DWORD>(vals.Int(0));
    if (maxValueNameLength != nullptr)
        *maxValueNameLength = static_cast<DWORD>(vals.Int(1));
    if (maxValueLength != nullptr)
        *maxValueLength = static_cast<DWORD>(vals.Int(2));
    return ERROR_SUCCESS;
}

}  // namespace qbrix::platform
