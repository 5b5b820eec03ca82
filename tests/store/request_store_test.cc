#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <regex>
#include <thread>

#include "kestro/store/request_store_sqlite.h"
#include "store/store_fixtures.h"
#include "support/console_capture.h"

namespace kestro {
namespace {

using test::ConsoleCapture;
using test::eventRecord;
using test::logRecord;
using test::networkRecord;
using test::RawDatabase;
using test::TempDir;
using test::VerboseConsole;

std::vector<std::string> ids(const std::vector<RequestEventType>& items) {
    std::vector<std::string> out;
    for (const auto& item : items) out.push_back(item.id());
    return out;
}

std::vector<std::string> ids(const RequestList& items) { return ids(items.toVector()); }

class RequestStoreTest : public ::testing::Test {
  protected:
    std::filesystem::path dbPath() const { return dir.file("requests.sqlite"); }
    TempDir dir;
    VerboseConsole verbose;
};

TEST_F(RequestStoreTest, AddListsNewestFirstAndReportsTotals) {
    ConsoleCapture console;
    RequestStoreSQLite store(dbPath());
    EXPECT_TRUE(store.isOpen());
    EXPECT_TRUE(store.requests().empty());
    EXPECT_NE(console.text().find("⏱ getAll() completed in "), std::string::npos);
    console.clear();

    store.add(logRecord("A", 100));
    EXPECT_NE(console.text().find("✅ Request saved to db. ID: A Type: log. Total: 0"),
              std::string::npos)
        << console.text();
    ASSERT_EQ(store.requests().size(), 1u);

    // Added out of createdAt order: the list keeps the order of addition, the table createdAt.
    store.add(eventRecord("B", 300));
    store.add(networkRecord("C", 200, true));
    EXPECT_NE(console.text().find("✅ Request saved to db. ID: C Type: network. Total: 2"),
              std::string::npos);
    EXPECT_EQ(ids(store.requests()), (std::vector<std::string>{"C", "B", "A"}));
    console.clear();
    const auto all = store.getAll();
    EXPECT_EQ(ids(all), (std::vector<std::string>{"B", "C", "A"}));
    EXPECT_TRUE(std::regex_search(
        console.text(), std::regex(R"(⏱ getAll\(\) completed in \d+\.\d{3} seconds\. Fetched 3)")))
        << console.text();
    // getAll() reads, it does not touch the list.
    EXPECT_EQ(ids(store.requests()), (std::vector<std::string>{"C", "B", "A"}));
}

TEST_F(RequestStoreTest, EveryKindReadsBackEqual) {
    RequestStoreSQLite store(dbPath());
    const RequestEventType items[] = {
        logRecord("L", 1714566896.123456, "disk \"almost\" full\n\t\\ ü 🐶"),
        eventRecord("E", 1714566897.5),
        networkRecord("N1", 1714566898, false),
        networkRecord("N2", 1714566899, true),
    };
    for (const auto& item : items) store.add(item);
    for (const auto& item : items) {
        const auto back = store.getById(item.id());
        ASSERT_TRUE(back.has_value()) << item.id();
        EXPECT_EQ(*back, item) << item.id();
        EXPECT_EQ(back->encode(), item.encode());
    }
    EXPECT_FALSE(store.getById("missing").has_value());
    const auto all = store.getAll();
    ASSERT_EQ(all.size(), 4u);
    EXPECT_EQ(all[2], items[1]);  // the event, with its payload, read back among other rows
}

TEST_F(RequestStoreTest, RowsHoldTheDesignedColumns) {
    {
        RequestStoreSQLite store(dbPath());
        store.add(logRecord("L", 10, "m", "warning"));
        store.add(eventRecord("E", 20));
        store.add(networkRecord("N", 30, true));
    }
    RawDatabase raw(dbPath());
    EXPECT_EQ(raw.text("SELECT sql FROM sqlite_master WHERE name = 'requests'"),
              "CREATE TABLE requests (\n    id TEXT PRIMARY KEY,\n    type TEXT,\n    level "
              "TEXT,\n    details TEXT,\n    createdAt REAL,\n    sentAt REAL\n)");
    EXPECT_EQ(raw.text("PRAGMA journal_mode"), "wal");
    EXPECT_EQ(raw.text("SELECT type || '|' || level FROM requests WHERE id = 'L'"), "log|warning");
    EXPECT_EQ(raw.text("SELECT type || '|' || level FROM requests WHERE id = 'E'"), "event|");
    EXPECT_EQ(raw.text("SELECT count(*) FROM requests WHERE level IS NULL"), "0");
    EXPECT_EQ(raw.text("SELECT typeof(createdAt) || typeof(sentAt) FROM requests WHERE id='L'"),
              "realreal");
    EXPECT_EQ(raw.text("SELECT sentAt - createdAt FROM requests WHERE id = 'L'"), "0.25");
    const auto details = boost::json::parse(raw.text("SELECT details FROM requests WHERE id='N'"));
    EXPECT_EQ(details.as_object(), networkRecord("N", 30, true).encode());
    EXPECT_EQ(details.at("eventType"), "networkRequest");
}

TEST_F(RequestStoreTest, ColumnsOverrideWhatTheStoredJSONSays) {
    RequestStoreSQLite store(dbPath());
    store.add(logRecord("L", 10));
    {
        RawDatabase raw(dbPath());
        raw.exec(
            "UPDATE requests SET type = 'custom', level = 'error', createdAt = 50.5 "
            "WHERE id = 'L'");
    }
    const auto back = store.getById("L");
    ASSERT_TRUE(back.has_value());
    ASSERT_NE(back->asLog(), nullptr);
    EXPECT_EQ(back->asLog()->type, "custom");
    EXPECT_EQ(back->asLog()->level, "error");
    EXPECT_EQ(back->asLog()->createdAt, test::atSeconds(50.5));
}

TEST_F(RequestStoreTest, SameIdTwiceKeepsOneRowAndTwoItems) {
    RequestStoreSQLite store(dbPath());
    store.add(networkRecord("", 10, false));
    store.add(networkRecord("", 11, true));
    EXPECT_EQ(store.requests().size(), 2u);
    const auto all = store.getAll();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_TRUE(all[0].asNetworkRequest()->details.response.has_value());
}

TEST_F(RequestStoreTest, UpdateReplacesRowAndItemsAndMovesItToTheFront) {
    RequestStoreSQLite store(dbPath());
    store.add(networkRecord("N", 10, false));
    store.add(networkRecord("N", 10, false));  // listed twice under one id
    store.add(logRecord("L", 20));
    store.update("N", networkRecord("N", 10, true));
    EXPECT_EQ(ids(store.requests()), (std::vector<std::string>{"N", "L"}));
    EXPECT_TRUE(store.requests()[0].asNetworkRequest()->details.response.has_value());
    EXPECT_TRUE(store.getById("N")->asNetworkRequest()->details.response.has_value());

    // An id that is not stored is simply added.
    store.update("X", logRecord("X", 5));
    EXPECT_EQ(ids(store.requests()), (std::vector<std::string>{"X", "N", "L"}));
    EXPECT_EQ(store.getAll().size(), 3u);
}

TEST_F(RequestStoreTest, DeleteRemovesRowAndEveryListedItemKeepingOrder) {
    RequestStoreSQLite store(dbPath());
    for (int i = 0; i < 5; ++i) store.add(logRecord("I" + std::to_string(i), i));
    store.add(logRecord("I2", 2));
    store.deleteById("I2");
    EXPECT_EQ(ids(store.requests()), (std::vector<std::string>{"I4", "I3", "I1", "I0"}));
    EXPECT_FALSE(store.getById("I2").has_value());
    EXPECT_EQ(store.getAll().size(), 4u);

    store.deleteById("nothing");  // neither table nor list holds it: no change
    EXPECT_EQ(store.requests().size(), 4u);

    store.deleteAll();
    EXPECT_TRUE(store.requests().empty());
    EXPECT_TRUE(store.getAll().empty());
}

TEST_F(RequestStoreTest, PersistsAcrossReopening) {
    {
        RequestStoreSQLite store(dbPath());
        store.add(logRecord("old", 1));
        store.add(eventRecord("newest", 3));
        store.add(networkRecord("middle", 2, true));
        store.deleteById("old");
    }
    RequestStoreSQLite reopened(dbPath());
    // Loaded in createdAt order, newest first.
    EXPECT_EQ(ids(reopened.requests()), (std::vector<std::string>{"newest", "middle"}));
    EXPECT_EQ(reopened.requests()[0], eventRecord("newest", 3));
}

TEST_F(RequestStoreTest, RecordsThatCannotBeJSONAreNeitherStoredNorListed) {
    ConsoleCapture console;
    RequestStoreSQLite store(dbPath());
    store.add(logRecord("bad-utf8", 1, std::string("cut \xE2\x82 off")));
    RequestTypeEvent event = *eventRecord("nan", 2).asCustomEvent();
    event.details.payload["total"] = std::numeric_limits<double>::quiet_NaN();
    store.add(event);
    RequestTypeEvent deep = *eventRecord("inf", 3).asCustomEvent();
    deep.details.payload["items"].as_array().push_back(
        boost::json::object{{"x", std::numeric_limits<double>::infinity()}});
    store.add(deep);

    const std::string text = console.text();
    std::size_t failures = 0;
    for (auto at = text.find("❌ Encoding failed"); at != std::string::npos;
         at = text.find("❌ Encoding failed", at + 1))
        ++failures;
    EXPECT_EQ(failures, 3u) << text;
    EXPECT_TRUE(store.requests().empty());
    EXPECT_TRUE(store.getAll().empty());
}

TEST_F(RequestStoreTest, RowsThatCannotBeReadBackAreSkippedAndTheOthersLoad) {
    {
        RequestStoreSQLite store(dbPath());
        store.add(logRecord("good-1", 1));
        store.add(logRecord("good-2", 5));
    }
    {
        RawDatabase raw(dbPath());
        raw.exec("INSERT INTO requests VALUES ('not-json', 'log', 'info', '{oops', 2, 2)");
        raw.exec("INSERT INTO requests VALUES ('array', 'log', 'info', '[1]', 3, 3)");
        raw.exec("INSERT INTO requests VALUES ('null-details', 'log', 'info', NULL, 4, 4)");
        raw.exec("INSERT INTO requests VALUES ('null-level', 'log', NULL, '{}', 4, 4)");
        raw.exec(
            "INSERT INTO requests VALUES ('no-decode', 'log', 'info', "
            "'{\"eventType\":\"log\",\"details\":{}}', 6, 6)");
        raw.exec(
            "INSERT INTO requests VALUES ('bad-utf8', 'log', 'info', "
            "CAST(X'7B2261223A2280227D' AS TEXT), 7, 7)");
    }
    ConsoleCapture console;
    RequestStoreSQLite store(dbPath());
    EXPECT_EQ(ids(store.requests()), (std::vector<std::string>{"good-2", "good-1"}));
    EXPECT_NE(console.text().find("⚠️ Skipped 6 stored rows that could not be read back"),
              std::string::npos)
        << console.text();
    EXPECT_FALSE(store.getById("no-decode").has_value());
    EXPECT_NE(console.text().find("⚠️ The stored row with ID no-decode could not be read back"),
              std::string::npos);
    // Skipped rows stay stored: nothing is lost by reading.
    RawDatabase raw(dbPath());
    EXPECT_EQ(raw.text("SELECT count(*) FROM requests"), "8");
}

TEST_F(RequestStoreTest, DebugPrintAllRowsDumpsEveryRowWithCutDetails) {
    RequestStoreSQLite store(dbPath());
    // 250 characters of two code points each: the cut counts characters, not bytes.
    std::string accented;
    for (int i = 0; i < 250; ++i) accented += "e\xCC\x81";
    store.add(logRecord("long", 1714566896.75, accented));
    {
        RawDatabase raw(dbPath());
        raw.exec("INSERT INTO requests VALUES ('nulls', NULL, NULL, 'short', 0, 0)");
    }
    ConsoleCapture console;
    store.debugPrintAllRows();
    const std::string text = console.text();
    EXPECT_NE(text.find("👉 Row:\n  id: long\n  type: log\n  level: info\n  createdAt: 2024-05-01 "
                        "12:34:56 +0000\n  sentAt: 2024-05-01 12:34:57 +0000\n  details: "
                        "{\"eventType\":\"log\""),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("👉 Row:\n  id: nulls\n  type: nil\n  level: nil\n  createdAt: 1970-01-01 "
                        "00:00:00 +0000\n  sentAt: 1970-01-01 00:00:00 +0000\n  details: short..."),
              std::string::npos)
        << text;
    // The long row's details: the first 200 characters of the JSON, then "...".
    const std::string json = store.getById("long")->toJSON();
    const std::size_t start = text.find("  details: {") + 11;
    const std::size_t end = text.find("...", start);
    const std::string shown = text.substr(start, end - start);
    EXPECT_EQ(json.compare(0, shown.size(), shown), 0);
    const std::size_t prefixChars = json.find("e\xCC\x81");  // ASCII up to the message
    ASSERT_LT(prefixChars, 200u);
    EXPECT_EQ(shown.size(), prefixChars + (200 - prefixChars) * 3);
}

TEST_F(RequestStoreTest, WritingTheListChangesMemoryOnly) {
    RequestStoreSQLite store(dbPath());
    store.add(logRecord("stored", 1));
    store.setRequests({logRecord("b", 2), logRecord("a", 1)});
    EXPECT_EQ(ids(store.requests()), (std::vector<std::string>{"b", "a"}));
    EXPECT_EQ(ids(store.getAll()), (std::vector<std::string>{"stored"}));
    store.deleteById("a");
    EXPECT_EQ(ids(store.requests()), (std::vector<std::string>{"b"}));
}

TEST(RequestStoreSharedTest, OneStoreInTheDataDirectoryCreatedOnceAcrossThreads) {
    TempDir home;
    ASSERT_EQ(setenv("KESTRO_HOME", (home.path() / "data").c_str(), 1), 0);
    test::ConsoleSilence quiet;
    std::vector<RequestStoreSQLite*> seen(4, nullptr);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < seen.size(); ++i)
        threads.emplace_back([&, i] { seen[i] = &RequestStoreSQLite::shared(); });
    for (auto& t : threads) t.join();
    unsetenv("KESTRO_HOME");
    for (auto* store : seen) EXPECT_EQ(store, seen[0]);
    RequestStoreSQLite& shared = RequestStoreSQLite::shared();
    EXPECT_EQ(shared.databasePath(), home.path() / "data" / "requests.sqlite");
    EXPECT_TRUE(shared.isOpen());
    // Dated now: the shared store starts with the default limits, and 1970 is past 14 days.
    shared.add(logRecord("shared", secondsSince1970(std::chrono::system_clock::now())));
    EXPECT_EQ(shared.getById("shared")->id(), "shared");
    EXPECT_TRUE(std::filesystem::exists(shared.databasePath()));
    shared.deleteAll();
}

}  // namespace
}  // namespace kestro
