#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "kestro/core/export.h"

namespace kestro {

/// The object of the "websocketConnectionChange" notification (kWebsocketConnectionChange in
/// notification_center.h).
enum class WebsocketConnectionStatus : std::uint8_t { connected = 0, disconnected = 1 };

/// The intervals of the link. The defaults are the link's real timing; tests pass shorter
/// ones.
struct WebsocketTiming {
    /// Time from a connect (or from the last answered check) to the next check ping.
    std::chrono::milliseconds checkInterval{2000};
    /// Time from a failed check to the reconnection it starts.
    std::chrono::milliseconds reconnectDelay{5000};
    /// A ping whose pong has not arrived this long after it was asked for fails, however long
    /// it waited to be written (a ping asked for while the connection opens: after the open).
    std::chrono::milliseconds pingTimeout{2000};
    /// Deadline for name resolution, TCP connect, TLS and the upgrade together.
    std::chrono::milliseconds openTimeout{10000};
    /// Deadline for a close handshake; after it the socket is dropped.
    std::chrono::milliseconds closeTimeout{3000};
};

struct WebsocketOptions {
    WebsocketTiming timing;
    /// PEM certificates trusted for wss in addition to the system's trust store (for a test CA
    /// or a development service with its own certificate).
    std::string extraTrustedCertificatesPem;
};

/// The SDK's one long-lived link to the remote dashboard.
///
/// connect() opens "<endpoint>?api-key=<key>&device-id=<device id>" (ws or wss), confirms the
/// link with a ping, reads frames until the link fails, and checks the link with a ping every
/// checkInterval (the first check after a connect takes the confirming ping as its own, so a
/// service that never answers is found lost when that check is due). A check fails on an error
/// or when no pong came within pingTimeout. A failed check reports the loss (isConnected false,
/// the notification
/// "websocketConnectionChange" with WebsocketConnectionStatus::disconnected, onDisconnect) and
/// reconnects after reconnectDelay, at most maxReconnectAttempts times since the last
/// connect(true). A confirmed connect sets isConnected, calls onConnect and posts the
/// notification with WebsocketConnectionStatus::connected. A later connect closes the
/// connection it replaces with code 1001; disconnect() closes the current one with 1001 and
/// stops further reconnection.
///
/// Received text frames go to the message handler (setOnMessage) on the main queue, in the
/// order received; binary frames are printed and dropped.
///
/// Threads: every state change, callback and notification happens on the main queue
/// (MainQueue::shared()). connect, disconnect, sendWebSocketMessage and the setters may be
/// called from any thread: off the main queue they are queued to it. isConnected() may be read
/// from any thread; the getters of the callbacks and reconnectAttempts() belong to the main
/// queue. Network I/O runs on the global executor, one strand per connection; nothing here
/// blocks the main queue.
///
/// Ownership: the owner (the facade) holds the manager. Destroying it closes the current
/// connection (code 1001, within closeTimeout, without waiting for it) and cancels every
/// pending check and reconnection; callbacks are not called afterwards.
class KESTRO_API WebsocketManager {
  public:
    static constexpr std::int64_t maxReconnectAttempts = 5;

    WebsocketManager(std::string apiKey, std::string deviceId, std::string endpoint,
                     WebsocketOptions options = {});
    ~WebsocketManager();
    WebsocketManager(const WebsocketManager&) = delete;
    WebsocketManager& operator=(const WebsocketManager&) = delete;

    /// Opens a new connection, closing the previous one; resetAttempts sets the count of
    /// reconnections back to 0.
    void connect(bool resetAttempts);
    /// Closes the current connection (code 1001) and stops further reconnection.
    void disconnect();
    /// Sends one text frame on the current connection; dropped silently when there is none.
    void sendWebSocketMessage(std::string text);

    bool isConnected() const;
    void setConnected(bool connected);

    void setOnConnect(std::function<void()> callback);
    void setOnDisconnect(std::function<void()> callback);
    /// Receives every text frame, on the main queue.
    void setOnMessage(std::function<void(const std::string&)> callback);
    const std::function<void()>& onConnect() const;
    const std::function<void()>& onDisconnect() const;

    /// Reconnections tried since the last connect(true).
    std::int64_t reconnectAttempts() const;

    const std::string& apiKey() const;
    const std::string& deviceId() const;
    const std::string& endpoint() const;

    struct Impl;

  private:
    std::shared_ptr<Impl> impl_;
};

}  // namespace kestro
