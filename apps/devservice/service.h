#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "devservice/options.h"

namespace kestro::devservice {

namespace internal {
struct ServiceCore;
}

/// The development service: one listening socket that serves the SDK's uploads and WebSocket
/// link, the dashboard API and its push channel, and the sample API (see README.md), over a
/// SQLite file in the data directory.
///
/// The service runs on its own threads (`options.threads`, and one for retention) from start()
/// until stop(). It owns its sockets, its threads and its database. start(), stop(),
/// applyRetention() and the destructor may be called from any thread except the service's
/// own; the accessors from any thread.
class DevService {
  public:
    explicit DevService(DevServiceOptions options);
    /// Stops the service if it is running.
    ~DevService();
    DevService(const DevService&) = delete;
    DevService& operator=(const DevService&) = delete;

    /// Opens the database, makes the dashboard token and a first API key if there are none,
    /// binds the address and starts serving. Returns false with a description in `error` when
    /// the database, the token or the TLS files cannot be used or the address not bound.
    bool start(std::string* error);

    /// Closes the listener, every device link and every push channel (code 1001), gives answers
    /// in flight a short moment, then ends the threads. Idempotent; returns within about half a
    /// second.
    void stop();

    bool running() const;
    /// The port actually bound (the chosen one when the options asked for 0).
    std::uint16_t port() const;
    /// "http://<address>:<port>" and "ws://<address>:<port>" (https and wss under TLS).
    std::string httpURL() const;
    std::string webSocketURL() const;
    /// The dashboard token, once started.
    std::string dashboardToken() const;

    /// What this start made because the data directory had none: the dashboard token, the first
    /// API key. Shown once, by whoever started the service.
    struct Made {
        bool token = false;
        std::optional<std::string> apiKey;
    };
    const Made& made() const { return made_; }

    /// Runs one round of retention now, as the service does at start and every
    /// `retentionInterval`.
    void applyRetention();

    const DevServiceOptions& options() const { return options_; }

  private:
    DevServiceOptions options_;
    Made made_;
    std::shared_ptr<internal::ServiceCore> core_;
};

}  // namespace kestro::devservice
