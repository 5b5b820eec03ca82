#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

namespace kestro::store::internal {

/// A serial queue for synchronous work: at most one piece of work runs at a time, pieces run in
/// the order their callers arrived, and each caller blocks until its own piece is done.
///
/// The work runs on the caller's thread once the queue has been handed to it, so a call costs
/// no thread switch when nobody else holds the queue. Work submitted from inside work of the
/// same queue runs at once instead of waiting for itself.
///
/// Any thread. Work must not throw (it is noexcept-called: a throw terminates).
class SerialQueue {
  public:
    explicit SerialQueue(std::string label) : label_(std::move(label)) {}
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    const std::string& label() const { return label_; }

    /// True while the calling thread holds the queue (is running work submitted to it).
    bool isCurrent() const {
        return owner_.load(std::memory_order_relaxed) == std::this_thread::get_id();
    }

    /// How many callers are waiting for the queue.
    std::size_t waiting() const {
        std::lock_guard lock(mutex_);
        return waiting_;
    }

    /// Runs work on the queue and returns its result.
    template <typename F>
    decltype(auto) sync(F&& work) {
        if (isCurrent()) return std::forward<F>(work)();
        Hold hold(*this);
        return std::forward<F>(work)();
    }

  private:
    struct Hold {
        explicit Hold(SerialQueue& q) : queue(q) { queue.acquire(); }
        ~Hold() { queue.release(); }
        Hold(const Hold&) = delete;
        Hold& operator=(const Hold&) = delete;
        SerialQueue& queue;
    };

    void acquire();
    void release();

    const std::string label_;
    mutable std::mutex mutex_;
    std::condition_variable handedOver_;
    std::uint64_t nextTicket_ = 0;  // the ticket the next caller draws
    std::uint64_t serving_ = 0;     // the ticket that holds the queue
    std::size_t waiting_ = 0;
    std::atomic<std::thread::id> owner_{};
};

}  // namespace kestro::store::internal
