#include "kestro/facade/kestro_internal.h"

#include <mutex>

#include "kestro/core/app_lifecycle_observer.h"
#include "kestro/core/console.h"
#include "kestro/core/executor.h"
#include "kestro/core/main_queue.h"
#include "kestro/core/settings_store.h"
#include "kestro/facade/capture_pipeline.h"
#include "kestro/network/mock_cache.h"
#include "kestro/network/network_interceptor.h"
#include "kestro/remote/command_handler.h"
#include "kestro/remote/upload.h"
#include "kestro/remote/websocket_manager.h"
#include "kestro/store/request_store_sqlite.h"

#ifndef KESTRO_DISTRIBUTION_CHANNEL
#define KESTRO_DISTRIBUTION_CHANNEL "development"
#endif

namespace kestro {
namespace facade::internal {
namespace {
constexpr std::string_view kChannel = KESTRO_DISTRIBUTION_CHANNEL;
static_assert(kChannel == "development" || kChannel == "beta" || kChannel == "store",
              "KESTRO_DISTRIBUTION must be development, beta or store");
}  // namespace

BuildKind buildKindOf(std::string_view channel) {
    return {.testDistribution = channel == "beta", .store = channel == "store"};
}

std::string_view distributionChannel() { return kChannel; }
}  // namespace facade::internal

namespace {
DeviceDictionary deviceDictionary(const std::optional<DeviceInfo>& deviceInfo) {
    if (!deviceInfo) {
        return {{"id", loadOrCreateUUID()}, {"sdkVersion", SDK_VERSION}, {"model", "Unknown"},
                {"name", "Unknown"},        {"osName", "Unknown"},       {"osVersion", "Unknown"}};
    }
    return {
        {"id", loadOrCreateUUID()},
        {"sdkVersion", SDK_VERSION},
        {"platform", "linux"},
        {"name",
         getUserDefaults().string(USER_DEFAULTS_KEY_DEVICE_NAME).value_or(deviceInfo->name)},
        {"model", deviceInfo->model},
        {"osName", deviceInfo->systemName},
        {"osVersion", deviceInfo->systemVersion},
        {"identifierForVendor", deviceInfo->identifierForVendor.value_or("")},
    };
}
}  // namespace

namespace {
JSONDictionary jsonObject(const DeviceDictionary& dictionary) {
    JSONDictionary object;
    object.reserve(dictionary.size());
    for (const auto& [key, value] : dictionary) object[key] = value;
    return object;
}

// Registrations go out through the SDK's own upload; a failure becomes the registration's
// error line.
void uploadDevice(const std::string& url, const DeviceDictionary& body, const std::string& apiKey,
                  std::function<void(RegistrationResult)> done) {
    sendToServer(url, jsonObject(body), apiKey, [done = std::move(done)](UploadResult result) {
        if (const URLError* error = result.error()) {
            done(error->localizedDescription());
        } else {
            done(std::nullopt);
        }
    });
}
}  // namespace

struct KestroInternal::Impl : std::enable_shared_from_this<Impl> {
    mutable std::mutex mutex;
    KestroConfig config;  // logs off, network off, events off, debug, no environment
    std::string apiKey;   // the key in use; empty until initialisation accepts one
    KestroEnvironment env = KestroEnvironment::dev;
    std::optional<DeviceInfo> deviceInfo;  // the host's own; never set by Kestro
    std::string deviceUUID;                // loaded by initialisation
    bool initialized = false;              // a valid initialize has run
    bool warnedNoService = false;          // the "no production service" line was printed
    // network, log, event; see sdkFeatureState(). The list itself never changes.
    const std::vector<std::shared_ptr<SDKFeatureState>> featureStates{
        std::make_shared<SDKFeatureState>(RequestType::network, false),
        std::make_shared<SDKFeatureState>(RequestType::log, false),
        std::make_shared<SDKFeatureState>(RequestType::event, false)};
    SDKFeatureState& state(RequestType type) const {
        return *featureStates[static_cast<std::size_t>(type)];
    }
    // Posts a registration body; see facade::internal::setDeviceUpload.
    DeviceUpload deviceUpload = uploadDevice;
    std::shared_ptr<WebsocketOptions> websocketOptions = std::make_shared<WebsocketOptions>();

    // Owned for the instance's life. The interceptor's requests share its state, so they may
    // outlive it safely.
    std::shared_ptr<MockCache> mockCache = std::make_shared<MockCache>();
    NetworkInterceptor networkInterceptor{mockCache};

    // Touched only on the main queue; the pointer itself is guarded by `mutex` so that other
    // threads can read the link's state.
    std::shared_ptr<WebsocketManager> websocketManager;
    std::unique_ptr<AppLifecycleObserver> appLifeCycleObserver;

    std::unique_ptr<CapturePipeline> pipeline;

    // The endpoint and key in use; the facade's getters and the pipeline's handlers (which
    // hold only this state) read them here.
    std::string apiEndpoint() const {
        std::lock_guard lock(mutex);
        return kestro::getAPIEndpoint(env);
    }
    std::string key() const {
        std::lock_guard lock(mutex);
        return apiKey;
    }

    // The device registration: gathers the shared description once, builds the dictionary
    // and posts it to "/v1/devices" with the key in use, all on the global executor.
    void setupDevice() {
        postTask([weak = weak_from_this()] {
            const auto impl = weak.lock();
            if (!impl) return;  // a local instance that is gone registers nothing
            // Gathering reads a few small files and needs no UI thread on this platform, so
            // it runs here rather than on the main queue.
            DeviceInfo::initialize();
            const DeviceDictionary body = deviceDictionary(DeviceInfo::shared());
            std::string apiKey;
            KestroEnvironment env;
            DeviceUpload upload;
            {
                std::lock_guard lock(impl->mutex);
                apiKey = impl->apiKey;
                env = impl->env;
                upload = impl->deviceUpload;
            }
            const std::string endpoint = kestro::getAPIEndpoint(env);
            if (endpoint.empty()) return;  // no service to register with
            registerDevice(endpoint, body, apiKey, upload);
        });
    }

    // Installs the capture handlers the configuration asks for. They hold this state weakly
    // and never let an exception reach the thread that delivers.
    void start(const KestroConfig& config) {
        const std::weak_ptr<Impl> weak = weak_from_this();
        if (config.network) {
            networkInterceptor.startIntercepting([weak](const InterceptedRequestWrapper& w) {
                guarded("network capture", [&] {
                    if (const auto impl = weak.lock()) impl->pipeline->handleNetworkReport(w);
                });
            });
            state(RequestType::network).setEnabled(true);
        }
        if (config.logs) {
            PrintInterceptor::startIntercepting([weak](const RequestTypeLog& record) {
                guarded("log capture", [&] {
                    if (const auto impl = weak.lock()) impl->pipeline->handleLogRecord(record);
                });
            });
            state(RequestType::log).setEnabled(true);
        }
    }

    void stopNetwork() {
        networkInterceptor.stopIntercepting();
        state(RequestType::network).setEnabled(false);
    }
    void stopLogs() {
        PrintInterceptor::stopIntercepting();
        state(RequestType::log).setEnabled(false);
    }

    // Opens the dashboard link and keeps it (on the main queue).
    void openLink(const std::string& key, const std::string& uuid, const std::string& endpoint,
                  const WebsocketOptions& options) {
        auto link = std::make_shared<WebsocketManager>(key, uuid, endpoint, options);
        {
            std::lock_guard lock(mutex);
            websocketManager = link;
        }
        link->setOnMessage([](const std::string& text) {
            // Dashboard commands act on the process-wide facade, whichever instance opened
            // the link.
            KestroInternal& kestro = Kestro();
            RemoteCommandTargets targets{
                .mockCache = [&kestro]() -> MockCache& { return kestro.getMockCache(); },
                .setBreakPointEnabled =
                    [&kestro](bool on) { kestro.getNetworkInterceptor().setBreakPointEnabled(on); },
                .releaseBreakpoints =
                    [&kestro] { kestro.getNetworkInterceptor().semaphore().release(); },
                .logEvent =
                    [&kestro](const std::string& name, const std::string& category,
                              const boost::json::object& payload) {
                        kestro.logEvent(name, category, payload);
                    },
            };
            handleWebSocketMessage(text, targets);
        });
        link->connect(true);
        // Every confirmed connection, reconnections included, registers the device again.
        link->setOnConnect([weak = weak_from_this()] {
            if (const auto impl = weak.lock()) impl->setupDevice();
        });
    }

    void reconnectLink() {
        MainQueue::shared().post([weak = weak_from_this()] {
            const auto impl = weak.lock();
            if (!impl) return;
            std::shared_ptr<WebsocketManager> link;
            {
                std::lock_guard lock(impl->mutex);
                link = impl->websocketManager;
            }
            if (link) link->connect(true);
        });
    }

    template <typename F>
    static void guarded(const char* what, F&& f) noexcept {
        try {
            f();
        } catch (const std::exception& e) {
            kestro::printI("❌ " + std::string(what) + " failed: " + e.what(), LogLevel::error);
        } catch (...) {
            kestro::printI("❌ " + std::string(what) + " failed", LogLevel::error);
        }
    }
};

KestroInternal::KestroInternal()
    : enforceKestroSheetInProductionBuilds(
          getUserDefaults().boolean(USER_DEFAULTS_KEY_ENFORE_KESTRO_SHEET_IN_PRODUCTION_BUILDS)),
      impl_(std::make_shared<Impl>()) {
    // The pipeline reads the key and the environment anew for every item, so items captured
    // before initialisation go to the development endpoint with an empty key.
    Impl* impl = impl_.get();
    impl_->pipeline = std::make_unique<CapturePipeline>(CapturePipeline::Dependencies{
        .store = []() -> RequestStoreSQLite& { return RequestStoreSQLite::shared(); },
        .apiEndpoint = [impl] { return impl->apiEndpoint(); },
        .apiKey = [impl] { return impl->key(); },
        .deviceDictionary = [] { return jsonObject(deviceDictionary(DeviceInfo::shared())); },
        .send =
            [](std::string url, JSONDictionary body, std::string apiKey) {
                sendToServer(std::move(url), std::move(body), std::move(apiKey));
            },
    });
}

KestroInternal::~KestroInternal() {
    // Only local instances are ever destroyed. Capture handlers hold the state weakly; stop
    // what this instance switched on so that nothing reports to it any more.
    impl_->networkInterceptor.stopIntercepting();
    std::shared_ptr<WebsocketManager> link;
    std::unique_ptr<AppLifecycleObserver> observer;
    {
        std::lock_guard lock(impl_->mutex);
        link = std::move(impl_->websocketManager);
        observer = std::move(impl_->appLifeCycleObserver);
    }
    if (link) link->disconnect();
}

KestroInternal& KestroInternal::shared() {
    static KestroInternal* instance = new KestroInternal();
    return *instance;
}

KestroInternal& Kestro() {
    // Created thread-safely on first use and never destroyed: capture work on other threads
    // may still reach it while the process exits.
    static KestroInternal* instance = [] {
        auto* k = new KestroInternal();
        setConsoleLevel(k->getConfig().logLevel);
        return k;
    }();
    return *instance;
}

KestroConfig KestroInternal::getConfig() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->config;
}

void KestroInternal::setStoreRetention(StoreRetention retention) {
    {
        std::lock_guard lock(impl_->mutex);
        impl_->config.retention = retention;
    }
    RequestStoreSQLite::shared().setRetention(retention);
}

StoreRetention KestroInternal::storeRetention() const {
    return RequestStoreSQLite::shared().retention();
}

void KestroInternal::setConfig(const KestroConfig& config) {
    {
        std::lock_guard lock(impl_->mutex);
        impl_->config = config;
        impl_->state(RequestType::event).setEnabled(config.events);
    }
    impl_->pipeline->setRedactionPolicy(config.redaction);
    impl_->networkInterceptor.setMaxBodyBytes(config.maxBodyBytes);
    // Only the process-wide facade owns the console threshold.
    if (this == &Kestro()) setConsoleLevel(config.logLevel);
}

void KestroInternal::setRedactionPolicy(RedactionPolicy policy) {
    {
        std::lock_guard lock(impl_->mutex);
        impl_->config.redaction = policy;
    }
    impl_->pipeline->setRedactionPolicy(std::move(policy));
}

RedactionPolicy KestroInternal::redactionPolicy() const {
    return impl_->pipeline->redactionPolicy();
}

void KestroInternal::setMaxBodyBytes(std::int64_t maxBodyBytes) {
    {
        std::lock_guard lock(impl_->mutex);
        impl_->config.maxBodyBytes = maxBodyBytes;
    }
    impl_->networkInterceptor.setMaxBodyBytes(maxBodyBytes);
}

std::int64_t KestroInternal::maxBodyBytes() const {
    return impl_->networkInterceptor.maxBodyBytes();
}

bool KestroInternal::isEnabled() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->config.logs || impl_->config.network;
}

KestroEnvironment KestroInternal::getEnvironment() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->env;
}

std::string KestroInternal::getAPIEndpoint() const { return impl_->apiEndpoint(); }

bool KestroInternal::isValidAPIKey(std::string_view apiKey) const {
    return apiKey.starts_with("kt-prod-") || apiKey.starts_with("kt-dev-");
}

void KestroInternal::saveAPIKey(std::string_view apiKey) {
    getUserDefaults().setString(USER_DEFAULTS_API_KEY, apiKey);
}

std::optional<std::string> KestroInternal::getSavedAPIKey() const {
    return getUserDefaults().string(USER_DEFAULTS_API_KEY);
}

void KestroInternal::clearAPIKey() {
    {
        std::lock_guard lock(impl_->mutex);
        impl_->apiKey.clear();
    }
    getUserDefaults().remove(USER_DEFAULTS_API_KEY);
}

std::string KestroInternal::getAPIKey() const { return impl_->key(); }

void KestroInternal::deleteDeviceId() { getUserDefaults().remove(USER_DEFAULTS_KEY_DEVICE_UUID); }

std::optional<std::string> KestroInternal::getCustomDeviceName() const {
    return getUserDefaults().string(USER_DEFAULTS_KEY_DEVICE_NAME);
}

void KestroInternal::setCustomDeviceName(std::string_view name) {
    getUserDefaults().setString(USER_DEFAULTS_KEY_DEVICE_NAME, name);
    DeviceInfo::setDeviceName(std::string(name));
    setupDevice();
}

std::optional<DeviceInfo> KestroInternal::deviceInfo() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->deviceInfo;
}

void KestroInternal::setDeviceInfo(std::optional<DeviceInfo> deviceInfo) {
    std::lock_guard lock(impl_->mutex);
    impl_->deviceInfo = std::move(deviceInfo);
}

DeviceDictionary KestroInternal::getDeviceInfo(const std::optional<DeviceInfo>& deviceInfo) const {
    return deviceDictionary(deviceInfo);
}

void KestroInternal::setupDevice() { impl_->setupDevice(); }

void facade::internal::setDeviceUpload(KestroInternal& facade, DeviceUpload upload) {
    std::lock_guard lock(facade.impl_->mutex);
    facade.impl_->deviceUpload = std::move(upload);
}

void facade::internal::setWebsocketOptions(KestroInternal& facade,
                                           const WebsocketOptions& options) {
    std::lock_guard lock(facade.impl_->mutex);
    facade.impl_->websocketOptions = std::make_shared<WebsocketOptions>(options);
}

// --- Life cycle and capture ------------------------------------------------------------

void KestroInternal::initialize(std::string_view apiKey, const KestroConfig& config) {
    if (!isValidAPIKey(apiKey)) {
        printI("Your APIKey has an incorrect format. Please check your APIKey and try again.",
               LogLevel::error);
        return;
    }
    const bool dev = !isStoreOrTestFlightBuild() && config.environment == "dev";
    const KestroEnvironment env = dev ? KestroEnvironment::dev : KestroEnvironment::prod;
    // Empty when production has no host: then nothing is uploaded and no link is opened.
    const std::string endpoint = getWSAPIEndpoint(env);
    const std::string uuid = loadOrCreateUUID();
    bool warnNoService = false;
    {
        std::lock_guard lock(impl_->mutex);
        impl_->env = env;
        impl_->apiKey = std::string(apiKey);
        impl_->deviceUUID = uuid;
        impl_->initialized = true;
        if (endpoint.empty() && !impl_->warnedNoService) {
            impl_->warnedNoService = warnNoService = true;
        }
    }
    setConfig(config);
    setStoreRetention(config.retention);
    printI(LogLevel::verbose, "🐶 Kestro setup: " + std::string(apiKey) + " endpoint: " + endpoint +
                                  " deviceUUID: " + uuid);
    if (warnNoService) {
        printI(
            "⚠️ No production service is configured (KESTRO_PROD_HOST): captured items are "
            "stored but not uploaded, and no dashboard link is opened",
            LogLevel::warning);
    }
    setupDevice();

    MainQueue::shared().post(
        [weak = std::weak_ptr<Impl>(impl_), key = std::string(apiKey), uuid, endpoint] {
            const auto impl = weak.lock();
            if (!impl) return;
            std::shared_ptr<WebsocketManager> previous;
            std::shared_ptr<WebsocketOptions> options;
            {
                std::lock_guard lock(impl->mutex);
                previous = impl->websocketManager;
                options = impl->websocketOptions;
            }
            if (previous) previous->disconnect();
            if (endpoint.empty()) {
                std::lock_guard lock(impl->mutex);
                impl->websocketManager = nullptr;
            } else {
                impl->openLink(key, uuid, endpoint, *options);
            }

            auto observer = std::make_unique<AppLifecycleObserver>();
            observer->setOnMoveToBackground([] {});
            observer->setOnMoveToForeground([weak] {
                if (const auto impl = weak.lock()) impl->reconnectLink();
            });
            std::unique_ptr<AppLifecycleObserver> dropped;
            {
                std::lock_guard lock(impl->mutex);
                dropped = std::move(impl->appLifeCycleObserver);
                impl->appLifeCycleObserver = std::move(observer);
            }
            dropped.reset();
            KestroConfig config;
            {
                std::lock_guard lock(impl->mutex);
                config = impl->config;
            }
            impl->start(config);
        });
}

void KestroInternal::start(const KestroConfig& config) { impl_->start(config); }

void KestroInternal::stop(const KestroConfig& config) {
    setConfig(config);
    if (!config.network) impl_->stopNetwork();
    if (!config.logs) impl_->stopLogs();
}

void KestroInternal::startAll() {
    KestroConfig config;
    {
        std::lock_guard lock(impl_->mutex);
        impl_->config.logs = true;
        impl_->config.network = true;
        config = impl_->config;
    }
    start(config);
}

void KestroInternal::stopAll() {
    impl_->stopNetwork();
    impl_->stopLogs();
}

const std::vector<std::shared_ptr<SDKFeatureState>>& KestroInternal::sdkFeatureState() const {
    return impl_->featureStates;
}

const std::vector<RequestType>& KestroInternal::supportedRequestTypes() const {
    static const std::vector<RequestType> types{RequestType::network, RequestType::log,
                                                RequestType::event};
    return types;
}

void KestroInternal::logEvent(const std::string& name, const std::string& category,
                              const JSONDictionary& payload) {
    {
        std::lock_guard lock(impl_->mutex);
        if (impl_->initialized && !impl_->config.events) return;
    }
    Impl::guarded("logEvent", [&] { impl_->pipeline->logEvent(name, category, payload); });
}

bool KestroInternal::isConnectedToWs() const {
    const auto link = websocketManager();
    return link && link->isConnected();
}

std::shared_ptr<WebsocketManager> KestroInternal::websocketManager() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->websocketManager;
}

std::string KestroInternal::deviceUUID() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->deviceUUID;
}

NetworkInterceptor& KestroInternal::getNetworkInterceptor() { return impl_->networkInterceptor; }

MockCache& KestroInternal::getMockCache() { return *impl_->mockCache; }

void KestroInternal::setDebugWindowInProductionBuilds(bool enabled) {
    getUserDefaults().setBool(USER_DEFAULTS_KEY_ENFORE_KESTRO_SHEET_IN_PRODUCTION_BUILDS, enabled);
}

bool KestroInternal::useDebugWindowInProductionBuilds() const {
    return getUserDefaults().boolean(USER_DEFAULTS_KEY_ENFORE_KESTRO_SHEET_IN_PRODUCTION_BUILDS);
}

bool KestroInternal::isTestFlightBuild() const {
    return facade::internal::buildKindOf(facade::internal::distributionChannel()).testDistribution;
}

bool KestroInternal::isStoreBuild() const {
    return facade::internal::buildKindOf(facade::internal::distributionChannel()).store;
}

bool KestroInternal::isStoreOrTestFlightBuild() const {
    return isStoreBuild() || isTestFlightBuild();
}

void KestroInternal::printI(TextRef text, LogLevel level) const {
    if (consoleAllows(getConfig().logLevel, level)) writeConsoleLine(text);
}

}  // namespace kestro
