// The SQLite store's items: writes that join uploads, the filtered lists, deletion and
// retention.
#include <sqlite3.h>

#include <boost/json/serialize.hpp>
#include <variant>

#include "devservice/sqlite_statement.h"
#include "devservice/sqlite_store.h"

namespace kestro::devservice {
namespace internal {
namespace {

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

}  // namespace
}  // namespace internal

using internal::Statement;
namespace json = boost::json;

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

}  // namespace kestro::devservice
