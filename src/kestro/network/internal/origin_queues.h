#pragma once

// Internal to the network subsystem: the transfer slots of each origin.

#include <cstddef>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>

#include "kestro/network/internal/task_core.h"

namespace kestro::network::internal {

/// At most kMaxTransfersPerOrigin transfers per origin (scheme, host, port) are given to
/// libcurl, the same as its connection limit per host; later requests wait in a FIFO of the
/// origin's own, holding no easy handle, and start in order as earlier ones finish. libcurl's
/// own pending list is never used: it costs a scan per finished transfer and a full easy
/// handle per waiting request.
///
/// An origin with nothing running keeps its entry and queue (up to kKeptIdleOrigins such
/// origins), so that the next request to it allocates nothing for them.
///
/// Not synchronised: the loop uses it under its mutex.
class OriginQueues {
  public:
    static constexpr long kMaxConnectionsPerHost = 16;
    static constexpr std::size_t kMaxTransfersPerOrigin = kMaxConnectionsPerHost;

    /// Counts a slot of the task's origin for it and returns true when one is free; otherwise
    /// queues the task and returns false.
    bool takeSlot(const std::shared_ptr<TaskCore>& core) {
        Origin& origin = origins_[core->origin];
        if (origin.running >= kMaxTransfersPerOrigin) {
            origin.waiting.push_back(core);
            return false;
        }
        ++origin.running;
        return true;
    }

    /// A transfer of `originKey` has ended: its slot goes to the next waiting tasks of that
    /// origin that the loop still holds, each started with begin(task), which returns false
    /// when the task could not start (its slot is then free again).
    template <typename Begin>
    void slotFreed(const std::string& originKey, Begin&& begin) {
        auto it = origins_.find(originKey);
        if (it == origins_.end()) return;
        Origin& origin = it->second;
        if (origin.running > 0) --origin.running;
        while (origin.running < kMaxTransfersPerOrigin && !origin.waiting.empty()) {
            std::shared_ptr<TaskCore> next = std::move(origin.waiting.front());
            origin.waiting.pop_front();
            if (!next->held) continue;  // let go while it waited (cancelled or timed out)
            ++origin.running;
            if (!begin(next)) --origin.running;
        }
        if (origin.running == 0 && origin.waiting.empty() && origins_.size() > kKeptIdleOrigins) {
            origins_.erase(it);
        }
    }

  private:
    static constexpr std::size_t kKeptIdleOrigins = 64;
    struct Origin {
        std::size_t running = 0;
        std::deque<std::shared_ptr<TaskCore>> waiting;
    };
    std::unordered_map<std::string, Origin> origins_;
};

}  // namespace kestro::network::internal
