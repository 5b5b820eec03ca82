#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>

#include "kestro/core/main_queue.h"
#include "kestro/store/request_store_sqlite.h"
#include "store/store_fixtures.h"
#include "support/console_capture.h"
#include "support/wait.h"

namespace kestro {
namespace {

using Kind = RequestsChange::Kind;
using store::internal::RequestListEditor;
using test::logRecord;
using test::TempDir;

std::vector<std::string> ids(const RequestList& items) {
    std::vector<std::string> out;
    for (const auto& item : items) out.push_back(item.id());
    return out;
}

// --- The list on its own: a model check over chunk boundaries ---------------------------------

// Applies random front insertions and removals to the editor and to a plain vector, and checks
// after every step that the committed list matches the vector and that every snapshot taken
// earlier still shows exactly what it showed when it was taken.
TEST(RequestListTest, MatchesAPlainVectorAndOldSnapshotsNeverChange) {
    RequestListEditor editor;
    std::vector<std::string> model;  // newest first
    std::vector<std::pair<RequestList, std::vector<std::string>>> snapshots;
    std::mt19937 random(12345);
    for (int step = 0; step < 3000; ++step) {
        const int choice = static_cast<int>(random() % 100);
        if (choice < 75 || model.empty()) {
            // Few distinct ids, so that removals often take several items at once.
            const std::string id = "id" + std::to_string(random() % 60);
            auto item = std::make_shared<const RequestEventType>(logRecord(id, step));
            editor.commit({Kind::inserted, id, editor.pushingFront(item)});
            model.insert(model.begin(), id);
        } else if (choice < 97) {
            const std::string id = model[random() % model.size()];
            auto next = editor.removing(id);
            ASSERT_TRUE(next.has_value());
            editor.commit({Kind::removed, id, std::move(*next)});
            std::erase(model, id);
        } else {
            EXPECT_FALSE(editor.removing("never-listed").has_value());
            if (choice == 99) {
                editor.commit({Kind::replaced, {}, RequestList()});
                model.clear();
            }
        }
        ASSERT_EQ(ids(editor.current()), model) << "step " << step;
        if (step % 97 == 0) snapshots.emplace_back(editor.current(), model);
    }
    for (const auto& [snapshot, expected] : snapshots) EXPECT_EQ(ids(snapshot), expected);
}

TEST(RequestListTest, SnapshotsShareItemsInsteadOfCopyingThem) {
    RequestListEditor editor;
    std::vector<RequestEventType> loaded;
    for (int i = 0; i < 1000; ++i) loaded.push_back(logRecord("L" + std::to_string(999 - i), i));
    editor.commit({Kind::replaced, {}, RequestListEditor::fromVector(std::move(loaded))});
    const RequestList before = editor.current();
    EXPECT_EQ(before.front().id(), "L999");
    EXPECT_EQ(before[999].id(), "L0");
    EXPECT_EQ(before.indexOf("L500"), std::optional<std::size_t>(499));

    auto added = std::make_shared<const RequestEventType>(logRecord("new", 5000));
    editor.commit({Kind::inserted, "new", editor.pushingFront(added)});
    const RequestList after = editor.current();
    ASSERT_EQ(after.size(), 1001u);
    EXPECT_EQ(&after[0], added.get());
    // The same objects, seen one place further back: nothing was copied.
    for (std::size_t i = 0; i < before.size(); i += 37) EXPECT_EQ(&after[i + 1], &before[i]);
    EXPECT_EQ(before.size(), 1000u);

    // Removing one of the newest items copies only the pointers of the newest chunk.
    editor.commit({Kind::removed, "L998", *editor.removing("L998")});
    const RequestList removed = editor.current();
    EXPECT_EQ(&removed[999], &before[999]);
    EXPECT_EQ(removed[2].id(), "L997");
    EXPECT_EQ(removed.toVector().size(), 1000u);
    EXPECT_FALSE(removed == after);
    EXPECT_TRUE(before == RequestListEditor::fromVector(before.toVector()));
}

// --- Observing the store's list ----------------------------------------------------------------

class ObservedStoreTest : public ::testing::Test {
  protected:
    void SetUp() override { MainQueue::shared().useHostThread(); }
    void TearDown() override {
        MainQueue::shared().runUntilIdle();
        MainQueue::shared().useOwnThread();
    }
    std::filesystem::path dbPath() const { return dir.file("requests.sqlite"); }
    TempDir dir;
    test::ConsoleSilence quiet;
};

struct Seen {
    Kind kind;
    std::string id;
    std::vector<std::string> coming;
    std::vector<std::string> currentDuringCall;
};

TEST_F(ObservedStoreTest, ObserversAreToldOfEachChangeBeforeItIsMade) {
    RequestStoreSQLite store(dbPath());
    store.add(logRecord("first", 1));
    std::vector<Seen> seen;
    auto subscription = store.observeRequests([&](const RequestsChange& change) {
        seen.push_back({change.kind, change.id, ids(change.requests), ids(store.requests())});
    });
    store.add(logRecord("second", 2));
    store.update("first", logRecord("first", 3));
    store.deleteById("second");
    store.deleteById("absent");  // nothing changes, nobody is told
    store.setRequests({logRecord("x", 9)});
    store.deleteAll();
    store.deleteAll();  // already empty

    using V = std::vector<std::string>;
    ASSERT_EQ(seen.size(), 7u);
    EXPECT_EQ(seen[0].kind, Kind::initial);
    EXPECT_EQ(seen[0].coming, V{"first"});
    EXPECT_EQ(seen[1].kind, Kind::inserted);
    EXPECT_EQ(seen[1].id, "second");
    EXPECT_EQ(seen[1].coming, (V{"second", "first"}));
    EXPECT_EQ(seen[1].currentDuringCall, V{"first"});  // told before the change
    EXPECT_EQ(seen[2].kind, Kind::removed);            // update: delete, then add
    EXPECT_EQ(seen[2].coming, V{"second"});
    EXPECT_EQ(seen[3].kind, Kind::inserted);
    EXPECT_EQ(seen[3].coming, (V{"first", "second"}));
    EXPECT_EQ(seen[3].currentDuringCall, V{"second"});
    EXPECT_EQ(seen[4].coming, V{"first"});
    EXPECT_EQ(seen[5].kind, Kind::replaced);
    EXPECT_EQ(seen[5].coming, V{"x"});
    EXPECT_EQ(seen[6].kind, Kind::replaced);
    EXPECT_TRUE(seen[6].coming.empty());
    EXPECT_EQ(seen[6].currentDuringCall, V{"x"});

    subscription.reset();
    store.add(logRecord("unseen", 4));
    EXPECT_EQ(seen.size(), 7u);
}

TEST_F(ObservedStoreTest, MainQueueObserversAreServedOnTheMainQueueInOrder) {
    RequestStoreSQLite store(dbPath());
    std::vector<std::pair<Kind, std::size_t>> seen;
    bool allOnMain = true;
    auto subscription = store.observeRequests(
        [&](const RequestsChange& change) {
            allOnMain = allOnMain && MainQueue::shared().isCurrent();
            seen.emplace_back(change.kind, change.requests.size());
        },
        RequestStoreSQLite::Delivery::mainQueue);

    // Changes made from other threads reach the observer only through the main queue.
    std::thread writer([&] {
        for (int i = 0; i < 5; ++i) store.add(logRecord("T" + std::to_string(i), i));
        store.deleteById("T0");
    });
    writer.join();
    EXPECT_TRUE(seen.empty());
    ASSERT_TRUE(MainQueue::shared().runUntilIdle());
    const std::vector<std::pair<Kind, std::size_t>> expected = {
        {Kind::initial, 0},  {Kind::inserted, 1}, {Kind::inserted, 2}, {Kind::inserted, 3},
        {Kind::inserted, 4}, {Kind::inserted, 5}, {Kind::removed, 4}};
    EXPECT_EQ(seen, expected);
    EXPECT_TRUE(allOnMain);

    // A delivery still queued when the subscription ends is dropped.
    store.add(logRecord("late", 9));
    subscription.reset();
    ASSERT_TRUE(MainQueue::shared().runUntilIdle());
    EXPECT_EQ(seen.size(), expected.size());
}

TEST_F(ObservedStoreTest, AnObserverMayCallTheStoreWithoutDeadlock) {
    RequestStoreSQLite store(dbPath());
    std::vector<std::string> told;
    RequestsSubscription own;
    auto subscription = store.observeRequests([&](const RequestsChange& change) {
        told.push_back(change.id);
        if (change.kind != Kind::inserted) return;
        // Reads run at once, inside the change being announced.
        EXPECT_EQ(store.getById(change.id)->id(), change.id);
        EXPECT_FALSE(store.getAll().empty());
        // A change made here follows the one being announced.
        if (change.id == "trigger") store.add(logRecord("follow-up", 100));
        if (change.id == "follow-up") own = store.observeRequests([](const RequestsChange&) {});
    });
    store.add(logRecord("trigger", 1));
    EXPECT_EQ(told, (std::vector<std::string>{"", "trigger", "follow-up"}));
    EXPECT_EQ(ids(store.requests()), (std::vector<std::string>{"follow-up", "trigger"}));
    EXPECT_EQ(store.getAll().size(), 2u);
    EXPECT_TRUE(own);
}

TEST_F(ObservedStoreTest, AnObserverMayUnsubscribeItselfAndThrowingIsReported) {
    RequestStoreSQLite store(dbPath());
    int calls = 0;
    RequestsSubscription self;
    self = store.observeRequests([&](const RequestsChange& change) {
        ++calls;
        if (change.kind == Kind::inserted) self.reset();
    });
    auto thrower = store.observeRequests([](const RequestsChange& change) {
        if (change.kind == Kind::inserted) throw std::runtime_error("observer broke");
    });
    test::ConsoleCapture console;
    store.add(logRecord("a", 1));
    store.add(logRecord("b", 2));
    EXPECT_EQ(calls, 2);  // initial and the first insertion
    EXPECT_NE(console.text().find("❌ An observer of the stored requests threw: observer broke"),
              std::string::npos);
    EXPECT_EQ(store.requests().size(), 2u);  // a throwing observer does not stop the change
}

TEST_F(ObservedStoreTest, ASubscriptionMayOutliveItsStore) {
    RequestsSubscription subscription;
    int calls = 0;
    {
        RequestStoreSQLite store(dbPath());
        subscription = store.observeRequests([&](const RequestsChange&) { ++calls; },
                                             RequestStoreSQLite::Delivery::mainQueue);
        store.add(logRecord("a", 1));
    }
    ASSERT_TRUE(MainQueue::shared().runUntilIdle());
    EXPECT_EQ(calls, 2);
    subscription.reset();
}

// Writers on several threads, a reader taking snapshots, and an observer on the store's queue:
// every snapshot is a consistent list, and the observer sees each insertion once, in the order
// the list grew.
TEST_F(ObservedStoreTest, ConcurrentWritersReadersAndObserversAgree) {
    RequestStoreSQLite store(dbPath());
    constexpr int kThreads = 3, kEach = 60;
    std::vector<std::size_t> sizesSeen;
    auto subscription = store.observeRequests(
        [&](const RequestsChange& change) { sizesSeen.push_back(change.requests.size()); });
    std::atomic<bool> done{false};
    std::atomic<int> badSnapshots{0};
    // A consistent snapshot is the list at one moment: each writer's items form a prefix of
    // what it added (W<t>-0 up to some W<t>-k, newest first), and an earlier snapshot is the
    // tail of every later one (items are only added, at the front).
    auto consistent = [](const RequestList& snapshot, const RequestList& earlier) {
        std::vector<int> next(kThreads, -1);  // per writer, the index expected next going back
        for (const RequestEventType& item : snapshot) {
            const std::string& id = item.id();
            if (id.size() < 4 || id[0] != 'W') return false;
            const int t = id[1] - '0';
            if (t < 0 || t >= kThreads) return false;
            const int i = std::stoi(id.substr(3));
            if (next[t] == -1) next[t] = i;
            if (i != next[t]--) return false;
        }
        for (int t = 0; t < kThreads; ++t) {
            if (next[t] != -1) return false;  // every writer's run ends at its item 0
        }
        if (earlier.size() > snapshot.size()) return false;
        const std::size_t offset = snapshot.size() - earlier.size();
        for (std::size_t i = 0; i < earlier.size(); ++i) {
            if (snapshot[offset + i].id() != earlier[i].id()) return false;
        }
        return true;
    };
    RequestList earlier = store.requests();
    std::thread reader([&] {
        // For as long as the writers write (bounded in time).
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (!done.load() && std::chrono::steady_clock::now() < deadline) {
            RequestList snapshot = store.requests();
            if (!consistent(snapshot, earlier)) ++badSnapshots;
            earlier = std::move(snapshot);
        }
    });
    std::vector<std::thread> writers;
    for (int t = 0; t < kThreads; ++t) {
        writers.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i)
                store.add(logRecord("W" + std::to_string(t) + "-" + std::to_string(i), i));
        });
    }
    for (auto& w : writers) w.join();
    done = true;
    reader.join();
    EXPECT_EQ(badSnapshots.load(), 0);
    EXPECT_TRUE(consistent(store.requests(), earlier));
    EXPECT_EQ(store.requests().size(), std::size_t{kThreads * kEach});
    EXPECT_EQ(store.getAll().size(), std::size_t{kThreads * kEach});
    ASSERT_EQ(sizesSeen.size(), std::size_t{kThreads * kEach + 1});
    for (std::size_t i = 0; i < sizesSeen.size(); ++i) EXPECT_EQ(sizesSeen[i], i);
}

}  // namespace
}  // namespace kestro
