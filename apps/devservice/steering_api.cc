// The dashboard API's steering side: commands, mock rules and breakpoints of a device.
#include <boost/beast/http/verb.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include "devservice/api.h"
#include "devservice/api_internal.h"
#include "devservice/json_views.h"
#include "devservice/upload_check.h"

namespace kestro::devservice {
namespace http = boost::beast::http;
namespace json = boost::json;
using internal::jsonReply;
using internal::methodNotAllowed;

namespace {

json::value commandOrNull(const std::optional<CommandRecord>& c) {
    return c ? json::value(commandJSON(*c)) : json::value(nullptr);
}

// The JSON text a command carries as payload: given as that text, or as the JSON value itself.
std::optional<std::string> payloadText(const json::value* p) {
    if (!p || p->is_null()) return std::nullopt;
    if (p->is_string()) return std::string(p->as_string());
    return json::serialize(*p);
}

}  // namespace

Reply ApiRouter::steering(const Request& request) const {
    const unsigned v = request.version();
    const auto target = internal::parseTarget(request.target());
    const auto& seg = target.segments;
    const std::string path = internal::joinPath(seg, 0);
    const auto method = request.method();
    auto& store = *context_.store;

    if (seg[1] == "commands") {
        if (seg.size() != 3) return error(404, "no such endpoint: " + path, v);
        if (method != http::verb::get) return methodNotAllowed("GET", path, v);
        const auto c = context_.commands.get(seg[2]);
        if (!c) return error(404, "no command with id " + seg[2] + " (in this run)", v);
        return jsonReply(200, commandJSON(*c), v);
    }
    // /api/devices/{deviceId}/...
    const std::string& deviceId = seg[2];
    const std::string& what = seg[3];
    if (what == "commands" && seg.size() == 4) {
        if (method == http::verb::get) {
            json::array list;
            for (const auto& c : context_.commands.recent(deviceId, 100)) {
                list.push_back(commandJSON(c));
            }
            return jsonReply(200, json::object{{"commands", std::move(list)}}, v);
        }
        if (method != http::verb::post) return methodNotAllowed("GET, POST", path, v);
        return command(request, deviceId);
    }
    if (what == "rules") return rules(request, deviceId);
    if (what == "breakpoints" && seg.size() == 4) {
        if (method != http::verb::put) return methodNotAllowed("PUT", path, v);
        boost::system::error_code ec;
        const auto body = json::parse(request.body(), ec);
        const json::value* enabled =
            !ec && body.is_object() ? body.as_object().if_contains("enabled") : nullptr;
        if (!enabled || !enabled->is_bool()) {
            return error(400, "the body must be {\"enabled\": true or false}", v);
        }
        if (!store.setBreakpoints(deviceId, enabled->as_bool())) {
            return error(404, "no device with id " + deviceId, v);
        }
        const auto sent = context_.steering.sendIfConnected(
            deviceId, enabled->as_bool() ? "enable_break_point" : "disable_break_point",
            std::nullopt);
        Reply reply =
            jsonReply(200,
                      json::object{{"breakpoints", json::object{{"enabled", enabled->as_bool()}}},
                                   {"command", commandOrNull(sent)}},
                      v);
        reply.note =
            std::string("breakpoints ") + (enabled->as_bool() ? "on" : "off") + " for " + deviceId;
        return reply;
    }
    return error(404, "no such endpoint: " + path, v);
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
    const std::optional<std::string> payload = payloadText(o.if_contains("payload"));
    const bool mock = action == "enable_mock_request" || action == "disable_mock_request";
    if (mock) {
        if (!payload) return error(400, action + " needs a mock rule as \"payload\"", v);
        const json::value rule = json::parse(*payload, ec);
        if (ec) return error(400, "the payload is not valid JSON: " + ec.message(), v);
        if (auto e = checkMockRule(rule)) return error(400, *e, v);
    }
    if (!context_.store->device(deviceId)) return error(404, "no device with id " + deviceId, v);

    const CommandRecord sent = context_.steering.command(deviceId, action, payload);
    if (sent.status == "failed") {
        // Queueing failed at once: not connected, closing, or too many frames waiting.
        const unsigned status = sent.error && sent.error->starts_with("too many") ? 503 : 409;
        Reply reply = jsonReply(
            status, json::object{{"error", *sent.error}, {"command", commandJSON(sent)}}, v);
        reply.note = *sent.error;
        return reply;
    }
    Reply reply = jsonReply(202, json::object{{"command", commandJSON(sent)}}, v);
    reply.note = action + " queued for " + deviceId;
    return reply;
}

Reply ApiRouter::rules(const Request& request, const std::string& deviceId) const {
    const unsigned v = request.version();
    const auto target = internal::parseTarget(request.target());
    const auto& seg = target.segments;  // api, devices, {id}, rules[, ruleId[, enable|disable]]
    const std::string path = internal::joinPath(seg, 0);
    const auto method = request.method();
    auto& store = *context_.store;
    auto& steering = context_.steering;
    if (!store.device(deviceId)) return error(404, "no device with id " + deviceId, v);

    // A rule from the body, checked as a device would decode it.
    auto ruleFromBody = [&](std::string* problem) -> std::optional<json::object> {
        boost::system::error_code ec;
        const auto body = json::parse(request.body(), ec);
        if (ec) {
            *problem = "the body is not valid JSON: " + ec.message();
            return std::nullopt;
        }
        if (auto e = checkMockRule(body)) {
            *problem = *e;
            return std::nullopt;
        }
        return body.as_object();
    };
    auto changed = [&](const RuleChange& change, unsigned status, json::object extra) -> Reply {
        switch (change.outcome) {
            case RuleChange::Outcome::ok:
                break;
            case RuleChange::Outcome::notFound:
                return error(404,
                             "device " + deviceId + " has no rule " +
                                 (seg.size() > 4 ? seg[4] : std::string()),
                             v);
            case RuleChange::Outcome::conflict:
                return error(409, "device " + deviceId + " already has a rule for that url", v);
            case RuleChange::Outcome::failed:
                return error(500, "the rule could not be stored", v);
        }
        extra["rule"] = ruleJSON(change.row);
        Reply reply = jsonReply(status, extra, v);
        reply.note = "rule " + std::to_string(change.row.id) + " of " + deviceId;
        return reply;
    };

    if (seg.size() == 4) {
        if (method == http::verb::get) {
            json::array list;
            for (const auto& rule : store.rules(deviceId)) list.push_back(ruleJSON(rule));
            return jsonReply(200, json::object{{"rules", std::move(list)}}, v);
        }
        if (method != http::verb::post) return methodNotAllowed("GET, POST", path, v);
        std::string problem;
        const auto rule = ruleFromBody(&problem);
        if (!rule) return error(400, problem, v);
        return changed(store.createRule(deviceId, *rule, context_.now()), 201, {});
    }
    const auto ruleId = internal::parseInt<std::int64_t>(seg[4]);
    if (!ruleId) return error(404, "device " + deviceId + " has no rule " + seg[4], v);
    if (seg.size() == 5) {
        if (method == http::verb::put) {
            std::string problem;
            const auto rule = ruleFromBody(&problem);
            if (!rule) return error(400, problem, v);
            const auto change = store.updateRule(deviceId, *ruleId, *rule, context_.now());
            json::array commands;
            if (change.outcome == RuleChange::Outcome::ok && change.row.enabled) {
                // The device keys rules by url: a rule whose url changed is removed under the old
                // one first.
                if (change.previous.url() != change.row.url()) {
                    if (auto c = steering.sendIfConnected(deviceId, "disable_mock_request",
                                                          json::serialize(change.previous.rule))) {
                        commands.push_back(commandJSON(*c));
                    }
                }
                if (auto c = steering.sendIfConnected(deviceId, "enable_mock_request",
                                                      json::serialize(change.row.rule))) {
                    commands.push_back(commandJSON(*c));
                }
            }
            return changed(change, 200, json::object{{"commands", std::move(commands)}});
        }
        if (method != http::verb::delete_) return methodNotAllowed("PUT, DELETE", path, v);
        const auto change = store.deleteRule(deviceId, *ruleId);
        std::optional<CommandRecord> sent;
        if (change.outcome == RuleChange::Outcome::ok && change.row.enabled) {
            sent = steering.sendIfConnected(deviceId, "disable_mock_request",
                                            json::serialize(change.row.rule));
        }
        if (change.outcome != RuleChange::Outcome::ok) return changed(change, 200, {});
        Reply reply =
            jsonReply(200, json::object{{"deleted", *ruleId}, {"command", commandOrNull(sent)}}, v);
        reply.note = "rule " + seg[4] + " of " + deviceId + " deleted";
        return reply;
    }
    if (seg.size() == 6 && (seg[5] == "enable" || seg[5] == "disable")) {
        if (method != http::verb::post) return methodNotAllowed("POST", path, v);
        const bool enable = seg[5] == "enable";
        const auto change = store.setRuleEnabled(deviceId, *ruleId, enable, context_.now());
        std::optional<CommandRecord> sent;
        if (change.outcome == RuleChange::Outcome::ok) {
            sent = steering.sendIfConnected(deviceId,
                                            enable ? "enable_mock_request" : "disable_mock_request",
                                            json::serialize(change.row.rule));
        }
        return changed(change, 200, json::object{{"command", commandOrNull(sent)}});
    }
    return error(404, "no such endpoint: " + path, v);
}

}  // namespace kestro::devservice
