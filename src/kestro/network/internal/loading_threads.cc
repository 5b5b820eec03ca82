#include "kestro/network/internal/loading_threads.h"

#include <thread>

#include "kestro/core/executor.h"
#include "kestro/network/internal/delivery.h"

namespace kestro::network::internal {

void LoadingThreads::start(std::function<void()> drive) {
    drive_ = std::move(drive);
    std::thread([this] {
        nameThisThread("kestro-loading");
        serve(true);
    }).detach();
    std::thread([this] {
        nameThisThread("kestro-loading");
        serve(false);
    }).detach();
}

// Body of each of the two loading threads: the owner of the loop drives it, the other stands
// by, and they change places when the stand-by takes over.
void LoadingThreads::serve(bool owner) {
    for (;;) {
        if (!owner) standBy();
        owner = false;
        drive_();
    }
}

bool LoadingThreads::deliverHere(DeliveryBatch& deliveries) {
    const std::uint64_t begun = ((delivery_.load() & ~kDelivering) + 2) | kDelivering;
    delivery_.store(begun);
    if (!watching_.load()) {
        std::lock_guard lock(standbyMutex_);
        watching_.store(true);
        standbyCv_.notify_one();
    }
    deliveries.runHere();
    std::uint64_t expected = begun;
    return delivery_.compare_exchange_strong(expected, begun & ~kDelivering);
}

// Waits until the loop's owner has been inside one round of completions for a whole watch
// period, then takes the loop over. Between rounds of completions it sleeps without time-out.
void LoadingThreads::standBy() {
    std::unique_lock lock(standbyMutex_);
    standbyReady_.store(true);
    for (;;) {
        standbyCv_.wait(lock, [&] { return watching_.load(); });
        std::uint64_t seen = delivery_.load();
        for (;;) {
            standbyCv_.wait_for(lock, kWatchPeriod);
            const std::uint64_t now = delivery_.load();
            if (now != seen) {
                seen = now;
                continue;
            }
            if (now & kDelivering) {
                std::uint64_t expected = now;
                if (delivery_.compare_exchange_strong(expected, now & ~kDelivering)) {
                    standbyReady_.store(false);
                    watching_.store(false);
                    return;
                }
                seen = expected;
                continue;
            }
            // No completion ran for a whole period: stop watching, unless one began while
            // this thread was saying so (the owner then saw it still watching, and woke no one).
            watching_.store(false);
            if (delivery_.load() == seen) break;
            watching_.store(true);
            seen = delivery_.load();
        }
    }
}

}  // namespace kestro::network::internal
