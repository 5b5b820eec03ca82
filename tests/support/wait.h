#pragma once

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kestro::test {

/// The calling thread's name (as the SDK names its own threads).
inline std::string threadName() {
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

/// Polls `done` until it is true or the deadline passes; never a fixed sleep. Returns done().
inline bool waitUntil(const std::function<bool()>& done,
                      std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) return done();
        std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

/// Collects values delivered from any thread and lets a test wait for N of them.
template <typename T>
class Recorder {
public:
    void add(T value) {
        std::lock_guard lock(mutex_);
        values_.push_back(std::move(value));
        cv_.notify_all();
    }
    /// Waits until at least n values arrived or the deadline passes; returns whether they did.
    bool waitFor(std::size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, timeout, [&] { return values_.size() >= n; });
    }
    std::vector<T> values() const {
        std::lock_guard lock(mutex_);
        return values_;
    }
    std::size_t size() const {
        std::lock_guard lock(mutex_);
        return values_.size();
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<T> values_;
};

}  // namespace kestro::test
