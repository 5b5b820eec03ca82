// Feeds arbitrary text frames to the dashboard's command handling, with a fresh mock cache per
// frame and the main queue run on the fuzzing thread. Besides crashes and sanitizer reports it
// checks what must hold for every frame: a frame that decodes survives its own encoding, one
// frame adds at most one rule, and a rule that is added answers a request for its own pattern.

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "kestro/core/main_queue.h"
#include "kestro/network/mock_cache.h"
#include "kestro/remote/command_handler.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The console lines of refused frames would be most of the output.
    if (const int null = open("/dev/null", O_WRONLY); null >= 0) dup2(null, STDOUT_FILENO);
    kestro::MainQueue::shared().useHostThread();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    if (const auto message = kestro::WebSocketMessage::decode(text, nullptr)) {
        const auto again = kestro::WebSocketMessage::decode(message->encode(), nullptr);
        if (!again || *again != *message) std::abort();
    }

    kestro::MockCache cache;
    kestro::RemoteCommandTargets targets;
    targets.mockCache = [&]() -> kestro::MockCache& { return cache; };
    targets.setBreakPointEnabled = [](bool) {};
    targets.releaseBreakpoints = [] {};
    targets.logEvent = [](const std::string&, const std::string&, const boost::json::object&) {};
    kestro::handleWebSocketMessage(text, targets);
    if (!kestro::MainQueue::shared().runUntilIdle()) std::abort();

    const auto rules = cache.mockCache();
    if (rules->size() > 1) std::abort();
    for (const auto& [pattern, rule] : *rules) {
        if (pattern != rule.url || !cache.getEntry(pattern)) std::abort();
    }
    return 0;
}
