#include "devservice/device_links.h"

namespace kestro::devservice {

void DeviceLinks::attach(const std::string& deviceId, const std::shared_ptr<DeviceLink>& link,
                         double now) {
    std::shared_ptr<DeviceLink> replaced;
    {
        std::lock_guard lock(mutex_);
        auto& entry = links_[deviceId];
        replaced = entry.link.lock();
        entry = Entry{link, now};
        if (listener_) listener_(deviceId, now);
    }
    if (replaced && replaced != link) replaced->close(1000, "replaced by a newer connection");
}

void DeviceLinks::detach(const std::string& deviceId, const DeviceLink* link) {
    std::lock_guard lock(mutex_);
    auto it = links_.find(deviceId);
    if (it == links_.end()) return;
    auto current = it->second.link.lock();
    // An expired entry is also dropped: its connection is gone either way.
    if (!current || current.get() == link) {
        links_.erase(it);
        if (listener_) listener_(deviceId, std::nullopt);
    }
}

std::shared_ptr<DeviceLink> DeviceLinks::find(const std::string& deviceId) const {
    std::lock_guard lock(mutex_);
    auto it = links_.find(deviceId);
    return it == links_.end() ? nullptr : it->second.link.lock();
}

SendResult DeviceLinks::send(const std::string& deviceId, std::string text, FrameDone done) {
    auto link = find(deviceId);
    if (!link) return SendResult::notConnected;
    return link->send(std::move(text), std::move(done));
}

void DeviceLinks::close(const std::string& deviceId, std::uint16_t code,
                        const std::string& reason) {
    if (auto link = find(deviceId)) link->close(code, reason);
}

std::optional<double> DeviceLinks::connectedSince(const std::string& deviceId) const {
    std::lock_guard lock(mutex_);
    auto it = links_.find(deviceId);
    if (it == links_.end() || it->second.link.expired()) return std::nullopt;
    return it->second.since;
}

std::vector<std::string> DeviceLinks::connectedDevices() const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> ids;
    for (const auto& [id, entry] : links_) {
        if (!entry.link.expired()) ids.push_back(id);
    }
    return ids;
}

std::size_t DeviceLinks::connectedCount() const { return connectedDevices().size(); }

std::size_t DeviceLinks::closeAll(const std::string& reason) {
    std::vector<std::shared_ptr<DeviceLink>> links;
    {
        std::lock_guard lock(mutex_);
        for (const auto& [id, entry] : links_) {
            if (auto l = entry.link.lock()) links.push_back(std::move(l));
        }
    }
    for (const auto& l : links) l->close(1001, reason);
    return links.size();
}

}  // namespace kestro::devservice
