#include "devservice/api.h"

#include <boost/beast/http/status.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <boost/url/parse.hpp>

#include "devservice/api_internal.h"
#include "devservice/auth.h"
#include "devservice/page.h"
#include "devservice/upload_check.h"
#include "kestro/core/config.h"

namespace kestro::devservice {
namespace http = boost::beast::http;
namespace json = boost::json;

namespace internal {

Reply jsonReply(unsigned status, const json::value& body, unsigned version) {
    Reply reply;
    reply.response.version(version);
    reply.response.result(status);
    reply.response.set(http::field::content_type, "application/json; charset=utf-8");
    reply.response.body() = json::serialize(body);
    return reply;
}

std::optional<std::string> Target::param(std::string_view key) const {
    for (const auto& [k, v] : query) {
        if (k == key) return v;
    }
    return std::nullopt;
}

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

std::optional<std::string_view> header(const Request& r, std::string_view name) {
    auto it = r.find(name);
    if (it == r.end()) return std::nullopt;
    return std::string_view(it->value().data(), it->value().size());
}

Reply methodNotAllowed(const char* allowed, std::string_view path, unsigned version) {
    Reply r = ApiRouter::error(
        405, std::string("only ") + allowed + " is allowed on " + std::string(path), version);
    r.response.set(http::field::allow, allowed);
    return r;
}

namespace {

std::string textOf(const json::object& o, const char* key) {
    if (const auto* v = o.if_contains(key); v && v->is_string()) return std::string(v->as_string());
    return {};
}

}  // namespace
}  // namespace internal

using internal::jsonReply;

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

Reply ApiRouter::error(unsigned status, std::string message, unsigned version) {
    Reply reply = jsonReply(status, json::object{{"error", message}}, version);
    reply.note = std::move(message);
    return reply;
}

std::optional<Reply> ApiRouter::checkOrigin(const Request& request) const {
    const auto origin = internal::header(request, "Origin");
    if (!origin) return std::nullopt;
    const auto host = internal::header(request, "Host");
    if (sameOrigin(*origin, host.value_or(""), context_.options.tls())) return std::nullopt;
    return error(403,
                 "requests from another origin (" + std::string(*origin) +
                     ") are refused: the dashboard is served by the service itself",
                 request.version());
}

std::optional<Reply> ApiRouter::checkToken(const Request& request) const {
    const auto authorization = internal::header(request, "Authorization");
    const auto token = authorization ? bearerToken(*authorization) : std::nullopt;
    if (token && sameSecret(*token, context_.token)) return std::nullopt;
    Reply reply = error(401,
                        token ? "the dashboard token is not this service's"
                              : "the dashboard API needs the header \"Authorization: Bearer "
                                "<token>\" (kestro-devservice dashboard prints the address with "
                                "the token)",
                        request.version());
    reply.response.set(http::field::www_authenticate, "Bearer");
    return reply;
}

std::variant<Writer, Reply> ApiRouter::checkKey(std::optional<std::string_view> key,
                                                unsigned version) const {
    if (auto e = checkApiKey(key)) return error(401, *e, version);
    const auto row = context_.store->findKey(std::string(*key));
    // The lookup compares the whole text; the constant-time comparison below keeps the time
    // of a refusal from telling how much of a guess was right.
    if (!row || !sameSecret(row->key, *key)) {
        return error(401, "the API key is not known to this service", version);
    }
    if (row->revokedAt) return error(401, "the API key was revoked", version);
    return Writer{row->id, keyKind(*key)};
}

Reply ApiRouter::route(const Request& request) const {
    const unsigned v = request.version();
    if (auto refused = checkOrigin(request)) return std::move(*refused);
    const auto target = internal::parseTarget(request.target());
    if (!target.ok) return error(400, "the request target is not a valid URL path", v);
    const auto& seg = target.segments;
    const auto method = request.method();

    // The page answers "/" and "/app/..." (the link's upgrade on "/" never reaches here).
    if (auto page = servePage(request)) return std::move(*page);
    if (seg.empty()) return error(404, "no such endpoint: /", v);
    if (seg.size() == 2 && seg[0] == "v1" && (seg[1] == "devices" || seg[1] == "requests")) {
        if (method != http::verb::post) {
            return internal::methodNotAllowed("POST", "/v1/" + seg[1], v);
        }
        return upload(request, seg[1] == "devices");
    }
    if (seg[0] == "api") {
        if (auto refused = checkToken(request)) return std::move(*refused);
        return control(request);
    }
    if (seg[0] == "sample") return sample(request);
    return error(404, "no such endpoint: " + internal::joinPath(seg, 0), v);
}

Reply ApiRouter::upload(const Request& request, bool device) const {
    const unsigned v = request.version();
    auto checked = checkKey(internal::header(request, "Api-Key"), v);
    if (auto* refused = std::get_if<Reply>(&checked)) return std::move(*refused);
    const Writer writer = std::get<Writer>(checked);
    if (auto type = internal::header(request, "Content-Type");
        type && !type->starts_with("application/json")) {
        return error(415, "the body must be sent as application/json, not " + std::string(*type),
                     v);
    }
    boost::system::error_code ec;
    const json::value body = json::parse(request.body(), ec);
    if (ec) return error(400, "the body is not valid JSON: " + ec.message(), v);

    std::string storeError;
    if (device) {
        if (auto e = checkDevice(body)) return error(400, *e, v);
        const auto& info = body.as_object();
        const std::string id = internal::textOf(info, "id");
        bool created = false;
        switch (
            context_.store->claimDevice(id, writer, info, context_.now(), &created, &storeError)) {
            case Claim::ok:
                break;
            case Claim::otherKey:
                return error(403, "device " + id + " is registered under another API key", v);
            case Claim::failed:
                return error(500, "the device could not be stored: " + storeError, v);
        }
        Reply reply = jsonReply(200, json::object{{"id", id}, {"created", created}}, v);
        reply.note = "device " + id + (created ? " registered" : " updated");
        return reply;
    }
    if (auto e = checkItem(body)) return error(400, *e, v);
    const auto& record = body.as_object();
    const auto result = context_.store->putItem(record, writer, context_.now(), &storeError);
    const std::string id = internal::textOf(record, "id");
    switch (result.claim) {
        case Claim::ok:
            break;
        case Claim::otherKey:
            return error(403,
                         "device " + internal::textOf(record.at("device").as_object(), "id") +
                             " is registered under another API key",
                         v);
        case Claim::failed:
            return error(500, "the item could not be stored: " + storeError, v);
    }
    Reply reply = jsonReply(
        200, json::object{{"id", id}, {"created", result.created}, {"revision", result.revision}},
        v);
    reply.note =
        internal::textOf(record, "eventType") + " " + id + (result.created ? "" : " (joined)");
    return reply;
}

bool ApiRouter::isLiveChannel(const Request& request) {
    const auto target = internal::parseTarget(request.target());
    return target.ok && target.segments.size() == 2 && target.segments[0] == "api" &&
           target.segments[1] == "live";
}

std::optional<Reply> ApiRouter::checkLive(const Request& request) const {
    const unsigned v = request.version();
    if (auto refused = checkOrigin(request)) return refused;
    const auto offered = offeredProtocols(
        internal::header(request, "Sec-WebSocket-Protocol").value_or(std::string_view()));
    if (!offered.token || !sameSecret(*offered.token, context_.token)) {
        return error(401,
                     offered.token ? "the dashboard token is not this service's"
                                   : "the push channel needs the dashboard token as the "
                                     "subprotocol \"kestro.token.<token>\"",
                     v);
    }
    if (!offered.live) return error(400, "the push channel speaks the subprotocol kestro.v1", v);
    return std::nullopt;
}

std::variant<LinkRequest, Reply> ApiRouter::checkLink(const Request& request) const {
    const unsigned v = request.version();
    if (auto refused = checkOrigin(request)) return std::move(*refused);
    const auto target = internal::parseTarget(request.target());
    if (!target.ok) return error(400, "the request target is not a valid URL", v);
    const auto key = target.param("api-key");
    if (!key) return error(401, "the \"api-key\" query item is missing", v);
    auto checked = checkKey(std::string_view(*key), v);
    if (auto* refused = std::get_if<Reply>(&checked)) return std::move(*refused);
    const auto device = target.param("device-id");
    if (!device || device->empty()) {
        return error(400, "the \"device-id\" query item is missing or empty", v);
    }
    const Writer writer = std::get<Writer>(checked);
    std::string storeError;
    switch (context_.store->claimDevice(*device, writer, std::nullopt, context_.now(), nullptr,
                                        &storeError)) {
        case Claim::ok:
            break;
        case Claim::otherKey:
            return error(403, "device " + *device + " is registered under another API key", v);
        case Claim::failed:
            return error(500, "the device could not be stored: " + storeError, v);
    }
    return LinkRequest{*device, writer};
}

}  // namespace kestro::devservice
