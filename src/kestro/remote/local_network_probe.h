#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "kestro/core/export.h"

namespace kestro {

/// Finds out whether the local network can be used by browsing for HTTP services announced
/// on it (DNS-SD, "_http._tcp" in "local", through the Avahi daemon).
///
/// checkLocalNetworkPermission() starts a probe and returns at once. The probe answers exactly
/// once through onPermissionChecked: true as soon as a service is found, false when the browse
/// cannot run (no Avahi daemon, browse failure; reported at once with a console line) or when
/// nothing is found within answerTimeout (3 seconds by default). The first answer is final:
/// the browse stops before the callback runs, and later events of that probe are ignored. A new
/// call starts a new probe and supersedes one that has not answered yet.
///
/// Threads: every state change and the callback run on the client's own serial queue (a
/// strand of the global executor), never on the caller's thread; a callback that touches user
/// interface must hop to the main queue itself. Members may be called from any thread.
///
/// Ownership: the host owns the client. Once it is destroyed, pending steps do nothing and the
/// callback is not called; the browse is stopped on the client's queue without blocking the
/// destroying thread.
class KESTRO_API BonjourClient {
  public:
    static constexpr const char* serviceType = "_http._tcp";
    static constexpr const char* domain = "local";

    explicit BonjourClient(std::chrono::milliseconds answerTimeout = std::chrono::seconds(3));
    ~BonjourClient();
    BonjourClient(const BonjourClient&) = delete;
    BonjourClient& operator=(const BonjourClient&) = delete;

    /// Receives the answer of each probe, on the client's queue.
    void setOnPermissionChecked(std::function<void(bool)> callback);
    void checkLocalNetworkPermission();

    struct Impl;

  private:
    std::shared_ptr<Impl> impl_;
};

/// Where testLocalNetworkAccess connects to. The default is a typical home router's address.
struct LocalNetworkTarget {
    /// An IPv4 or IPv6 address literal; names are not resolved.
    std::string address = "192.168.1.1";
    std::uint16_t port = 80;
    /// A connection still pending after this long counts as no access.
    std::chrono::milliseconds timeout{3000};
};

/// Tries a plain TCP connection to the target: completion(true) once it is established, false
/// when it fails, is refused or times out. The completion is called exactly once, on a worker
/// of the global executor; the connection is closed before the call. Returns at once. Any thread.
KESTRO_API void testLocalNetworkAccess(std::function<void(bool)> completion,
                                       LocalNetworkTarget target = {});

}  // namespace kestro
