#pragma once

#include <functional>
#include <memory>
#include <string>

#include "kestro/core/export.h"
#include "kestro/network/intercepted.h"
#include "kestro/records/records.h"

namespace kestro {

class RequestStoreSQLite;

/// Where every captured item goes: it becomes a record, is uploaded to the service with the
/// device dictionary under "device", and is stored on the device.
///
/// - A network report (start or response of one request) becomes a `RequestTypeRequest`; the
///   second report of a request replaces the stored item but keeps the request half that was
///   stored first. An id already used by a log line or an event is uploaded, not stored.
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

    /// The record a network report becomes (without touching the store).
    static RequestTypeRequest networkRecord(const InterceptedRequestWrapper& wrapper);

  private:
    void upload(const RequestEventType& record) const;
    Dependencies deps_;
};

}  // namespace kestro
