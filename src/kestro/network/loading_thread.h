#pragma once

// Internal to the network subsystem: work for the URL loading threads.

#include <functional>

namespace kestro::network::internal {

/// Runs work on the thread that drives the loading loop, on its next round, or on a worker of
/// the global executor when transfers are under way there. A sleeping loop is not woken for
/// it at once: the work waits for the loop's next event (typically the answer to a request
/// just started) and at most about 2 ms. Work that must not wait on the calling thread, but
/// need not run at once either (a request's start report), so costs no thread wake-up of its
/// own. A throw is caught and reported on the console.
void runOnLoadingThreadSoon(std::function<void()> work);

}  // namespace kestro::network::internal
