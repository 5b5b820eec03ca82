#include "kestro/network/internal/task_core.h"

namespace kestro::network::internal {

namespace {

using Milliseconds = std::chrono::milliseconds;

// A limit as the clock counts it: at least a millisecond, and at most a century, so that a
// limit given as "forever" (Milliseconds::max()) neither overflows the clock nor ends early.
Clock::duration asLimit(Milliseconds limit) {
    constexpr Milliseconds kLongest = std::chrono::hours(24 * 365 * 100);
    return std::clamp(limit, Milliseconds(1), kLongest);
}

std::string inMilliseconds(Clock::duration d) {
    return std::to_string(std::chrono::duration_cast<Milliseconds>(d).count()) + " ms";
}

}  // namespace

void TaskCore::startClock() {
    const URLSessionConfiguration& cfg = session->configuration;
    idleTimeout = asLimit(request.timeoutInterval.value_or(cfg.timeoutIntervalForRequest));
    resourceTimeout = asLimit(cfg.timeoutIntervalForResource);
    startedAt = Clock::now();
    lastActivity.store(startedAt.time_since_epoch().count(), std::memory_order_relaxed);
}

URLError TaskCore::timeoutError(Clock::time_point now) const {
    if (now >= startedAt + resourceTimeout) {
        return URLError::make(URLErrorCode::timedOut,
                              "not complete after " + inMilliseconds(resourceTimeout));
    }
    return URLError::make(URLErrorCode::timedOut, "no data for " + inMilliseconds(idleTimeout));
}

}  // namespace kestro::network::internal
