#pragma once

#include <boost/json/object.hpp>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "devservice/device_links.h"
#include "devservice/store.h"

namespace kestro::devservice {

/// The six actions a device understands.
inline constexpr const char* kActions[] = {"enable_mock_request", "disable_mock_request",
                                           "open_kestro_sheet",   "enable_break_point",
                                           "disable_break_point", "send_ping"};

/// Builds the text frame a device decodes: {"action": ..., "payload": text or null}.
std::string commandFrame(std::string_view action, const std::optional<std::string>& payload);

/// A command sent to a device, and what became of it.
struct CommandRecord {
    std::string id;
    std::string deviceId;
    std::string action;
    std::optional<std::string> payload;
    std::string frame;
    std::string status;  // "queued", "delivered" or "failed"
    std::optional<std::string> error;
    double createdAt = 0;
    double updatedAt = 0;
};

/// The commands of this run, the newest `capacity` of them, in memory. Any thread; one mutex,
/// under which the listener is told of every change in order (so a page never sees "queued"
/// after "delivered"): it must be quick and must not call back.
class CommandLog {
  public:
    using Listener = std::function<void(const CommandRecord&)>;
    explicit CommandLog(std::size_t capacity = 1000) : capacity_(capacity) {}
    void setListener(Listener listener) { listener_ = std::move(listener); }

    /// Notes a command about to be handed to the device's connection; nobody is told yet.
    CommandRecord begin(const std::string& deviceId, const std::string& action,
                        const std::optional<std::string>& payload, double now);
    /// The frame was queued: tells the listener, unless its outcome is already known.
    CommandRecord queued(const std::string& id);
    /// The frame was written (no error) or never will be (the reason).
    CommandRecord finish(const std::string& id, const std::optional<std::string>& error,
                         double now);
    std::optional<CommandRecord> get(const std::string& id) const;
    /// Newest first; all devices when `deviceId` is empty.
    std::vector<CommandRecord> recent(const std::string& deviceId, std::size_t limit) const;

  private:
    struct Entry {
        CommandRecord record;
        bool told = false;
    };
    Entry* findLocked(const std::string& id);

    std::size_t capacity_;
    mutable std::mutex mutex_;
    std::deque<Entry> entries_;  // oldest first
    std::uint64_t next_ = 1;
    Listener listener_;
};

/// Sends commands to devices and keeps the steering state they change: a device's mock rules
/// and its breakpoint switch, kept in the store as the dashboard last set them. A device that
/// connects is sent that state again. Any thread.
class Steering {
  public:
    Steering(DevStore& store, DeviceLinks& links, CommandLog& log, std::function<double()> clock)
        : store_(store), links_(links), log_(log), clock_(std::move(clock)) {}

    /// Hands one command to the device's connection and records it; the record says whether
    /// it was queued (its outcome follows through the log) or why not.
    CommandRecord send(const std::string& deviceId, const std::string& action,
                       const std::optional<std::string>& payload);
    /// As send(), when the device is connected; nothing otherwise (it gets the state when it
    /// connects).
    std::optional<CommandRecord> sendIfConnected(const std::string& deviceId,
                                                 const std::string& action,
                                                 const std::optional<std::string>& payload);
    /// A command as a client sent it, already checked: send(), then, when it was queued, the
    /// steering state it changes (the rule of its "url", the breakpoint switch).
    CommandRecord command(const std::string& deviceId, const std::string& action,
                          const std::optional<std::string>& payload);
    /// Sends a device that just connected its switched-on rules and, if on, breakpoints.
    void deviceConnected(const std::string& deviceId);

  private:
    DevStore& store_;
    DeviceLinks& links_;
    CommandLog& log_;
    std::function<double()> clock_;
};

}  // namespace kestro::devservice
