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

std::optional<RequestTypeRequest> CapturePipeline::networkRecord(
    const InterceptedRequestWrapper& wrapper, const Redactor& redactor) {
    // The URL the policy's globs are matched against; a response report repeats its request's.
    std::string_view exchangeURL;
    if (wrapper.request && wrapper.request->request && wrapper.request->request->url) {
        exchangeURL = *wrapper.request->request->url;
    } else if (wrapper.response && wrapper.response->url) {
        exchangeURL = *wrapper.response->url;
    }
    if (!redactor.captures(exchangeURL)) return std::nullopt;

    const TimePoint now = std::chrono::system_clock::now();
    RequestTypeRequest record;
    record.id = wrapper.requestId ? wrapper.requestId->string() : std::string();
    record.type = "network";
    record.sentAt = now;
    record.createdAt = now;
    if (wrapper.request) {
        const auto& copy = wrapper.request->request;
        RequestTypeRequestDetailsRequest half;
        half.url = copy && copy->url ? redactor.redactURL(*copy->url) : "Unknown";
        half.method = copy && copy->method ? *copy->method : "Unknown";
        half.headers = copy ? copy->headers : TextMap{};
        redactor.redactHeaders(half.headers);
        if (copy && copy->body) {
            // The body as text; bytes that are not UTF-8 are not shown at all. A cut body ends
            // at the last whole character.
            std::string_view text = *copy->body;
            if (copy->bodyTotalBytes) text = withoutCutSequence(text);
            half.body =
                isValidUTF8(text) ? redactor.redactBody(std::string(text), exchangeURL) : "";
            half.bodyTotalBytes = copy->bodyTotalBytes;
        }
        half.startedAt = wrapper.request->startedAt.value_or(now);
        record.details.request = std::move(half);
    }
    if (wrapper.response) {
        const auto& r = *wrapper.response;
        RequestTypeRequestDetailsResponse half{r.statusCode, r.headers, r.receivedAt.value_or(now),
                                               redactor.redactBody(r.body, exchangeURL)};
        half.bodyTotalBytes = r.bodyTotalBytes;
        redactor.redactHeaders(half.headers);
        if (const auto& t = r.timings) {
            half.timings = RequestTypeRequestTimings{t->nameLookup, t->connect, t->tls,
                                                     t->firstByte, t->transfer};
        }
        record.details.response = std::move(half);
    }
    repairUTF8(record);  // header fields may carry any bytes
    return record;
}

void CapturePipeline::setRedactionPolicy(RedactionPolicy policy) {
    auto next = std::make_shared<const Redactor>(std::move(policy));
    std::lock_guard lock(redactorMutex_);
    redactor_ = std::move(next);
}

RedactionPolicy CapturePipeline::redactionPolicy() const { return redactor()->policy(); }

std::shared_ptr<const Redactor> CapturePipeline::redactor() const {
    std::lock_guard lock(redactorMutex_);
    return redactor_;
}

void CapturePipeline::upload(const RequestEventType& record) const {
    std::string endpoint = deps_.apiEndpoint();
    if (endpoint.empty()) return;  // no service (production without a host): stored only
    JSONDictionary body = record.encode();
    body["device"] = deps_.deviceDictionary ? deps_.deviceDictionary() : JSONDictionary{};
    deps_.send(std::move(endpoint) + kRequestsPath, std::move(body), deps_.apiKey());
}

void CapturePipeline::handleNetworkReport(const InterceptedRequestWrapper& wrapper) const {
    std::optional<RequestTypeRequest> made = networkRecord(wrapper, *redactor());
    if (!made) return;  // not captured: no record, no upload, nothing stored
    RequestTypeRequest& record = *made;
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
