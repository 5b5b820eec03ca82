#pragma once

#include <boost/json/object.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "devservice/commands.h"
#include "devservice/store.h"

namespace kestro::devservice {

/// One page following the push channel. push() must return at once (it queues) and is called
/// under the hub's mutex.
class LiveSubscriber {
  public:
    virtual ~LiveSubscriber() = default;
    virtual void push(const std::shared_ptr<const std::string>& message) = 0;
    /// Closes the channel with the close code and reason given.
    virtual void close(std::uint16_t code, const std::string& reason) = 0;
};

/// The push channel's one source: every store write, link change and command outcome is
/// published here as a message and handed to every page. A message is serialised once, and
/// only when some page is connected; each page holds it by a shared pointer until written.
/// Any thread; publishing holds the hub's mutex for the hand-out, so all pages see messages in
/// one order. Lock order: store, links or command log, then hub, then a page's queue.
class LiveHub final : public StoreListener {
  public:
    void add(const std::shared_ptr<LiveSubscriber>& subscriber);
    void remove(const LiveSubscriber* subscriber);
    std::size_t subscribers() const;
    /// Closes every page's channel with code 1001, going away (service shutdown). Returns how
    /// many.
    std::size_t closeAll(const std::string& reason);

    /// Publishes the message `make` builds, building it only when a page is connected.
    void publish(const std::function<boost::json::object()>& make);

    void deviceStored(const DeviceRow& row, bool added) override;
    void itemStored(const ItemRow& row, bool added) override;
    void itemsDeleted(const std::string& deviceId, std::int64_t throughSeq, std::int64_t remaining,
                      DeletionReason reason) override;
    void steeringChanged(const std::string& deviceId, const std::vector<RuleRow>& rules,
                         bool breakpoints) override;
    void linkChanged(const std::string& deviceId, std::optional<double> connectedSince);
    void commandChanged(const CommandRecord& command);

  private:
    mutable std::mutex mutex_;
    std::vector<std::weak_ptr<LiveSubscriber>> subscribers_;
};

}  // namespace kestro::devservice
