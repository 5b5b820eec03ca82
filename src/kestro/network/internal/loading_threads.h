#pragma once

// Internal to the network subsystem: the two loading threads and the hand-over between them.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>

namespace kestro::network::internal {

class DeliveryBatch;

/// Two threads take turns driving the loading loop. Completions the loop makes may run on the
/// thread that drives it, and a completion may run long or wait (even for a request it
/// started), so the second thread stands by: while completions run on the loop's owner it
/// looks every kWatchPeriod, and when the same round of completions is still running at its
/// next look it takes the loop over. The old owner becomes the stand-by when its completion
/// returns. The stand-by sleeps without a time-out while no completion runs on the loop, so an
/// idle process has no timer for it.
///
/// Thread safety: start() once; deliverHere() only on the thread driving the loop;
/// standbyReady() anywhere.
class LoadingThreads {
  public:
    LoadingThreads() = default;
    LoadingThreads(const LoadingThreads&) = delete;
    LoadingThreads& operator=(const LoadingThreads&) = delete;

    /// Starts both threads, named "kestro-loading", never joined: one calls drive() at once,
    /// the other stands by. drive() drives the loop and returns when the stand-by has taken it
    /// over (deliverHere() said so); that thread then stands by in turn.
    void start(std::function<void()> drive);

    /// Whether the other thread stands by, ready to take over from a completion that keeps
    /// this one. Completions run on the loop's owner only then.
    bool standbyReady() const { return standbyReady_.load(); }

    /// Runs the gathered completions on this thread, the loop's owner, which has let go of the
    /// loop's mutex. False when the stand-by took the loop over meanwhile: this thread then no
    /// longer owns it.
    bool deliverHere(DeliveryBatch& deliveries);

  private:
    // How long one completion may keep the loading thread before the stand-by takes over (it
    // looks once per period, so between one and two periods). Short, because a completion
    // that waits for a request it started waits that long.
    static constexpr auto kWatchPeriod = std::chrono::milliseconds(2);
    // delivery_: rounds of completions run on the loop's owner so far, times 2, plus this flag
    // while the owner is inside one. The stand-by takes the loop by clearing the flag.
    static constexpr std::uint64_t kDelivering = 1;

    void serve(bool owner);
    void standBy();

    std::function<void()> drive_;
    // Sequentially consistent throughout: the owner's "delivering" and the stand-by's "not
    // watching" must never miss each other.
    std::atomic<std::uint64_t> delivery_{0};
    std::atomic<bool> standbyReady_{false};  // a thread is in standBy()
    std::atomic<bool> watching_{false};      // ... and is looking at delivery_ each period
    std::mutex standbyMutex_;
    std::condition_variable standbyCv_;
};

}  // namespace kestro::network::internal
