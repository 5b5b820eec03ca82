#pragma once

#include <any>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kestro/core/export.h"

namespace kestro {

/// Names of the notifications the SDK posts.
inline constexpr const char* kWebsocketConnectionChange = "websocketConnectionChange";
inline constexpr const char* kOpenKestroSheet = "openKestroSheet";
inline constexpr const char* kApiKeyDeleted = "apiKeyDeleted";

struct Notification {
    std::string name;
    std::any object;  // empty when the notification carries none
};

/// Unsubscribes on destruction. Move-only.
class KESTRO_API ObserverToken {
public:
    ObserverToken() = default;
    ~ObserverToken();
    ObserverToken(ObserverToken&&) noexcept;
    ObserverToken& operator=(ObserverToken&&) noexcept;
    ObserverToken(const ObserverToken&) = delete;
    ObserverToken& operator=(const ObserverToken&) = delete;

    void reset();
    explicit operator bool() const { return static_cast<bool>(entry_); }

private:
    friend class NotificationCenter;
    struct Entry;
    std::shared_ptr<Entry> entry_;
};

/// The in-process notification centre. Observers are always called on the main queue, in the
/// order they were added; a notification posted from the main queue reaches its observers
/// before post() returns. An observer whose token is destroyed before the notification is
/// delivered is not called. Any thread.
class KESTRO_API NotificationCenter {
public:
    using Observer = std::function<void(const Notification&)>;

    static NotificationCenter& defaultCenter();

    [[nodiscard]] ObserverToken addObserver(const std::string& name, Observer observer);
    void post(const std::string& name, std::any object = {});

    NotificationCenter() = default;

private:
    friend class ObserverToken;
    void remove(const ObserverToken::Entry* entry);

    std::mutex mutex_;
    std::map<std::string, std::vector<std::shared_ptr<ObserverToken::Entry>>> observers_;
};

}  // namespace kestro
