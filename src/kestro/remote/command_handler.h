#pragma once

#include <boost/json/object.hpp>

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "kestro/core/export.h"

namespace kestro {

class MockCache;
struct MockCacheEntry;

/// One command frame from the dashboard: {"action": text, "payload": text or null}. The
/// payload is itself a JSON document carried as a text value.
struct KESTRO_API WebSocketMessage {
    std::string action;
    std::optional<std::string> payload;

    /// Gives the message, or a description of why the text is not one.
    static std::optional<WebSocketMessage> decode(std::string_view text, std::string* error);
    std::string encode() const;
    bool operator==(const WebSocketMessage&) const = default;
};

/// What the dashboard's commands act on. The facade supplies these; tests supply their own.
struct KESTRO_API RemoteCommandTargets {
    std::function<MockCache&()> mockCache;
    /// Switches breakpoints on or off.
    std::function<void(bool enabled)> setBreakPointEnabled;
    /// Lets held requests go (the breakpoint gate's signal).
    std::function<void()> releaseBreakpoints;
    /// Records a custom event.
    std::function<void(const std::string& name, const std::string& category,
                        const boost::json::object& payload)>
        logEvent;
};

/// Carries out one text frame from the dashboard. Runs on the main queue; actions marked as
/// later are queued behind what is already there, so successive frames take effect in order.
/// Every outcome is an effect or a console line; nothing is sent back.
KESTRO_API void handleWebSocketMessage(std::string_view text, const RemoteCommandTargets& targets);

}  // namespace kestro
