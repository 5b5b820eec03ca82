#include "kestro/core/app_lifecycle_observer.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kestro/core/main_queue.h"

namespace kestro {
namespace {

class AppLifecycleObserverTest : public ::testing::Test {
  protected:
    void SetUp() override { MainQueue::shared().useHostThread(); }
    void TearDown() override {
        MainQueue::shared().runUntilIdle();
        MainQueue::shared().useOwnThread();
    }
    // Posts from another thread, as a host integration may, and runs what reached the queue.
    static void deliver(void (*post)()) {
        std::thread(post).join();
        MainQueue::shared().runUntilIdle();
    }
    std::vector<std::string> calls;
};

TEST_F(AppLifecycleObserverTest, EachNotificationCallsItsOwnCallbackOnTheMainQueue) {
    AppLifecycleObserver observer;
    bool onMain = false;
    observer.setOnMoveToForeground([&] {
        onMain = MainQueue::shared().isCurrent();
        calls.push_back("foreground");
    });
    observer.setOnMoveToBackground([&] { calls.push_back("background"); });
    deliver(postApplicationDidEnterBackground);
    deliver(postApplicationWillEnterForeground);
    deliver(postApplicationWillEnterForeground);
    EXPECT_EQ(calls, (std::vector<std::string>{"background", "foreground", "foreground"}));
    EXPECT_TRUE(onMain);
}

TEST_F(AppLifecycleObserverTest, NotificationsWithoutCallbacksDoNothing) {
    AppLifecycleObserver observer;
    EXPECT_FALSE(observer.onMoveToForeground());
    EXPECT_FALSE(observer.onMoveToBackground());
    deliver(postApplicationWillEnterForeground);
    deliver(postApplicationDidEnterBackground);
    // Only one callback set: the other notification still reaches nothing.
    observer.setOnMoveToBackground([&] { calls.push_back("background"); });
    deliver(postApplicationWillEnterForeground);
    EXPECT_TRUE(calls.empty());
    deliver(postApplicationDidEnterBackground);
    EXPECT_EQ(calls, std::vector<std::string>{"background"});
}

TEST_F(AppLifecycleObserverTest, AReleasedObserverHearsNothingAndReleasesItsCallbacks) {
    auto held = std::make_shared<int>(0);
    auto observer = std::make_unique<AppLifecycleObserver>();
    observer->setOnMoveToForeground([this, held] { calls.push_back("old"); });
    // A notification already queued when the observer goes away is not delivered to it.
    postApplicationWillEnterForeground();
    observer.reset();
    EXPECT_EQ(held.use_count(), 1);
    MainQueue::shared().runUntilIdle();
    deliver(postApplicationWillEnterForeground);
    deliver(postApplicationDidEnterBackground);
    EXPECT_TRUE(calls.empty());
}

TEST_F(AppLifecycleObserverTest, ReplacingTheObserverLeavesExactlyOneSubscribed) {
    // As the facade does on every initialisation: a new observer replaces the old one.
    std::unique_ptr<AppLifecycleObserver> current;
    for (int generation = 1; generation <= 3; ++generation) {
        current = std::make_unique<AppLifecycleObserver>();
        current->setOnMoveToForeground(
            [this, generation] { calls.push_back("gen" + std::to_string(generation)); });
    }
    deliver(postApplicationWillEnterForeground);
    EXPECT_EQ(calls, std::vector<std::string>{"gen3"});
}

TEST_F(AppLifecycleObserverTest, ACallbackMayReplaceCallbacksWhileRunning) {
    AppLifecycleObserver observer;
    observer.setOnMoveToForeground([&] {
        calls.push_back("first");
        observer.setOnMoveToForeground([&] { calls.push_back("second"); });
    });
    deliver(postApplicationWillEnterForeground);
    deliver(postApplicationWillEnterForeground);
    EXPECT_EQ(calls, (std::vector<std::string>{"first", "second"}));
}

}  // namespace
}  // namespace kestro
