#include "devservice/sqlite_store.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <variant>

namespace kestro::devservice {
namespace internal {
namespace {

namespace json = boost::json;

// One prepared statement, finalised when it goes out of scope.
class Statement {
  public:
    Statement(sqlite3* db, const std::string& sql) : db_(db) {
        if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt_, nullptr) != SQLITE_OK) {
            stmt_ = nullptr;
        }
    }
    ~Statement() { sqlite3_finalize(stmt_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    void bind(int i, const std::string& text) {
        sqlite3_bind_text(stmt_, i, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
    }
    void bind(int i, double value) { sqlite3_bind_double(stmt_, i, value); }
    void bind(int i, std::int64_t value) { sqlite3_bind_int64(stmt_, i, value); }
    void bind(int i, bool value) { sqlite3_bind_int(stmt_, i, value ? 1 : 0); }
    template <typename T>
    void bind(int i, const std::optional<T>& value) {
        if (value) {
            bind(i, *value);
        } else {
            sqlite3_bind_null(stmt_, i);
        }
    }
    // SQLITE_ROW, SQLITE_DONE or an error code.
    int step() { return stmt_ ? sqlite3_step(stmt_) : SQLITE_ERROR; }
    bool done() { return step() == SQLITE_DONE; }
    bool isNull(int col) const { return sqlite3_column_type(stmt_, col) == SQLITE_NULL; }
    std::string text(int col) const {
        const auto* p = sqlite3_column_text(stmt_, col);
        return p ? std::string(reinterpret_cast<const char*>(p),
                               static_cast<std::size_t>(sqlite3_column_bytes(stmt_, col)))
                 : std::string();
    }
    std::optional<std::string> optText(int col) const {
        return isNull(col) ? std::nullopt : std::optional<std::string>(text(col));
    }
    double real(int col) const { return sqlite3_column_double(stmt_, col); }
    std::optional<double> optReal(int col) const {
        return isNull(col) ? std::nullopt : std::optional<double>(real(col));
    }
    std::int64_t integer(int col) const { return sqlite3_column_int64(stmt_, col); }
    std::optional<std::int64_t> optInteger(int col) const {
        return isNull(col) ? std::nullopt : std::optional<std::int64_t>(integer(col));
    }
    std::string error() const { return sqlite3_errmsg(db_); }
    int errorCode() const { return sqlite3_extended_errcode(db_); }

  private:
    sqlite3* db_;
    sqlite3_stmt* stmt_ = nullptr;
};

// Stored JSON was written by this service; a row that no longer parses reads as empty rather
// than failing the whole listing.
json::object parseObject(const std::string& text) {
    boost::system::error_code ec;
    auto v = json::parse(text, ec);
    if (ec || !v.is_object()) return {};
    return std::move(v.as_object());
}

std::string textOf(const json::object& o, const char* key) {
    if (const auto* v = o.if_contains(key); v && v->is_string()) return std::string(v->as_string());
    return {};
}

// The item's columns as readItem() reads them; `i` is the items table.
constexpr const char* kItemColumns =
    "i.device_id, i.id, i.seq, i.revision, i.received_at, i.updated_at, i.parts, i.kind, "
    "i.time, i.level, i.message, i.category, i.method, i.url, i.status, i.waiting, "
    "i.duration_ms, i.mocked, i.name";
constexpr int kRecordColumn = 19;

ItemRow readItem(const Statement& s, bool withRecord) {
    ItemRow row;
    row.deviceId = s.text(0);
    row.id = s.text(1);
    row.seq = s.integer(2);
    row.revision = s.integer(3);
    row.receivedAt = s.real(4);
    row.updatedAt = s.real(5);
    row.uploadCount = s.integer(6);
    auto& m = row.summary;
    m.kind = s.text(7);
    m.time = s.optReal(8);
    m.level = s.optText(9);
    m.message = s.optText(10);
    m.category = s.optText(11);
    m.method = s.optText(12);
    m.url = s.optText(13);
    m.status = s.optInteger(14);
    m.waiting = s.integer(15) != 0;
    m.durationMs = s.optReal(16);
    m.mocked = s.integer(17) != 0;
    m.name = s.optText(18);
    if (withRecord) row.record = parseObject(s.text(kRecordColumn));
    return row;
}

// Binds the summary columns at ?first .. ?first+11 in the order of the INSERT and UPDATE below.
void bindSummary(Statement& s, int first, const ItemSummary& m) {
    s.bind(first, m.kind);
    s.bind(first + 1, m.time);
    s.bind(first + 2, m.level);
    s.bind(first + 3, m.message);
    s.bind(first + 4, m.category);
    s.bind(first + 5, m.method);
    s.bind(first + 6, m.url);
    s.bind(first + 7, m.status);
    s.bind(first + 8, m.waiting);
    s.bind(first + 9, m.durationMs);
    s.bind(first + 10, m.mocked);
    s.bind(first + 11, m.name);
}

constexpr const char* kInsertItem =
    "INSERT INTO items(device_id, id, seq, revision, received_at, updated_at, parts, record, "
    "kind, time, level, message, category, method, url, status, waiting, duration_ms, mocked, "
    "name) VALUES(?1, ?2, ?3, ?3, ?4, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, ?14, ?15, ?16, "
    "?17, ?18)";

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

constexpr const char* kRuleColumns =
    "id, device_id, rule, enabled, created_at, updated_at FROM mock_rules";

RuleRow readRule(const Statement& s) {
    return RuleRow{s.integer(0),      s.text(1), parseObject(s.text(2)),
                   s.integer(3) != 0, s.real(4), s.real(5)};
}

std::int64_t scalar(sqlite3* db, const std::string& sql) {
    Statement s(db, sql);
    return s.step() == SQLITE_ROW ? s.integer(0) : 0;
}

// A WHERE clause built piece by piece, with its values bound in order.
class Where {
  public:
    using Value = std::variant<std::string, std::int64_t>;
    void add(const std::string& condition) { sql_ += " AND " + condition; }
    std::string param(Value v) {
        values_.push_back(std::move(v));
        return "?" + std::to_string(values_.size());
    }
    std::string list(const std::vector<std::string>& texts) {
        std::string out;
        for (const auto& t : texts) out += (out.empty() ? "" : ", ") + param(t);
        return out;
    }
    const std::string& sql() const { return sql_; }
    void bind(Statement& s) const {
        for (std::size_t i = 0; i < values_.size(); ++i) {
            std::visit([&](const auto& v) { s.bind(static_cast<int>(i) + 1, v); }, values_[i]);
        }
    }

  private:
    std::string sql_;
    std::vector<Value> values_;
};

// A LIKE pattern that finds `text` anywhere; SQLite's LIKE ignores ASCII case.
std::string containsPattern(const std::string& text) {
    std::string out = "%";
    for (char c : text) {
        if (c == '%' || c == '_' || c == '\\') out += '\\';
        out += c;
    }
    return out + "%";
}

// The fields of a mock rule the service keeps, in a fixed order; nulls are dropped.
json::object normalRule(const json::object& rule) {
    json::object out;
    for (const char* key : {"url", "mockedUrl", "statusCode", "headers", "body"}) {
        if (const auto* v = rule.if_contains(key); v && !v->is_null()) out[key] = *v;
    }
    return out;
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

// ---- Items ---------------------------------------------------------------------------------

PutItemResult SQLiteStore::putItem(const json::object& body, const Writer& writer, double now,
                                   std::string* error) {
    std::lock_guard lock(mutex_);
    PutItemResult result;
    const std::string id = internal::textOf(body, "id");
    const auto* deviceValue = body.if_contains("device");
    const json::object device =
        deviceValue && deviceValue->is_object() ? deviceValue->as_object() : json::object();
    const std::string deviceId = internal::textOf(device, "id");
    json::object record = body;
    record.erase("device");

    if (!exec("BEGIN IMMEDIATE", error)) {
        result.claim = Claim::failed;
        return result;
    }
    auto fail = [&](const std::string& message) {
        if (error) *error = message;
        exec("ROLLBACK", nullptr);
        result.claim = Claim::failed;
        return result;
    };

    // A device first heard from through an item takes the dictionary the item carries.
    std::optional<json::object> info;
    bool deviceAdded = false, deviceChanged = false;
    {
        Statement s(db_, "SELECT 1 FROM devices WHERE id = ?1");
        s.bind(1, deviceId);
        if (s.step() != SQLITE_ROW) info = device;
    }
    result.claim = claimLocked(deviceId, writer, info, now, &deviceAdded, &deviceChanged, error);
    if (result.claim != Claim::ok) {
        exec("ROLLBACK", nullptr);
        return result;
    }

    std::optional<json::object> stored;
    std::int64_t storedParts = 0;
    {
        Statement s(db_,
                    "SELECT i.record, i.seq, i.parts, i.seq <= d.deleted_through_seq "
                    "FROM items i JOIN devices d ON d.id = i.device_id "
                    "WHERE i.device_id = ?1 AND i.id = ?2");
        s.bind(1, deviceId);
        s.bind(2, id);
        if (s.step() == SQLITE_ROW) {
            if (s.integer(3) != 0) {
                // The item was deleted and its row not yet removed: it starts again.
                const std::int64_t oldSeq = s.integer(1);
                Statement parts(db_, "DELETE FROM item_parts WHERE item_seq = ?1");
                parts.bind(1, oldSeq);
                Statement item(db_, "DELETE FROM items WHERE seq = ?1");
                item.bind(1, oldSeq);
                if (!parts.done() || !item.done()) return fail(item.error());
            } else {
                stored = internal::parseObject(s.text(0));
                result.seq = s.integer(1);
                storedParts = s.integer(2);
            }
        }
    }
    {
        Statement s(db_, "INSERT INTO item_parts(item_seq, received_at, body) VALUES(?1, ?2, ?3)");
        s.bind(1, result.seq);
        s.bind(2, now);
        s.bind(3, json::serialize(body));
        if (!s.done()) return fail(s.error());
        result.revision = sqlite3_last_insert_rowid(db_);
    }
    ItemRow row;
    row.deviceId = deviceId;
    row.id = id;
    row.revision = result.revision;
    row.updatedAt = now;
    if (!stored) {
        result.created = true;
        result.seq = result.revision;
        Statement link(db_, "UPDATE item_parts SET item_seq = ?1 WHERE seq = ?1");
        link.bind(1, result.seq);
        if (!link.done()) return fail(link.error());
        row.summary = summarize(record);
        Statement s(db_, internal::kInsertItem);
        s.bind(1, deviceId);
        s.bind(2, id);
        s.bind(3, result.seq);
        s.bind(4, now);
        s.bind(5, std::int64_t{1});
        s.bind(6, json::serialize(record));
        internal::bindSummary(s, 7, row.summary);
        if (!s.done()) return fail(s.error());
        row.receivedAt = now;
        row.uploadCount = 1;
    } else {
        const auto joined = joinRecords(*stored, record);
        row.summary = summarize(joined);
        Statement s(db_,
                    "UPDATE items SET revision = ?2, updated_at = ?3, parts = parts + 1, "
                    "record = ?4, kind = ?5, time = ?6, level = ?7, message = ?8, category = ?9, "
                    "method = ?10, url = ?11, status = ?12, waiting = ?13, duration_ms = ?14, "
                    "mocked = ?15, name = ?16 WHERE seq = ?1 RETURNING received_at");
        s.bind(1, result.seq);
        s.bind(2, result.revision);
        s.bind(3, now);
        s.bind(4, json::serialize(joined));
        internal::bindSummary(s, 5, row.summary);
        if (s.step() != SQLITE_ROW) return fail(s.error());
        row.receivedAt = s.real(0);
        row.uploadCount = storedParts + 1;
    }
    row.seq = result.seq;
    if (!exec("COMMIT", error)) {
        exec("ROLLBACK", nullptr);
        result.claim = Claim::failed;
        return result;
    }
    if (listener_) {
        if (deviceChanged) {
            if (auto d = deviceLocked(deviceId)) listener_->deviceStored(*d, deviceAdded);
        }
        listener_->itemStored(row, result.created);
    }
    return result;
}

std::vector<ItemRow> SQLiteStore::items(const ItemQuery& query) {
    internal::Where where;
    if (query.deviceId) where.add("i.device_id = " + where.param(*query.deviceId));
    if (!query.kinds.empty()) where.add("i.kind IN (" + where.list(query.kinds) + ")");
    if (!query.levels.empty()) where.add("i.level IN (" + where.list(query.levels) + ")");
    if (!query.methods.empty()) where.add("i.method IN (" + where.list(query.methods) + ")");
    if (!query.statusClasses.empty() || query.waiting) {
        std::string any;
        for (int c : query.statusClasses) {
            any += (any.empty() ? "" : " OR ") + std::string("i.status BETWEEN ") +
                   std::to_string(c * 100) + " AND " + std::to_string(c * 100 + 99);
        }
        if (query.waiting) any += std::string(any.empty() ? "" : " OR ") + "i.waiting = 1";
        where.add("(" + any + ")");
    }
    if (query.text && !query.text->empty()) {
        const std::string p = where.param(internal::containsPattern(*query.text));
        where.add("(i.url LIKE " + p + " ESCAPE '\\' OR i.message LIKE " + p +
                  " ESCAPE '\\' OR i.name LIKE " + p + " ESCAPE '\\' OR i.category LIKE " + p +
                  " ESCAPE '\\')");
    }
    if (query.before) where.add("i.seq < " + where.param(*query.before));
    if (query.since) where.add("i.revision > " + where.param(*query.since));
    const std::string limit = where.param(query.limit);
    std::lock_guard lock(mutex_);
    Statement s(db_, std::string("SELECT ") + internal::kItemColumns +
                         " FROM items i JOIN devices d ON d.id = i.device_id"
                         " WHERE i.seq > d.deleted_through_seq" +
                         where.sql() + " ORDER BY i.seq DESC LIMIT " + limit);
    where.bind(s);
    std::vector<ItemRow> rows;
    while (s.step() == SQLITE_ROW) rows.push_back(internal::readItem(s, false));
    return rows;
}

std::optional<ItemRow> SQLiteStore::item(const std::string& deviceId, const std::string& id) {
    std::lock_guard lock(mutex_);
    Statement s(db_, std::string("SELECT ") + internal::kItemColumns +
                         ", i.record FROM items i JOIN devices d ON d.id = i.device_id"
                         " WHERE i.device_id = ?1 AND i.id = ?2 AND i.seq > d.deleted_through_seq");
    s.bind(1, deviceId);
    s.bind(2, id);
    if (s.step() != SQLITE_ROW) return std::nullopt;
    return internal::readItem(s, true);
}

std::vector<ItemRow> SQLiteStore::itemsWithId(const std::string& id) {
    std::lock_guard lock(mutex_);
    Statement s(db_, std::string("SELECT ") + internal::kItemColumns +
                         ", i.record FROM items i JOIN devices d ON d.id = i.device_id"
                         " WHERE i.id = ?1 AND i.seq > d.deleted_through_seq ORDER BY i.seq DESC");
    s.bind(1, id);
    std::vector<ItemRow> rows;
    while (s.step() == SQLITE_ROW) rows.push_back(internal::readItem(s, true));
    return rows;
}

std::vector<ItemPart> SQLiteStore::parts(const std::string& deviceId, const std::string& id) {
    std::lock_guard lock(mutex_);
    Statement s(db_,
                "SELECT p.seq, p.received_at, p.body FROM item_parts p "
                "JOIN items i ON i.seq = p.item_seq WHERE i.device_id = ?1 AND i.id = ?2 "
                "ORDER BY p.seq");
    s.bind(1, deviceId);
    s.bind(2, id);
    std::vector<ItemPart> rows;
    while (s.step() == SQLITE_ROW) {
        rows.push_back(ItemPart{s.integer(0), s.real(1), internal::parseObject(s.text(2))});
    }
    return rows;
}

std::int64_t SQLiteStore::liveItemCountLocked(const std::string& deviceId) {
    Statement s(db_,
                "SELECT COUNT(*) FROM items i JOIN devices d ON d.id = i.device_id "
                "WHERE i.device_id = ?1 AND i.seq > d.deleted_through_seq");
    s.bind(1, deviceId);
    return s.step() == SQLITE_ROW ? s.integer(0) : 0;
}

std::optional<DeletedItems> SQLiteStore::deleteItems(const std::string& deviceId) {
    std::lock_guard lock(mutex_);
    const auto device = deviceLocked(deviceId);
    if (!device) return std::nullopt;
    DeletedItems deleted;
    deleted.deleted = device->itemCount;
    {
        Statement s(db_, "SELECT MAX(seq) FROM items WHERE device_id = ?1");
        s.bind(1, deviceId);
        const auto latest = s.step() == SQLITE_ROW ? s.optInteger(0) : std::nullopt;
        deleted.throughSeq = std::max(device->deletedThroughSeq, latest.value_or(0));
    }
    Statement s(db_, "UPDATE devices SET deleted_through_seq = ?2 WHERE id = ?1");
    s.bind(1, deviceId);
    s.bind(2, deleted.throughSeq);
    if (!s.done()) return std::nullopt;
    if (listener_) {
        listener_->itemsDeleted(deviceId, deleted.throughSeq, 0, DeletionReason::dashboard);
    }
    return deleted;
}

void SQLiteStore::applyRetention(std::optional<double> cutoff,
                                 std::optional<std::int64_t> maxPerDevice) {
    std::vector<std::string> ids;
    {
        std::lock_guard lock(mutex_);
        Statement s(db_, "SELECT id FROM devices");
        while (s.step() == SQLITE_ROW) ids.push_back(s.text(0));
    }
    // One device at a time, so that uploads wait at most for one device's queries.
    for (const auto& id : ids) {
        std::lock_guard lock(mutex_);
        std::int64_t through = 0;
        std::int64_t current = 0;
        {
            Statement s(db_, "SELECT deleted_through_seq FROM devices WHERE id = ?1");
            s.bind(1, id);
            if (s.step() != SQLITE_ROW) continue;
            current = through = s.integer(0);
        }
        if (cutoff) {
            Statement s(db_,
                        "SELECT MAX(seq) FROM items WHERE device_id = ?1 AND seq > ?2 AND "
                        "received_at < ?3");
            s.bind(1, id);
            s.bind(2, current);
            s.bind(3, *cutoff);
            if (s.step() == SQLITE_ROW) through = std::max(through, s.optInteger(0).value_or(0));
        }
        if (maxPerDevice) {
            Statement s(db_,
                        "SELECT seq FROM items WHERE device_id = ?1 AND seq > ?2 "
                        "ORDER BY seq DESC LIMIT 1 OFFSET ?3");
            s.bind(1, id);
            s.bind(2, current);
            s.bind(3, *maxPerDevice);
            if (s.step() == SQLITE_ROW) through = std::max(through, s.integer(0));
        }
        if (through == current) continue;
        Statement s(db_, "UPDATE devices SET deleted_through_seq = ?2 WHERE id = ?1");
        s.bind(1, id);
        s.bind(2, through);
        if (!s.done()) continue;
        if (listener_) {
            listener_->itemsDeleted(id, through, liveItemCountLocked(id),
                                    DeletionReason::retention);
        }
    }
}

std::int64_t SQLiteStore::purgeDeleted(std::int64_t batch) {
    std::lock_guard lock(mutex_);
    std::string device;
    std::int64_t through = 0;
    {
        // The first device with deleted rows left.
        Statement s(db_,
                    "SELECT d.id, d.deleted_through_seq FROM devices d WHERE EXISTS ("
                    "SELECT 1 FROM items i WHERE i.device_id = d.id AND "
                    "i.seq <= d.deleted_through_seq) LIMIT 1");
        if (s.step() != SQLITE_ROW) return 0;
        device = s.text(0);
        through = s.integer(1);
    }
    if (!exec("BEGIN IMMEDIATE", nullptr)) return 0;
    const std::string chosen =
        "SELECT seq FROM items WHERE device_id = ?1 AND seq <= ?2 ORDER BY seq LIMIT ?3";
    Statement parts(db_, "DELETE FROM item_parts WHERE item_seq IN (" + chosen + ")");
    Statement items(db_, "DELETE FROM items WHERE seq IN (" + chosen + ")");
    for (auto* s : {&parts, &items}) {
        s->bind(1, device);
        s->bind(2, through);
        s->bind(3, batch);
    }
    if (!parts.done() || !items.done()) {
        exec("ROLLBACK", nullptr);
        return 0;
    }
    const std::int64_t removed = sqlite3_changes(db_);
    if (!exec("COMMIT", nullptr)) {
        exec("ROLLBACK", nullptr);
        return 0;
    }
    return removed;
}

// ---- Steering state ------------------------------------------------------------------------

std::vector<RuleRow> SQLiteStore::rulesLocked(const std::string& deviceId) {
    Statement s(
        db_, std::string("SELECT ") + internal::kRuleColumns + " WHERE device_id = ?1 ORDER BY id");
    s.bind(1, deviceId);
    std::vector<RuleRow> rows;
    while (s.step() == SQLITE_ROW) rows.push_back(internal::readRule(s));
    return rows;
}

std::optional<RuleRow> SQLiteStore::ruleLocked(const std::string& deviceId, std::int64_t ruleId) {
    Statement s(
        db_, std::string("SELECT ") + internal::kRuleColumns + " WHERE device_id = ?1 AND id = ?2");
    s.bind(1, deviceId);
    s.bind(2, ruleId);
    if (s.step() != SQLITE_ROW) return std::nullopt;
    return internal::readRule(s);
}

void SQLiteStore::steeringChangedLocked(const std::string& deviceId) {
    if (!listener_) return;
    const auto device = deviceLocked(deviceId);
    listener_->steeringChanged(deviceId, rulesLocked(deviceId), device && device->breakpoints);
}

std::vector<RuleRow> SQLiteStore::rules(const std::string& deviceId) {
    std::lock_guard lock(mutex_);
    return rulesLocked(deviceId);
}

RuleChange SQLiteStore::createRule(const std::string& deviceId, const json::object& rule,
                                   double now) {
    std::lock_guard lock(mutex_);
    RuleChange change;
    const json::object normal = internal::normalRule(rule);
    Statement s(db_,
                "INSERT INTO mock_rules(device_id, url, rule, enabled, created_at, updated_at) "
                "VALUES(?1, ?2, ?3, 0, ?4, ?4)");
    s.bind(1, deviceId);
    s.bind(2, internal::textOf(normal, "url"));
    s.bind(3, json::serialize(normal));
    s.bind(4, now);
    if (!s.done()) {
        change.outcome = s.errorCode() == SQLITE_CONSTRAINT_UNIQUE ? RuleChange::Outcome::conflict
                                                                   : RuleChange::Outcome::failed;
        return change;
    }
    change.row = *ruleLocked(deviceId, sqlite3_last_insert_rowid(db_));
    steeringChangedLocked(deviceId);
    return change;
}

RuleChange SQLiteStore::updateRule(const std::string& deviceId, std::int64_t ruleId,
                                   const json::object& rule, double now) {
    std::lock_guard lock(mutex_);
    RuleChange change;
    const auto previous = ruleLocked(deviceId, ruleId);
    if (!previous) {
        change.outcome = RuleChange::Outcome::notFound;
        return change;
    }
    change.previous = *previous;
    const json::object normal = internal::normalRule(rule);
    Statement s(db_,
                "UPDATE mock_rules SET url = ?3, rule = ?4, updated_at = ?5 "
                "WHERE device_id = ?1 AND id = ?2");
    s.bind(1, deviceId);
    s.bind(2, ruleId);
    s.bind(3, internal::textOf(normal, "url"));
    s.bind(4, json::serialize(normal));
    s.bind(5, now);
    if (!s.done()) {
        change.outcome = s.errorCode() == SQLITE_CONSTRAINT_UNIQUE ? RuleChange::Outcome::conflict
                                                                   : RuleChange::Outcome::failed;
        return change;
    }
    change.row = *ruleLocked(deviceId, ruleId);
    steeringChangedLocked(deviceId);
    return change;
}

RuleChange SQLiteStore::setRuleEnabled(const std::string& deviceId, std::int64_t ruleId,
                                       bool enabled, double now) {
    std::lock_guard lock(mutex_);
    RuleChange change;
    Statement s(db_,
                "UPDATE mock_rules SET enabled = ?3, updated_at = ?4 "
                "WHERE device_id = ?1 AND id = ?2");
    s.bind(1, deviceId);
    s.bind(2, ruleId);
    s.bind(3, enabled);
    s.bind(4, now);
    if (!s.done()) {
        change.outcome = RuleChange::Outcome::failed;
        return change;
    }
    const auto row = ruleLocked(deviceId, ruleId);
    if (!row) {
        change.outcome = RuleChange::Outcome::notFound;
        return change;
    }
    change.row = *row;
    steeringChangedLocked(deviceId);
    return change;
}

RuleChange SQLiteStore::setRuleEnabledByUrl(const std::string& deviceId, const json::object& rule,
                                            bool enabled, double now) {
    std::lock_guard lock(mutex_);
    RuleChange change;
    const json::object normal = internal::normalRule(rule);
    const std::string url = internal::textOf(normal, "url");
    if (enabled) {
        Statement s(db_,
                    "INSERT INTO mock_rules(device_id, url, rule, enabled, created_at, updated_at) "
                    "VALUES(?1, ?2, ?3, 1, ?4, ?4) ON CONFLICT(device_id, url) DO UPDATE SET "
                    "rule = excluded.rule, enabled = 1, updated_at = excluded.updated_at");
        s.bind(1, deviceId);
        s.bind(2, url);
        s.bind(3, json::serialize(normal));
        s.bind(4, now);
        if (!s.done()) {
            change.outcome = RuleChange::Outcome::failed;
            return change;
        }
    } else {
        Statement s(db_,
                    "UPDATE mock_rules SET enabled = 0, updated_at = ?3 "
                    "WHERE device_id = ?1 AND url = ?2");
        s.bind(1, deviceId);
        s.bind(2, url);
        s.bind(3, now);
        if (!s.done() || sqlite3_changes(db_) == 0) {
            change.outcome = RuleChange::Outcome::notFound;
            return change;
        }
    }
    Statement s(db_, std::string("SELECT ") + internal::kRuleColumns +
                         " WHERE device_id = ?1 AND url = ?2");
    s.bind(1, deviceId);
    s.bind(2, url);
    if (s.step() == SQLITE_ROW) change.row = internal::readRule(s);
    steeringChangedLocked(deviceId);
    return change;
}

RuleChange SQLiteStore::deleteRule(const std::string& deviceId, std::int64_t ruleId) {
    std::lock_guard lock(mutex_);
    RuleChange change;
    const auto row = ruleLocked(deviceId, ruleId);
    if (!row) {
        change.outcome = RuleChange::Outcome::notFound;
        return change;
    }
    change.row = *row;
    Statement s(db_, "DELETE FROM mock_rules WHERE device_id = ?1 AND id = ?2");
    s.bind(1, deviceId);
    s.bind(2, ruleId);
    if (!s.done()) {
        change.outcome = RuleChange::Outcome::failed;
        return change;
    }
    steeringChangedLocked(deviceId);
    return change;
}

bool SQLiteStore::setBreakpoints(const std::string& deviceId, bool enabled) {
    std::lock_guard lock(mutex_);
    Statement s(db_, "UPDATE devices SET breakpoints = ?2 WHERE id = ?1");
    s.bind(1, deviceId);
    s.bind(2, enabled);
    if (!s.done() || sqlite3_changes(db_) == 0) return false;
    steeringChangedLocked(deviceId);
    return true;
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
