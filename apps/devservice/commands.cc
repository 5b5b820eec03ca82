#include "devservice/commands.h"

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

namespace kestro::devservice {
namespace json = boost::json;

std::string commandFrame(std::string_view action, const std::optional<std::string>& payload) {
    json::object frame;
    frame["action"] = action;
    if (payload) {
        frame["payload"] = *payload;
    } else {
        frame["payload"] = nullptr;
    }
    return json::serialize(frame);
}

CommandLog::Entry* CommandLog::findLocked(const std::string& id) {
    for (auto it = entries_.rbegin(); it != entries_.rend(); ++it) {
        if (it->record.id == id) return &*it;
    }
    return nullptr;
}

CommandRecord CommandLog::begin(const std::string& deviceId, const std::string& action,
                                const std::optional<std::string>& payload, double now) {
    std::lock_guard lock(mutex_);
    Entry entry;
    entry.record = CommandRecord{"C" + std::to_string(next_++),
                                 deviceId,
                                 action,
                                 payload,
                                 commandFrame(action, payload),
                                 "queued",
                                 std::nullopt,
                                 now,
                                 now};
    entries_.push_back(entry);
    if (entries_.size() > capacity_) entries_.pop_front();
    return entry.record;
}

CommandRecord CommandLog::queued(const std::string& id) {
    std::lock_guard lock(mutex_);
    Entry* entry = findLocked(id);
    if (!entry) return {};
    if (!entry->told) {
        entry->told = true;
        if (listener_) listener_(entry->record);
    }
    return entry->record;
}

CommandRecord CommandLog::finish(const std::string& id, const std::optional<std::string>& error,
                                 double now) {
    std::lock_guard lock(mutex_);
    Entry* entry = findLocked(id);
    if (!entry) return {};
    if (entry->record.status != "queued") return entry->record;
    entry->record.status = error ? "failed" : "delivered";
    entry->record.error = error;
    entry->record.updatedAt = now;
    entry->told = true;
    if (listener_) listener_(entry->record);
    return entry->record;
}

std::optional<CommandRecord> CommandLog::get(const std::string& id) const {
    std::lock_guard lock(mutex_);
    for (auto it = entries_.rbegin(); it != entries_.rend(); ++it) {
        if (it->record.id == id) return it->record;
    }
    return std::nullopt;
}

std::vector<CommandRecord> CommandLog::recent(const std::string& deviceId,
                                              std::size_t limit) const {
    std::lock_guard lock(mutex_);
    std::vector<CommandRecord> out;
    for (auto it = entries_.rbegin(); it != entries_.rend() && out.size() < limit; ++it) {
        if (deviceId.empty() || it->record.deviceId == deviceId) out.push_back(it->record);
    }
    return out;
}

CommandRecord Steering::send(const std::string& deviceId, const std::string& action,
                             const std::optional<std::string>& payload) {
    const CommandRecord record = log_.begin(deviceId, action, payload, clock_());
    const std::string id = record.id;
    CommandLog& log = log_;
    auto clock = clock_;
    const SendResult result = links_.send(
        deviceId, record.frame,
        [&log, id, clock](std::optional<std::string> error) { log.finish(id, error, clock()); });
    switch (result) {
        case SendResult::queued:
            return log_.queued(id);
        case SendResult::notConnected:
            return log_.finish(id, "device " + deviceId + " is not connected", clock_());
        case SendResult::closing:
            return log_.finish(id, "the connection of device " + deviceId + " is closing",
                               clock_());
        case SendResult::queueFull:
            return log_.finish(
                id,
                "too many frames are waiting for device " + deviceId + " (it is not reading them)",
                clock_());
    }
    return record;
}

std::optional<CommandRecord> Steering::sendIfConnected(const std::string& deviceId,
                                                       const std::string& action,
                                                       const std::optional<std::string>& payload) {
    if (!links_.connectedSince(deviceId)) return std::nullopt;
    return send(deviceId, action, payload);
}

CommandRecord Steering::command(const std::string& deviceId, const std::string& action,
                                const std::optional<std::string>& payload) {
    // A command that could not even be queued changes nothing.
    CommandRecord sent = send(deviceId, action, payload);
    if (sent.status == "failed") return sent;
    const double now = clock_();
    if (action == "enable_mock_request" || action == "disable_mock_request") {
        boost::system::error_code ec;
        const auto rule = json::parse(payload.value_or(""), ec);
        if (!ec && rule.is_object()) {
            store_.setRuleEnabledByUrl(deviceId, rule.as_object(), action == "enable_mock_request",
                                       now);
        }
    } else if (action == "enable_break_point" || action == "disable_break_point") {
        store_.setBreakpoints(deviceId, action == "enable_break_point");
    }
    return sent;
}

void Steering::deviceConnected(const std::string& deviceId) {
    for (const auto& rule : store_.rules(deviceId)) {
        if (rule.enabled) send(deviceId, "enable_mock_request", json::serialize(rule.rule));
    }
    const auto device = store_.device(deviceId);
    if (device && device->breakpoints) send(deviceId, "enable_break_point", std::nullopt);
}

}  // namespace kestro::devservice
