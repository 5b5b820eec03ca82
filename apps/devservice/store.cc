#include "devservice/store.h"

#include <sqlite3.h>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

namespace kestro::devservice {
namespace internal {
namespace {

// One prepared statement, finalised when it goes out of scope.
class Statement {
  public:
    Statement(sqlite3* db, const char* sql) : db_(db) {
        if (sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr) != SQLITE_OK) stmt_ = nullptr;
    }
    ~Statement() { sqlite3_finalize(stmt_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    bool ok() const { return stmt_ != nullptr; }
    void bind(int i, const std::string& text) {
        sqlite3_bind_text(stmt_, i, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
    }
    void bind(int i, double value) { sqlite3_bind_double(stmt_, i, value); }
    void bind(int i, std::int64_t value) { sqlite3_bind_int64(stmt_, i, value); }
    // SQLITE_ROW, SQLITE_DONE or an error code.
    int step() { return stmt_ ? sqlite3_step(stmt_) : SQLITE_ERROR; }
    std::string text(int col) const {
        const auto* p = sqlite3_column_text(stmt_, col);
        return p ? std::string(reinterpret_cast<const char*>(p),
                               static_cast<std::size_t>(sqlite3_column_bytes(stmt_, col)))
                 : std::string();
    }
    double real(int col) const { return sqlite3_column_double(stmt_, col); }
    std::int64_t integer(int col) const { return sqlite3_column_int64(stmt_, col); }
    std::string error() const { return sqlite3_errmsg(db_); }

  private:
    sqlite3* db_;
    sqlite3_stmt* stmt_ = nullptr;
};

// Stored JSON was written by this service; a row that no longer parses reads as empty rather
// than failing the whole listing.
boost::json::object parseObject(const std::string& text) {
    boost::system::error_code ec;
    auto v = boost::json::parse(text, ec);
    if (ec || !v.is_object()) return {};
    return std::move(v.as_object());
}

std::string textOf(const boost::json::object& o, const char* key) {
    if (const auto* v = o.if_contains(key); v && v->is_string()) return std::string(v->as_string());
    return {};
}

ItemRow readItem(const Statement& s) {
    ItemRow row;
    row.id = s.text(0);
    row.eventType = s.text(1);
    row.deviceId = s.text(2);
    row.seq = s.integer(3);
    row.revision = s.integer(4);
    row.receivedAt = s.real(5);
    row.updatedAt = s.real(6);
    row.record = parseObject(s.text(7));
    row.parts = s.integer(8);
    return row;
}

constexpr const char* kItemColumns =
    "i.id, i.event_type, i.device_id, i.seq, i.revision, i.received_at, i.updated_at, i.record, "
    "(SELECT COUNT(*) FROM item_parts p WHERE p.item_id = i.id)";

}  // namespace
}  // namespace internal

using internal::Statement;

boost::json::object joinRecords(const boost::json::object& stored,
                                const boost::json::object& incoming) {
    const auto* storedType = stored.if_contains("eventType");
    const auto* incomingType = incoming.if_contains("eventType");
    const bool bothNetwork = storedType && incomingType && *storedType == *incomingType &&
                             *storedType == "networkRequest";
    if (!bothNetwork) return incoming;

    // The exchange's first upload fixes the record; later uploads bring the halves they carry
    // (the response half, normally), which replace a half of the same name.
    boost::json::object joined = stored;
    const auto* inDetails = incoming.if_contains("details");
    if (!inDetails || !inDetails->is_object()) return joined;
    auto* outDetails = joined.if_contains("details");
    if (!outDetails || !outDetails->is_object()) {
        joined["details"] = boost::json::object();
        outDetails = joined.if_contains("details");
    }
    for (const char* half : {"request", "response"}) {
        if (const auto* h = inDetails->as_object().if_contains(half); h && h->is_object()) {
            outDetails->as_object()[half] = *h;
        }
    }
    return joined;
}

std::unique_ptr<DevStore> DevStore::open(const std::filesystem::path& file, std::string* error) {
    std::error_code ec;
    std::filesystem::create_directories(file.parent_path(), ec);
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
        SQLITE_OK) {
        if (error) *error = db ? sqlite3_errmsg(db) : "out of memory";
        sqlite3_close(db);
        return nullptr;
    }
    sqlite3_busy_timeout(db, 5000);
    std::unique_ptr<DevStore> store(new DevStore(db, file));
    const char* schema =
        "PRAGMA journal_mode=WAL;"
        "PRAGMA synchronous=NORMAL;"
        "CREATE TABLE IF NOT EXISTS devices("
        "  id TEXT PRIMARY KEY, info TEXT NOT NULL, key_kind TEXT NOT NULL,"
        "  first_seen REAL NOT NULL, last_seen REAL NOT NULL);"
        "CREATE TABLE IF NOT EXISTS items("
        "  id TEXT PRIMARY KEY, event_type TEXT NOT NULL, device_id TEXT NOT NULL,"
        "  seq INTEGER NOT NULL, revision INTEGER NOT NULL,"
        "  received_at REAL NOT NULL, updated_at REAL NOT NULL, record TEXT NOT NULL);"
        "CREATE INDEX IF NOT EXISTS items_by_seq ON items(seq);"
        "CREATE INDEX IF NOT EXISTS items_by_device ON items(device_id, seq);"
        "CREATE INDEX IF NOT EXISTS items_by_revision ON items(revision);"
        "CREATE TABLE IF NOT EXISTS item_parts("
        "  seq INTEGER PRIMARY KEY AUTOINCREMENT, item_id TEXT NOT NULL,"
        "  received_at REAL NOT NULL, body TEXT NOT NULL);"
        "CREATE INDEX IF NOT EXISTS item_parts_by_item ON item_parts(item_id, seq);";
    if (!store->exec(schema, error)) return nullptr;
    return store;
}

DevStore::~DevStore() { sqlite3_close(db_); }

bool DevStore::exec(const char* sql, std::string* error) {
    char* message = nullptr;
    if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) != SQLITE_OK) {
        if (error) *error = message ? message : sqlite3_errmsg(db_);
        sqlite3_free(message);
        return false;
    }
    return true;
}

bool DevStore::upsertDevice(const boost::json::object& info, const std::string& keyKind, double now,
                            bool* created, std::string* error) {
    std::lock_guard lock(mutex_);
    const std::string id = internal::textOf(info, "id");
    {
        Statement s(db_, "SELECT 1 FROM devices WHERE id = ?1");
        s.bind(1, id);
        if (created) *created = s.step() != SQLITE_ROW;
    }
    Statement s(db_,
                "INSERT INTO devices(id, info, key_kind, first_seen, last_seen) "
                "VALUES(?1, ?2, ?3, ?4, ?4) "
                "ON CONFLICT(id) DO UPDATE SET info = excluded.info, "
                "key_kind = excluded.key_kind, last_seen = excluded.last_seen");
    s.bind(1, id);
    s.bind(2, boost::json::serialize(info));
    s.bind(3, keyKind);
    s.bind(4, now);
    if (s.step() != SQLITE_DONE) {
        if (error) *error = s.error();
        return false;
    }
    return true;
}

bool DevStore::touchDevice(const std::string& id, const std::string& keyKind, double now) {
    std::lock_guard lock(mutex_);
    Statement s(db_,
                "INSERT INTO devices(id, info, key_kind, first_seen, last_seen) "
                "VALUES(?1, ?2, ?3, ?4, ?4) "
                "ON CONFLICT(id) DO UPDATE SET key_kind = excluded.key_kind, "
                "last_seen = excluded.last_seen");
    s.bind(1, id);
    s.bind(2, boost::json::serialize(boost::json::object{{"id", id}}));
    s.bind(3, keyKind);
    s.bind(4, now);
    return s.step() == SQLITE_DONE;
}

namespace {
constexpr const char* kDeviceSelect =
    "SELECT d.id, d.info, d.key_kind, d.first_seen, d.last_seen, "
    "(SELECT COUNT(*) FROM items i WHERE i.device_id = d.id) FROM devices d";

DeviceRow readDevice(const Statement& s) {
    return DeviceRow{s.text(0),   internal::parseObject(s.text(1)), s.text(2), s.real(3), s.real(4),
                     s.integer(5)};
}
}  // namespace

std::vector<DeviceRow> DevStore::devices() {
    std::lock_guard lock(mutex_);
    std::vector<DeviceRow> rows;
    Statement s(db_, (std::string(kDeviceSelect) + " ORDER BY d.last_seen DESC, d.id").c_str());
    while (s.step() == SQLITE_ROW) rows.push_back(readDevice(s));
    return rows;
}

std::optional<DeviceRow> DevStore::device(const std::string& id) {
    std::lock_guard lock(mutex_);
    Statement s(db_, (std::string(kDeviceSelect) + " WHERE d.id = ?1").c_str());
    s.bind(1, id);
    if (s.step() != SQLITE_ROW) return std::nullopt;
    return readDevice(s);
}

std::optional<PutItemResult> DevStore::putItem(const boost::json::object& body, double now,
                                               std::string* error) {
    std::lock_guard lock(mutex_);
    const std::string id = internal::textOf(body, "id");
    const auto* deviceValue = body.if_contains("device");
    const boost::json::object device =
        deviceValue && deviceValue->is_object() ? deviceValue->as_object() : boost::json::object();
    const std::string deviceId = internal::textOf(device, "id");
    boost::json::object record = body;
    record.erase("device");

    if (!exec("BEGIN IMMEDIATE", error)) return std::nullopt;
    auto fail = [&](const Statement& s) -> std::optional<PutItemResult> {
        if (error) *error = s.error();
        exec("ROLLBACK", nullptr);
        return std::nullopt;
    };

    PutItemResult result;
    {
        Statement s(db_, "INSERT INTO item_parts(item_id, received_at, body) VALUES(?1, ?2, ?3)");
        s.bind(1, id);
        s.bind(2, now);
        s.bind(3, boost::json::serialize(body));
        if (s.step() != SQLITE_DONE) return fail(s);
        result.revision = sqlite3_last_insert_rowid(db_);
    }
    std::optional<boost::json::object> stored;
    {
        Statement s(db_, "SELECT record, seq FROM items WHERE id = ?1");
        s.bind(1, id);
        if (s.step() == SQLITE_ROW) {
            stored = internal::parseObject(s.text(0));
            result.seq = s.integer(1);
        }
    }
    if (!stored) {
        result.created = true;
        result.seq = result.revision;
        Statement s(db_,
                    "INSERT INTO items(id, event_type, device_id, seq, revision, received_at, "
                    "updated_at, record) VALUES(?1, ?2, ?3, ?4, ?4, ?5, ?5, ?6)");
        s.bind(1, id);
        s.bind(2, internal::textOf(record, "eventType"));
        s.bind(3, deviceId);
        s.bind(4, result.seq);
        s.bind(5, now);
        s.bind(6, boost::json::serialize(record));
        if (s.step() != SQLITE_DONE) return fail(s);
    } else {
        const auto joined = joinRecords(*stored, record);
        Statement s(db_,
                    "UPDATE items SET event_type = ?2, device_id = ?3, revision = ?4, "
                    "updated_at = ?5, record = ?6 WHERE id = ?1");
        s.bind(1, id);
        s.bind(2, internal::textOf(joined, "eventType"));
        s.bind(3, deviceId);
        s.bind(4, result.revision);
        s.bind(5, now);
        s.bind(6, boost::json::serialize(joined));
        if (s.step() != SQLITE_DONE) return fail(s);
    }
    // An item names the device that sent it; a device that never registered still appears.
    if (!deviceId.empty()) {
        Statement s(db_,
                    "INSERT INTO devices(id, info, key_kind, first_seen, last_seen) "
                    "VALUES(?1, ?2, '', ?3, ?3) "
                    "ON CONFLICT(id) DO UPDATE SET last_seen = excluded.last_seen");
        s.bind(1, deviceId);
        s.bind(2, boost::json::serialize(device));
        s.bind(3, now);
        if (s.step() != SQLITE_DONE) return fail(s);
    }
    if (!exec("COMMIT", error)) {
        exec("ROLLBACK", nullptr);
        return std::nullopt;
    }
    return result;
}

std::vector<ItemRow> DevStore::items(const ItemQuery& query) {
    std::lock_guard lock(mutex_);
    std::string sql = std::string("SELECT ") + internal::kItemColumns + " FROM items i WHERE 1";
    if (query.deviceId) sql += " AND i.device_id = ?1";
    if (query.before) sql += " AND i.seq < ?2";
    if (query.since) sql += " AND i.revision > ?3";
    sql += " ORDER BY i.seq DESC LIMIT ?4";
    Statement s(db_, sql.c_str());
    if (query.deviceId) s.bind(1, *query.deviceId);
    if (query.before) s.bind(2, *query.before);
    if (query.since) s.bind(3, *query.since);
    s.bind(4, query.limit);
    std::vector<ItemRow> rows;
    while (s.step() == SQLITE_ROW) rows.push_back(internal::readItem(s));
    return rows;
}

std::optional<ItemRow> DevStore::item(const std::string& id) {
    std::lock_guard lock(mutex_);
    Statement s(db_,
                (std::string("SELECT ") + internal::kItemColumns + " FROM items i WHERE i.id = ?1")
                    .c_str());
    s.bind(1, id);
    if (s.step() != SQLITE_ROW) return std::nullopt;
    return internal::readItem(s);
}

std::vector<ItemPart> DevStore::parts(const std::string& itemId) {
    std::lock_guard lock(mutex_);
    Statement s(db_,
                "SELECT seq, received_at, body FROM item_parts WHERE item_id = ?1 ORDER BY seq");
    s.bind(1, itemId);
    std::vector<ItemPart> rows;
    while (s.step() == SQLITE_ROW) {
        rows.push_back(ItemPart{s.integer(0), s.real(1), internal::parseObject(s.text(2))});
    }
    return rows;
}

namespace {
std::int64_t scalar(sqlite3* db, const char* sql) {
    Statement s(db, sql);
    return s.step() == SQLITE_ROW ? s.integer(0) : 0;
}
}  // namespace

std::optional<std::string> DevStore::check() {
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
    if (s.step() != SQLITE_ROW)
        return "the database " + file_.string() + " cannot be read: " + s.error();
    return std::nullopt;
}

std::int64_t DevStore::deviceCount() {
    std::lock_guard lock(mutex_);
    return scalar(db_, "SELECT COUNT(*) FROM devices");
}

std::int64_t DevStore::itemCount() {
    std::lock_guard lock(mutex_);
    return scalar(db_, "SELECT COUNT(*) FROM items");
}

std::int64_t DevStore::latestRevision() {
    std::lock_guard lock(mutex_);
    return scalar(db_, "SELECT COALESCE(MAX(seq), 0) FROM item_parts");
}

}  // namespace kestro::devservice
