#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "kestro/core/export.h"
#include "kestro/core/redaction.h"
#include "kestro/network/intercepted.h"
#include "kestro/records/records.h"

namespace kestro {

class RequestStoreSQLite;

/// Where every captured item goes: it becomes a record, is uploaded to the service with the
/// device dictionary under "device", and is stored on the device.
///
/// - A network report (start or response of one request) becomes a `RequestTypeRequest`,
///   redacted by the policy in force when the report arrives: an exchange the policy does not
///   capture makes no record at all. The second report of a request replaces the stored item
///   but keeps the request half that was stored first. An id already used by a log line or an
///   event is uploaded, not stored.
/// - A log record is uploaded and added as it is.
/// - A custom event becomes a `RequestTypeEvent` with a new id.
///
/// The pipeline holds no lock of its own: the store serialises its calls, and the upload
/// returns at once. Every member may be called from any thread, concurrently.
class KESTRO_API CapturePipeline {
  public:
    struct Dependencies {
        /// The store items are kept in.
        std::function<RequestStoreSQLite&()> store;
        /// The service's HTTP base URL and the API key, read for each item. An empty base
        /// URL means there is no service: items are stored and not uploaded.
        std::function<std::string()> apiEndpoint;
        std::function<std::string()> apiKey;
        /// The device dictionary added to every upload under "device".
        std::function<JSONDictionary()> deviceDictionary;
        /// Posts a body; the real one is sendToServer without completion.
        std::function<void(std::string url, JSONDictionary body, std::string apiKey)> send;
    };

    explicit CapturePipeline(Dependencies deps);

    /// The network capture handler.
    void handleNetworkReport(const InterceptedRequestWrapper& wrapper) const;
    /// The log capture handler.
    void handleLogRecord(const RequestTypeLog& record) const;
    /// Records a custom event; returns the record made.
    RequestTypeEvent logEvent(const std::string& name, const std::string& category,
                              const JSONDictionary& payload) const;

    /// The redaction policy applied to network reports from now on (the default policy until
    /// set). Any thread; each report reads the policy once.
    void setRedactionPolicy(RedactionPolicy policy);
    RedactionPolicy redactionPolicy() const;

    /// The record a network report becomes under `redactor` (without touching the store), or
    /// nothing when the redactor does not capture the exchange.
    static std::optional<RequestTypeRequest> networkRecord(const InterceptedRequestWrapper& wrapper,
                                                           const Redactor& redactor);

  private:
    void upload(const RequestEventType& record) const;
    std::shared_ptr<const Redactor> redactor() const;
    Dependencies deps_;
    // The policy is swapped whole; a report holds the snapshot it took for as long as it needs.
    mutable std::mutex redactorMutex_;
    std::shared_ptr<const Redactor> redactor_ = std::make_shared<const Redactor>();
};

}  // namespace kestro
