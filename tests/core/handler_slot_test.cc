#include "kestro/core/handler_slot.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "support/console_capture.h"
#include "support/wait.h"

namespace kestro {
namespace {

using namespace std::chrono_literals;
using Slot = HandlerSlot<std::function<void(int)>>;

TEST(HandlerSlotTest, ReplacingWaitsForCallsOfTheOldHandlerAndNoneComeAfter) {
    Slot slot{"test handler"};
    std::atomic<int> oldCalls{0};
    std::atomic<bool> stop{false};
    slot.store([&](int) { oldCalls.fetch_add(1); });

    std::vector<std::thread> callers;
    for (int t = 0; t < 4; ++t) {
        callers.emplace_back([&] {
            for (int i = 0; i < 200000 && !stop.load(); ++i) slot.call(i);
        });
    }
    ASSERT_TRUE(test::waitUntil([&] { return oldCalls.load() > 100; }));
    std::atomic<int> newCalls{0};
    ASSERT_TRUE(slot.store([&](int) { newCalls.fetch_add(1); }));
    const int atReturn = oldCalls.load();
    // The callers go on calling (the new handler) for a while; the old one must stay silent.
    EXPECT_TRUE(test::waitUntil([&] { return newCalls.load() > 1000; }));
    stop.store(true);
    for (auto& c : callers) c.join();
    EXPECT_EQ(oldCalls.load(), atReturn);
}

TEST(HandlerSlotTest, StoreReturnsOnlyAfterARunningCallEnds) {
    Slot slot{"test handler"};
    std::atomic<bool> inside{false}, storing{false}, stored{false}, storeReturnedEarly{false};
    slot.store([&](int) {
        inside.store(true);
        // Give a store() that does not wait ample time to come back while this call runs.
        EXPECT_TRUE(test::waitUntil([&] { return storing.load(); }));
        storeReturnedEarly.store(test::waitUntil([&] { return stored.load(); }, 200ms));
    });
    std::thread caller([&] { EXPECT_TRUE(slot.call(1)); });
    ASSERT_TRUE(test::waitUntil([&] { return inside.load(); }));
    storing.store(true);
    EXPECT_TRUE(slot.store(nullptr));
    stored.store(true);
    caller.join();
    EXPECT_FALSE(storeReturnedEarly.load());
    EXPECT_FALSE(slot.installed());
    EXPECT_FALSE(slot.call(2));
}

TEST(HandlerSlotTest, AHandlerMayReplaceItselfEvenInsideALeaseAndAThrowingCallIsCountedOut) {
    Slot slot{"test handler"};
    std::vector<int> seen;
    slot.store([&](int v) {
        seen.push_back(v);
        // Waiting for itself here would never end; the slot knows this thread is inside.
        EXPECT_TRUE(slot.store([&](int w) { seen.push_back(-w); }));
    });
    EXPECT_TRUE(slot.call(1));
    EXPECT_TRUE(slot.call(2));
    EXPECT_EQ(seen, (std::vector<int>{1, -2}));

    // A run of calls under one lease follows a replacement made from inside it at once:
    // the handler that stopped itself gets nothing more.
    seen.clear();
    slot.store([&](int v) {
        seen.push_back(v);
        if (v == 1) {
            EXPECT_TRUE(slot.store(nullptr));
        }
    });
    {
        auto lease = slot.lease();
        for (int v = 1; v <= 3; ++v) {
            if (const auto* fn = lease.current()) (*fn)(v);
        }
    }
    EXPECT_EQ(seen, (std::vector<int>{1}));

    slot.store([](int) { throw std::runtime_error("handler failed"); });
    EXPECT_THROW(slot.call(3), std::runtime_error);
    // The thrown call no longer counts as running: replacing the handler does not wait.
    const auto before = std::chrono::steady_clock::now();
    EXPECT_TRUE(slot.store(nullptr));
    EXPECT_LT(std::chrono::steady_clock::now() - before, Slot::kStoreWait / 2);
}

TEST(HandlerSlotTest, AHandlerThatDoesNotReturnIsLetGoAfterTheWaitWithAConsoleLine) {
    Slot slot{"stuck handler", 100ms};
    std::atomic<bool> inside{false}, release{false};
    slot.store([&](int) {
        inside.store(true);
        EXPECT_TRUE(test::waitUntil([&] { return release.load(); }));
    });
    std::thread caller([&] { slot.call(1); });
    ASSERT_TRUE(test::waitUntil([&] { return inside.load(); }));
    {
        test::ConsoleCapture console;
        EXPECT_FALSE(slot.store(nullptr));
        EXPECT_NE(console.text().find("⚠️ The stuck handler was still running after 100 ms"),
                  std::string::npos);
    }
    EXPECT_FALSE(slot.call(2));
    release.store(true);
    caller.join();
}

}  // namespace
}  // namespace kestro
