#pragma once

// Internal to the network subsystem: how the layer hands work on without running it inside
// the call that made it.

#include <boost/asio/execution/relationship.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/require.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "kestro/core/executor.h"

namespace kestro::network::internal {

struct TaskCore;

/// Posts f to the global executor. Posted from one of the executor's own workers, f runs on
/// that worker right after the task it is posted from, so handing a result on costs no wake-up
/// of another worker; posted from any other thread, it goes to whichever worker is free.
template <typename F>
void postFollowUp(F&& f) {
    boost::asio::post(boost::asio::require(globalExecutor().get_executor(),
                                           boost::asio::execution::relationship.continuation),
                      std::forward<F>(f));
}

/// Work that must not run inside the call that produces it: a task's completion, letting go of
/// a protocol handler (whose own call may be what produced it), or work handed to the loading
/// thread by runOnLoadingThreadSoon().
struct Deferred {
    enum class Kind : std::uint8_t { complete, releaseHandler, stopAndReleaseHandler, work };
    Kind kind;
    std::shared_ptr<TaskCore> core;
    std::function<void()> work;  // Kind::work only
    void run() const;
};

/// Deferred work made on one thread, run or posted together once the thread is done with what
/// it is doing. While a thread has a batch open, handOn() adds to it; otherwise handOn() posts
/// (or, on a loading thread running completions, hands the work to the loop).
class DeliveryBatch {
  public:
    DeliveryBatch() : previous_(tCurrent) { tCurrent = this; }
    /// A batch opened inside another hands its work to the outer one, which runs or posts it
    /// with its own.
    ~DeliveryBatch() {
        tCurrent = previous_;
        if (previous_) {
            for (auto& d : items_) previous_->items_.push_back(std::move(d));
        } else {
            flush();
        }
    }
    DeliveryBatch(const DeliveryBatch&) = delete;
    DeliveryBatch& operator=(const DeliveryBatch&) = delete;

    static void handOn(Deferred d);

    bool empty() const { return items_.empty(); }
    void moveTo(std::vector<Deferred>& out) {
        for (auto& d : items_) out.push_back(std::move(d));
        items_.clear();
    }

    /// Posts the work gathered so far to the executor as one task: at most one worker wake-up
    /// per batch instead of one per item.
    void flush() {
        if (items_.empty()) return;
        if (items_.size() == 1) {
            postFollowUp([d = std::move(items_.front())] { d.run(); });
            items_.clear();
        } else {
            postFollowUp([items = std::move(items_)] {
                for (const auto& d : items) d.run();
            });
            items_ = {};
        }
    }

    /// Runs the work gathered so far on the loading thread, one item after the other. While an
    /// item runs, no batch is open on this thread and the work it makes (a handler's client
    /// completing the application's task, a request it started that was answered at once)
    /// goes to the loop's hand-over list instead of queueing behind it: the item may be
    /// waiting for exactly that work, and when it does, the thread that takes the loop over
    /// finds it there. When the item returns, this thread takes the list itself on its next
    /// round.
    void runHere() {
        DeliveryBatch* const open = tCurrent;
        tCurrent = nullptr;
        tOnLoop = true;
        running_.swap(items_);
        for (const auto& d : running_) d.run();
        running_.clear();
        tOnLoop = false;
        tCurrent = open;
    }

  private:
    static thread_local DeliveryBatch* tCurrent;
    static thread_local bool tOnLoop;  // runHere() is running an item on this thread
    std::vector<Deferred> items_;
    std::vector<Deferred> running_;  // the round runHere() is running (kept for its capacity)
    DeliveryBatch* previous_;
};

}  // namespace kestro::network::internal
