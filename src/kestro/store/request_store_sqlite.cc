#include "kestro/store/request_store_sqlite.h"

#include <fmt/format.h>
#include <sqlite3.h>
#include <unicode/ubrk.h>
#include <unicode/utext.h>
#include <unistd.h>

#include <boost/json/monotonic_resource.hpp>
#include <boost/json/parser.hpp>
#include <chrono>
#include <cmath>
#include <ctime>
#include <exception>
#include <limits>
#include <mutex>
#include <system_error>
#include <unordered_set>

#include "kestro/core/console.h"
#include "kestro/core/data_directory.h"
#include "kestro/core/executor.h"
#include "kestro/core/json_numbers.h"
#include "kestro/core/utf8.h"
#include "kestro/store/internal/store_impl.h"

namespace kestro {

using store::internal::columnText;
using store::internal::isCorruption;
using store::internal::kCount;
using store::internal::kCreateTable;
using store::internal::kDeleteAll;
using store::internal::kDeleteById;
using store::internal::kInsert;
using store::internal::kSelectAll;
using store::internal::kSelectById;
using store::internal::kSelectUnordered;
using store::internal::Statement;
using store::internal::verboseShown;

namespace {

namespace json = boost::json;

struct RowFields {
    const std::string* type;
    std::string_view level;
    double createdAt;
    double sentAt;
};

RowFields rowFields(const RequestEventType& item) {
    if (const auto* r = item.asLog())
        return {&r->type, r->level, secondsSince1970(r->createdAt), secondsSince1970(r->sentAt)};
    if (const auto* r = item.asCustomEvent())
        return {&r->type, {}, secondsSince1970(r->createdAt), secondsSince1970(r->sentAt)};
    const auto* r = item.asNetworkRequest();
    return {&r->type, {}, secondsSince1970(r->createdAt), secondsSince1970(r->sentAt)};
}

// Rebuilds items from result rows. Rows are parsed into an arena that is reset after each row
// has been decoded, so reading a large table costs no allocation per JSON node.
class RowReader {
  public:
    RowReader()
        : arena_(arenaBuffer_, sizeof arenaBuffer_),
          parser_(json::storage_ptr(), options(), parserBuffer_, sizeof parserBuffer_) {}

    std::optional<RequestEventType> read(sqlite3_stmt* stmt) {
        bool isNull = false;
        const std::string_view id = columnText(stmt, 0, isNull);
        const std::string_view type = columnText(stmt, 1, isNull);
        const std::string_view level = columnText(stmt, 2, isNull);
        const std::string_view details = columnText(stmt, 3, isNull);
        if (isNull) return std::nullopt;
        const double createdAt = sqlite3_column_double(stmt, 4);
        const double sentAt = sqlite3_column_double(stmt, 5);

        std::optional<RequestEventType> item;
        {
            parser_.reset(json::storage_ptr(&arena_));
            json::error_code ec;
            parser_.write(details.data(), details.size(), ec);
            if (ec) {
                parser_.reset();
                arena_.release();
                return std::nullopt;
            }
            json::value value = parser_.release();
            if (value.is_object()) {
                json::object& object = value.get_object();
                object.insert_or_assign("id", json::string_view(id.data(), id.size()));
                object.insert_or_assign("type", json::string_view(type.data(), type.size()));
                object.insert_or_assign("level", json::string_view(level.data(), level.size()));
                object.insert_or_assign("createdAt", createdAt);
                object.insert_or_assign("sentAt", sentAt);
                item = RequestEventType::decode(object);
            }
        }
        if (item && item->asCustomEvent() != nullptr) {
            // Built afresh rather than assigned: an assigned JSON object keeps its old resource.
            RequestEventType owned = ownPayload(*item->asCustomEvent());
            item.reset();
            item.emplace(std::move(owned));
        }
        arena_.release();
        return item;
    }

  private:
    static json::parse_options options() {
        json::parse_options o;
        o.max_depth = 4096;  // event payloads may nest deeply; the stored text was ours
        return o;
    }

    // A copied JSON object keeps the memory resource of its source: give a custom event's
    // payload one of its own before the arena is reset.
    static RequestEventType ownPayload(const RequestTypeEvent& e) {
        return RequestEventType(RequestTypeEvent{
            e.id, e.type, e.sentAt, e.createdAt,
            RequestTypeEventDetails{e.details.name, e.details.category,
                                    json::object(e.details.payload, json::storage_ptr())}});
    }

    unsigned char arenaBuffer_[16 * 1024];
    unsigned char parserBuffer_[4 * 1024];
    json::monotonic_resource arena_;
    json::parser parser_;
};

// The first `count` user-perceived characters (grapheme clusters) of text.
std::string_view firstCharacters(std::string_view text, int count) {
    UErrorCode status = U_ZERO_ERROR;
    UText* ut = utext_openUTF8(nullptr, text.data(), static_cast<int64_t>(text.size()), &status);
    UBreakIterator* it = ubrk_open(UBRK_CHARACTER, "", nullptr, 0, &status);
    std::size_t end = text.size();
    if (U_SUCCESS(status)) {
        ubrk_setUText(it, ut, &status);
        int32_t pos = ubrk_first(it);
        for (int i = 0; i < count && pos != UBRK_DONE; ++i) pos = ubrk_next(it);
        if (U_SUCCESS(status) && pos != UBRK_DONE) end = static_cast<std::size_t>(pos);
    } else if (text.size() > static_cast<std::size_t>(count)) {
        end = static_cast<std::size_t>(count);  // no break iterator: cut by bytes
    }
    ubrk_close(it);
    utext_close(ut);
    return text.substr(0, end);
}

// A point in time in the console's default form, e.g. "2024-05-01 12:34:56 +0000".
std::string defaultTimeText(double secondsSince1970) {
    const std::time_t t = static_cast<std::time_t>(std::floor(secondsSince1970));
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buf[64];
    const std::size_t n = std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S +0000", &tm);
    return std::string(buf, n);
}

std::string compactUtcStamp() {
    const std::time_t t = std::time(nullptr);
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buf[32];
    const std::size_t n = std::strftime(buf, sizeof buf, "%Y%m%dT%H%M%SZ", &tm);
    return std::string(buf, n);
}

std::filesystem::path sharedDatabasePath() {
    std::filesystem::path dir = dataDirectory();
    std::error_code ec;
    if (!std::filesystem::is_directory(dir, ec)) {
        // Without a data directory the store still needs somewhere writable for this user.
        const std::filesystem::path fallback = std::filesystem::temp_directory_path(ec) /
                                               ("kestro-" + std::to_string(getuid())) /
                                               applicationId();
        printI("⚠️ The data directory " + dir.string() + " is not available; keeping the " +
                   "request store in " + fallback.string(),
               LogLevel::warning);
        dir = fallback;
    }
    return dir / RequestStoreSQLite::kDatabaseFileName;
}

}  // namespace

// Announces a change to the observers, then makes it. A change made by an observer while
// it is being told of another one is made right after that one, so every observer sees the
// changes one at a time, in the order they are made.
void RequestStoreSQLite::Impl::changeList(ListChange change) {
    if (announcing) {
        deferred.push_back(std::move(change));
        return;
    }
    announcing = true;
    struct Done {
        Impl& self;
        ~Done() {
            self.announcing = false;
            self.coming.reset();
        }
    } done{*this};
    apply(change);
    while (!deferred.empty()) {
        ListChange next = std::move(deferred.front());
        deferred.pop_front();
        apply(next);
    }
}

void RequestStoreSQLite::Impl::apply(const ListChange& make) {
    std::optional<RequestsChange> change = make();
    if (!change) return;
    coming = change->requests;
    observers->announce(*change);
    if (removingIds) {
        editor.commitRemovingAll(*change, *removingIds);
        removingIds.reset();
    } else {
        editor.commit(*change);
    }
    std::lock_guard lock(requestsMutex);
    requests = editor.current();
}

std::string RequestStoreSQLite::Impl::errorText() const {
    const char* message = db != nullptr ? sqlite3_errmsg(db) : nullptr;
    return message != nullptr && *message != '\0' ? message : "Unknown error";
}

int RequestStoreSQLite::Impl::exec(const char* sql) {
    return sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
}

// The one text a pragma answers with; rc receives the statement's result.
std::string RequestStoreSQLite::Impl::pragmaText(const char* sql, int& rc) {
    Statement s(db, sql);
    if (!s.prepared()) {
        rc = sqlite3_errcode(db);
        return {};
    }
    rc = s.step();
    std::string out;
    if (rc == SQLITE_ROW) {
        bool isNull = false;
        out = std::string(columnText(s.get(), 0, isNull));
        rc = SQLITE_OK;
    } else if (rc == SQLITE_DONE) {
        rc = SQLITE_OK;
    }
    return out;
}

RequestStoreSQLite::Impl::Opened RequestStoreSQLite::Impl::open() {
    std::error_code ec;
    if (databasePath.has_parent_path())
        std::filesystem::create_directories(databasePath.parent_path(), ec);
    const int rc = sqlite3_open_v2(databasePath.c_str(), &db,
                                   SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE |
                                       SQLITE_OPEN_NOMUTEX,  // the queue serialises all use
                                   nullptr);
    if (rc != SQLITE_OK) {
        const std::string reason = db != nullptr ? errorText() : sqlite3_errstr(rc);
        sqlite3_close(db);
        db = nullptr;
        printI("❌ Unable to open database", LogLevel::error);
        printI("❌ " + databasePath.string() + ": " + reason, LogLevel::error);
        return Opened::failed;
    }
    sqlite3_busy_timeout(db, 5000);

    // Write-ahead logging with NORMAL sync: a committed add survives the application being
    // killed, at a fraction of the cost of a full sync per insert. This is also the first
    // statement that reads the file, so it is where a file that is no database shows.
    int prc = SQLITE_OK;
    const std::string mode = pragmaText("PRAGMA journal_mode=WAL", prc);
    if (isCorruption(prc)) return Opened::corrupt;
    if (prc != SQLITE_OK || mode != "wal") {
        printI("⚠️ Write-ahead logging is not available for " + databasePath.string() + ": " +
                   (prc != SQLITE_OK ? errorText() : "journal mode " + mode),
               LogLevel::warning);
    }
    exec("PRAGMA synchronous=NORMAL");
    if (setUpRetention() == Opened::corrupt) return Opened::corrupt;

    const int crc = exec(kCreateTable);
    if (isCorruption(crc)) return Opened::corrupt;
    if (crc != SQLITE_OK) printI("❌ Table creation failed: " + errorText(), LogLevel::error);
    return Opened::ok;
}

void RequestStoreSQLite::Impl::start() {
    Opened opened = open();
    if (opened == Opened::corrupt) {
        recover({});
    }
    int stepRc = SQLITE_DONE;
    std::vector<RequestEventType> loaded = _getAll(&stepRc);
    if (isCorruption(stepRc)) {
        recover(loaded);
        loaded = _getAll(nullptr);
    }
    approxCount = static_cast<std::int64_t>(loaded.size());
    refreshOldest();
    changeList([&]() -> std::optional<RequestsChange> {
        return RequestsChange{RequestsChange::Kind::replaced,
                              {},
                              store::internal::RequestListEditor::fromVector(std::move(loaded))};
    });
}

// The file cannot be read as a database: keep it for inspection under another name and
// start a fresh one, carrying over the items that could still be read.
void RequestStoreSQLite::Impl::recover(const std::vector<RequestEventType>& readable) {
    const std::string reason = errorText();
    sqlite3_close_v2(db);
    db = nullptr;

    namespace fs = std::filesystem;
    std::error_code ec;
    const std::string base = databasePath.string() + ".corrupt-" + compactUtcStamp();
    fs::path aside = base;
    for (int i = 2; fs::exists(aside, ec) && i < 1000; ++i) aside = base + "-" + std::to_string(i);
    fs::rename(databasePath, aside, ec);
    if (ec) {
        printI("❌ The database " + databasePath.string() + " cannot be read (" + reason +
                   ") and could not be moved aside: " + ec.message(),
               LogLevel::error);
        printI("❌ Unable to open database", LogLevel::error);
        return;
    }
    // The journal belongs to the damaged file; a fresh database must not pick it up.
    fs::rename(databasePath.string() + "-wal", aside.string() + "-wal", ec);
    fs::remove(databasePath.string() + "-shm", ec);
    fs::remove(databasePath.string() + "-journal", ec);
    printI("⚠️ The database " + databasePath.string() + " could not be read (" + reason +
               "); it was moved aside as " + aside.filename().string() +
               " and a fresh one was started",
           LogLevel::warning);

    if (open() != Opened::ok) {
        sqlite3_close_v2(db);
        db = nullptr;
        printI("❌ Unable to open database", LogLevel::error);
        return;
    }
    if (readable.empty()) return;
    std::size_t carried = 0;
    exec("BEGIN");
    for (const auto& item : readable) {
        const auto text = encodeRow(item);
        Statement s(db, kInsert);
        if (!text || !s.prepared()) continue;
        bindRow(s, item, *text);
        if (s.step() == SQLITE_DONE) ++carried;
    }
    exec("COMMIT");
    printI(fmt::format("⚠️ Carried {} readable items over to the fresh database", carried),
           LogLevel::warning);
}

// The record as JSON text, or nothing when it cannot be written as JSON: a number with no
// JSON form or text that is not UTF-8.
std::optional<std::string> RequestStoreSQLite::Impl::encodeRow(const RequestEventType& item) {
    try {
        std::string text = item.toJSON();
        if (!isValidUTF8(text)) return std::nullopt;
        if (const auto* e = item.asCustomEvent()) {
            if (!allNumbersFinite(e->details.payload)) return std::nullopt;
        }
        return text;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

void RequestStoreSQLite::Impl::bindRow(Statement& s, const RequestEventType& item,
                                       std::string_view text) {
    const RowFields f = rowFields(item);
    s.bindText(1, item.id());
    s.bindText(2, *f.type);
    s.bindText(3, f.level);
    s.bindText(4, text);
    s.bindDouble(5, f.createdAt);
    s.bindDouble(6, f.sentAt);
}

void RequestStoreSQLite::Impl::_add(RequestEventType item) {
    const std::optional<std::string> text = encodeRow(item);
    if (!text) {
        printI("❌ Encoding failed", LogLevel::error);
        return;
    }
    Statement s(db, kInsert);
    if (!s.prepared()) {
        printI("❌ Prepare failed: " + errorText(), LogLevel::error);
        return;
    }
    bindRow(s, item, *text);
    if (s.step() != SQLITE_DONE) {
        printI("❌ Insert failed: " + errorText(), LogLevel::error);
        return;
    }
    ++approxCount;
    if (approxCount == 1) refreshOldest();  // the first row is the oldest
    maybeScheduleTrim(++addsSinceStat % kAddsPerStat == 0);
    if (verboseShown()) {
        printI(fmt::format("✅ Request saved to db. ID: {} Type: {}. Total: {}", item.id(),
                           *rowFields(item).type, editor.current().size()),
               LogLevel::verbose);
    }
    auto shared = std::make_shared<const RequestEventType>(std::move(item));
    changeList([this, shared]() -> std::optional<RequestsChange> {
        return RequestsChange{RequestsChange::Kind::inserted, shared->id(),
                              editor.pushingFront(shared)};
    });
}

std::vector<RequestEventType> RequestStoreSQLite::Impl::_getAll(int* stepResult) {
    const auto started = std::chrono::steady_clock::now();
    std::vector<RequestEventType> items;
    Statement s(db, kSelectAll);
    if (!s.prepared()) {
        printI("❌ Select failed: " + errorText(), LogLevel::error);
        return items;
    }
    RowReader reader;
    std::size_t skipped = 0;
    int rc;
    while ((rc = s.step()) == SQLITE_ROW) {
        if (auto item = reader.read(s.get())) {
            items.push_back(std::move(*item));
        } else {
            ++skipped;
        }
    }
    if (stepResult != nullptr) *stepResult = rc;
    if (rc != SQLITE_DONE) {
        printI("❌ Reading the stored requests stopped early: " + errorText(), LogLevel::error);
    }
    if (skipped > 0) {
        printI(fmt::format("⚠️ Skipped {} stored {} that could not be read back", skipped,
                           skipped == 1 ? "row" : "rows"),
               LogLevel::warning);
    }
    if (verboseShown()) {
        const double elapsed =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
        printI(fmt::format("⏱ getAll() completed in {:.3f} seconds. Fetched {}", elapsed,
                           items.size()),
               LogLevel::verbose);
    }
    return items;
}

std::optional<RequestEventType> RequestStoreSQLite::Impl::_getById(const std::string& id) {
    Statement s(db, kSelectById);
    if (!s.prepared()) {
        printI("❌ getById query failed: " + errorText(), LogLevel::error);
        return std::nullopt;
    }
    s.bindText(1, id);
    if (s.step() != SQLITE_ROW) return std::nullopt;
    RowReader reader;
    auto item = reader.read(s.get());
    if (!item) {
        printI("⚠️ The stored row with ID " + id + " could not be read back",
               LogLevel::warning);
    }
    return item;
}

void RequestStoreSQLite::Impl::_delete(const std::string& id) {
    {
        Statement s(db, kDeleteById);
        if (s.prepared()) {
            s.bindText(1, id);
            if (s.step() != SQLITE_DONE)
                printI("❌ Delete failed: " + errorText(), LogLevel::verbose);
            else
                approxCount = std::max<std::int64_t>(0, approxCount - sqlite3_changes(db));
        }
    }
    changeList([this, id]() -> std::optional<RequestsChange> {
        auto next = editor.removing(id);
        if (!next) return std::nullopt;
        return RequestsChange{RequestsChange::Kind::removed, id, std::move(*next)};
    });
}

void RequestStoreSQLite::Impl::_deleteAll() {
    {
        Statement s(db, kDeleteAll);
        if (s.prepared() && s.step() != SQLITE_DONE)
            printI("❌ Delete all failed: " + errorText(), LogLevel::verbose);
        approxCount = scalar(kCount);
        refreshOldest();
    }
    changeList([this]() -> std::optional<RequestsChange> {
        if (editor.current().empty()) return std::nullopt;
        return RequestsChange{RequestsChange::Kind::replaced, {}, RequestList()};
    });
}

void RequestStoreSQLite::Impl::_debugPrintAllRows() {
    Statement s(db, kSelectUnordered);
    if (!s.prepared()) {
        printI("❌ Failed to prepare debug query: " + errorText(), LogLevel::error);
        return;
    }
    while (s.step() == SQLITE_ROW) {
        const auto text = [&](int column) -> std::string {
            bool isNull = false;
            const std::string_view v = columnText(s.get(), column, isNull);
            return isNull ? std::string("nil") : std::string(v);
        };
        bool detailsNull = false;
        const std::string_view details = columnText(s.get(), 3, detailsNull);
        std::string line =
            "👉 Row:\n  id: " + text(0) + "\n  type: " + text(1) + "\n  level: " + text(2) +
            "\n  createdAt: " + defaultTimeText(sqlite3_column_double(s.get(), 4)) +
            "\n  sentAt: " + defaultTimeText(sqlite3_column_double(s.get(), 5)) + "\n  details: " +
            (detailsNull ? std::string("nil") : std::string(firstCharacters(details, 200))) +
            "...\n";
        writeConsole(line);
    }
}

RequestStoreSQLite& RequestStoreSQLite::shared() {
    // Never destroyed: any thread may still be storing while the process exits.
    static RequestStoreSQLite* store = [] {
        auto* s = new RequestStoreSQLite(sharedDatabasePath());
        s->setRetention(StoreRetention{});
        return s;
    }();
    return *store;
}

RequestStoreSQLite::RequestStoreSQLite(std::filesystem::path databasePath,
                                       std::uint64_t maxDatabaseBytes)
    : impl_(std::make_unique<Impl>(std::move(databasePath), maxDatabaseBytes)) {
    impl_->run("Opening the request store", [&] { impl_->start(); });
}

RequestStoreSQLite::~RequestStoreSQLite() {
    {
        // Waits for a trim batch in progress; later ones find no store and do nothing.
        std::lock_guard lock(impl_->trimControl->mutex);
        impl_->trimControl->impl = nullptr;
    }
    impl_->dbQueue.sync([&] {
        sqlite3_close_v2(impl_->db);
        impl_->db = nullptr;
    });
}

RequestList RequestStoreSQLite::requests() const {
    std::lock_guard lock(impl_->requestsMutex);
    return impl_->requests;
}

void RequestStoreSQLite::setRequests(std::vector<RequestEventType> newestFirst) {
    impl_->run("Setting the request list", [&] {
        impl_->changeList([&]() -> std::optional<RequestsChange> {
            return RequestsChange{
                RequestsChange::Kind::replaced,
                {},
                store::internal::RequestListEditor::fromVector(std::move(newestFirst))};
        });
    });
}

RequestsSubscription RequestStoreSQLite::observeRequests(Observer observer, Delivery delivery) {
    return impl_->run("Observing the request list", [&] {
        // Subscribed while a change is being announced, the observer starts from the list
        // that change is about to make (it is not told of that change itself).
        RequestList current = impl_->coming ? *impl_->coming : impl_->editor.current();
        return impl_->observers->add(
            std::move(observer), delivery == Delivery::mainQueue,
            RequestsChange{RequestsChange::Kind::initial, {}, std::move(current)});
    });
}

void RequestStoreSQLite::add(RequestEventType item) {
    impl_->run("add", [&] { impl_->_add(std::move(item)); });
}

std::vector<RequestEventType> RequestStoreSQLite::getAll() {
    return impl_->run("getAll", [&] { return impl_->_getAll(nullptr); });
}

void RequestStoreSQLite::debugPrintAllRows() {
    // On the queue, which runs it on the caller's thread.
    impl_->run("debugPrintAllRows", [&] { impl_->_debugPrintAllRows(); });
}

std::optional<RequestEventType> RequestStoreSQLite::getById(const std::string& id) {
    return impl_->run("getById", [&] { return impl_->_getById(id); });
}

void RequestStoreSQLite::update(const std::string& id, RequestEventType item) {
    impl_->run("update", [&] {
        impl_->_delete(id);
        impl_->_add(std::move(item));
    });
}

void RequestStoreSQLite::deleteById(const std::string& id) {
    impl_->run("delete", [&] { impl_->_delete(id); });
}

void RequestStoreSQLite::deleteAll() {
    impl_->run("deleteAll", [&] { impl_->_deleteAll(); });
}

const std::filesystem::path& RequestStoreSQLite::databasePath() const {
    return impl_->databasePath;
}

bool RequestStoreSQLite::isOpen() const {
    return impl_->dbQueue.sync([&] { return impl_->db != nullptr; });
}

}  // namespace kestro
