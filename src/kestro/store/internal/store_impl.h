#pragma once

// Internal to the store: the state behind RequestStoreSQLite, shared by its operations
// (request_store_sqlite.cc) and its retention (request_store_trim.cc).

#include <fmt/format.h>
#include <sqlite3.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <exception>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "kestro/core/console.h"
#include "kestro/store/request_store_sqlite.h"
#include "kestro/store/serial_queue.h"

namespace kestro::store::internal {

inline constexpr const char* kCreateTable =
    "CREATE TABLE IF NOT EXISTS requests (\n    id TEXT PRIMARY KEY,\n    type TEXT,\n    level "
    "TEXT,\n    details TEXT,\n    createdAt REAL,\n    sentAt REAL\n);";
inline constexpr const char* kInsert =
    "INSERT OR REPLACE INTO requests (id, type, level, details, createdAt, sentAt)\nVALUES (?, ?, "
    "?, ?, ?, ?);";
inline constexpr const char* kSelectAll =
    "SELECT id, type, level, details, createdAt, sentAt FROM requests ORDER BY createdAt DESC";
inline constexpr const char* kSelectById =
    "SELECT id, type, level, details, createdAt, sentAt FROM requests WHERE id = ? LIMIT 1";
inline constexpr const char* kSelectUnordered =
    "SELECT id, type, level, details, createdAt, sentAt FROM requests";
inline constexpr const char* kDeleteById = "DELETE FROM requests WHERE id = ?";
inline constexpr const char* kDeleteAll = "DELETE FROM requests";
inline constexpr const char* kCount = "SELECT count(*) FROM requests";
// Trims take rows in the order they were stored (rowid: a row replaced by INSERT OR REPLACE
// gets a new one, as its item moves to the front of the list). The table's own order, so no
// index is kept for it: a createdAt index cost an add about 15% more instructions.
inline constexpr const char* kOldest = "SELECT createdAt FROM requests ORDER BY rowid ASC LIMIT 1";
inline constexpr const char* kSelectOldest =
    "SELECT id, createdAt FROM requests ORDER BY rowid ASC LIMIT ?";

inline bool isCorruption(int rc) {
    const int primary = rc & 0xff;
    return primary == SQLITE_NOTADB || primary == SQLITE_CORRUPT;
}

inline bool verboseShown() { return consoleAllows(consoleLevel(), LogLevel::verbose); }

// A prepared statement, finalized when it goes out of scope whatever path is taken.
class Statement {
  public:
    Statement(sqlite3* db, const char* sql) {
        rc_ = db == nullptr ? SQLITE_MISUSE : sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr);
    }
    ~Statement() { sqlite3_finalize(stmt_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    bool prepared() const { return rc_ == SQLITE_OK && stmt_ != nullptr; }
    sqlite3_stmt* get() const { return stmt_; }
    void bindText(int index, std::string_view text) {
        // A null pointer would bind NULL; an empty text must stay a text.
        sqlite3_bind_text64(stmt_, index, text.data() != nullptr ? text.data() : "", text.size(),
                            SQLITE_TRANSIENT, SQLITE_UTF8);
    }
    void bindDouble(int index, double value) { sqlite3_bind_double(stmt_, index, value); }
    int step() { return sqlite3_step(stmt_); }

  private:
    sqlite3_stmt* stmt_ = nullptr;
    int rc_ = SQLITE_OK;
};

inline std::string_view columnText(sqlite3_stmt* stmt, int column, bool& isNull) {
    const auto* text = sqlite3_column_text(stmt, column);
    if (text == nullptr) {
        isNull = true;
        return {};
    }
    return {reinterpret_cast<const char*>(text),
            static_cast<std::size_t>(sqlite3_column_bytes(stmt, column))};
}

}  // namespace kestro::store::internal

namespace kestro {

// Everything but the constructor, `run` and the fields reached through `trimControl` runs on
// `dbQueue`.
struct RequestStoreSQLite::Impl {
    // What a scheduled trim batch reaches the store through. The store's destructor clears
    // `impl` under the mutex, which a batch holds while it runs, so a batch never outlives the
    // store.
    struct TrimControl {
        std::mutex mutex;
        Impl* impl = nullptr;
    };

    Impl(std::filesystem::path path, std::uint64_t maxBytes)
        : databasePath(std::move(path)), maxDatabaseBytes(maxBytes) {
        trimControl->impl = this;
    }

    const std::filesystem::path databasePath;
    const std::uint64_t maxDatabaseBytes;
    store::internal::SerialQueue dbQueue{kQueueLabel};
    sqlite3* db = nullptr;

    // The published list; guarded so that readers never wait for the queue.
    mutable std::mutex requestsMutex;
    RequestList requests;

    // Queue only.
    store::internal::RequestListEditor editor;
    std::shared_ptr<store::internal::RequestsObservers> observers =
        std::make_shared<store::internal::RequestsObservers>();
    using ListChange = std::function<std::optional<RequestsChange>()>;
    bool announcing = false;
    std::optional<RequestList> coming;  // the list being announced
    std::deque<ListChange> deferred;
    // Set by a trim's change while it is being applied: the ids it removes.
    std::shared_ptr<const std::unordered_set<std::string>> removingIds;

    // Retention (queue only, except `trimScheduled`, read by trimPending()).
    StoreRetention limits = StoreRetention::unlimited();
    std::shared_ptr<TrimControl> trimControl = std::make_shared<TrimControl>();
    std::atomic<bool> trimScheduled{false};
    // What an add compares with the limits without asking the database: the row count (exact
    // after each trim, high by one after an add that replaced a row, which only costs a trim
    // that finds nothing to do) and the createdAt of the row stored first.
    std::int64_t approxCount = 0;
    double oldestCreatedAt = std::numeric_limits<double>::infinity();
    std::uint64_t lastDiskBytes = 0;
    std::uint32_t addsSinceStat = 0;

    // --- running on the queue ---------------------------------------------------------------

    template <typename F>
    auto run(const char* operation, F&& work) -> decltype(work()) {
        return dbQueue.sync([&]() noexcept -> decltype(work()) {
            try {
                return work();
            } catch (const std::exception& e) {
                printI(fmt::format("❌ {} failed: {}", operation, e.what()), LogLevel::error);
            } catch (...) {
                printI(fmt::format("❌ {} failed", operation), LogLevel::error);
            }
            return decltype(work())();
        });
    }

    void changeList(ListChange change);
    void apply(const ListChange& make);
    std::string errorText() const;

    // --- start-up (request_store_sqlite.cc) -------------------------------------------------

    enum class Opened { ok, failed, corrupt };

    int exec(const char* sql);
    std::string pragmaText(const char* sql, int& rc);
    Opened open();
    void start();
    void recover(const std::vector<RequestEventType>& readable);
    static std::optional<std::string> encodeRow(const RequestEventType& item);
    static void bindRow(store::internal::Statement& s, const RequestEventType& item,
                        std::string_view text);

    // --- workers (request_store_sqlite.cc) --------------------------------------------------

    void _add(RequestEventType item);
    std::vector<RequestEventType> _getAll(int* stepResult);
    std::optional<RequestEventType> _getById(const std::string& id);
    void _delete(const std::string& id);
    void _deleteAll();
    void _debugPrintAllRows();

    // --- retention (request_store_trim.cc) --------------------------------------------------

    static constexpr std::uint32_t kAddsPerStat = 16;  // see mayNeedTrim()

    Opened setUpRetention();
    std::uint64_t diskBytes() const;
    std::int64_t scalar(const char* sql, std::int64_t fallback = 0);
    void reclaimSpace();
    void refreshOldest();
    bool mayNeedTrim(bool measureBytes);
    void scheduleTrim();
    void maybeScheduleTrim(bool measureBytes = true);
    bool _trimBatch();
};

}  // namespace kestro
