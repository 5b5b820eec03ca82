#include "kestro/facade/kestro_internal.h"

#include <mutex>

#include "kestro/core/console.h"
#include "kestro/core/executor.h"
#include "kestro/core/settings_store.h"

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

struct KestroInternal::Impl {
    mutable std::mutex mutex;
    KestroConfig config;  // logs off, network off, events off, debug, no environment
    std::string apiKey;   // the key in use; empty until initialisation accepts one
    KestroEnvironment env = KestroEnvironment::dev;
    std::optional<DeviceInfo> deviceInfo;  // the host's own; never set by Kestro
    // Posts a registration body; see facade::internal::setDeviceUpload.
    DeviceUpload deviceUpload;
};

KestroInternal::KestroInternal()
    : enforceKestroSheetInProductionBuilds(
          getUserDefaults().boolean(USER_DEFAULTS_KEY_ENFORE_KESTRO_SHEET_IN_PRODUCTION_BUILDS)),
      impl_(std::make_shared<Impl>()) {}
KestroInternal::~KestroInternal() = default;

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

void KestroInternal::setConfig(const KestroConfig& config) {
    {
        std::lock_guard lock(impl_->mutex);
        impl_->config = config;
    }
    // Only the process-wide facade owns the console threshold.
    if (this == &Kestro()) setConsoleLevel(config.logLevel);
}

bool KestroInternal::isEnabled() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->config.logs || impl_->config.network;
}

KestroEnvironment KestroInternal::getEnvironment() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->env;
}

std::string KestroInternal::getAPIEndpoint() const {
    return kestro::getAPIEndpoint(getEnvironment());
}

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

std::string KestroInternal::getAPIKey() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->apiKey;
}

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

DeviceDictionary KestroInternal::getDeviceInfo(const std::optional<DeviceInfo>& deviceInfo) const {
    return deviceDictionary(deviceInfo);
}

void KestroInternal::setupDevice() {
    postTask([weak = std::weak_ptr<Impl>(impl_)] {
        const auto impl = weak.lock();
        if (!impl) return;  // a local instance that is gone registers nothing
        // Gathering reads a few small files and needs no UI thread on this platform, so it
        // runs here rather than on the main queue.
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
        registerDevice(kestro::getAPIEndpoint(env), body, apiKey, upload);
    });
}

void facade::internal::setDeviceUpload(KestroInternal& facade, DeviceUpload upload) {
    std::lock_guard lock(facade.impl_->mutex);
    facade.impl_->deviceUpload = std::move(upload);
}

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

void KestroInternal::printI(std::string_view text, LogLevel level) const {
    if (consoleAllows(getConfig().logLevel, level)) writeConsoleLine(text);
}

}  // namespace kestro
