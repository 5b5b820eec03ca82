#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include "kestro/core/export.h"

namespace kestro {

/// The SDK's main queue: one serial executor on which every "main thread" step runs (the
/// deferred half of initialisation, WebSocket state changes, dashboard commands, notifications,
/// inspector work).
///
/// By default it runs on a thread of its own, started on first use. A GUI host calls
/// useHostThread() before initialising the SDK and then drain() once per frame on its UI
/// thread, so that every main-queue step runs on the UI thread. Tests use host mode too and
/// step the queue deterministically with runUntilIdle() / runUntil().
///
/// All members may be called from any thread. Tasks must not throw; one that does is reported
/// through printI and dropped.
class KESTRO_API MainQueue {
public:
    using Task = std::function<void()>;

    static MainQueue& shared();

    /// Queues a task; it runs after every task queued before it.
    void post(Task task);
    /// Runs the task at once when called on the main queue, otherwise queues it.
    void dispatch(Task task);
    /// True while the calling thread is running main-queue tasks.
    bool isCurrent() const;

    /// Switches to host mode: the own thread (if any) finishes its current task and stops, and
    /// from then on tasks run only inside drain() / runUntilIdle() / runUntil().
    void useHostThread();
    /// Switches back to the own thread (started at once if tasks are waiting).
    void useOwnThread();
    bool isHostDriven() const;

    /// Host mode: runs the tasks queued at the moment of the call (not those they queue) on the
    /// calling thread and returns how many ran. In own-thread mode it does nothing.
    std::size_t drain();
    /// Host mode: runs tasks, including those queued while running, until the queue is empty or
    /// the deadline passes. Returns true if the queue was left empty.
    bool runUntilIdle(std::chrono::milliseconds timeout = std::chrono::seconds(5));
    /// Runs tasks as they arrive (host mode) or waits (own-thread mode) until done() is true or
    /// the deadline passes. done() is evaluated on the calling thread between tasks.
    bool runUntil(const std::function<bool()>& done,
                  std::chrono::milliseconds timeout = std::chrono::seconds(5));
    /// Own-thread mode: waits until the queue is empty and no task is running.
    bool waitIdle(std::chrono::milliseconds timeout = std::chrono::seconds(5));

    /// Number of tasks waiting.
    std::size_t pending() const;

    MainQueue();
    ~MainQueue();
    MainQueue(const MainQueue&) = delete;
    MainQueue& operator=(const MainQueue&) = delete;

private:
    void runTask(Task& task);
    void threadLoop();
    void ensureThreadLocked();

    mutable std::mutex mutex_;
    std::condition_variable cv_;       // tasks arrived, or the mode changed
    std::condition_variable idleCv_;   // the queue became empty and nothing runs
    std::deque<Task> tasks_;
    bool hostDriven_ = false;
    bool running_ = false;  // a task is being run in own-thread mode
    bool stopThread_ = false;
    std::thread thread_;
    std::thread::id threadId_;
};

}  // namespace kestro
