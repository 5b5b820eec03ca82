#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <utility>

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
/// storing thread, which would wait for themselves), and for at most `kStoreWait`, so a
/// handler that never returns cannot hang the application's shutdown.
///
/// Thread safety: every member may be called from any thread.
template <typename Fn>
class HandlerSlot {
  public:
    static constexpr std::chrono::seconds kStoreWait{10};

    HandlerSlot() = default;
    HandlerSlot(const HandlerSlot&) = delete;
    HandlerSlot& operator=(const HandlerSlot&) = delete;

    /// Installs `fn` (an empty one uninstalls) and waits for calls of the previous handler to
    /// end. Returns false when the wait ran out with a call still under way.
    bool store(Fn fn) {
        auto next = fn ? std::make_shared<const Fn>(std::move(fn)) : nullptr;
        std::unique_lock lock(mutex_);
        next.swap(fn_);
        const int own = internal::callsOnThisThread(this);
        ++waiting_;
        const bool quiet = idle_.wait_for(lock, kStoreWait, [&] { return running_ <= own; });
        --waiting_;
        lock.unlock();
        return quiet;  // `next` now holds the previous handler and lets go of it unlocked
    }

    bool installed() const {
        std::lock_guard lock(mutex_);
        return fn_ != nullptr;
    }

    /// Calls the installed handler with `args`; returns false when none is installed.
    /// Exceptions from the handler reach the caller, after the call has been counted out.
    template <typename... Args>
    bool call(Args&&... args) const {
        return with([&](const Fn& fn) { fn(std::forward<Args>(args)...); });
    }

    /// Runs `body` with the installed handler, as one call: a batch of deliveries pays for
    /// the bookkeeping once. Returns false when none is installed.
    template <typename Body>
    bool with(Body&& body) const {
        struct Leave {
            const HandlerSlot* slot;
            bool counted = false;
            ~Leave() {
                internal::leaveCall(slot);
                if (!counted) return;
                std::lock_guard lock(slot->mutex_);
                --slot->running_;
                if (slot->waiting_ > 0) slot->idle_.notify_all();
            }
        };
        internal::enterCall(this);
        Leave leave{this};
        std::shared_ptr<const Fn> fn;
        {
            std::lock_guard lock(mutex_);
            if (!fn_) return false;
            fn = fn_;
            ++running_;
            leave.counted = true;
        }
        body(*fn);
        return true;
    }

  private:
    mutable std::mutex mutex_;
    mutable std::condition_variable idle_;
    std::shared_ptr<const Fn> fn_;
    mutable int running_ = 0;  // calls under way, on any thread
    int waiting_ = 0;          // store() calls waiting for them
};

}  // namespace kestro
