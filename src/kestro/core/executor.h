#pragma once

#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>

#include <chrono>
#include <functional>
#include <memory>

#include "kestro/core/export.h"

namespace kestro {

/// The process-wide concurrent executor: one Boost.Asio thread pool sized from the hardware
/// (at least 2 threads), named "kestro-worker". It lives for the whole process and is never
/// joined, so no host destructor can hang on it. Work posted here must not block for long: a
/// task that waits (a held request, a slow peer) belongs on its own thread or on an
/// asynchronous operation.
KESTRO_API boost::asio::thread_pool& globalExecutor();

/// Names the calling thread (at most 15 characters are kept), so that the SDK's threads can be
/// told apart from the application's in a debugger, `top -H` or a profiler.
KESTRO_API void nameThisThread(const char* name);

/// Runs f on a worker of the global executor.
template <typename F>
void postTask(F&& f) {
    boost::asio::post(globalExecutor(), std::forward<F>(f));
}

/// A delayed task on a steady_timer of the global executor. Destroying or cancelling the
/// handle before the delay passes means the task never runs.
class KESTRO_API DelayedTask {
public:
    DelayedTask() = default;
    ~DelayedTask();
    DelayedTask(DelayedTask&&) noexcept;
    DelayedTask& operator=(DelayedTask&&) noexcept;
    DelayedTask(const DelayedTask&) = delete;
    DelayedTask& operator=(const DelayedTask&) = delete;

    void cancel();
    bool active() const;

private:
    friend DelayedTask runAfter(std::chrono::steady_clock::duration, std::function<void()>);
    struct State;
    std::shared_ptr<State> state_;
};

/// Runs f on the global executor after delay. Keep the handle to be able to cancel; a handle
/// that is destroyed cancels the task.
[[nodiscard]] KESTRO_API DelayedTask runAfter(std::chrono::steady_clock::duration delay,
                                              std::function<void()> f);

/// Runs f on the main queue after delay (a timer on the global executor that posts to it).
[[nodiscard]] KESTRO_API DelayedTask runOnMainAfter(std::chrono::steady_clock::duration delay,
                                                    std::function<void()> f);

}  // namespace kestro
