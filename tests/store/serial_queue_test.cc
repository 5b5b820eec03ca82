#include "kestro/store/serial_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "support/wait.h"

namespace kestro::store::internal {
namespace {

TEST(SerialQueueTest, RunsOnePieceAtATimeInArrivalOrderOnTheCallersThread) {
    SerialQueue queue("test.queue");
    EXPECT_EQ(queue.label(), "test.queue");
    EXPECT_FALSE(queue.isCurrent());

    // Hold the queue while three callers line up, one after another.
    std::atomic<bool> holding{false}, release{false};
    std::atomic<int> inside{0}, maxInside{0};
    std::vector<int> order;
    std::thread holder([&] {
        queue.sync([&] {
            holding = true;
            test::waitUntil([&] { return release.load(); });
            order.push_back(0);
        });
    });
    ASSERT_TRUE(test::waitUntil([&] { return holding.load(); }));
    std::vector<std::thread> callers;
    for (int i = 1; i <= 3; ++i) {
        callers.emplace_back([&, i] {
            queue.sync([&, i] {
                const int now = ++inside;
                maxInside = std::max(maxInside.load(), now);
                EXPECT_TRUE(queue.isCurrent());
                order.push_back(i);
                --inside;
            });
        });
        // The next caller arrives only once this one is waiting.
        ASSERT_TRUE(
            test::waitUntil([&] { return queue.waiting() == static_cast<std::size_t>(i); }));
    }
    EXPECT_FALSE(queue.isCurrent());
    release = true;
    holder.join();
    for (auto& c : callers) c.join();
    EXPECT_EQ(maxInside.load(), 1);
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3}));
}

TEST(SerialQueueTest, WorkSubmittedFromTheQueueRunsAtOnce) {
    SerialQueue queue("test.queue");
    const int result = queue.sync([&] {
        EXPECT_TRUE(queue.isCurrent());
        return queue.sync([&] { return queue.sync([] { return 7; }) * 6; });
    });
    EXPECT_EQ(result, 42);
    EXPECT_FALSE(queue.isCurrent());

    // Another queue nested inside keeps both marks right.
    SerialQueue other("test.other");
    queue.sync([&] {
        other.sync([&] {
            EXPECT_TRUE(queue.isCurrent());
            EXPECT_TRUE(other.isCurrent());
        });
        EXPECT_FALSE(other.isCurrent());
    });
}

TEST(SerialQueueTest, ManyThreadsNeverOverlap) {
    SerialQueue queue("test.queue");
    long counter = 0;  // unguarded on purpose: only the queue keeps it consistent
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 2000; ++i) queue.sync([&] { ++counter; });
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(counter, 8000);
}

}  // namespace
}  // namespace kestro::store::internal
