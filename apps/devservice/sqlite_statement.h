#pragma once

// What the files of the SQLite store share: statements, stored JSON, and the item columns that
// both the writes and the migration use. Internal to the store.

#include <sqlite3.h>

#include <boost/json/object.hpp>
#include <boost/json/parse.hpp>
#include <cstdint>
#include <optional>
#include <string>

#include "devservice/store.h"

namespace kestro::devservice::internal {

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
inline json::object parseObject(const std::string& text) {
    boost::system::error_code ec;
    auto v = json::parse(text, ec);
    if (ec || !v.is_object()) return {};
    return std::move(v.as_object());
}

inline std::string textOf(const json::object& o, const char* key) {
    if (const auto* v = o.if_contains(key); v && v->is_string()) return std::string(v->as_string());
    return {};
}

// The item's columns as readItem() reads them; `i` is the items table.
constexpr const char* kItemColumns =
    "i.device_id, i.id, i.seq, i.revision, i.received_at, i.updated_at, i.parts, i.kind, "
    "i.time, i.level, i.message, i.category, i.method, i.url, i.status, i.waiting, "
    "i.duration_ms, i.mocked, i.name";
constexpr int kRecordColumn = 19;

inline ItemRow readItem(const Statement& s, bool withRecord) {
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
inline void bindSummary(Statement& s, int first, const ItemSummary& m) {
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

inline std::int64_t scalar(sqlite3* db, const std::string& sql) {
    Statement s(db, sql);
    return s.step() == SQLITE_ROW ? s.integer(0) : 0;
}

}  // namespace kestro::devservice::internal
