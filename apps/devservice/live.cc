#include "devservice/live.h"

#include <boost/json/serialize.hpp>

#include "devservice/json_views.h"

namespace kestro::devservice {
namespace json = boost::json;

void LiveHub::add(const std::shared_ptr<LiveSubscriber>& subscriber) {
    std::lock_guard lock(mutex_);
    subscribers_.push_back(subscriber);
}

void LiveHub::remove(const LiveSubscriber* subscriber) {
    std::lock_guard lock(mutex_);
    std::erase_if(subscribers_, [&](const std::weak_ptr<LiveSubscriber>& s) {
        auto locked = s.lock();
        return !locked || locked.get() == subscriber;
    });
}

std::size_t LiveHub::subscribers() const {
    std::lock_guard lock(mutex_);
    return subscribers_.size();
}

std::size_t LiveHub::closeAll(const std::string& reason) {
    std::vector<std::shared_ptr<LiveSubscriber>> open;
    {
        std::lock_guard lock(mutex_);
        for (const auto& s : subscribers_) {
            if (auto subscriber = s.lock()) open.push_back(std::move(subscriber));
        }
    }
    for (const auto& s : open) s->close(1001, reason);
    return open.size();
}

void LiveHub::publish(const std::function<json::object()>& make) {
    std::lock_guard lock(mutex_);
    if (subscribers_.empty()) return;
    const auto message = std::make_shared<const std::string>(json::serialize(make()));
    for (const auto& s : subscribers_) {
        if (auto subscriber = s.lock()) subscriber->push(message);
    }
}

void LiveHub::deviceStored(const DeviceRow& row, bool added) {
    publish([&] {
        return json::object{{"type", "device"},
                            {"change", added ? "added" : "changed"},
                            {"device", storedDeviceJSON(row)}};
    });
}

void LiveHub::itemStored(const ItemRow& row, bool added) {
    publish([&] {
        return json::object{
            {"type", "item"}, {"change", added ? "added" : "changed"}, {"item", itemRowJSON(row)}};
    });
}

void LiveHub::itemsDeleted(const std::string& deviceId, std::int64_t throughSeq,
                           std::int64_t remaining, DeletionReason reason) {
    publish([&] {
        return json::object{
            {"type", "itemsDeleted"},
            {"deviceId", deviceId},
            {"throughSeq", throughSeq},
            {"itemCount", remaining},
            {"reason", reason == DeletionReason::dashboard ? "dashboard" : "retention"}};
    });
}

void LiveHub::steeringChanged(const std::string& deviceId, const std::vector<RuleRow>& rules,
                              bool breakpoints) {
    publish([&] {
        json::object o = steeringJSON(rules, breakpoints);
        o["type"] = "steering";
        o["deviceId"] = deviceId;
        return o;
    });
}

void LiveHub::linkChanged(const std::string& deviceId, std::optional<double> connectedSince) {
    publish([&] {
        json::object o{{"type", "device"},
                       {"change", connectedSince ? "online" : "offline"},
                       {"deviceId", deviceId}};
        if (connectedSince) o["connectedSince"] = *connectedSince;
        return o;
    });
}

void LiveHub::commandChanged(const CommandRecord& command) {
    publish([&] { return json::object{{"type", "command"}, {"command", commandJSON(command)}}; });
}

}  // namespace kestro::devservice
