// The store behind the service: retention, deleting a device's items, the list's filters, and
// a database of the first layout.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <boost/json.hpp>

#include "service_fixture.h"

namespace kestro::test {
namespace {
namespace json = boost::json;

constexpr double kDay = 86400;

// Rows in a table of the service's database, read over a connection of its own.
std::int64_t rows(const std::filesystem::path& dir, const std::string& table) {
    sqlite3* db = nullptr;
    std::int64_t n = -1;
    if (sqlite3_open_v2((dir / "devservice.sqlite").c_str(), &db, SQLITE_OPEN_READONLY, nullptr) ==
        SQLITE_OK) {
        sqlite3_stmt* s = nullptr;
        if (sqlite3_prepare_v2(db, ("SELECT COUNT(*) FROM " + table).c_str(), -1, &s, nullptr) ==
                SQLITE_OK &&
            sqlite3_step(s) == SQLITE_ROW) {
            n = sqlite3_column_int64(s, 0);
        }
        sqlite3_finalize(s);
    }
    sqlite3_close(db);
    return n;
}

class StorageTest : public ServiceFixture {
  protected:
    void SetUp() override {}

    // A service whose clock the test sets, with the given retention.
    void startAged(unsigned keepDays, std::int64_t maxItems) {
        auto options = serviceOptions(dir_.path());
        options.keepDays = keepDays;
        options.maxItemsPerDevice = maxItems;
        options.retentionInterval = std::chrono::hours(1);  // rounds only when the test asks
        options.clock = [this] { return now_.load(); };
        startWith(options);
    }

    std::vector<std::string> ids(const std::string& query) {
        std::vector<std::string> out;
        const auto page = get("/api/items?" + query).json();
        for (const auto& item : page.at("items").as_array()) {
            out.emplace_back(item.at("id").as_string());
        }
        return out;
    }

    std::atomic<double> now_{1.8e9};
};

TEST_F(StorageTest, RetentionRemovesTheOldestItemsAndNothingElse) {
    startAged(3, 3);
    ASSERT_EQ(put("/v1/requests", logRecord("A1", "DEV-A")).status, 200u);
    ASSERT_EQ(put("/v1/requests", requestHalf("A2", "DEV-A")).status, 200u);
    ASSERT_EQ(put("/v1/requests", logRecord("B1", "DEV-B")).status, 200u);
    now_ = now_ + 2 * kDay;
    // A2's answer arrives late: the item still counts from its first arrival.
    ASSERT_EQ(put("/v1/requests", responseHalf("A2", "DEV-A")).status, 200u);
    for (const char* id : {"A3", "A4", "A5"}) {
        ASSERT_EQ(put("/v1/requests", logRecord(id, "DEV-A")).status, 200u);
    }
    ASSERT_EQ(put("/v1/requests", logRecord("B2", "DEV-B")).status, 200u);
    ASSERT_EQ(post("/api/devices/DEV-A/rules", {{"url", "http://h/*"}}).status, 201u);
    LivePage page;
    ASSERT_TRUE(page.open(port_, token_));
    ASSERT_TRUE(page.next());

    // Three and a half days after the first uploads: those of the first day go.
    now_ = now_ + 1.5 * kDay;
    service_->applyRetention();
    EXPECT_EQ(ids("device=DEV-A"), (std::vector<std::string>{"A5", "A4", "A3"}));
    EXPECT_EQ(ids("device=DEV-B"), (std::vector<std::string>{"B2"}));
    EXPECT_EQ(get("/api/devices/DEV-A/items/A2").status, 404u);
    EXPECT_EQ(get("/api/health").json().at("items"), 4);
    // Their rows and uploads are removed, not only hidden; devices and rules stay.
    EXPECT_EQ(rows(dir_.path(), "items"), 4);
    EXPECT_EQ(rows(dir_.path(), "item_parts"), 4);
    EXPECT_EQ(get("/api/devices").json().at("devices").as_array().size(), 2u);
    EXPECT_EQ(get("/api/devices/DEV-A/rules").json().at("rules").as_array().size(), 1u);

    std::map<std::string, json::object> deleted;
    for (int i = 0; i < 2; ++i) {
        auto m =
            page.waitFor([](const json::object& m) { return messageType(m) == "itemsDeleted"; });
        ASSERT_TRUE(m);
        deleted[std::string(m->at("deviceId").as_string())] = *m;
    }
    EXPECT_EQ(deleted["DEV-A"].at("reason"), "retention");
    EXPECT_EQ(deleted["DEV-A"].at("itemCount"), 3);
    EXPECT_EQ(deleted["DEV-B"].at("itemCount"), 1);
    EXPECT_EQ(get("/api/devices/DEV-A").json().at("itemsDeletedThroughSeq"),
              deleted["DEV-A"].at("throughSeq"));

    // A fourth recent item of A: the oldest of A goes, B keeps its one.
    ASSERT_EQ(put("/v1/requests", logRecord("A6", "DEV-A")).status, 200u);
    service_->applyRetention();
    EXPECT_EQ(ids("device=DEV-A"), (std::vector<std::string>{"A6", "A5", "A4"}));
    EXPECT_EQ(ids("device=DEV-B"), (std::vector<std::string>{"B2"}));
    service_->applyRetention();
    EXPECT_EQ(ids(""), (std::vector<std::string>{"A6", "B2", "A5", "A4"}));
}

TEST_F(StorageTest, RetentionOfZeroKeepsEverything) {
    startAged(0, 0);
    ASSERT_EQ(put("/v1/requests", logRecord("A1", "DEV-A")).status, 200u);
    now_ = now_ + 3650 * kDay;
    ASSERT_EQ(put("/v1/requests", logRecord("A2", "DEV-A")).status, 200u);
    service_->applyRetention();
    EXPECT_EQ(ids(""), (std::vector<std::string>{"A2", "A1"}));
}

TEST_F(StorageTest, DeletingADevicesItemsHidesThemAtOnceAndLeavesOthers) {
    startAged(0, 0);
    ASSERT_EQ(put("/v1/requests", requestHalf("R-1", "DEV-A")).status, 200u);
    ASSERT_EQ(put("/v1/requests", logRecord("L-1", "DEV-A")).status, 200u);
    ASSERT_EQ(put("/v1/requests", logRecord("L-1", "DEV-B")).status, 200u);

    const auto deleted = api("DELETE", "/api/devices/DEV-A/items");
    ASSERT_EQ(deleted.status, 200u);
    EXPECT_EQ(deleted.json().at("deleted"), 2);
    EXPECT_EQ(ids("device=DEV-A"), std::vector<std::string>{});
    EXPECT_EQ(ids(""), (std::vector<std::string>{"L-1"}));
    EXPECT_EQ(get("/api/devices/DEV-A").json().at("itemCount"), 0);
    EXPECT_EQ(get("/api/devices/DEV-A/items/R-1").status, 404u);
    EXPECT_EQ(api("DELETE", "/api/devices/NOPE/items").status, 404u);

    // The exchange's answer after the deletion starts an item of its own; new uploads are kept.
    ASSERT_EQ(put("/v1/requests", responseHalf("R-1", "DEV-A", 201)).status, 200u);
    ASSERT_EQ(put("/v1/requests", logRecord("L-2", "DEV-A")).status, 200u);
    EXPECT_EQ(ids("device=DEV-A"), (std::vector<std::string>{"L-2", "R-1"}));
    const auto again = get("/api/devices/DEV-A/items/R-1?uploads=1").json();
    EXPECT_EQ(again.at("uploadCount"), 1);
    EXPECT_EQ(again.at("status"), 201);
    EXPECT_EQ(again.at("uploads").as_array().size(), 1u);

    // The rows go at the next round.
    service_->applyRetention();
    EXPECT_EQ(rows(dir_.path(), "items"), 3);
    EXPECT_EQ(rows(dir_.path(), "item_parts"), 3);
    EXPECT_EQ(ids(""), (std::vector<std::string>{"L-2", "R-1", "L-1"}));
}

TEST_F(StorageTest, FiltersKeepTheRowsThatHaveOneOfTheirValues) {
    startAged(0, 0);
    auto log = [&](const std::string& id, const std::string& level, const std::string& message) {
        auto r = logRecord(id, "DEV-1", message);
        r["level"] = level;
        return put("/v1/requests", r).status;
    };
    auto exchange = [&](const std::string& id, const std::string& method, const std::string& url,
                        std::optional<int> status) {
        auto r = requestHalf(id, "DEV-1", url);
        r["details"].as_object()["request"].as_object()["method"] = method;
        if (put("/v1/requests", r).status != 200u) return false;
        return !status || put("/v1/requests", responseHalf(id, "DEV-1", *status)).status == 200u;
    };
    ASSERT_EQ(log("L-info", "info", "cache warm"), 200u);
    ASSERT_EQ(log("L-error", "error", "payment 100% FAILED"), 200u);
    ASSERT_TRUE(exchange("X-get", "GET", "http://h/Users/1", 200));
    ASSERT_TRUE(exchange("X-post", "POST", "http://h/orders", 404));
    ASSERT_TRUE(exchange("X-wait", "GET", "http://h/slow", std::nullopt));
    ASSERT_TRUE(exchange("X-fail", "DELETE", "http://h/users/2", 503));
    ASSERT_EQ(put("/v1/requests", eventRecord("E-1", "DEV-1")).status, 200u);

    using V = std::vector<std::string>;
    EXPECT_EQ(ids("kind=log"), (V{"L-error", "L-info"}));
    EXPECT_EQ(ids("kind=customEvent,log"), (V{"E-1", "L-error", "L-info"}));
    EXPECT_EQ(ids("level=error"), (V{"L-error"}));
    EXPECT_EQ(ids("method=GET"), (V{"X-wait", "X-get"}));
    EXPECT_EQ(ids("method=get"), V{});
    EXPECT_EQ(ids("status=4xx,5xx"), (V{"X-fail", "X-post"}));
    EXPECT_EQ(ids("status=waiting"), (V{"X-wait"}));
    EXPECT_EQ(ids("status=2xx,waiting"), (V{"X-wait", "X-get"}));
    EXPECT_EQ(ids("q=users"), (V{"X-fail", "X-get"}));
    EXPECT_EQ(ids("q=100%25"), (V{"L-error"}));  // "%" stands for itself
    EXPECT_EQ(ids("q=_"), V{});
    EXPECT_EQ(ids("q=GENERAL"), (V{"E-1"}));
    EXPECT_EQ(ids("kind=networkRequest&q=users&status=2xx"), (V{"X-get"}));
    EXPECT_EQ(ids("method=GET&limit=1"), (V{"X-wait"}));
    const auto page = get("/api/items?method=GET&limit=1").json();
    EXPECT_EQ(ids("method=GET&limit=1&before=" + std::to_string(page.at("nextCursor").as_int64())),
              (V{"X-get"}));
    for (const char* bad : {"kind=request", "status=2XX", "status=600", "status=ok"}) {
        EXPECT_EQ(get(std::string("/api/items?") + bad).status, 400u) << bad;
    }
}

// The tables of the first layout, as its service made them.
constexpr const char* kFirstLayout =
    "PRAGMA journal_mode=WAL;"
    "CREATE TABLE devices(id TEXT PRIMARY KEY, info TEXT NOT NULL, key_kind TEXT NOT NULL,"
    "  first_seen REAL NOT NULL, last_seen REAL NOT NULL);"
    "CREATE TABLE items(id TEXT PRIMARY KEY, event_type TEXT NOT NULL, device_id TEXT NOT NULL,"
    "  seq INTEGER NOT NULL, revision INTEGER NOT NULL, received_at REAL NOT NULL,"
    "  updated_at REAL NOT NULL, record TEXT NOT NULL);"
    "CREATE INDEX items_by_seq ON items(seq);"
    "CREATE INDEX items_by_device ON items(device_id, seq);"
    "CREATE INDEX items_by_revision ON items(revision);"
    "CREATE TABLE item_parts(seq INTEGER PRIMARY KEY AUTOINCREMENT, item_id TEXT NOT NULL,"
    "  received_at REAL NOT NULL, body TEXT NOT NULL);"
    "CREATE INDEX item_parts_by_item ON item_parts(item_id, seq);";

TEST_F(StorageTest, ADatabaseOfTheFirstLayoutIsMigratedWithNothingLost) {
    {
        std::filesystem::create_directories(dir_.path());
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open((dir_.path() / "devservice.sqlite").c_str(), &db), SQLITE_OK);
        ASSERT_EQ(sqlite3_exec(db, kFirstLayout, nullptr, nullptr, nullptr), SQLITE_OK);
        auto request = requestHalf("R-1", "DEV-1");
        auto response = responseHalf("R-1", "DEV-1", 418);
        auto joined = request;
        joined.erase("device");
        joined["details"].as_object()["response"] = response.at("details").at("response");
        auto log = logRecord("L-1", "DEV-1", "from before");
        auto logRecordOnly = log;
        logRecordOnly.erase("device");
        auto quote = [](const json::value& v) {
            std::string text = json::serialize(v), out = "'";
            for (char c : text) out += c == '\'' ? std::string("''") : std::string(1, c);
            return out + "'";
        };
        const std::string rows =
            "INSERT INTO devices VALUES('DEV-1', " + quote(deviceDictionary("DEV-1", "old")) +
            ", 'dev', 1.7e9, 1.7e9);"
            "INSERT INTO items VALUES('R-1', 'networkRequest', 'DEV-1', 1, 3, 1.7e9, 1.7e9, " +
            quote(joined) + ");" +
            "INSERT INTO items VALUES('L-1', 'log', 'DEV-1', 2, 2, 1.7e9, 1.7e9, " +
            quote(logRecordOnly) + ");" +
            "INSERT INTO item_parts(item_id, received_at, body) VALUES('R-1', 1.7e9, " +
            quote(request) + "), ('L-1', 1.7e9, " + quote(log) + "), ('R-1', 1.7e9, " +
            quote(response) + ");";
        ASSERT_EQ(sqlite3_exec(db, rows.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
        sqlite3_close(db);
    }
    // Rows of long ago: kept, whatever their age.
    startAged(0, 0);

    EXPECT_EQ(ids(""), (std::vector<std::string>{"L-1", "R-1"}));
    const auto item = get("/api/devices/DEV-1/items/R-1?uploads=1").json();
    EXPECT_EQ(item.at("status"), 418);
    EXPECT_EQ(item.at("method"), "GET");
    EXPECT_EQ(item.at("waiting"), false);
    EXPECT_EQ(item.at("uploadCount"), 2);
    EXPECT_EQ(item.at("revision"), 3);
    EXPECT_EQ(item.at("uploads").as_array().size(), 2u);
    EXPECT_EQ(get("/api/items?level=info").json().at("items").at(0).at("message"), "from before");
    EXPECT_EQ(get("/api/health").json().at("revision"), 3);

    // The device had no key: the first known key that writes as it takes it.
    ASSERT_EQ(put("/v1/requests", logRecord("L-2", "DEV-1")).status, 200u);
    EXPECT_EQ(get("/api/devices/DEV-1").json().at("keyId"), 1);
    EXPECT_EQ(get("/api/devices/DEV-1").json().at("name"), "old");
    const std::string other(
        post("/api/keys", json::object{}).json().at("key").at("key").as_string());
    EXPECT_EQ(put("/v1/requests", logRecord("L-3", "DEV-1"), other).status, 403u);
    EXPECT_GT(put("/v1/requests", logRecord("L-4", "DEV-1")).json().at("revision").as_int64(), 3);

    // And the migrated database opens as it is the next time.
    service_->stop();
    startAged(0, 0);
    EXPECT_EQ(ids(""), (std::vector<std::string>{"L-4", "L-2", "L-1", "R-1"}));
}

}  // namespace
}  // namespace kestro::test
