#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "devservice/options.h"

namespace kestro::devservice {

namespace internal {
struct ServiceCore;
}

/// The development service: one listening socket that serves the SDK's uploads and WebSocket
/// link, the control API and the sample API (see README.md), over a SQLite file in the data
/// directory.
///
/// The service runs on its own threads (`options.threads`) from start() until stop(). It owns
/// its sockets, its threads and its database. start(), stop() and the destructor may be called
/// from any thread except the service's own; port() and the URL accessors from any thread.
class DevService {
  public:
    explicit DevService(DevServiceOptions options);
    /// Stops the service if it is running.
    ~DevService();
    DevService(const DevService&) = delete;
    DevService& operator=(const DevService&) = delete;

    /// Opens the database, binds the address and starts serving. Returns false with a
    /// description in `error` when the database cannot be opened or the address not bound.
    bool start(std::string* error);

    /// Closes the listener and every device link (code 1001), gives answers in flight a short
    /// moment, then ends the threads. Idempotent; returns within about half a second.
    void stop();

    bool running() const;
    /// The port actually bound (the chosen one when the options asked for 0).
    std::uint16_t port() const;
    /// "http://<address>:<port>" and "ws://<address>:<port>".
    std::string httpURL() const;
    std::string webSocketURL() const;
    const DevServiceOptions& options() const { return options_; }

  private:
    DevServiceOptions options_;
    std::shared_ptr<internal::ServiceCore> core_;
};

}  // namespace kestro::devservice
