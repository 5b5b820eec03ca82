#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "kestro/core/executor.h"
#include "kestro/core/main_queue.h"
#include "kestro/core/notification_center.h"
#include "support/wait.h"

namespace kestro {
namespace {

TEST(MainQueueTest, OwnThreadRunsTasksInOrderOnOneThread) {
    MainQueue queue;
    std::vector<int> order;
    std::thread::id first;
    std::atomic<bool> sameThread{true};
    for (int i = 0; i < 100; ++i) {
        queue.post([&, i] {
            if (i == 0) {
                first = std::this_thread::get_id();
                EXPECT_EQ(test::threadName(), "kestro-main");
            } else if (std::this_thread::get_id() != first) {
                sameThread = false;
            }
            EXPECT_TRUE(queue.isCurrent());
            order.push_back(i);
        });
    }
    ASSERT_TRUE(queue.waitIdle());
    ASSERT_EQ(order.size(), 100u);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(order[i], i);
    EXPECT_TRUE(sameThread);
    EXPECT_NE(first, std::this_thread::get_id());
    EXPECT_FALSE(queue.isCurrent());
}

TEST(MainQueueTest, HostModeRunsOnlyInsideDrain) {
    MainQueue queue;
    queue.useHostThread();
    std::vector<std::string> log;
    queue.post([&] {
        log.push_back("a");
        queue.post([&] { log.push_back("c"); });  // queued while draining: next drain
        queue.dispatch([&] { log.push_back("b"); });  // already on the queue: runs inline
    });
    EXPECT_TRUE(log.empty());
    EXPECT_EQ(queue.drain(), 1u);
    EXPECT_EQ(log, (std::vector<std::string>{"a", "b"}));
    EXPECT_TRUE(queue.runUntilIdle());
    EXPECT_EQ(log, (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(queue.pending(), 0u);
}

TEST(MainQueueTest, SwitchingModesKeepsQueuedTasks) {
    MainQueue queue;
    std::atomic<int> ran{0};
    queue.post([&] { ++ran; });
    ASSERT_TRUE(queue.waitIdle());
    queue.useHostThread();
    queue.post([&] { ++ran; });
    EXPECT_EQ(ran.load(), 1);
    queue.useOwnThread();
    ASSERT_TRUE(queue.waitIdle());
    EXPECT_EQ(ran.load(), 2);
}

TEST(MainQueueTest, ThrowingTaskDoesNotStopTheQueue) {
    MainQueue queue;
    queue.useHostThread();
    bool after = false;
    queue.post([] { throw std::runtime_error("boom"); });
    queue.post([&] { after = true; });
    EXPECT_TRUE(queue.runUntilIdle());
    EXPECT_TRUE(after);
}

TEST(MainQueueTest, RunUntilWaitsForWorkFromOtherThreads) {
    MainQueue& main = MainQueue::shared();
    main.useHostThread();
    std::atomic<bool> done{false};
    postTask([&] { main.post([&] { done = true; }); });
    EXPECT_TRUE(main.runUntil([&] { return done.load(); }));
    main.useOwnThread();
}

TEST(ExecutorTest, DelayedTasksRunOnceAndCancelledOnesNever) {
    std::atomic<int> fired{0}, cancelled{0};
    auto keep = runAfter(std::chrono::milliseconds(5), [&] { ++fired; });
    {
        auto dropped = runAfter(std::chrono::milliseconds(5), [&] { ++cancelled; });
    }  // destroying the handle cancels
    auto cancel = runAfter(std::chrono::milliseconds(5), [&] { ++cancelled; });
    cancel.cancel();
    ASSERT_TRUE(test::waitUntil([&] { return fired.load() == 1; }));
    // A later timer firing proves the cancelled ones had their chance and did not run.
    std::atomic<bool> later{false};
    auto last = runAfter(std::chrono::milliseconds(30), [&] { later = true; });
    ASSERT_TRUE(test::waitUntil([&] { return later.load(); }));
    EXPECT_EQ(cancelled.load(), 0);
    EXPECT_EQ(fired.load(), 1);
}

// The pool's threads are started by the SDK and attached to it: all of them must be running
// tasks, at the same time, under the SDK's name.
TEST(ExecutorTest, EveryWorkerRunsTasksConcurrentlyUnderTheSdksName) {
    const unsigned workers = std::max(2u, std::thread::hardware_concurrency());
    std::mutex m;
    std::condition_variable cv;
    unsigned arrived = 0, finished = 0;
    std::set<std::thread::id> threads;
    std::set<std::string> names;
    for (unsigned i = 0; i < workers; ++i) {
        postTask([&] {
            std::unique_lock lock(m);
            threads.insert(std::this_thread::get_id());
            names.insert(test::threadName());
            ++arrived;
            cv.notify_all();
            // Each task holds its worker until every task has started.
            cv.wait_for(lock, std::chrono::seconds(10), [&] { return arrived == workers; });
            ++finished;
            cv.notify_all();
        });
    }
    std::unique_lock lock(m);
    ASSERT_TRUE(cv.wait_for(lock, std::chrono::seconds(20), [&] { return finished == workers; }));
    EXPECT_EQ(threads.size(), workers);
    EXPECT_EQ(names, std::set<std::string>{"kestro-worker"});
}

TEST(ExecutorTest, LongNamesAreShortenedToWhatTheSystemKeeps) {
    std::string seen;
    std::thread([&] {
        nameThisThread("a-name-longer-than-fifteen");
        seen = test::threadName();
    }).join();
    EXPECT_EQ(seen, "a-name-longer-t");
}

TEST(NotificationCenterTest, ObserversRunOnTheMainQueueUntilTheirTokenGoes) {
    MainQueue& main = MainQueue::shared();
    main.useHostThread();
    NotificationCenter center;
    std::vector<std::string> seen;
    auto a = center.addObserver(kOpenKestroSheet, [&](const Notification& n) {
        EXPECT_TRUE(main.isCurrent());
        seen.push_back("a:" + n.name);
    });
    auto b = center.addObserver(kWebsocketConnectionChange, [&](const Notification& n) {
        seen.push_back("b:" + std::to_string(std::any_cast<int>(n.object)));
    });
    std::thread([&] {
        center.post(kOpenKestroSheet);
        center.post(kWebsocketConnectionChange, 7);
        center.post("unobserved");
    }).join();
    EXPECT_TRUE(seen.empty());  // nothing runs before the main queue does
    main.runUntilIdle();
    EXPECT_EQ(seen, (std::vector<std::string>{"a:openKestroSheet", "b:7"}));

    center.post(kOpenKestroSheet);
    a.reset();  // gone before delivery: not called
    main.runUntilIdle();
    EXPECT_EQ(seen.size(), 2u);
    main.useOwnThread();
}

}  // namespace
}  // namespace kestro
