#include <fmt/format.h>
#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <mutex>
#include <string>
#include <system_error>
#include <unordered_set>
#include <vector>

#include "kestro/core/console.h"
#include "kestro/core/executor.h"
#include "kestro/store/internal/store_impl.h"
#include "kestro/store/request_store_sqlite.h"
#include "kestro/store/store_trim.h"

// The store's retention: applying the limits to the file at open, deciding after each add
// whether a trim may be due, and trimming in batches on the store's queue.

namespace kestro {

using store::internal::columnText;
using store::internal::isCorruption;
using store::internal::kCount;
using store::internal::kDeleteById;
using store::internal::kOldest;
using store::internal::kSelectOldest;
using store::internal::Statement;
using store::internal::verboseShown;

// Applies the byte limit the store was made with and sets the file up to give deleted space
// back. Gives Opened::corrupt when the file turns out not to be a database.
RequestStoreSQLite::Impl::Opened RequestStoreSQLite::Impl::setUpRetention() {
    if (maxDatabaseBytes > 0) {
        int src = SQLITE_OK;
        const std::string pageSize = pragmaText("PRAGMA page_size", src);
        const std::uint64_t page =
            std::max<std::uint64_t>(1, std::strtoull(pageSize.c_str(), nullptr, 10));
        const std::uint64_t pages = std::max<std::uint64_t>(1, maxDatabaseBytes / page);
        exec(fmt::format("PRAGMA max_page_count={}", pages).c_str());
    }

    // Deleted rows must give their pages back to the file system, or the byte limit could
    // never be kept: incremental auto-vacuum lets a trim return free pages in steps. A file
    // made without it is rebuilt once with it (VACUUM copies every live row).
    int vrc = SQLITE_OK;
    if (pragmaText("PRAGMA auto_vacuum", vrc) != "2" && vrc == SQLITE_OK) {
        exec("PRAGMA auto_vacuum=INCREMENTAL");
        if (const int rc = exec("VACUUM"); rc != SQLITE_OK) {
            if (isCorruption(rc)) return Opened::corrupt;
            printI("⚠️ The database could not be set up to give deleted space back: " +
                       errorText(),
                   LogLevel::warning);
        }
    }

    return Opened::ok;
}

std::uint64_t RequestStoreSQLite::Impl::diskBytes() const {
    std::error_code ec;
    std::uint64_t bytes = 0;
    for (const char* suffix : {"", "-wal"}) {
        const auto size = std::filesystem::file_size(databasePath.string() + suffix, ec);
        if (!ec) bytes += size;
    }
    return bytes;
}

std::int64_t RequestStoreSQLite::Impl::scalar(const char* sql, std::int64_t fallback) {
    Statement s(db, sql);
    if (!s.prepared() || s.step() != SQLITE_ROW) return fallback;
    return sqlite3_column_int64(s.get(), 0);
}

// Returns free pages to the file system and folds the write-ahead log into the database,
// truncating it, so that the bytes on disk are those the rows need.
void RequestStoreSQLite::Impl::reclaimSpace() {
    exec("PRAGMA incremental_vacuum");
    exec("PRAGMA wal_checkpoint(TRUNCATE)");
}

void RequestStoreSQLite::Impl::refreshOldest() {
    Statement s(db, kOldest);
    oldestCreatedAt =
        s.prepared() && s.step() == SQLITE_ROW && sqlite3_column_type(s.get(), 0) != SQLITE_NULL
            ? sqlite3_column_double(s.get(), 0)
            : std::numeric_limits<double>::infinity();
}

// Whether the store may be past a limit: cheap enough to ask after every add. The bytes
// on disk are measured again every kAddsPerStat adds (and whenever the limits change):
// two stat calls per add would cost several per cent of an add, and a few rows beyond the
// byte limit are trimmed a moment later all the same.
bool RequestStoreSQLite::Impl::mayNeedTrim(bool measureBytes) {
    if (db == nullptr) return false;
    if (limits.maxBytes > 0 && measureBytes) lastDiskBytes = diskBytes();
    const double now = secondsSince1970(std::chrono::system_clock::now());
    return store::internal::pastLimits(limits, approxCount, oldestCreatedAt, now,
                                       limits.maxBytes > 0 ? lastDiskBytes : 0);
}

void RequestStoreSQLite::Impl::scheduleTrim() {
    if (trimScheduled.exchange(true)) return;
    postTask([control = trimControl] {
        std::lock_guard lock(control->mutex);
        Impl* self = control->impl;
        if (self == nullptr) return;
        self->run("Trimming the request store", [self] {
            // Still "scheduled" while the batch runs, so that trimPending() never reads
            // false between two batches of one trim.
            const bool more = self->_trimBatch();
            self->trimScheduled.store(false);
            if (more) self->scheduleTrim();
        });
    });
}

void RequestStoreSQLite::Impl::maybeScheduleTrim(bool measureBytes) {
    if (mayNeedTrim(measureBytes)) scheduleTrim();
}

// Removes one batch of the oldest items past a limit. Gives whether it removed any (the
// next batch then looks again).
bool RequestStoreSQLite::Impl::_trimBatch() {
    if (db == nullptr || limits == StoreRetention::unlimited()) return false;
    const auto started = std::chrono::steady_clock::now();
    store::internal::TrimFacts facts;
    facts.count = scalar(kCount);
    approxCount = facts.count;
    if (limits.maxBytes > 0) {
        facts.bytes = diskBytes();
        if (facts.bytes > static_cast<std::uint64_t>(limits.maxBytes)) {
            reclaimSpace();  // free pages and the log may be all there is to give back
            facts.bytes = diskBytes();
        }
        facts.rowBytes = static_cast<std::uint64_t>(scalar("PRAGMA page_count") -
                                                    scalar("PRAGMA freelist_count")) *
                         static_cast<std::uint64_t>(scalar("PRAGMA page_size", 4096));
    }
    facts.now = secondsSince1970(std::chrono::system_clock::now());

    std::vector<std::string> ids;
    {
        Statement s(db, kSelectOldest);
        if (!s.prepared()) return false;
        sqlite3_bind_int64(s.get(), 1, static_cast<sqlite3_int64>(kTrimBatchItems));
        std::vector<double> createdAt;
        std::vector<std::string> oldest;
        while (s.step() == SQLITE_ROW) {
            bool isNull = false;
            oldest.emplace_back(columnText(s.get(), 0, isNull));
            createdAt.push_back(sqlite3_column_double(s.get(), 1));
        }
        const std::size_t n = store::internal::itemsToTrim(limits, facts, createdAt);
        oldest.resize(n);
        ids = std::move(oldest);
    }
    if (ids.empty()) {
        refreshOldest();
        lastDiskBytes = diskBytes();
        return false;
    }

    exec("BEGIN");
    std::size_t deleted = 0;
    for (const std::string& id : ids) {
        Statement s(db, kDeleteById);
        if (!s.prepared()) continue;
        s.bindText(1, id);
        if (s.step() == SQLITE_DONE) ++deleted;
    }
    if (exec("COMMIT") != SQLITE_OK) {
        printI("❌ Trimming the request store failed: " + errorText(), LogLevel::error);
        exec("ROLLBACK");
        return false;
    }
    if (limits.maxBytes > 0) reclaimSpace();
    approxCount = std::max<std::int64_t>(0, facts.count - static_cast<std::int64_t>(deleted));
    refreshOldest();
    lastDiskBytes = diskBytes();

    auto gone = std::make_shared<const std::unordered_set<std::string>>(ids.begin(), ids.end());
    changeList([this, gone]() -> std::optional<RequestsChange> {
        auto next = editor.removingAll(*gone);
        if (!next) return std::nullopt;
        removingIds = gone;
        return RequestsChange{RequestsChange::Kind::replaced, {}, std::move(*next)};
    });
    if (verboseShown()) {
        const double ms =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started)
                .count();
        printI(fmt::format("🧹 Trimmed {} stored items in {:.1f} ms ({} left, {} bytes on disk)",
                           deleted, ms, approxCount, diskBytes()),
               LogLevel::verbose);
    }
    return deleted > 0;
}

void RequestStoreSQLite::setRetention(StoreRetention retention) {
    impl_->run("Setting the store's limits", [&] {
        impl_->limits = retention;
        impl_->maybeScheduleTrim();
    });
}

StoreRetention RequestStoreSQLite::retention() const {
    return impl_->dbQueue.sync([&] { return impl_->limits; });
}

bool RequestStoreSQLite::trimPending() const { return impl_->trimScheduled.load(); }

std::uint64_t RequestStoreSQLite::bytesOnDisk() const {
    return impl_->dbQueue.sync([&] { return impl_->diskBytes(); });
}

}  // namespace kestro
