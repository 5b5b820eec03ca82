#include "kestro/facade/capture_pipeline.h"

#include <chrono>

#include "kestro/core/console.h"
#include "kestro/core/uuid.h"
#include "kestro/network/body_text.h"
#include "kestro/store/request_store_sqlite.h"

namespace kestro {

namespace {
constexpr const char* kRequestsPath = "/v1/requests";
}

CapturePipeline::CapturePipeline(Dependencies deps) : deps_(std::move(deps)) {}

RequestTypeRequest CapturePipeline::networkRecord(const InterceptedRequestWrapper& wrapper) {
    const TimePoint now = std::chrono::system_clock::now();
    RequestTypeRequest record;
    record.id = wrapper.requestId ? wrapper.requestId->string() : std::string();
    record.type = "network";
    record.sentAt = now;
    record.createdAt = now;
    if (wrapper.request) {
        const auto& copy = wrapper.request->request;
        RequestTypeRequestDetailsRequest half;
        half.url = copy && copy->url ? *copy->url : "Unknown";
        half.method = copy && copy->method ? *copy->method : "Unknown";
        half.headers = copy ? copy->headers : TextMap{};
        // The body as text; bytes that are not UTF-8 are not shown at all.
        half.body = copy && copy->body && isValidUTF8(*copy->body) ? *copy->body : "";
        half.startedAt = wrapper.request->startedAt.value_or(now);
        record.details.request = std::move(half);
    }
    if (wrapper.response) {
        const auto& r = *wrapper.response;
        record.details.response = RequestTypeRequestDetailsResponse{
            r.statusCode, r.headers, r.receivedAt.value_or(now), r.body};
        if (const auto& t = r.timings) {
            record.details.response->timings = RequestTypeRequestTimings{
                t->nameLookup, t->connect, t->tls, t->firstByte, t->transfer};
        }
    }
    repairUTF8(record);  // header fields may carry any bytes
    return record;
}

void CapturePipeline::upload(const RequestEventType& record) const {
    std::string endpoint = deps_.apiEndpoint();
    if (endpoint.empty()) return;  // no service (production without a host): stored only
    JSONDictionary body = record.encode();
    body["device"] = deps_.deviceDictionary ? deps_.deviceDictionary() : JSONDictionary{};
    deps_.send(std::move(endpoint) + kRequestsPath, std::move(body), deps_.apiKey());
}

void CapturePipeline::handleNetworkReport(const InterceptedRequestWrapper& wrapper) const {
    RequestTypeRequest record = networkRecord(wrapper);
    const std::string method = record.details.request ? record.details.request->method : "";
    const std::string url = record.details.request ? record.details.request->url : "";
    printI("✉️ SEND_REQ_TO_SERVER " + method + ":" + url +
               " ID: " + (record.id.empty() ? std::string("-") : record.id) +
               " IS_RESPONSE: " + (wrapper.response ? "true" : "false"),
           LogLevel::verbose);
    upload(RequestEventType(record));

    // The lookup and the update are two store calls; nothing makes the pair atomic, which is
    // fine because the two reports of one request never overlap.
    RequestStoreSQLite& store = deps_.store();
    const auto stored = store.getById(record.id);
    if (!stored) {
        store.add(RequestEventType::networkRequest(std::move(record)));
    } else if (const RequestTypeRequest* earlier = stored->asNetworkRequest()) {
        record.details.request = earlier->details.request;
        const std::string id = earlier->id;
        store.update(id, RequestEventType::networkRequest(std::move(record)));
    }
    // An id that belongs to a log line or an event: uploaded, not stored.
}

void CapturePipeline::handleLogRecord(const RequestTypeLog& record) const {
    printI("📡 SEND_LOG_TO_SERVER " + record.details.message, LogLevel::error);
    RequestEventType item = RequestEventType::log(record);
    upload(item);
    deps_.store().add(std::move(item));
}

RequestTypeEvent CapturePipeline::logEvent(const std::string& name, const std::string& category,
                                           const JSONDictionary& payload) const {
    const TimePoint now = std::chrono::system_clock::now();
    RequestTypeEvent event{newUUIDString(), "event", now, now,
                           RequestTypeEventDetails{name, category, payload}};
    repairUTF8(event);
    RequestEventType item = RequestEventType::customEvent(event);
    upload(item);
    deps_.store().add(std::move(item));
    return event;
}

}  // namespace kestro
