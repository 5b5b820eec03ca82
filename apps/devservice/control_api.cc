// The dashboard API's reading side and its housekeeping: health, devices, items, keys.
#include <boost/beast/http/verb.hpp>
#include <boost/json/parse.hpp>

#include "devservice/api.h"
#include "devservice/api_internal.h"
#include "devservice/auth.h"
#include "devservice/json_views.h"
#include "kestro/core/config.h"

namespace kestro::devservice {
namespace http = boost::beast::http;
namespace json = boost::json;
using internal::jsonReply;
using internal::methodNotAllowed;

namespace {

// Splits "a,b,c" into its non-empty words.
std::vector<std::string> words(const std::string& list) {
    std::vector<std::string> out;
    std::size_t start = 0;
    while (start <= list.size()) {
        const auto comma = list.find(',', start);
        const auto end = comma == std::string::npos ? list.size() : comma;
        if (end > start) out.push_back(list.substr(start, end - start));
        start = end + 1;
    }
    return out;
}

json::object keyJSON(const ApiKeyRow& k) {
    return json::object{
        {"id", k.id},
        {"name", k.name},
        {"key", k.key},
        {"kind", k.key.starts_with("kt-prod-") ? "prod" : "dev"},
        {"createdAt", k.createdAt},
        {"revokedAt", k.revokedAt ? json::value(*k.revokedAt) : json::value(nullptr)},
        {"devices", k.devices}};
}

}  // namespace

json::object ApiRouter::fullDevice(const DeviceRow& row) const {
    return deviceJSON(row, context_.links.connectedSince(row.id), context_.store->rules(row.id));
}

Reply ApiRouter::control(const Request& request) const {
    const unsigned v = request.version();
    const auto target = internal::parseTarget(request.target());
    const auto& seg = target.segments;  // seg[0] == "api"
    const std::string path = internal::joinPath(seg, 0);
    const auto method = request.method();
    const bool get = method == http::verb::get;
    auto& store = *context_.store;

    if (seg.size() == 1) return error(404, "no such endpoint: /api", v);
    const std::string& area = seg[1];
    if (area == "health" && seg.size() == 2) {
        if (!get) return methodNotAllowed("GET", path, v);
        return health(request);
    }
    if (area == "live" && seg.size() == 2) {
        return error(400, "/api/live is the push channel: open it as a WebSocket", v);
    }
    if (area == "keys") return keys(request);
    if (area == "commands") return steering(request);
    if (area == "items") {
        if (seg.size() == 2) {
            if (!get) return methodNotAllowed("GET", path, v);
            return listItems(request);
        }
        if (seg.size() == 3) {
            if (!get) return methodNotAllowed("GET", path, v);
            const auto rows = store.itemsWithId(seg[2]);
            if (rows.empty()) return error(404, "no item with id " + seg[2], v);
            if (rows.size() > 1) {
                json::array devices;
                for (const auto& row : rows) devices.push_back(json::value(row.deviceId));
                Reply reply = jsonReply(
                    409,
                    json::object{{"error", "several devices have an item with id " + seg[2] +
                                               ": ask /api/devices/{deviceId}/items/" + seg[2]},
                                 {"devices", std::move(devices)}},
                    v);
                reply.note = "several items with id " + seg[2];
                return reply;
            }
            return itemDetail(request, rows.front());
        }
    }
    if (area == "devices") {
        if (seg.size() == 2) {
            if (!get) return methodNotAllowed("GET", path, v);
            const std::int64_t revision = store.latestRevision();
            json::array list;
            for (const auto& row : store.devices()) list.push_back(fullDevice(row));
            return jsonReply(200,
                             json::object{{"devices", std::move(list)}, {"revision", revision}}, v);
        }
        const std::string& deviceId = seg[2];
        if (seg.size() == 3) {
            if (!get) return methodNotAllowed("GET", path, v);
            const auto row = store.device(deviceId);
            if (!row) return error(404, "no device with id " + deviceId, v);
            return jsonReply(200, fullDevice(*row), v);
        }
        if (seg[3] == "items" && seg.size() == 4) {
            if (method != http::verb::delete_) return methodNotAllowed("DELETE", path, v);
            const auto deleted = store.deleteItems(deviceId);
            if (!deleted) return error(404, "no device with id " + deviceId, v);
            Reply reply = jsonReply(200,
                                    json::object{{"deviceId", deviceId},
                                                 {"throughSeq", deleted->throughSeq},
                                                 {"deleted", deleted->deleted}},
                                    v);
            reply.note = std::to_string(deleted->deleted) + " items of " + deviceId + " deleted";
            return reply;
        }
        if (seg[3] == "items" && seg.size() == 5) {
            if (!get) return methodNotAllowed("GET", path, v);
            const auto row = store.item(deviceId, seg[4]);
            if (!row) return error(404, "device " + deviceId + " has no item with id " + seg[4], v);
            return itemDetail(request, *row);
        }
        return steering(request);
    }
    return error(404, "no such endpoint: " + path, v);
}

Reply ApiRouter::health(const Request& request) const {
    const unsigned v = request.version();
    auto& store = *context_.store;
    const double uptime =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - context_.started).count();
    const auto& options = context_.options;
    json::object body{{"status", "ok"},
                      {"service", "kestro-devservice"},
                      {"version", SDK_VERSION},
                      {"uptimeSeconds", uptime},
                      {"dataDirectory", options.dataDirectory.string()},
                      {"maxBodyBytes", options.maxBodyBytes},
                      {"keepDays", options.keepDays},
                      {"maxItemsPerDevice", options.maxItemsPerDevice}};
    if (auto problem = store.check()) {
        body["status"] = "unavailable";
        body["error"] = *problem;
        Reply reply = jsonReply(503, body, v);
        reply.note = *problem;
        return reply;
    }
    body["devices"] = store.deviceCount();
    body["connectedDevices"] = context_.links.connectedCount();
    body["items"] = store.itemCount();
    body["revision"] = store.latestRevision();
    return jsonReply(200, body, v);
}

Reply ApiRouter::listItems(const Request& request) const {
    const unsigned v = request.version();
    const auto target = internal::parseTarget(request.target());
    ItemQuery query;
    if (auto d = target.param("device"); d && !d->empty()) query.deviceId = *d;
    if (auto k = target.param("kind")) {
        query.kinds = words(*k);
        for (const auto& kind : query.kinds) {
            if (kind != "log" && kind != "networkRequest" && kind != "customEvent") {
                return error(
                    400, "\"kind\" takes log, networkRequest and customEvent, not \"" + kind + "\"",
                    v);
            }
        }
    }
    if (auto l = target.param("level")) query.levels = words(*l);
    if (auto m = target.param("method")) query.methods = words(*m);
    if (auto s = target.param("status")) {
        for (const auto& word : words(*s)) {
            if (word == "waiting") {
                query.waiting = true;
            } else if (word.size() == 3 && word[0] >= '1' && word[0] <= '5' && word[1] == 'x' &&
                       word[2] == 'x') {
                query.statusClasses.push_back(word[0] - '0');
            } else {
                return error(400, "\"status\" takes 1xx to 5xx and waiting, not \"" + word + "\"",
                             v);
            }
        }
    }
    if (auto q = target.param("q"); q && !q->empty()) query.text = *q;
    for (const char* name : {"since", "before", "limit"}) {
        auto text = target.param(name);
        if (!text || text->empty()) continue;
        auto n = internal::parseInt<std::int64_t>(*text);
        if (!n || *n < 0) {
            return error(
                400, std::string("\"") + name + "\" must be a whole number, not \"" + *text + "\"",
                v);
        }
        if (std::string_view(name) == "since") query.since = *n;
        if (std::string_view(name) == "before") query.before = *n;
        if (std::string_view(name) == "limit") {
            if (*n < 1 || *n > 500) return error(400, "\"limit\" must be from 1 to 500", v);
            query.limit = *n;
        }
    }
    // The revision first, so that a client asking later with since= never skips an upload that
    // lands while this page is being read.
    const std::int64_t revision = context_.store->latestRevision();
    const auto rows = context_.store->items(query);
    json::array list;
    for (const auto& row : rows) list.push_back(itemRowJSON(row));
    const bool more = static_cast<std::int64_t>(rows.size()) == query.limit;
    return jsonReply(
        200,
        json::object{{"items", std::move(list)},
                     {"nextCursor", more ? json::value(rows.back().seq) : json::value(nullptr)},
                     {"revision", revision}},
        v);
}

Reply ApiRouter::itemDetail(const Request& request, const ItemRow& row) const {
    const auto target = internal::parseTarget(request.target());
    json::object o = itemRowJSON(row);
    o["record"] = row.record;
    if (target.param("uploads").value_or("0") == "1") {
        json::array uploads;
        for (const auto& part : context_.store->parts(row.deviceId, row.id)) {
            uploads.push_back(json::object{
                {"seq", part.seq}, {"receivedAt", part.receivedAt}, {"body", part.body}});
        }
        o["uploads"] = std::move(uploads);
    }
    return jsonReply(200, o, request.version());
}

Reply ApiRouter::keys(const Request& request) const {
    const unsigned v = request.version();
    const auto target = internal::parseTarget(request.target());
    const auto& seg = target.segments;  // "api", "keys"[, id]
    const std::string path = internal::joinPath(seg, 0);
    auto& store = *context_.store;
    if (seg.size() == 2) {
        if (request.method() == http::verb::get) {
            json::array list;
            for (const auto& k : store.keys()) list.push_back(keyJSON(k));
            return jsonReply(200, json::object{{"keys", std::move(list)}}, v);
        }
        if (request.method() != http::verb::post) return methodNotAllowed("GET, POST", path, v);
        std::string name;
        if (!request.body().empty()) {
            boost::system::error_code ec;
            const auto body = json::parse(request.body(), ec);
            if (ec || !body.is_object()) return error(400, "the body must be a JSON object", v);
            if (const auto* n = body.as_object().if_contains("name")) {
                if (!n->is_string()) return error(400, "\"name\" must be a string", v);
                name = std::string(n->as_string());
            }
        }
        std::string storeError;
        const auto row = store.addKey(newApiKey(), name, context_.now(), &storeError);
        if (!row) return error(500, "the key could not be stored: " + storeError, v);
        Reply reply = jsonReply(201, json::object{{"key", keyJSON(*row)}}, v);
        reply.note = "key " + std::to_string(row->id) + " made";
        return reply;
    }
    if (seg.size() == 3) {
        if (request.method() != http::verb::delete_) return methodNotAllowed("DELETE", path, v);
        const auto id = internal::parseInt<std::int64_t>(seg[2]);
        const auto row = id ? store.revokeKey(*id, context_.now()) : std::nullopt;
        if (!row) return error(404, "no key with id " + seg[2], v);
        for (const auto& device : store.devicesOfKey(row->id)) {
            context_.links.close(device, 1008, "the API key was revoked");
        }
        Reply reply = jsonReply(200, json::object{{"key", keyJSON(*row)}}, v);
        reply.note = "key " + seg[2] + " revoked";
        return reply;
    }
    return error(404, "no such endpoint: " + path, v);
}

}  // namespace kestro::devservice
