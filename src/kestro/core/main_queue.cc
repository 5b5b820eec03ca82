#include "kestro/core/main_queue.h"

#include <exception>

#include "kestro/core/console.h"
#include "kestro/core/executor.h"

namespace kestro {
namespace {

thread_local int tOnMainQueue = 0;

struct OnMainQueue {
    OnMainQueue() { ++tOnMainQueue; }
    ~OnMainQueue() { --tOnMainQueue; }
};

}  // namespace

MainQueue& MainQueue::shared() {
    // Never destroyed: tasks may still be queued from other threads while the process exits.
    static MainQueue* queue = new MainQueue();
    return *queue;
}

MainQueue::MainQueue() = default;

MainQueue::~MainQueue() {
    std::unique_lock lock(mutex_);
    stopThread_ = true;
    cv_.notify_all();
    lock.unlock();
    if (thread_.joinable()) thread_.join();
}

void MainQueue::runTask(Task& task) {
    OnMainQueue guard;
    runReportingThrows("A main-queue task", task);
}

void MainQueue::ensureThreadLocked() {
    if (hostDriven_ || thread_.joinable()) return;
    stopThread_ = false;
    thread_ = std::thread([this] {
        nameThisThread("kestro-main");
        threadLoop();
    });
    threadId_ = thread_.get_id();
}

void MainQueue::threadLoop() {
    std::unique_lock lock(mutex_);
    for (;;) {
        cv_.wait(lock, [&] { return stopThread_ || hostDriven_ || !tasks_.empty(); });
        if (stopThread_ || hostDriven_) break;
        Task task = std::move(tasks_.front());
        tasks_.pop_front();
        running_ = true;
        lock.unlock();
        runTask(task);
        task = nullptr;  // destroy captures outside the lock
        lock.lock();
        running_ = false;
        if (tasks_.empty()) idleCv_.notify_all();
    }
}

void MainQueue::post(Task task) {
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
    ensureThreadLocked();
    cv_.notify_all();
}

void MainQueue::dispatch(Task task) {
    if (isCurrent()) {
        runTask(task);
        return;
    }
    post(std::move(task));
}

bool MainQueue::isCurrent() const { return tOnMainQueue > 0; }

void MainQueue::useHostThread() {
    std::thread old;
    {
        std::lock_guard lock(mutex_);
        hostDriven_ = true;
        cv_.notify_all();
        old = std::move(thread_);
    }
    if (old.joinable() && old.get_id() != std::this_thread::get_id()) old.join();
    else if (old.joinable()) old.detach();
}

void MainQueue::useOwnThread() {
    std::lock_guard lock(mutex_);
    hostDriven_ = false;
    if (!tasks_.empty()) ensureThreadLocked();
}

bool MainQueue::isHostDriven() const {
    std::lock_guard lock(mutex_);
    return hostDriven_;
}

std::size_t MainQueue::drain() {
    std::deque<Task> batch;
    {
        std::lock_guard lock(mutex_);
        if (!hostDriven_) return 0;
        batch.swap(tasks_);
    }
    for (auto& task : batch) runTask(task);
    return batch.size();
}

bool MainQueue::runUntilIdle(std::chrono::milliseconds timeout) {
    if (!isHostDriven()) return waitIdle(timeout);
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (drain() == 0) return pending() == 0;
    }
    return pending() == 0;
}

bool MainQueue::runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (isHostDriven()) drain();
        if (done()) return true;
        std::unique_lock lock(mutex_);
        if (std::chrono::steady_clock::now() >= deadline) return false;
        // Wake on a new task (host mode) or poll briefly for effects produced by other threads.
        cv_.wait_until(lock, std::min(deadline, std::chrono::steady_clock::now() +
                                                    std::chrono::milliseconds(2)),
                       [&] { return hostDriven_ && !tasks_.empty(); });
    }
}

bool MainQueue::waitIdle(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    if (hostDriven_) return tasks_.empty();
    return idleCv_.wait_for(lock, timeout, [&] { return tasks_.empty() && !running_; });
}

std::size_t MainQueue::pending() const {
    std::lock_guard lock(mutex_);
    return tasks_.size();
}

}  // namespace kestro
