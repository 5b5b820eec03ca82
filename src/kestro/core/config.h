#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "kestro/core/capture_policy.h"
#include "kestro/core/export.h"

namespace kestro {

/// The SDK's version text, carried by getVersion() and the device dictionary's "sdkVersion".
inline constexpr const char* SDK_VERSION = "1.4.402";

/// Threshold of the SDK's own console diagnostics. Equality only: the console filter compares
/// levels by a table (console.h), never by order.
enum class LogLevel : std::uint8_t { verbose = 0, debug = 1, info = 2, warning = 3, error = 4 };

/// Which service the SDK talks to.
enum class KestroEnvironment : std::uint8_t { dev = 0, prod = 1 };

/// The three capture features.
enum class RequestType : std::uint8_t { network = 0, log = 1, event = 2 };

/// The configuration a host application hands to the facade. A plain value.
struct KESTRO_API KestroConfig {
    bool logs = false;
    bool network = false;
    bool events = false;
    LogLevel logLevel = LogLevel::debug;
    std::optional<std::string> environment;
    /// What network records hide or skip (default: the credential headers).
    RedactionPolicy redaction;
    /// Captured bodies above this many bytes are cut in their record (0: never cut).
    std::int64_t maxBodyBytes = kDefaultMaxBodyBytes;
    /// The on-device store's limits.
    StoreRetention retention;

    KestroConfig() = default;
    KestroConfig(bool logs, bool network, bool events, LogLevel logLevel,
                 std::optional<std::string> environment)
        : logs(logs),
          network(network),
          events(events),
          logLevel(logLevel),
          environment(std::move(environment)) {}

    /// Sets logs and network; events keeps its value.
    void enableAllBooleans() {
        logs = true;
        network = true;
    }

    bool operator==(const KestroConfig&) const = default;
};

/// The dictionary form of a configuration: exactly "logs", "network" and "logLevel".
struct KestroConfigDictionary {
    bool logs;
    bool network;
    LogLevel logLevel;
    bool operator==(const KestroConfigDictionary&) const = default;
};
inline KestroConfigDictionary dictionary(const KestroConfig& c) {
    return {c.logs, c.network, c.logLevel};
}

/// One capture feature's switch. Shared (held by reference), not copied. The flag may be read
/// and written from any thread.
class KESTRO_API SDKFeatureState {
  public:
    SDKFeatureState(RequestType requestType, bool isEnabled)
        : requestType_(requestType), isEnabled_(isEnabled) {}
    SDKFeatureState(const SDKFeatureState&) = delete;
    SDKFeatureState& operator=(const SDKFeatureState&) = delete;

    RequestType requestType() const { return requestType_; }
    bool isEnabled() const { return isEnabled_.load(std::memory_order_relaxed); }
    void setEnabled(bool enabled) { isEnabled_.store(enabled, std::memory_order_relaxed); }

  private:
    const RequestType requestType_;
    std::atomic<bool> isEnabled_;
};

/// Whether the environment has a service host. The development host defaults to 127.0.0.1;
/// the production host has no default: it is the KESTRO_PROD_HOST build setting or, at run
/// time, the KESTRO_PROD_HOST environment variable (set and empty, it names none), and without
/// one production has no service: nothing is uploaded and no link is opened.
KESTRO_API bool hasServiceHost(KestroEnvironment env);

/// HTTP base URL of the service, no trailing slash ("http://<dev host>:3007" or
/// "https://<prod host>"); the empty text for production when it has no host. The hosts come
/// from the build and can be overridden at run time with KESTRO_DEV_HOST / KESTRO_PROD_HOST.
/// A development host that names a port ("127.0.0.1:4000", "[::1]:4000") is used with that
/// port instead of 3007.
KESTRO_API std::string getAPIEndpoint(KestroEnvironment env = KestroEnvironment::dev);
/// WebSocket base URL of the service ("ws://<dev host>:3007" or "wss://<prod host>"); the
/// empty text for production when it has no host.
KESTRO_API std::string getWSAPIEndpoint(KestroEnvironment env = KestroEnvironment::dev);

/// Name of a level as text ("verbose", "debug", ...), for diagnostics and settings screens.
KESTRO_API const char* toString(LogLevel level);

}  // namespace kestro
