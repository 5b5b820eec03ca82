#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kestro::devservice {

/// What became of a frame handed to a device's connection.
enum class SendResult {
    queued,        // it waits in the connection's queue and is written in turn
    notConnected,  // the device has no open connection
    closing,       // the connection is closing (replaced, gone, or the service stopping)
    queueFull,     // too many frames already wait for this device
};

/// Called once for a queued frame: with nothing when it was written to the device's socket,
/// with the reason when it never will be. Runs on the connection's strand.
using FrameDone = std::function<void(std::optional<std::string> error)>;

/// One open WebSocket connection of a device, as the registry sees it. Both calls return at
/// once and may be made from any thread.
class DeviceLink {
  public:
    virtual ~DeviceLink() = default;
    /// Queues one text frame, or says why it was not queued (`done` is then never called).
    virtual SendResult send(std::string text, FrameDone done) = 0;
    /// Closes the connection with the close code and reason given.
    virtual void close(std::uint16_t code, std::string reason) = 0;
};

/// Which device is connected over which link. A device has at most one link: a new
/// connection replaces the previous one, which is closed with code 1000 and a reason. The
/// registry holds links weakly; a link lives as long as its connection. Any thread; one mutex
/// guards the map and is never held while calling into a link.
class DeviceLinks {
  public:
    /// Told when a device's connection opens (with its time) or closes (nothing), in the order
    /// of the changes, under the registry's mutex: it must be quick and not call back.
    using Listener =
        std::function<void(const std::string& deviceId, std::optional<double> connectedSince)>;
    /// Set once, before links are attached.
    void setListener(Listener listener) { listener_ = std::move(listener); }

    /// Records `link` as the device's connection and closes the one it replaces, if any.
    void attach(const std::string& deviceId, const std::shared_ptr<DeviceLink>& link, double now);
    /// Forgets the device's connection if it is still `link` (a replaced link leaves the newer
    /// one alone).
    void detach(const std::string& deviceId, const DeviceLink* link);
    /// Queues `text` to the device's connection, or says why it was not queued.
    SendResult send(const std::string& deviceId, std::string text, FrameDone done = {});
    /// Closes the device's connection, if it has one.
    void close(const std::string& deviceId, std::uint16_t code, const std::string& reason);
    /// When the device's current connection opened, or nothing if it has none.
    std::optional<double> connectedSince(const std::string& deviceId) const;
    std::vector<std::string> connectedDevices() const;
    std::size_t connectedCount() const;
    /// Closes every link with code 1001, going away (service shutdown). Returns how many.
    std::size_t closeAll(const std::string& reason);

  private:
    struct Entry {
        std::weak_ptr<DeviceLink> link;
        double since = 0;
    };
    std::shared_ptr<DeviceLink> find(const std::string& deviceId) const;

    mutable std::mutex mutex_;
    std::map<std::string, Entry> links_;
    Listener listener_;
};

}  // namespace kestro::devservice
