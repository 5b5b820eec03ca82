#include "kestro/core/executor.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <thread>

#include <boost/asio/strand.hpp>

#include "kestro/core/main_queue.h"

namespace kestro {

void nameThisThread(const char* name) {
    char shortName[16] = {};
    std::strncpy(shortName, name, sizeof shortName - 1);
    pthread_setname_np(pthread_self(), shortName);
}

boost::asio::thread_pool& globalExecutor() {
    static boost::asio::thread_pool* pool = [] {
        const unsigned n = std::max(2u, std::thread::hardware_concurrency());
        // The pool gets no threads of its own: ours attach to it, so that they carry a name.
        auto* pool = new boost::asio::thread_pool(0);
        for (unsigned i = 0; i < n; ++i) {
            std::thread([pool] {
                nameThisThread("kestro-worker");
                pool->attach();
            }).detach();
        }
        return pool;
    }();
    return *pool;
}

// Every touch of the timer runs on its own strand, so arming and cancelling never race.
struct DelayedTask::State {
    explicit State(boost::asio::thread_pool& pool)
        : strand(boost::asio::make_strand(pool)), timer(strand) {}
    boost::asio::strand<boost::asio::thread_pool::executor_type> strand;
    boost::asio::steady_timer timer;
    std::atomic<bool> cancelled{false};
    std::atomic<bool> done{false};
};

DelayedTask::~DelayedTask() { cancel(); }
DelayedTask::DelayedTask(DelayedTask&& other) noexcept = default;
DelayedTask& DelayedTask::operator=(DelayedTask&& other) noexcept {
    if (this != &other) {
        cancel();
        state_ = std::move(other.state_);
    }
    return *this;
}

void DelayedTask::cancel() {
    if (!state_) return;
    state_->cancelled.store(true);
    auto state = state_;
    boost::asio::post(state->strand, [state] { state->timer.cancel(); });
    state_.reset();
}

bool DelayedTask::active() const { return state_ && !state_->done.load(); }

DelayedTask runAfter(std::chrono::steady_clock::duration delay, std::function<void()> f) {
    DelayedTask handle;
    auto state = std::make_shared<DelayedTask::State>(globalExecutor());
    handle.state_ = state;
    boost::asio::post(state->strand, [state, delay, f = std::move(f)]() mutable {
        state->timer.expires_after(delay);
        state->timer.async_wait([state, f = std::move(f)](const boost::system::error_code& ec) {
            state->done.store(true);
            if (ec || state->cancelled.load()) return;
            f();
        });
    });
    return handle;
}

DelayedTask runOnMainAfter(std::chrono::steady_clock::duration delay, std::function<void()> f) {
    return runAfter(delay, [f = std::move(f)]() mutable {
        MainQueue::shared().post(std::move(f));
    });
}

}  // namespace kestro
