// The request store against raw SQLite, in the same run:
//  - add() of typical log records, against a raw INSERT of the same rows (the JSON text already
//    written) through a statement prepared, bound, stepped and finalized per row, on a database
//    with the same pragmas (WAL, synchronous=NORMAL);
//  - getAll() of 100,000 rows, against a raw SELECT of the same query that parses every row's
//    JSON with Boost.JSON (boost::json::parse) and keeps the values.
// Throughput ratios are baseline time / store time: 1.0 means as fast as the baseline.
// Databases live in a temporary folder that is removed at the end.

#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <unistd.h>

#include <boost/json.hpp>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/ratio.h"
#include "kestro/core/uuid.h"
#include "kestro/store/request_store_sqlite.h"

namespace {

using namespace kestro;
namespace fs = std::filesystem;

constexpr int kAddIterations = 20000;
constexpr int kRows = 100000;

fs::path gDir;

const char* const kCreate =
    "CREATE TABLE IF NOT EXISTS requests (\n    id TEXT PRIMARY KEY,\n    type TEXT,\n    level "
    "TEXT,\n    details TEXT,\n    createdAt REAL,\n    sentAt REAL\n);";
const char* const kInsert =
    "INSERT OR REPLACE INTO requests (id, type, level, details, createdAt, sentAt)\nVALUES (?, ?, "
    "?, ?, ?, ?);";
const char* const kSelect =
    "SELECT id, type, level, details, createdAt, sentAt FROM requests ORDER BY createdAt DESC";

// A log line as the log capture makes it.
RequestEventType typicalLog(int i) {
    const auto t = fromSecondsSince1970(1714566896.0 + i * 0.001);
    return RequestTypeLog{newUUIDString(),
                          "log",
                          i % 7 == 0 ? "error" : "info",
                          t,
                          t,
                          {"GET https://api.example.com/v2/items?page=" + std::to_string(i % 50) +
                               " finished with status 200 in 132 ms",
                           "com.example.shop", "network", "/home/dev/shop/src/net/api_client.cc",
                           "api_client.cc", 118 + i % 40}};
}

struct Row {
    std::string id, type, level, json;
    double createdAt, sentAt;
};

Row rowOf(const RequestEventType& item) {
    const RequestTypeLog& r = *item.asLog();
    return {r.id,
            r.type,
            r.level,
            item.toJSON(),
            secondsSince1970(r.createdAt),
            secondsSince1970(r.sentAt)};
}

sqlite3* openRaw(const fs::path& path) {
    sqlite3* db = nullptr;
    sqlite3_open(path.c_str(), &db);
    sqlite3_exec(db, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr);
    sqlite3_exec(db, "PRAGMA synchronous=NORMAL", nullptr, nullptr, nullptr);
    sqlite3_exec(db, kCreate, nullptr, nullptr, nullptr);
    return db;
}

bool insertRaw(sqlite3* db, const Row& row) {
    sqlite3_stmt* s = nullptr;
    if (sqlite3_prepare_v2(db, kInsert, -1, &s, nullptr) != SQLITE_OK) return false;
    sqlite3_bind_text(s, 1, row.id.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(s, 2, row.type.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(s, 3, row.level.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(s, 4, row.json.c_str(), static_cast<int>(row.json.size()), SQLITE_TRANSIENT);
    sqlite3_bind_double(s, 5, row.createdAt);
    sqlite3_bind_double(s, 6, row.sentAt);
    const bool done = sqlite3_step(s) == SQLITE_DONE;
    sqlite3_finalize(s);
    return done;
}

void BM_StoreAdd(benchmark::State& state) {
    std::vector<RequestEventType> items;
    for (int i = 0; i < kAddIterations; ++i) items.push_back(typicalLog(i));
    RequestStoreSQLite store(gDir / "add-store.sqlite");
    std::size_t i = 0;
    for (auto _ : state) store.add(items[i++ % items.size()]);
    if (store.requests().size() != i) state.SkipWithError("an add failed");
}
BENCHMARK(BM_StoreAdd)->Iterations(kAddIterations)->UseRealTime();

void BM_RawInsert(benchmark::State& state) {
    std::vector<Row> rows;
    for (int i = 0; i < kAddIterations; ++i) rows.push_back(rowOf(typicalLog(i)));
    sqlite3* db = openRaw(gDir / "add-raw.sqlite");
    std::size_t i = 0;
    for (auto _ : state) {
        if (!insertRaw(db, rows[i++ % rows.size()])) state.SkipWithError("an insert failed");
    }
    sqlite3_close(db);
}
BENCHMARK(BM_RawInsert)->Iterations(kAddIterations)->UseRealTime();

// 100,000 typical rows, written once (in one transaction) and read by both candidates.
const fs::path& bigDatabase() {
    static const fs::path path = [] {
        fs::path p = gDir / "big.sqlite";
        sqlite3* db = openRaw(p);
        sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
        for (int i = 0; i < kRows; ++i) insertRaw(db, rowOf(typicalLog(i)));
        sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
        sqlite3_close(db);
        return p;
    }();
    return path;
}

void BM_StoreGetAll100k(benchmark::State& state) {
    RequestStoreSQLite store(bigDatabase());
    for (auto _ : state) {
        auto all = store.getAll();
        if (all.size() != kRows) state.SkipWithError("rows missing");
        benchmark::DoNotOptimize(all.data());
    }
}
BENCHMARK(BM_StoreGetAll100k)->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();

void BM_RawSelectAndParse100k(benchmark::State& state) {
    sqlite3* db = openRaw(bigDatabase());
    for (auto _ : state) {
        std::vector<boost::json::value> values;
        sqlite3_stmt* s = nullptr;
        sqlite3_prepare_v2(db, kSelect, -1, &s, nullptr);
        while (sqlite3_step(s) == SQLITE_ROW) {
            const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(s, 3));
            const auto size = static_cast<std::size_t>(sqlite3_column_bytes(s, 3));
            boost::json::error_code ec;
            auto value = boost::json::parse(boost::json::string_view(text, size), ec);
            if (!ec) values.push_back(std::move(value));
        }
        sqlite3_finalize(s);
        if (values.size() != kRows) state.SkipWithError("rows missing");
        benchmark::DoNotOptimize(values.data());
    }
    sqlite3_close(db);
}
BENCHMARK(BM_RawSelectAndParse100k)->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();

// Adding at the front of a list of 100,000 items and taking a snapshot of the result, as the
// store does for each add, against pushing onto the front of a std::deque of shared items
// (which gives readers no snapshot at all).
std::vector<RequestEventType> hundredThousandLogs() {
    std::vector<RequestEventType> items;
    items.reserve(kRows);
    for (int i = 0; i < kRows; ++i) items.push_back(typicalLog(i));
    return items;
}

void BM_ListAddAt100k(benchmark::State& state) {
    store::internal::RequestListEditor editor;
    editor.commit({RequestsChange::Kind::replaced,
                   {},
                   store::internal::RequestListEditor::fromVector(hundredThousandLogs())});
    auto item = std::make_shared<const RequestEventType>(typicalLog(-1));
    for (auto _ : state) {
        RequestList next = editor.pushingFront(item);
        editor.commit({RequestsChange::Kind::inserted, item->id(), next});
        benchmark::DoNotOptimize(next.size());
    }
}
BENCHMARK(BM_ListAddAt100k)->Iterations(100000);

void BM_DequePushFrontAt100k(benchmark::State& state) {
    std::deque<std::shared_ptr<const RequestEventType>> list;
    for (auto& item : hundredThousandLogs())
        list.push_back(std::make_shared<const RequestEventType>(std::move(item)));
    auto item = std::make_shared<const RequestEventType>(typicalLog(-1));
    for (auto _ : state) {
        list.push_front(item);
        benchmark::DoNotOptimize(list.size());
    }
}
BENCHMARK(BM_DequePushFrontAt100k)->Iterations(100000);

}  // namespace

int main(int argc, char** argv) {
    std::string pattern = (fs::temp_directory_path() / "kestro-store-bench-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) return 1;
    gDir = pattern;

    benchmark::Initialize(&argc, argv);
    kestro::bench::CollectingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    auto speed = [&](const char* candidate, const char* baseline) {
        const double t = reporter.time(candidate);
        return t > 0 ? reporter.time(baseline) / t : 0.0;
    };
    std::printf("\n");
    kestro::bench::printRatio("add() / raw INSERT, typical log records (speed)",
                              speed("BM_StoreAdd", "BM_RawInsert"), ">= 0.8");
    kestro::bench::printRatio("getAll() / raw SELECT + Boost.JSON parse, 100k rows (speed)",
                              speed("BM_StoreGetAll100k", "BM_RawSelectAndParse100k"), ">= 0.8");
    kestro::bench::printRatio("list add at 100k items + snapshot / deque push_front (speed)",
                              speed("BM_ListAddAt100k", "BM_DequePushFrontAt100k"),
                              "for reference");
    std::error_code ec;
    fs::remove_all(gDir, ec);
    return 0;
}
