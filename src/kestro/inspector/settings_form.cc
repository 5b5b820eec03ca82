#include "kestro/inspector/settings_form.h"

#include <typeinfo>

#include "kestro/core/main_queue.h"
#include "kestro/remote/websocket_manager.h"

namespace kestro {
namespace {

const char* statusText(WebsocketConnectionStatus status) {
    return status == WebsocketConnectionStatus::connected ? "connected" : "disconnected";
}

std::string describeObject(const std::any& object) {
    if (!object.has_value()) return "nil";
    if (const auto* status = std::any_cast<WebsocketConnectionStatus>(&object)) {
        return statusText(*status);
    }
    return std::string("<") + object.type().name() + ">";
}

}  // namespace

KestroSettingsForm::KestroSettingsForm(InspectorServices services)
    : services_(services),
      isSDKEnabled_(services_.facade.isEnabled()),
      isLoggingEnabled_(services_.facade.getConfig().logs),
      isNetworkRequestsEnabled_(services_.facade.getConfig().network),
      isCustomEventsEnabled_(services_.facade.getConfig().events),
      redaction_(services_.facade.redactionPolicy(), [this](const RedactionPolicy& policy) {
          services_.facade.setRedactionPolicy(policy);
      }) {
    connectionObserver_ = services_.notifications.addObserver(
        kWebsocketConnectionChange, [this](const Notification& n) { onConnectionChange(n); });
}

KestroSettingsForm::~KestroSettingsForm() = default;

void KestroSettingsForm::onConnectionChange(const Notification& n) {
    services_.facade.printI(LogLevel::verbose, "WS-Event", describeObject(n.object));
    if (const auto* status = std::any_cast<WebsocketConnectionStatus>(&n.object)) {
        services_.facade.printI(LogLevel::verbose, "WS-Connection changed", statusText(*status));
        isWebSocketConnected_ = *status == WebsocketConnectionStatus::connected;
    }
}

std::string KestroSettingsForm::apiKey() const { return services_.facade.getAPIKey(); }
std::string KestroSettingsForm::endpoint() const { return services_.facade.getAPIEndpoint(); }
std::string KestroSettingsForm::totalLogs() const {
    return std::to_string(services_.store.requests().size());
}
std::string KestroSettingsForm::sdkVersionText() const {
    return "SDK Version: " + services_.facade.getVersion();
}

void KestroSettingsForm::onAppear() {
    MainQueue::shared().post([this, alive = std::weak_ptr<char>(alive_)] {
        if (alive.expired()) return;
        isWebSocketConnected_ = services_.facade.isConnectedToWs();
    });
}

void KestroSettingsForm::tapOpenLogs() {
    showingLogsModal_ = !showingLogsModal_;
    if (showingLogsModal_) {
        logsList_ = std::make_unique<RequestsListModel>(services_.store, services_.clipboard,
                                                        services_.toasts);
    } else {
        logsList_.reset();
    }
}

void KestroSettingsForm::dismissLogs() {
    showingLogsModal_ = false;
    logsList_.reset();
}

void KestroSettingsForm::setSDKEnabled(bool on) {
    isSDKEnabled_ = on;
    if (on) {
        services_.facade.startAll();
    } else {
        services_.facade.stopAll();
    }
}

void KestroSettingsForm::applySwitch(bool KestroConfig::*field, bool on) {
    KestroConfig config = services_.facade.getConfig();
    config.*field = on;
    if (on) {
        services_.facade.start(config);
    } else {
        services_.facade.stop(config);
    }
}

void KestroSettingsForm::setLoggingEnabled(bool on) {
    isLoggingEnabled_ = on;
    applySwitch(&KestroConfig::logs, on);
}

void KestroSettingsForm::setNetworkRequestsEnabled(bool on) {
    isNetworkRequestsEnabled_ = on;
    applySwitch(&KestroConfig::network, on);
}

void KestroSettingsForm::setCustomEventsEnabled(bool on) {
    isCustomEventsEnabled_ = on;
    applySwitch(&KestroConfig::events, on);
}

void KestroSettingsForm::confirmDeleteAPIKey() {
    showDeleteConfirmation_ = false;
    services_.facade.deleteDeviceId();
    services_.facade.clearAPIKey();
    services_.store.deleteAll();
    if (auto link = services_.facade.websocketManager()) link->disconnect();
    services_.notifications.post(kApiKeyDeleted);
}

void KestroSettingsForm::confirmDeleteLogs() {
    showDeleteConfirmationForLogs_ = false;
    services_.store.deleteAll();
}

KestroControlSheet::KestroControlSheet(bool& isPresented, InspectorServices services)
    : isPresented_(isPresented), form_(services) {}

}  // namespace kestro
