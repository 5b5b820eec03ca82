#pragma once

#include <memory>
#include <optional>
#include <source_location>
#include <string>
#include <string_view>
#include <vector>

#include "kestro/core/config.h"
#include "kestro/core/export.h"
#include "kestro/facade/device_info.h"
#include "kestro/logging/print_interceptor.h"
#include "kestro/records/records.h"

namespace kestro {

class KestroInternal;
class MockCache;
class NetworkInterceptor;
class WebsocketManager;
struct WebsocketOptions;

namespace facade::internal {
/// Replaces the operation that posts device registrations for this facade. By default it is
/// the HTTP upload (sendToServer) whose failures are printed.
KESTRO_API void setDeviceUpload(KestroInternal& facade, DeviceUpload upload);
/// Options for the dashboard links this facade opens from now on (tests shorten the link's
/// intervals and trust their own certificates).
KESTRO_API void setWebsocketOptions(KestroInternal& facade, const WebsocketOptions& options);
}  // namespace facade::internal

/// The one object through which a host application drives Kestro: configuration, capture
/// switches, logging calls and the SDK's own console print.
///
/// Reach the process-wide instance with Kestro(). KestroInternal::shared() is a second,
/// separate instance that nothing inside the SDK uses.
///
/// Thread safety: every member may be called from any thread. The configuration is guarded
/// by the instance; the logging calls only format and write their console line on the caller's
/// thread and capture on the global executor. Nothing here throws into the host.
class KESTRO_API KestroInternal {
  public:
    KestroInternal();
    ~KestroInternal();
    KestroInternal(const KestroInternal&) = delete;
    KestroInternal& operator=(const KestroInternal&) = delete;

    static KestroInternal& shared();

    // --- Life cycle and capture ----------------------------------------------------------

    /// Validates the key and starts everything: chooses the environment ("dev" only outside
    /// store and beta builds, production otherwise), keeps the key and the configuration,
    /// loads the device identifier, registers the device, then on the main queue replaces the
    /// dashboard link, installs the life-cycle observer and starts the configured capture.
    /// An invalid key prints one error line and changes nothing.
    void initialize(std::string_view apiKey, const KestroConfig& config);
    /// Switches on network capture if config.network and log capture if config.logs; does not
    /// store the configuration and stops nothing.
    void start(const KestroConfig& config);
    /// Stores the configuration, then stops network capture if config.network is off and log
    /// capture if config.logs is off.
    void stop(const KestroConfig& config);
    /// Turns logs and network on in the configuration and starts both.
    void startAll();
    /// Stops network and log capture; the configuration is not changed.
    void stopAll();
    /// Records a custom event: stored and uploaded with the device dictionary. Before
    /// initialisation it always records; afterwards only while config.events is on.
    void logEvent(const std::string& name, const std::string& category,
                  const JSONDictionary& payload = {});
    /// One state per capture feature, in the order network, log, event, each constructed off.
    /// They follow the features: network and log are on while their capture handler is
    /// installed (start, stop, startAll, stopAll); event is the stored configuration's events
    /// flag, which decides whether logEvent records once initialised. Writing one switches
    /// nothing. The list never changes; the states may be read from any thread.
    const std::vector<std::shared_ptr<SDKFeatureState>>& sdkFeatureState() const;
    /// The capture features: network, log, event.
    const std::vector<RequestType>& supportedRequestTypes() const;
    /// Whether the dashboard link is up (false before the first initialisation's link exists).
    bool isConnectedToWs() const;
    /// The dashboard link, if initialisation has made one.
    std::shared_ptr<WebsocketManager> websocketManager() const;
    /// The device identifier loaded by initialisation (empty before).
    std::string deviceUUID() const;

    /// The network interceptor and the mock rules it answers from, owned for the instance's
    /// life.
    NetworkInterceptor& getNetworkInterceptor();
    MockCache& getMockCache();

    /// The current configuration (a copy).
    KestroConfig getConfig() const;
    /// Stores a configuration and makes its logLevel the console threshold; its redaction
    /// policy and body limit apply to records made from then on. Capture switches are applied
    /// by the callers (initialize, stop).
    void setConfig(const KestroConfig& config);

    /// The redaction policy applied where network records are made (stored in the
    /// configuration too). Any thread; records made after the call follow the new policy.
    /// `setRedactionPolicy(RedactionPolicy::off())` turns redaction off for a debugging session.
    void setRedactionPolicy(RedactionPolicy policy);
    RedactionPolicy redactionPolicy() const;
    /// The size above which a captured body is cut in its record (0 or less: never). Any
    /// thread; applies to requests started after the call.
    void setMaxBodyBytes(std::int64_t maxBodyBytes);
    std::int64_t maxBodyBytes() const;
    /// The on-device store's limits (items, age, bytes on disk; 0 turns one off). Applied to
    /// the store at once: a store past a limit is trimmed, oldest first, on a worker of the
    /// global executor. initialize applies config.retention. Any thread.
    void setStoreRetention(StoreRetention retention);
    StoreRetention storeRetention() const;

    /// logs or network is on in the current configuration.
    bool isEnabled() const;
    std::string getVersion() const { return SDK_VERSION; }

    /// The service environment this instance talks to (dev until initialisation chooses).
    KestroEnvironment getEnvironment() const;
    /// HTTP base URL of the service for the current environment.
    std::string getAPIEndpoint() const;

    // --- API key -------------------------------------------------------------------------
    // The key has the form "kt-prod-..." or "kt-dev-..." (case-sensitive prefix, nothing else
    // checked). The saved key lives in the settings store under "apiKey"; the key in use is
    // this instance's own field, set by initialisation.

    /// Whether apiKey starts with "kt-prod-" or "kt-dev-".
    bool isValidAPIKey(std::string_view apiKey) const;
    /// Stores apiKey under "apiKey"; the key in use is not changed.
    void saveAPIKey(std::string_view apiKey);
    /// The stored key; absent when none (or a value that is not text) is stored.
    std::optional<std::string> getSavedAPIKey() const;
    /// Empties the key in use, then removes the stored key. The link and capture keep running.
    void clearAPIKey();
    /// The key in use (what initialisation accepted), not the stored one.
    std::string getAPIKey() const;

    // --- Device identity and name --------------------------------------------------------

    /// Removes the stored device identifier; the next loadOrCreateUUID() creates a new one.
    /// An open link keeps the old identifier until the next initialisation.
    void deleteDeviceId();
    /// The custom device name stored under "kestroDeviceName", if any.
    std::optional<std::string> getCustomDeviceName() const;
    /// Stores the custom name, renames the gathered device description and registers the
    /// device again (asynchronously, on the global executor).
    void setCustomDeviceName(std::string_view name);

    /// A description the host keeps on the facade for its own use; Kestro itself never sets it
    /// (registration and uploads use DeviceInfo::shared()).
    std::optional<DeviceInfo> deviceInfo() const;
    void setDeviceInfo(std::optional<DeviceInfo> deviceInfo);

    /// The device dictionary. With a description: "id" (the device identifier, read anew),
    /// "sdkVersion", "platform" ("linux"), "name" (the custom name if one is stored, else the
    /// description's name), "model", "osName", "osVersion", "identifierForVendor" (empty text
    /// when absent). Without one: "id", "sdkVersion", and "model", "name", "osName",
    /// "osVersion" all "Unknown".
    DeviceDictionary getDeviceInfo(const std::optional<DeviceInfo>& deviceInfo) const;

    // --- Inspector in production builds and build kind ----------------------------------

    /// Stores whether the inspector may be opened in production builds.
    void setDebugWindowInProductionBuilds(bool enabled);
    /// The stored switch, read from the store on every call; false when never set.
    bool useDebugWindowInProductionBuilds() const;
    /// True in a test-distribution ("beta") build.
    bool isTestFlightBuild() const;
    /// True in a store build.
    bool isStoreBuild() const;
    /// isStoreBuild() or isTestFlightBuild(); such builds always use the production service.
    bool isStoreOrTestFlightBuild() const;

    /// The stored "enforceKestroSheetInProductionBuilds" switch as it was when this instance
    /// was constructed; later changes of the setting do not update it.
    const bool enforceKestroSheetInProductionBuilds;

    /// The SDK's leveled console print, filtered by this instance's config.logLevel.
    void printI(TextRef text, LogLevel level = LogLevel::verbose) const;
    template <typename... Items>
    void printI(LogLevel level, const Items&... items) const {
        try {
            printI(describe(items...), level);
        } catch (...) {
            printI("❌ printI: an item could not be described", LogLevel::error);
        }
    }

    // The six logging calls. Each takes zero or more items of any type and captures the
    // caller's file and line; a first argument `At{file, line}` passes them explicitly.
    // Level texts: l "info", i "info", w "warn", e "error", n "notice", f "fault".
#define KESTRO_FACADE_LOG(name, levelText)                                                         \
    void name(std::source_location loc = std::source_location::current()) const {                  \
        PrintInterceptor::log({.level = levelText, .location = loc});                              \
    }                                                                                              \
    template <typename... Rest>                                                                    \
    void name(LocatedItem first, const Rest&... rest) const {                                      \
        PrintInterceptor::log({.level = levelText, .location = first.location()}, first, rest...); \
    }                                                                                              \
    template <typename... Items>                                                                   \
    void name(At at, const Items&... items) const {                                                \
        PrintInterceptor::log({.level = levelText, .file = at.file, .line = at.line}, items...);   \
    }

    KESTRO_FACADE_LOG(l, "info")
    KESTRO_FACADE_LOG(i, "info")
    KESTRO_FACADE_LOG(w, "warn")
    KESTRO_FACADE_LOG(e, "error")
    KESTRO_FACADE_LOG(n, "notice")
    KESTRO_FACADE_LOG(f, "fault")
#undef KESTRO_FACADE_LOG

  private:
    // The device registration: gathers the shared description once, builds the dictionary
    // and posts it to "/v1/devices" with the key in use, all on the global executor.
    void setupDevice();
    friend void facade::internal::setDeviceUpload(KestroInternal&, DeviceUpload);
    friend void facade::internal::setWebsocketOptions(KestroInternal&, const WebsocketOptions&);

    struct Impl;
    std::shared_ptr<Impl> impl_;  // shared with tasks that may outlive a local instance
};

/// The process-wide facade instance that the SDK itself uses. Created on first use.
KESTRO_API KestroInternal& Kestro();

namespace facade::internal {
/// What a distribution channel ("development", "beta", "store") means for the build-kind
/// queries. Any other text is a development build.
struct BuildKind {
    bool testDistribution = false;
    bool store = false;
};
KESTRO_API BuildKind buildKindOf(std::string_view channel);
/// The channel this library was built for (the KESTRO_DISTRIBUTION build setting).
KESTRO_API std::string_view distributionChannel();
}  // namespace facade::internal

}  // namespace kestro
