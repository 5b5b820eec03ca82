// Retention: the store keeps the items stored last within every limit, trims off the adding
// threads in batches, follows with its list, and applies the limits again after a restart.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <set>
#include <thread>

#include "kestro/store/request_store_sqlite.h"
#include "kestro/store/store_trim.h"
#include "store/store_fixtures.h"
#include "support/wait.h"

namespace kestro {
namespace {

using test::logRecord;
using test::RawDatabase;
using test::TempDir;

constexpr auto kDay = std::chrono::days(1);

double nowSeconds() { return secondsSince1970(std::chrono::system_clock::now()); }

StoreRetention itemsOnly(std::int64_t n) { return {n, std::chrono::seconds(0), 0}; }

std::string idAt(int i) { return "item-" + std::to_string(i); }

// Items idAt(0..n-1) with createdAt base + i, stored in that order.
void addInOrder(RequestStoreSQLite& store, int n, double base, std::size_t messageBytes = 16) {
    for (int i = 0; i < n; ++i) {
        store.add(logRecord(idAt(i), base + i, std::string(messageBytes, 'm')));
    }
}

std::set<std::string> listedIds(const RequestStoreSQLite& store) {
    std::set<std::string> ids;
    for (const auto& item : store.requests()) ids.insert(item.id());
    return ids;
}

std::set<std::string> storedIds(RequestStoreSQLite& store) {
    std::set<std::string> ids;
    for (const auto& item : store.getAll()) ids.insert(item.id());
    return ids;
}

std::set<std::string> range(int from, int to) {
    std::set<std::string> ids;
    for (int i = from; i < to; ++i) ids.insert(idAt(i));
    return ids;
}

bool settled(const RequestStoreSQLite& store, std::size_t size) {
    return test::waitUntil([&] { return !store.trimPending() && store.requests().size() == size; });
}

TEST(StoreRetentionTest, ItemLimitKeepsExactlyTheNewestAcrossRestarts) {
    TempDir dir;
    const auto path = dir.file("requests.sqlite");
    const double base = nowSeconds() - 5000;
    {
        RequestStoreSQLite store(path);
        addInOrder(store, 1000, base);
        EXPECT_EQ(store.requests().size(), 1000u);  // unlimited until told otherwise

        std::atomic<int> replaced{0};
        auto subscription = store.observeRequests([&](const RequestsChange& change) {
            if (change.kind == RequestsChange::Kind::replaced) ++replaced;
        });
        store.setRetention(itemsOnly(300));
        ASSERT_TRUE(settled(store, 300)) << store.requests().size();
        EXPECT_EQ(listedIds(store), range(700, 1000));
        EXPECT_EQ(storedIds(store), range(700, 1000));
        // 700 items in batches of at most kTrimBatchItems, each one change of the list.
        EXPECT_GE(replaced.load(), 3);
        EXPECT_EQ(store.retention(), itemsOnly(300));
    }
    {
        // A restart loads what was kept; tighter limits apply as soon as they are set.
        RequestStoreSQLite store(path);
        EXPECT_EQ(storedIds(store), range(700, 1000));
        store.setRetention(itemsOnly(100));
        ASSERT_TRUE(settled(store, 100));
        EXPECT_EQ(storedIds(store), range(900, 1000));

        // Adds past the limit trim the items stored first. An item stored again (a network
        // record when its answer arrives) counts as stored anew, as in the list.
        store.update(idAt(900), logRecord(idAt(900), base + 900, "answered"));
        for (int i = 1000; i < 1049; ++i) store.add(logRecord(idAt(i), base + i));
        ASSERT_TRUE(settled(store, 100));
        std::set<std::string> expected = range(950, 1049);
        expected.insert(idAt(900));
        EXPECT_EQ(listedIds(store), expected);
        EXPECT_EQ(storedIds(store), expected);
        EXPECT_EQ(store.requests()[0].id(), idAt(1048));  // newest first still
    }
}

TEST(StoreRetentionTest, AgeLimitRemovesOnlyTheOldAndKeepsItemsFromTheFuture) {
    TempDir dir;
    RequestStoreSQLite store(dir.file("requests.sqlite"));
    const double now = nowSeconds();
    const double day = std::chrono::duration<double>(kDay).count();
    store.add(logRecord("20-days", now - 20 * day));
    store.add(logRecord("15-days", now - 15 * day));
    store.add(logRecord("13-days", now - 13 * day));
    store.add(logRecord("today", now));
    store.add(logRecord("next-year", now + 365 * day));  // the clock was set back since
    store.setRetention({0, std::chrono::days(14), 0});
    ASSERT_TRUE(settled(store, 3));
    EXPECT_EQ(storedIds(store), (std::set<std::string>{"13-days", "today", "next-year"}));
}

TEST(StoreRetentionTest, ByteLimitGivesSpaceBackAndKeepsTheNewest) {
    TempDir dir;
    const auto path = dir.file("requests.sqlite");
    const double base = nowSeconds() - 10'000;
    {
        // A database made without incremental vacuum: deleted rows would keep their pages.
        RawDatabase raw(path);
        raw.exec(
            "CREATE TABLE requests (id TEXT PRIMARY KEY, type TEXT, level TEXT, details TEXT, "
            "createdAt REAL, sentAt REAL)");
        EXPECT_EQ(raw.text("PRAGMA auto_vacuum"), "0");
    }
    RequestStoreSQLite store(path);
    addInOrder(store, 3000, base, 2000);  // about 7 MB
    const std::uint64_t before = store.bytesOnDisk();
    ASSERT_GT(before, 6u << 20);

    constexpr std::int64_t kLimit = 2 << 20;
    store.setRetention({0, std::chrono::seconds(0), kLimit});
    ASSERT_TRUE(test::waitUntil([&] { return !store.trimPending(); }));
    EXPECT_LE(store.bytesOnDisk(), static_cast<std::uint64_t>(kLimit));

    // What is kept is the newest, and not much less than fits at the rows' size on disk.
    const auto kept = storedIds(store);
    ASSERT_FALSE(kept.empty());
    int oldestKept = 3000;
    for (const auto& id : kept) oldestKept = std::min(oldestKept, std::stoi(id.substr(5)));
    EXPECT_EQ(kept, range(oldestKept, 3000));
    EXPECT_GT(kept.size(), 0.8 * kLimit / (before / 3000.0));
    EXPECT_EQ(listedIds(store), kept);
    EXPECT_EQ(RawDatabase(path).text("PRAGMA auto_vacuum"), "2");
}

TEST(StoreRetentionTest, AddsFromManyThreadsWhileTrimmingKeepTheLimit) {
    TempDir dir;
    auto store = std::make_unique<RequestStoreSQLite>(dir.file("requests.sqlite"));
    store->setRetention(itemsOnly(200));
    const double base = nowSeconds();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 250; ++i) {
                store->add(logRecord(idAt(t * 1000 + i), base + i + t * 0.001));
            }
        });
    }
    for (auto& thread : threads) thread.join();
    ASSERT_TRUE(settled(*store, 200));
    // The 200 stored last: of each thread's items, those kept are its last ones.
    const auto kept = storedIds(*store);
    EXPECT_EQ(kept.size(), 200u);
    EXPECT_EQ(listedIds(*store), kept);
    for (int t = 0; t < 4; ++t) {
        int first = 250;
        for (int i = 0; i < 250; ++i) {
            if (kept.contains(idAt(t * 1000 + i))) first = std::min(first, i);
        }
        for (int i = first; i < 250; ++i)
            EXPECT_TRUE(kept.contains(idAt(t * 1000 + i))) << t << " " << i;
    }

    // A store destroyed while a trim is scheduled ends cleanly.
    store->setRetention(itemsOnly(10));
    store.reset();
}

TEST(StoreRetentionTest, TrimTakesTheOldestPrefixThatEachLimitNeeds) {
    using store::internal::itemsToTrim;
    using store::internal::TrimFacts;
    const std::vector<double> oldest{10, 20, 30, 40, 50};
    const TrimFacts facts{.count = 8, .bytes = 0, .rowBytes = 0, .now = 100};
    EXPECT_EQ(itemsToTrim(StoreRetention::unlimited(), facts, oldest), 0u);
    EXPECT_EQ(itemsToTrim(itemsOnly(6), facts, oldest), 2u);
    EXPECT_EQ(itemsToTrim(itemsOnly(1), facts, oldest), 5u);  // one batch at a time
    // Older than 65 s at 100: 10, 20 and 30.
    EXPECT_EQ(itemsToTrim({0, std::chrono::seconds(65), 0}, facts, oldest), 3u);
    // The limits combine: the larger need wins.
    EXPECT_EQ(itemsToTrim({7, std::chrono::seconds(65), 0}, facts, oldest), 3u);
    // 1000 bytes over with 800 bytes in use for 8 rows: about 10 rows, capped at the batch.
    EXPECT_EQ(
        itemsToTrim({0, std::chrono::seconds(0), 1000},
                    TrimFacts{.count = 8, .bytes = 1300, .rowBytes = 800, .now = 100}, oldest),
        3u);
    EXPECT_EQ(
        itemsToTrim({0, std::chrono::seconds(0), 100},
                    TrimFacts{.count = 8, .bytes = 1300, .rowBytes = 800, .now = 100}, oldest),
        5u);
    // A clock that jumped far back: nothing is old, and nothing from the future ever is.
    EXPECT_EQ(
        itemsToTrim({0, std::chrono::seconds(65), 0}, TrimFacts{.count = 5, .now = 0}, oldest), 0u);
}

}  // namespace
}  // namespace kestro
