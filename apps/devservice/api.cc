#include "devservice/api.h"

#include <boost/beast/http/field.hpp>
#include <boost/beast/http/status.hpp>
#include <boost/beast/http/verb.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <boost/url/parse.hpp>
#include <charconv>
#include <vector>

#include "devservice/page.h"
#include "devservice/sample_image.h"
#include "devservice/upload_check.h"
#include "kestro/core/config.h"
#include "kestro/core/time_text.h"

namespace kestro::devservice {
namespace http = boost::beast::http;
namespace json = boost::json;

namespace internal {
namespace {

constexpr const char* kServerName = "kestro-devservice";

Reply jsonReply(unsigned status, const json::value& body, unsigned version) {
    Reply reply;
    reply.response.version(version);
    reply.response.result(status);
    reply.response.set(http::field::content_type, "application/json; charset=utf-8");
    reply.response.body() = json::serialize(body);
    return reply;
}

// A parsed request target: its path segments and query items, percent-decoded. Targets such as
// "?api-key=…" (an empty path) count as "/".
struct Target {
    std::vector<std::string> segments;
    std::vector<std::pair<std::string, std::string>> query;
    bool ok = false;

    std::optional<std::string> param(std::string_view key) const {
        for (const auto& [k, v] : query) {
            if (k == key) return v;
        }
        return std::nullopt;
    }
};

Target parseTarget(std::string_view text) {
    Target t;
    auto parsed = boost::urls::parse_uri_reference(text);
    if (!parsed) return t;
    for (auto segment : parsed->segments()) {
        if (!segment.empty()) t.segments.push_back(segment);
    }
    for (auto param : parsed->params()) {
        t.query.emplace_back(param.key, param.has_value ? param.value : std::string());
    }
    t.ok = true;
    return t;
}

std::string joinPath(const std::vector<std::string>& segments, std::size_t from) {
    std::string path;
    for (std::size_t i = from; i < segments.size(); ++i) path += "/" + segments[i];
    return path.empty() ? "/" : path;
}

template <typename T>
std::optional<T> parseInt(std::string_view text) {
    T value{};
    auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || ptr != text.data() + text.size()) return std::nullopt;
    return value;
}

std::optional<std::string_view> header(const Request& r, std::string_view name) {
    auto it = r.find(name);
    if (it == r.end()) return std::nullopt;
    return std::string_view(it->value().data(), it->value().size());
}

std::string textOf(const json::object& o, const char* key) {
    if (const auto* v = o.if_contains(key); v && v->is_string()) return std::string(v->as_string());
    return {};
}

// Cuts a text to at most `limit` bytes without splitting a UTF-8 sequence.
std::string clip(std::string_view text, std::size_t limit) {
    if (text.size() <= limit) return std::string(text);
    std::size_t end = limit;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
    return std::string(text.substr(0, end)) + "…";
}

// The few fields a list needs to tell items apart without their bodies.
json::object summary(const ItemRow& row) {
    json::object s;
    const auto* details = row.record.if_contains("details");
    const json::object empty;
    const json::object& d = details && details->is_object() ? details->as_object() : empty;
    if (row.eventType == "networkRequest") {
        const auto* request = d.if_contains("request");
        const auto* response = d.if_contains("response");
        if (request && request->is_object()) {
            s["method"] = textOf(request->as_object(), "method");
            s["url"] = textOf(request->as_object(), "url");
        } else {
            s["method"] = nullptr;
            s["url"] = nullptr;
        }
        if (response && response->is_object() && response->as_object().contains("statusCode")) {
            s["statusCode"] = response->as_object().at("statusCode");
        } else {
            s["statusCode"] = nullptr;
        }
    } else if (row.eventType == "log") {
        s["level"] = textOf(row.record, "level");
        s["message"] = clip(textOf(d, "message"), 200);
    } else {
        s["name"] = textOf(d, "name");
        s["category"] = textOf(d, "category");
    }
    return s;
}

json::object itemJSON(const ItemRow& row) {
    return json::object{{"id", row.id},
                        {"eventType", row.eventType},
                        {"deviceId", row.deviceId},
                        {"seq", row.seq},
                        {"revision", row.revision},
                        {"uploadCount", row.parts},
                        {"receivedAt", row.receivedAt},
                        {"updatedAt", row.updatedAt},
                        {"summary", summary(row)}};
}

struct SampleUser {
    int id;
    const char* name;
    const char* email;
    const char* role;
};

constexpr SampleUser kUsers[] = {
    {1, "Ada Lovelace", "ada@example.com", "admin"},
    {2, "Alan Turing", "alan@example.com", "editor"},
    {3, "Grace Hopper", "grace@example.com", "editor"},
    {4, "Edsger Dijkstra", "edsger@example.com", "viewer"},
    {5, "Barbara Liskov", "barbara@example.com", "viewer"},
};

json::object userJSON(const SampleUser& u) {
    return json::object{{"id", u.id}, {"name", u.name}, {"email", u.email}, {"role", u.role}};
}

}  // namespace
}  // namespace internal

using internal::jsonReply;

double nowSeconds() { return secondsSince1970(std::chrono::system_clock::now()); }

std::string redactTarget(std::string_view target) {
    std::string out(target);
    const std::string key = "api-key=";
    auto at = out.find(key);
    if (at == std::string::npos) return out;
    std::size_t start = at + key.size();
    std::size_t end = out.find('&', start);
    if (end == std::string::npos) end = out.size();
    std::string_view value(out.data() + start, end - start);
    // Keep the prefix, which tells the environment; hide the secret after it.
    std::size_t keep = value.starts_with("kt-prod-") ? 8 : value.starts_with("kt-dev-") ? 7 : 0;
    if (value.size() > keep) out.replace(start + keep, end - start - keep, "…");
    return out;
}

std::string commandFrame(std::string_view action, const std::optional<std::string>& payload) {
    json::object frame;
    frame["action"] = action;
    if (payload) {
        frame["payload"] = *payload;
    } else {
        frame["payload"] = nullptr;
    }
    return json::serialize(frame);
}

ApiRouter::ApiRouter(const DevServiceOptions& options, DevStore& store, DeviceLinks& links)
    : options_(options), store_(store), links_(links), started_(std::chrono::steady_clock::now()) {}

Reply ApiRouter::error(unsigned status, std::string message, unsigned version) {
    Reply reply = jsonReply(status, json::object{{"error", message}}, version);
    reply.note = std::move(message);
    return reply;
}

Reply ApiRouter::route(const Request& request) const {
    const unsigned v = request.version();
    const auto target = internal::parseTarget(request.target());
    if (!target.ok) return error(400, "the request target is not a valid URL path", v);
    const auto& seg = target.segments;
    const auto method = request.method();

    // Browser dashboards on another origin send a preflight first.
    if (method == http::verb::options) {
        Reply reply;
        reply.response.version(v);
        reply.response.result(http::status::no_content);
        reply.response.set(http::field::access_control_allow_methods, "GET, POST, OPTIONS");
        reply.response.set(http::field::access_control_allow_headers, "Content-Type, Api-Key");
        reply.response.set(http::field::access_control_max_age, "600");
        return reply;
    }

    if (auto page = servePage(request)) return std::move(*page);
    if (seg.empty()) {
        if (method != http::verb::get && method != http::verb::head) {
            return error(405, "only GET is allowed here", v);
        }
        return jsonReply(200,
                         json::object{{"service", internal::kServerName},
                                      {"version", SDK_VERSION},
                                      {"uploads", json::array{"/v1/devices", "/v1/requests"}},
                                      {"webSocket", "/?api-key=<key>&device-id=<id>"},
                                      {"control", "/api"},
                                      {"sample", "/sample"}},
                         v);
    }
    if (seg.size() == 2 && seg[0] == "v1" && (seg[1] == "devices" || seg[1] == "requests")) {
        if (method != http::verb::post) {
            Reply r = error(405, "only POST is allowed on /v1/" + seg[1], v);
            r.response.set(http::field::allow, "POST");
            return r;
        }
        return upload(request, seg[1] == "devices");
    }
    if (seg[0] == "api") return control(request, internal::joinPath(seg, 1));
    if (seg[0] == "sample") return sample(request, internal::joinPath(seg, 1));
    return error(404, "no such endpoint: " + internal::joinPath(seg, 0), v);
}

Reply ApiRouter::upload(const Request& request, bool device) const {
    const unsigned v = request.version();
    const auto key = internal::header(request, "Api-Key");
    if (auto e = checkApiKey(key)) return error(401, *e, v);
    if (auto type = internal::header(request, "Content-Type");
        type && !type->starts_with("application/json")) {
        return error(415, "the body must be sent as application/json, not " + std::string(*type),
                     v);
    }
    boost::system::error_code ec;
    const json::value body = json::parse(request.body(), ec);
    if (ec) return error(400, "the body is not valid JSON: " + ec.message(), v);

    const std::string kind = keyKind(*key);
    std::string storeError;
    if (device) {
        if (auto e = checkDevice(body)) return error(400, *e, v);
        bool created = false;
        const auto& info = body.as_object();
        if (!store_.upsertDevice(info, kind, nowSeconds(), &created, &storeError)) {
            return error(500, "the device could not be stored: " + storeError, v);
        }
        const std::string id = internal::textOf(info, "id");
        Reply reply = jsonReply(200, json::object{{"id", id}, {"created", created}}, v);
        reply.note = "device " + id + (created ? " registered" : " updated");
        return reply;
    }
    if (auto e = checkItem(body)) return error(400, *e, v);
    const auto& record = body.as_object();
    const auto result = store_.putItem(record, nowSeconds(), &storeError);
    if (!result) return error(500, "the item could not be stored: " + storeError, v);
    const std::string id = internal::textOf(record, "id");
    Reply reply = jsonReply(
        200, json::object{{"id", id}, {"created", result->created}, {"revision", result->revision}},
        v);
    reply.note =
        internal::textOf(record, "eventType") + " " + id + (result->created ? "" : " (joined)");
    return reply;
}

json::object ApiRouter::deviceJSON(const DeviceRow& row) const {
    json::object o;
    o["id"] = row.id;
    for (const char* key : {"name", "model", "platform", "osName", "osVersion", "sdkVersion"}) {
        if (const auto* value = row.info.if_contains(key)) {
            o[key] = *value;
        } else {
            o[key] = nullptr;
        }
    }
    o["keyKind"] = row.keyKind.empty() ? json::value(nullptr) : json::value(row.keyKind);
    o["firstSeen"] = row.firstSeen;
    o["lastSeen"] = row.lastSeen;
    o["itemCount"] = row.itemCount;
    const auto since = links_.connectedSince(row.id);
    o["connected"] = since.has_value();
    o["connectedSince"] = since ? json::value(*since) : json::value(nullptr);
    o["info"] = row.info;
    return o;
}

Reply ApiRouter::control(const Request& request, std::string_view path) const {
    const unsigned v = request.version();
    const auto target = internal::parseTarget(request.target());
    const auto& seg = target.segments;  // seg[0] == "api"
    const bool get = request.method() == http::verb::get;
    auto methodNotAllowed = [&](const char* allowed) {
        Reply r = error(
            405, std::string("only ") + allowed + " is allowed on /api" + std::string(path), v);
        r.response.set(http::field::allow, allowed);
        return r;
    };

    if (path == "/health") {
        if (!get) return methodNotAllowed("GET");
        const double uptime =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
        if (auto problem = store_.check()) {
            Reply reply =
                jsonReply(503,
                          json::object{{"status", "unavailable"},
                                       {"error", *problem},
                                       {"service", internal::kServerName},
                                       {"version", SDK_VERSION},
                                       {"uptimeSeconds", uptime},
                                       {"dataDirectory", options_.dataDirectory.string()}},
                          v);
            reply.note = *problem;
            return reply;
        }
        return jsonReply(200,
                         json::object{{"status", "ok"},
                                      {"service", internal::kServerName},
                                      {"version", SDK_VERSION},
                                      {"devices", store_.deviceCount()},
                                      {"connectedDevices", links_.connectedCount()},
                                      {"items", store_.itemCount()},
                                      {"revision", store_.latestRevision()},
                                      {"uptimeSeconds", uptime},
                                      {"dataDirectory", options_.dataDirectory.string()},
                                      {"maxBodyBytes", options_.maxBodyBytes}},
                         v);
    }
    if (path == "/devices") {
        if (!get) return methodNotAllowed("GET");
        json::array list;
        for (const auto& row : store_.devices()) list.push_back(deviceJSON(row));
        return jsonReply(200, json::object{{"devices", std::move(list)}}, v);
    }
    if (seg.size() == 3 && seg[1] == "devices") {
        if (!get) return methodNotAllowed("GET");
        const auto row = store_.device(seg[2]);
        if (!row) return error(404, "no device with id " + seg[2], v);
        return jsonReply(200, deviceJSON(*row), v);
    }
    if (seg.size() == 4 && seg[1] == "devices" && seg[3] == "commands") {
        if (request.method() != http::verb::post) return methodNotAllowed("POST");
        return command(request, seg[2]);
    }
    if (path == "/items") {
        if (!get) return methodNotAllowed("GET");
        ItemQuery query;
        if (auto d = target.param("device"); d && !d->empty()) query.deviceId = *d;
        for (const char* name : {"since", "before", "limit"}) {
            auto text = target.param(name);
            if (!text || text->empty()) continue;
            auto n = internal::parseInt<std::int64_t>(*text);
            if (!n || *n < 0) {
                return error(
                    400,
                    std::string("\"") + name + "\" must be a whole number, not \"" + *text + "\"",
                    v);
            }
            if (std::string_view(name) == "since") query.since = *n;
            if (std::string_view(name) == "before") query.before = *n;
            if (std::string_view(name) == "limit") {
                if (*n < 1 || *n > 500) return error(400, "\"limit\" must be from 1 to 500", v);
                query.limit = *n;
            }
        }
        // Read the revision first, so that a client polling with since= never skips an upload
        // that lands while this page is being read.
        const std::int64_t revision = store_.latestRevision();
        const auto rows = store_.items(query);
        json::array list;
        for (const auto& row : rows) list.push_back(internal::itemJSON(row));
        const bool more = static_cast<std::int64_t>(rows.size()) == query.limit;
        return jsonReply(
            200,
            json::object{{"items", std::move(list)},
                         {"nextCursor", more ? json::value(rows.back().seq) : json::value(nullptr)},
                         {"revision", revision}},
            v);
    }
    if (seg.size() == 3 && seg[1] == "items") {
        if (!get) return methodNotAllowed("GET");
        const auto row = store_.item(seg[2]);
        if (!row) return error(404, "no item with id " + seg[2], v);
        json::object o = internal::itemJSON(*row);
        o["record"] = row->record;
        json::array uploads;
        for (const auto& part : store_.parts(row->id)) {
            uploads.push_back(json::object{
                {"seq", part.seq}, {"receivedAt", part.receivedAt}, {"body", part.body}});
        }
        o["uploads"] = std::move(uploads);
        return jsonReply(200, o, v);
    }
    return error(404, "no such endpoint: /api" + std::string(path), v);
}

Reply ApiRouter::command(const Request& request, const std::string& deviceId) const {
    const unsigned v = request.version();
    boost::system::error_code ec;
    const json::value body = json::parse(request.body(), ec);
    if (ec) return error(400, "the body is not valid JSON: " + ec.message(), v);
    if (!body.is_object()) return error(400, "the body must be a JSON object", v);
    const auto& o = body.as_object();
    const auto* actionValue = o.if_contains("action");
    if (!actionValue) return error(400, "\"action\" is missing", v);
    if (!actionValue->is_string()) return error(400, "\"action\" must be a string", v);
    const std::string action(actionValue->as_string());
    bool known = false;
    for (const char* a : kActions) known = known || action == a;
    if (!known) {
        return error(400,
                     "unknown action \"" + action +
                         "\"; one of enable_mock_request, disable_mock_request, "
                         "open_kestro_sheet, enable_break_point, disable_break_point, send_ping",
                     v);
    }

    // The payload travels as JSON text. Callers may give that text, or the JSON value itself,
    // which is then written out for them.
    std::optional<std::string> payload;
    if (const auto* p = o.if_contains("payload"); p && !p->is_null()) {
        if (p->is_string()) {
            payload = std::string(p->as_string());
        } else {
            payload = json::serialize(*p);
        }
    }
    const bool mock = action == "enable_mock_request" || action == "disable_mock_request";
    if (mock) {
        if (!payload) return error(400, action + " needs a mock rule as \"payload\"", v);
        const json::value rule = json::parse(*payload, ec);
        if (ec) return error(400, "the payload is not valid JSON: " + ec.message(), v);
        if (auto e = checkMockRule(rule)) return error(400, *e, v);
    }

    if (!links_.connectedSince(deviceId)) {
        if (!store_.device(deviceId)) return error(404, "no device with id " + deviceId, v);
        return error(409, "device " + deviceId + " is not connected", v);
    }
    const std::string frame = commandFrame(action, payload);
    switch (links_.send(deviceId, frame)) {
        case SendResult::queued:
            break;
        case SendResult::notConnected:
            return error(409, "device " + deviceId + " is not connected", v);
        case SendResult::closing:
            return error(409, "the connection of device " + deviceId + " is closing", v);
        case SendResult::queueFull:
            return error(503,
                         "too many frames are waiting for device " + deviceId +
                             " (it is not reading them); try again later",
                         v);
    }
    Reply reply = jsonReply(
        202, json::object{{"deviceId", deviceId}, {"action", action}, {"frame", frame}}, v);
    reply.note = action + " sent to " + deviceId;
    return reply;
}

Reply ApiRouter::sample(const Request& request, std::string_view path) const {
    const unsigned v = request.version();
    const auto target = internal::parseTarget(request.target());
    const auto& seg = target.segments;  // seg[0] == "sample"
    const bool get = request.method() == http::verb::get || request.method() == http::verb::head;

    if (path == "/users") {
        if (!get) return error(405, "only GET is allowed on /sample/users", v);
        json::array users;
        for (const auto& u : internal::kUsers) users.push_back(internal::userJSON(u));
        return jsonReply(200, users, v);
    }
    if (seg.size() == 3 && seg[1] == "users") {
        if (!get) return error(405, "only GET is allowed on /sample/users/{id}", v);
        const auto id = internal::parseInt<int>(seg[2]);
        for (const auto& u : internal::kUsers) {
            if (id && u.id == *id) return jsonReply(200, internal::userJSON(u), v);
        }
        return error(404, "no user with id " + seg[2], v);
    }
    if (path == "/echo") {
        json::object headers;
        for (const auto& field : request) {
            headers[std::string(field.name_string())] = std::string(field.value());
        }
        json::object query;
        for (const auto& [k, val] : target.query) query[k] = val;
        boost::system::error_code ec;
        json::value parsed =
            request.body().empty() ? json::value(nullptr) : json::parse(request.body(), ec);
        if (ec) parsed = nullptr;
        return jsonReply(200,
                         json::object{{"method", std::string(request.method_string())},
                                      {"path", std::string(path)},
                                      {"query", std::move(query)},
                                      {"headers", std::move(headers)},
                                      {"body", request.body()},
                                      {"json", std::move(parsed)}},
                         v);
    }
    if (path == "/slow") {
        if (!get) return error(405, "only GET is allowed on /sample/slow", v);
        unsigned ms = 1000;
        if (auto text = target.param("ms")) {
            auto n = internal::parseInt<unsigned>(*text);
            if (!n || *n > options_.maxSlowMs) {
                return error(
                    400,
                    "\"ms\" must be a whole number from 0 to " + std::to_string(options_.maxSlowMs),
                    v);
            }
            ms = *n;
        }
        Reply reply = jsonReply(200, json::object{{"delayedMs", ms}}, v);
        reply.delay = std::chrono::milliseconds(ms);
        return reply;
    }
    if (seg.size() == 3 && seg[1] == "status") {
        const auto code = internal::parseInt<unsigned>(seg[2]);
        if (!code || *code < 200 || *code > 599) {
            return error(400, "the status must be a number from 200 to 599", v);
        }
        const auto reason = http::obsolete_reason(http::int_to_status(*code));
        Reply reply;
        if (*code == 204 || *code == 304) {
            reply.response.version(v);
            reply.response.result(*code);
        } else {
            reply = jsonReply(*code,
                              json::object{{"status", *code},
                                           {"reason", std::string(reason.data(), reason.size())}},
                              v);
        }
        return reply;
    }
    if (path == "/image.png") {
        if (!get) return error(405, "only GET is allowed on /sample/image.png", v);
        Reply reply;
        reply.response.version(v);
        reply.response.result(http::status::ok);
        reply.response.set(http::field::content_type, "image/png");
        reply.response.set(http::field::cache_control, "max-age=3600");
        reply.response.body() = samplePNG();
        return reply;
    }
    return error(404, "no such endpoint: /sample" + std::string(path), v);
}

std::variant<LinkRequest, Reply> ApiRouter::checkLink(const Request& request) const {
    const unsigned v = request.version();
    const auto target = internal::parseTarget(request.target());
    if (!target.ok) return error(400, "the request target is not a valid URL", v);
    const auto key = target.param("api-key");
    if (auto e = checkApiKey(key ? std::optional<std::string_view>(*key) : std::nullopt)) {
        return error(401, key ? *e : "the \"api-key\" query item is missing", v);
    }
    const auto device = target.param("device-id");
    if (!device || device->empty()) {
        return error(400, "the \"device-id\" query item is missing or empty", v);
    }
    return LinkRequest{*device, keyKind(*key)};
}

}  // namespace kestro::devservice
