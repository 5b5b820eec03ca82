#pragma once

#include <chrono>
#include <functional>
#include <map>

namespace kestro::test {

/// A clock that tests move by hand: tasks scheduled on it run, in due order, when advance()
/// passes their time. Single thread.
class StepClock {
  public:
    using Duration = std::chrono::steady_clock::duration;

    void schedule(Duration delay, std::function<void()> task) {
        tasks_.emplace(now_ + delay, std::move(task));
    }
    /// Moves the clock forward, running each task whose time comes on the way.
    void advance(Duration by) {
        const Duration until = now_ + by;
        while (!tasks_.empty() && tasks_.begin()->first <= until) {
            auto node = tasks_.extract(tasks_.begin());
            now_ = node.key();
            node.mapped()();
        }
        now_ = until;
    }
    std::size_t pending() const { return tasks_.size(); }

  private:
    Duration now_{};
    std::multimap<Duration, std::function<void()>> tasks_;
};

}  // namespace kestro::test
