#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "kestro/core/console.h"

namespace kestro {

namespace internal {
// Counts, per thread, the calls into handler slots that are running on that thread, so that a
// handler that replaces its own slot does not wait for itself.
int callsOnThisThread(const void* slot);
void enterCall(const void* slot);
void leaveCall(const void* slot);
}  // namespace internal

/// Holds an application's handler and calls it from Kestro's threads.
///
/// The promise to the application: once `store()` returns, the handler it replaced is no
/// longer running and is never called again, so the application may destroy whatever that
/// handler refers to. Calls run concurrently with each other; `store()` waits only for calls
/// of the old handler already under way (not for calls made from within the handler on the
/// storing thread, which would wait for themselves), and for at most the slot's wait, so a
/// handler that never returns cannot hang the application's shutdown: the slot then says so
/// on the console and lets the handler go.
///
/// Thread safety: every member may be called from any thread.
template <typename Fn>
class HandlerSlot {
  public:
    static constexpr std::chrono::milliseconds kStoreWait{10000};

    /// `name` is what the console line calls the handler ("log handler").
    explicit HandlerSlot(std::string name, std::chrono::milliseconds wait = kStoreWait)
        : name_(std::move(name)), wait_(wait) {}
    HandlerSlot(const HandlerSlot&) = delete;
    HandlerSlot& operator=(const HandlerSlot&) = delete;

    /// Installs `fn` (an empty one uninstalls) and waits for calls of the previous handler to
    /// end. Returns false when the wait ran out with a call still under way.
    bool store(Fn fn) {
        auto next = fn ? std::make_shared<const Fn>(std::move(fn)) : nullptr;
        std::unique_lock lock(mutex_);
        next.swap(fn_);
        generation_.fetch_add(1, std::memory_order_release);
        const int own = internal::callsOnThisThread(this);
        ++waiting_;
        const bool quiet = idle_.wait_for(lock, wait_, [&] { return running_ <= own; });
        --waiting_;
        lock.unlock();
        if (!quiet) {
            printI("⚠️ The " + name_ + " was still running after " + std::to_string(wait_.count()) +
                       " ms; it was replaced without waiting any longer",
                   LogLevel::warning);
        }
        return quiet;  // `next` holds the previous handler and lets go of it here, unlocked
    }

    bool installed() const {
        std::lock_guard lock(mutex_);
        return fn_ != nullptr;
    }

    /// A hold on the installed handler for a run of calls: while a lease holds a handler,
    /// replacing that handler waits for the lease to let go. current() is the handler to call
    /// now (null when none is installed); after a replacement it lets go of the old one and
    /// takes the new one, so a run of deliveries pays for the locking once, not per call, and
    /// still never calls a handler after its replacement has returned.
    class Lease {
      public:
        explicit Lease(const HandlerSlot& slot) : slot_(slot) {
            std::lock_guard lock(slot_.mutex_);
            take();
        }
        ~Lease() {
            std::lock_guard lock(slot_.mutex_);
            letGo();
        }
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;

        const Fn* current() {
            if (slot_.generation_.load(std::memory_order_acquire) != generation_) {
                std::lock_guard lock(slot_.mutex_);
                letGo();
                take();
            }
            return fn_.get();
        }

      private:
        // Both under the slot's mutex.
        // A held handler is counted in running_ and in this thread's list of calls, so that a
        // store() from inside it does not wait for itself.
        void take() {
            generation_ = slot_.generation_.load(std::memory_order_relaxed);
            if (!slot_.fn_) return;
            internal::enterCall(&slot_);
            fn_ = slot_.fn_;
            ++slot_.running_;
        }
        void letGo() {
            if (!fn_) return;
            internal::leaveCall(&slot_);
            fn_.reset();
            --slot_.running_;
            if (slot_.waiting_ > 0) slot_.idle_.notify_all();
        }

        const HandlerSlot& slot_;
        std::shared_ptr<const Fn> fn_;
        std::uint64_t generation_ = 0;
    };

    Lease lease() const { return Lease(*this); }

    /// Calls the installed handler with `args`; returns false when none is installed.
    /// Exceptions from the handler reach the caller, after the call has been counted out.
    template <typename... Args>
    bool call(Args&&... args) const {
        Lease held(*this);
        const Fn* fn = held.current();
        if (!fn) return false;
        (*fn)(std::forward<Args>(args)...);
        return true;
    }

  private:
    const std::string name_;
    const std::chrono::milliseconds wait_;
    mutable std::mutex mutex_;
    mutable std::condition_variable idle_;
    std::shared_ptr<const Fn> fn_;
    // Bumped by every store(), so that a lease sees a replacement without taking the mutex.
    std::atomic<std::uint64_t> generation_{0};
    mutable int running_ = 0;  // leases holding a handler, on any thread
    int waiting_ = 0;          // store() calls waiting for them
};

}  // namespace kestro
