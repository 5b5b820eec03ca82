#pragma once

#include <memory>
#include <string>

#include "kestro/core/export.h"
#include "kestro/inspector/inspector_services.h"
#include "kestro/inspector/redaction_settings.h"
#include "kestro/inspector/requests_list.h"

namespace kestro {

/// The texts of the control sheet and its settings form.
namespace settings_text {
inline constexpr const char* kTitle = "Kestro Settings";
inline constexpr const char* kOpenLogs = "Open Logs";
inline constexpr const char* kInfo = "Info";
inline constexpr const char* kWebSocketStatus = "WebSocket Status";
inline constexpr const char* kConnected = "Connected";
inline constexpr const char* kDisconnected = "Disconnected";
inline constexpr const char* kAPIKey = "API Key";
inline constexpr const char* kEndpoint = "Endpoint";
inline constexpr const char* kTotalLogs = "Total Logs";
inline constexpr const char* kSettings = "Settings";
inline constexpr const char* kEnableSDK = "Enable SDK";
inline constexpr const char* kLogs = "Logs";
inline constexpr const char* kNetworkRequests = "Network Requests";
inline constexpr const char* kCustomEvents = "Custom Events";
inline constexpr const char* kDeleteAPIKey = "Delete API Key";
inline constexpr const char* kDeleteLogs = "Delete Logs";
inline constexpr const char* kDeleteAPIKeyTitle = "Delete API Key?";
inline constexpr const char* kDeleteAPIKeyMessage =
    "This will remove your API key and you'll need to set up Kestro again. Are you sure?";
inline constexpr const char* kDeleteLogsTitle = "Delete Logs?";
inline constexpr const char* kDeleteLogsMessage = "This will delete all your logs. Are you sure?";
inline constexpr const char* kRedaction = "Redaction";
inline constexpr const char* kRedactSecrets = "Redact secrets";
inline constexpr const char* kRedactionNote =
    "Values of the headers, query items and JSON keys listed below are stored and sent as "
    "\"<redacted>\"; exchanges with hosts or paths listed last are not captured at all. "
    "Changes apply to what is captured from now on.";
inline constexpr const char* kDelete = "Delete";
inline constexpr const char* kCancel = "Cancel";
}  // namespace settings_text

/// The settings form: the row that opens the requests list, the information entries, the
/// capture switches and the two deletions behind their confirmations.
///
/// The switches' flags are read from the facade once, when the form is made; only the link
/// state follows later changes, through "websocketConnectionChange". Main queue.
class KESTRO_API KestroSettingsForm {
  public:
    explicit KestroSettingsForm(InspectorServices services = {});
    ~KestroSettingsForm();
    KestroSettingsForm(const KestroSettingsForm&) = delete;
    KestroSettingsForm& operator=(const KestroSettingsForm&) = delete;

    // --- View state ---
    bool isSDKEnabled() const { return isSDKEnabled_; }
    bool isLoggingEnabled() const { return isLoggingEnabled_; }
    bool isNetworkRequestsEnabled() const { return isNetworkRequestsEnabled_; }
    bool isCustomEventsEnabled() const { return isCustomEventsEnabled_; }
    bool isWebSocketConnected() const { return isWebSocketConnected_; }
    bool showingLogsModal() const { return showingLogsModal_; }
    bool showDeleteConfirmation() const { return showDeleteConfirmation_; }
    bool showDeleteConfirmationForLogs() const { return showDeleteConfirmationForLogs_; }

    // --- Information entries ---
    std::string apiKey() const;
    std::string endpoint() const;
    /// The number of stored items, in decimal.
    std::string totalLogs() const;
    /// "SDK Version: " and the facade's version.
    std::string sdkVersionText() const;

    // --- Actions ---
    /// The form appeared: asks the facade for the link state on the main queue.
    void onAppear();
    /// "Open Logs" toggles the requests list.
    void tapOpenLogs();
    /// Closing the requests list.
    void dismissLogs();
    /// The list while it is shown (made when it opens, discarded when it closes).
    RequestsListModel* logsList() { return logsList_.get(); }

    /// "Enable SDK": on starts every capture, off stops it.
    void setSDKEnabled(bool on);
    /// "Logs", "Network Requests", "Custom Events": the current configuration with the one
    /// field changed goes to start() when switched on, to stop() when switched off.
    void setLoggingEnabled(bool on);
    void setNetworkRequestsEnabled(bool on);
    void setCustomEventsEnabled(bool on);

    void tapDeleteAPIKey() { showDeleteConfirmation_ = true; }
    void tapDeleteLogs() { showDeleteConfirmationForLogs_ = true; }
    /// "Delete" in "Delete API Key?": the device id, the key, every stored item, the link, then
    /// "apiKeyDeleted" is posted.
    void confirmDeleteAPIKey();
    void cancelDeleteAPIKey() { showDeleteConfirmation_ = false; }
    /// "Delete" in "Delete Logs?": every stored item.
    void confirmDeleteLogs();
    void cancelDeleteLogs() { showDeleteConfirmationForLogs_ = false; }

    /// The redaction switch and lists, read from the facade when the form is made; each change
    /// goes to the facade's setRedactionPolicy at once.
    RedactionSettings& redaction() { return redaction_; }

    const InspectorServices& services() const { return services_; }

  private:
    void applySwitch(bool KestroConfig::*field, bool on);
    void onConnectionChange(const Notification& notification);

    InspectorServices services_;
    bool isSDKEnabled_;
    bool isLoggingEnabled_;
    bool isNetworkRequestsEnabled_;
    bool isCustomEventsEnabled_;
    bool isWebSocketConnected_ = false;
    bool showingLogsModal_ = false;
    bool showDeleteConfirmation_ = false;
    bool showDeleteConfirmationForLogs_ = false;
    std::unique_ptr<RequestsListModel> logsList_;
    RedactionSettings redaction_;
    ObserverToken connectionObserver_;
    std::shared_ptr<char> alive_ = std::make_shared<char>();  // held weakly by queued work
};

/// The control sheet: the settings form under the title "Kestro Settings". isPresented is the
/// presenter's flag; the sheet itself never reads it. Main queue.
class KESTRO_API KestroControlSheet {
  public:
    KestroControlSheet(bool& isPresented, InspectorServices services = {});
    const char* title() const { return settings_text::kTitle; }
    KestroSettingsForm& form() { return form_; }
    bool& isPresented() { return isPresented_; }

  private:
    bool& isPresented_;
    KestroSettingsForm form_;
};

}  // namespace kestro
