#include "devservice/sqlite_store.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <boost/json/serialize.hpp>

#include "devservice/sqlite_statement.h"

namespace kestro::devservice {
namespace internal {
namespace {

constexpr const char* kDeviceColumns =
    "d.id, d.info, d.key_kind, d.key_id, d.first_seen, d.last_seen, d.deleted_through_seq, "
    "d.breakpoints, (SELECT COUNT(*) FROM items i WHERE i.device_id = d.id AND i.seq > "
    "d.deleted_through_seq)";

DeviceRow readDevice(const Statement& s) {
    DeviceRow row;
    row.id = s.text(0);
    row.info = parseObject(s.text(1));
    row.keyKind = s.text(2);
    row.keyId = s.optInteger(3);
    row.firstSeen = s.real(4);
    row.lastSeen = s.real(5);
    row.deletedThroughSeq = s.integer(6);
    row.breakpoints = s.integer(7) != 0;
    row.itemCount = s.integer(8);
    return row;
}

constexpr const char* kKeyColumns =
    "k.id, k.key, k.name, k.created_at, k.revoked_at, "
    "(SELECT COUNT(*) FROM devices d WHERE d.key_id = k.id)";

ApiKeyRow readKey(const Statement& s) {
    return ApiKeyRow{s.integer(0), s.text(1), s.text(2), s.real(3), s.optReal(4), s.integer(5)};
}

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS api_keys("
    "  id INTEGER PRIMARY KEY AUTOINCREMENT, key TEXT NOT NULL UNIQUE, name TEXT NOT NULL,"
    "  created_at REAL NOT NULL, revoked_at REAL);"
    "CREATE TABLE IF NOT EXISTS devices("
    "  id TEXT PRIMARY KEY, info TEXT NOT NULL, key_kind TEXT NOT NULL, key_id INTEGER,"
    "  first_seen REAL NOT NULL, last_seen REAL NOT NULL,"
    "  deleted_through_seq INTEGER NOT NULL DEFAULT 0, breakpoints INTEGER NOT NULL DEFAULT 0);"
    "CREATE TABLE IF NOT EXISTS items("
    "  device_id TEXT NOT NULL, id TEXT NOT NULL, seq INTEGER NOT NULL,"
    "  revision INTEGER NOT NULL, received_at REAL NOT NULL, updated_at REAL NOT NULL,"
    "  parts INTEGER NOT NULL, record TEXT NOT NULL, kind TEXT NOT NULL, time REAL, level TEXT,"
    "  message TEXT, category TEXT, method TEXT, url TEXT, status INTEGER,"
    "  waiting INTEGER NOT NULL, duration_ms REAL, mocked INTEGER NOT NULL, name TEXT);"
    "CREATE UNIQUE INDEX IF NOT EXISTS items_by_device_and_id ON items(device_id, id);"
    "CREATE UNIQUE INDEX IF NOT EXISTS items_by_seq ON items(seq);"
    "CREATE INDEX IF NOT EXISTS items_by_device ON items(device_id, seq);"
    "CREATE INDEX IF NOT EXISTS items_by_revision ON items(revision);"
    "CREATE TABLE IF NOT EXISTS item_parts("
    "  seq INTEGER PRIMARY KEY AUTOINCREMENT, item_seq INTEGER NOT NULL,"
    "  received_at REAL NOT NULL, body TEXT NOT NULL);"
    "CREATE INDEX IF NOT EXISTS item_parts_by_item ON item_parts(item_seq, seq);"
    "CREATE TABLE IF NOT EXISTS mock_rules("
    "  id INTEGER PRIMARY KEY AUTOINCREMENT, device_id TEXT NOT NULL, url TEXT NOT NULL,"
    "  rule TEXT NOT NULL, enabled INTEGER NOT NULL, created_at REAL NOT NULL,"
    "  updated_at REAL NOT NULL, UNIQUE(device_id, url));"
    "PRAGMA user_version = 2;";

}  // namespace
}  // namespace internal

using internal::Statement;
namespace json = boost::json;

std::unique_ptr<SQLiteStore> SQLiteStore::open(const std::filesystem::path& file,
                                               std::string* error) {
    // The directory holds every captured header and body: only its owner may read it.
    const auto dir = file.parent_path();
    if (!dir.empty() && !std::filesystem::exists(dir)) {
        std::error_code ec;
        std::filesystem::create_directories(dir, ec);
        ::chmod(dir.c_str(), 0700);
    }
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
        SQLITE_OK) {
        if (error) *error = db ? sqlite3_errmsg(db) : "out of memory";
        sqlite3_close(db);
        return nullptr;
    }
    // Its journal files take the database's mode.
    ::chmod(file.c_str(), 0600);
    sqlite3_busy_timeout(db, 5000);
    std::unique_ptr<SQLiteStore> store(new SQLiteStore(db, file));
    if (!store->exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;", error)) return nullptr;
    const std::int64_t version = internal::scalar(db, "PRAGMA user_version");
    const bool firstVersion =
        version == 0 &&
        internal::scalar(db, "SELECT COUNT(*) FROM sqlite_master WHERE name = 'items'") > 0;
    if (firstVersion && !store->migrateFromFirstVersion(error)) return nullptr;
    if (version > 2) {
        if (error) *error = "the database was written by a newer version of the service";
        return nullptr;
    }
    if (!store->exec(internal::kSchema, error)) return nullptr;
    return store;
}

// The first version kept items by their id alone, a key's kind but no key, and each upload by
// its item's id. Its rows move to the new tables with their summaries; devices of no key are
// taken by the first known key that writes as them.
bool SQLiteStore::migrateFromFirstVersion(std::string* error) {
    const char* prepare =
        "BEGIN IMMEDIATE;"
        "ALTER TABLE devices ADD COLUMN key_id INTEGER;"
        "ALTER TABLE devices ADD COLUMN deleted_through_seq INTEGER NOT NULL DEFAULT 0;"
        "ALTER TABLE devices ADD COLUMN breakpoints INTEGER NOT NULL DEFAULT 0;"
        "DROP INDEX IF EXISTS items_by_seq;"
        "DROP INDEX IF EXISTS items_by_device;"
        "DROP INDEX IF EXISTS items_by_revision;"
        "DROP INDEX IF EXISTS item_parts_by_item;"
        "ALTER TABLE items RENAME TO items_v1;"
        "ALTER TABLE item_parts RENAME TO item_parts_v1;";
    if (!exec(prepare, error)) {
        exec("ROLLBACK", nullptr);
        return false;
    }
    auto fail = [&](const std::string& message) {
        if (error) *error = "migrating the database failed: " + message;
        exec("ROLLBACK", nullptr);
        return false;
    };
    if (!exec(internal::kSchema, error)) return fail(error ? *error : "");
    {
        Statement read(db_,
                       "SELECT id, device_id, seq, revision, received_at, updated_at, record, "
                       "(SELECT COUNT(*) FROM item_parts_v1 p WHERE p.item_id = i.id) "
                       "FROM items_v1 i");
        int rc = SQLITE_ROW;
        while ((rc = read.step()) == SQLITE_ROW) {
            const auto record = internal::parseObject(read.text(6));
            Statement write(db_, internal::kInsertItem);
            write.bind(1, read.text(1));
            write.bind(2, read.text(0));
            write.bind(3, read.integer(2));
            write.bind(4, read.real(4));
            write.bind(5, read.integer(7));
            write.bind(6, read.text(6));
            internal::bindSummary(write, 7, summarize(record));
            if (!write.done()) return fail(write.error());
            Statement times(db_, "UPDATE items SET revision = ?2, updated_at = ?3 WHERE seq = ?1");
            times.bind(1, read.integer(2));
            times.bind(2, read.integer(3));
            times.bind(3, read.real(5));
            if (!times.done()) return fail(times.error());
        }
        if (rc != SQLITE_DONE) return fail(read.error());
    }
    const char* finish =
        "INSERT INTO item_parts(seq, item_seq, received_at, body) "
        "  SELECT p.seq, i.seq, p.received_at, p.body FROM item_parts_v1 p "
        "  JOIN items_v1 i ON i.id = p.item_id;"
        "DROP TABLE items_v1;"
        "DROP TABLE item_parts_v1;"
        "PRAGMA user_version = 2;"
        "COMMIT;";
    if (!exec(finish, error)) return fail(error ? *error : "");
    return true;
}

SQLiteStore::~SQLiteStore() { sqlite3_close(db_); }

bool SQLiteStore::exec(const char* sql, std::string* error) {
    char* message = nullptr;
    if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) != SQLITE_OK) {
        if (error) *error = message ? message : sqlite3_errmsg(db_);
        sqlite3_free(message);
        return false;
    }
    return true;
}

std::optional<std::string> SQLiteStore::check() {
    std::lock_guard lock(mutex_);
    int moved = 0;
    if (sqlite3_file_control(db_, "main", SQLITE_FCNTL_HAS_MOVED, &moved) != SQLITE_OK) {
        return "the database " + file_.string() + " cannot be asked for its file";
    }
    if (moved) {
        return "the database file " + file_.string() +
               " was deleted or replaced while the service was running; what it receives now "
               "is lost at the next start";
    }
    Statement s(db_, "SELECT COUNT(*) FROM devices");
    if (s.step() != SQLITE_ROW) {
        return "the database " + file_.string() + " cannot be read: " + s.error();
    }
    return std::nullopt;
}

// ---- API keys ------------------------------------------------------------------------------

std::optional<ApiKeyRow> SQLiteStore::addKey(const std::string& key, const std::string& name,
                                             double now, std::string* error) {
    std::lock_guard lock(mutex_);
    Statement s(db_, "INSERT INTO api_keys(key, name, created_at) VALUES(?1, ?2, ?3)");
    s.bind(1, key);
    s.bind(2, name);
    s.bind(3, now);
    if (!s.done()) {
        if (error) *error = s.error();
        return std::nullopt;
    }
    return ApiKeyRow{sqlite3_last_insert_rowid(db_), key, name, now, std::nullopt, 0};
}

std::vector<ApiKeyRow> SQLiteStore::keys() {
    std::lock_guard lock(mutex_);
    Statement s(db_,
                std::string("SELECT ") + internal::kKeyColumns + " FROM api_keys k ORDER BY k.id");
    std::vector<ApiKeyRow> rows;
    while (s.step() == SQLITE_ROW) rows.push_back(internal::readKey(s));
    return rows;
}

std::optional<ApiKeyRow> SQLiteStore::findKey(const std::string& key) {
    std::lock_guard lock(mutex_);
    Statement s(
        db_, std::string("SELECT ") + internal::kKeyColumns + " FROM api_keys k WHERE k.key = ?1");
    s.bind(1, key);
    if (s.step() != SQLITE_ROW) return std::nullopt;
    return internal::readKey(s);
}

std::optional<ApiKeyRow> SQLiteStore::revokeKey(std::int64_t id, double now) {
    std::lock_guard lock(mutex_);
    Statement update(db_,
                     "UPDATE api_keys SET revoked_at = COALESCE(revoked_at, ?2) WHERE id = ?1");
    update.bind(1, id);
    update.bind(2, now);
    if (!update.done() || sqlite3_changes(db_) == 0) return std::nullopt;
    Statement s(
        db_, std::string("SELECT ") + internal::kKeyColumns + " FROM api_keys k WHERE k.id = ?1");
    s.bind(1, id);
    if (s.step() != SQLITE_ROW) return std::nullopt;
    return internal::readKey(s);
}

std::vector<std::string> SQLiteStore::devicesOfKey(std::int64_t id) {
    std::lock_guard lock(mutex_);
    Statement s(db_, "SELECT id FROM devices WHERE key_id = ?1");
    s.bind(1, id);
    std::vector<std::string> ids;
    while (s.step() == SQLITE_ROW) ids.push_back(s.text(0));
    return ids;
}

// ---- Devices -------------------------------------------------------------------------------

Claim SQLiteStore::claimLocked(const std::string& id, const Writer& writer,
                               const std::optional<json::object>& info, double now, bool* created,
                               bool* changed, std::string* error) {
    std::optional<std::optional<std::int64_t>> owner;  // outer: the device exists
    {
        Statement s(db_, "SELECT key_id FROM devices WHERE id = ?1");
        s.bind(1, id);
        if (s.step() == SQLITE_ROW) owner = s.optInteger(0);
    }
    if (owner && *owner && **owner != writer.keyId) return Claim::otherKey;
    *created = !owner;
    *changed = !owner || info || !*owner;
    Statement s(
        db_,
        "INSERT INTO devices(id, info, key_kind, key_id, first_seen, last_seen) "
        "VALUES(?1, ?2, ?3, ?4, ?5, ?5) "
        "ON CONFLICT(id) DO UPDATE SET info = CASE WHEN ?6 THEN excluded.info ELSE info END,"
        " key_kind = excluded.key_kind, key_id = excluded.key_id,"
        " last_seen = excluded.last_seen");
    s.bind(1, id);
    s.bind(2, json::serialize(info ? *info : json::object{{"id", id}}));
    s.bind(3, writer.keyKind);
    s.bind(4, writer.keyId);
    s.bind(5, now);
    s.bind(6, info.has_value());
    if (!s.done()) {
        if (error) *error = s.error();
        return Claim::failed;
    }
    return Claim::ok;
}

Claim SQLiteStore::claimDevice(const std::string& id, const Writer& writer,
                               const std::optional<json::object>& info, double now, bool* created,
                               std::string* error) {
    std::lock_guard lock(mutex_);
    bool added = false, changed = false;
    const Claim claim = claimLocked(id, writer, info, now, &added, &changed, error);
    if (created) *created = added;
    if (claim == Claim::ok && changed && listener_) {
        if (auto row = deviceLocked(id)) listener_->deviceStored(*row, added);
    }
    return claim;
}

std::optional<DeviceRow> SQLiteStore::deviceLocked(const std::string& id) {
    Statement s(
        db_, std::string("SELECT ") + internal::kDeviceColumns + " FROM devices d WHERE d.id = ?1");
    s.bind(1, id);
    if (s.step() != SQLITE_ROW) return std::nullopt;
    return internal::readDevice(s);
}

std::vector<DeviceRow> SQLiteStore::devices() {
    std::lock_guard lock(mutex_);
    std::vector<DeviceRow> rows;
    Statement s(db_, std::string("SELECT ") + internal::kDeviceColumns +
                         " FROM devices d ORDER BY d.last_seen DESC, d.id");
    while (s.step() == SQLITE_ROW) rows.push_back(internal::readDevice(s));
    return rows;
}

std::optional<DeviceRow> SQLiteStore::device(const std::string& id) {
    std::lock_guard lock(mutex_);
    return deviceLocked(id);
}

// ---- Counts --------------------------------------------------------------------------------

std::int64_t SQLiteStore::deviceCount() {
    std::lock_guard lock(mutex_);
    return internal::scalar(db_, "SELECT COUNT(*) FROM devices");
}

std::int64_t SQLiteStore::itemCount() {
    std::lock_guard lock(mutex_);
    return internal::scalar(db_,
                            "SELECT COUNT(*) FROM items i JOIN devices d ON d.id = i.device_id "
                            "WHERE i.seq > d.deleted_through_seq");
}

std::int64_t SQLiteStore::latestRevision() {
    std::lock_guard lock(mutex_);
    // The sequence, not the highest row: it never goes back when rows are removed.
    return internal::scalar(db_,
                            "SELECT COALESCE((SELECT seq FROM sqlite_sequence WHERE name = "
                            "'item_parts'), 0)");
}

}  // namespace kestro::devservice
