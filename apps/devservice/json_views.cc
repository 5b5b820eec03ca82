#include "devservice/json_views.h"

namespace kestro::devservice {
namespace json = boost::json;
namespace {

template <typename T>
json::value orNull(const std::optional<T>& v) {
    return v ? json::value(*v) : json::value(nullptr);
}

}  // namespace

json::object storedDeviceJSON(const DeviceRow& row) {
    json::object o;
    o["id"] = row.id;
    for (const char* key : {"name", "model", "platform", "osName", "osVersion", "sdkVersion"}) {
        const auto* value = row.info.if_contains(key);
        o[key] = value ? *value : json::value(nullptr);
    }
    o["info"] = row.info;
    o["keyId"] = orNull(row.keyId);
    o["keyKind"] = row.keyKind.empty() ? json::value(nullptr) : json::value(row.keyKind);
    o["firstSeen"] = row.firstSeen;
    o["lastSeen"] = row.lastSeen;
    return o;
}

json::object deviceJSON(const DeviceRow& row, std::optional<double> connectedSince,
                        const std::vector<RuleRow>& rules) {
    json::object o = storedDeviceJSON(row);
    o["itemCount"] = row.itemCount;
    o["itemsDeletedThroughSeq"] = row.deletedThroughSeq;
    o["connected"] = connectedSince.has_value();
    o["connectedSince"] = orNull(connectedSince);
    o["steering"] = steeringJSON(rules, row.breakpoints);
    return o;
}

json::object steeringJSON(const std::vector<RuleRow>& rules, bool breakpoints) {
    json::array list;
    for (const auto& rule : rules) list.push_back(ruleJSON(rule));
    return json::object{{"mockRules", std::move(list)},
                        {"breakpoints", json::object{{"enabled", breakpoints}}}};
}

json::object itemRowJSON(const ItemRow& row) {
    const auto& s = row.summary;
    return json::object{
        {"deviceId", row.deviceId},
        {"id", row.id},
        {"seq", row.seq},
        {"revision", row.revision},
        {"kind", s.kind},
        {"time", orNull(s.time)},
        {"receivedAt", row.receivedAt},
        {"updatedAt", row.updatedAt},
        {"uploadCount", row.uploadCount},
        {"level", orNull(s.level)},
        {"message", orNull(s.message)},
        {"category", orNull(s.category)},
        {"method", orNull(s.method)},
        {"url", orNull(s.url)},
        {"status", orNull(s.status)},
        {"waiting", s.kind == "networkRequest" ? json::value(s.waiting) : json::value(nullptr)},
        {"durationMs", orNull(s.durationMs)},
        {"mocked", s.kind == "networkRequest" ? json::value(s.mocked) : json::value(nullptr)},
        {"name", orNull(s.name)}};
}

json::object ruleJSON(const RuleRow& row) {
    json::object o;
    o["id"] = row.id;
    for (const char* key : {"url", "mockedUrl", "statusCode", "headers", "body"}) {
        const auto* value = row.rule.if_contains(key);
        o[key] = value ? *value : json::value(nullptr);
    }
    o["enabled"] = row.enabled;
    o["createdAt"] = row.createdAt;
    o["updatedAt"] = row.updatedAt;
    return o;
}

json::object commandJSON(const CommandRecord& c) {
    return json::object{{"id", c.id},
                        {"deviceId", c.deviceId},
                        {"action", c.action},
                        {"payload", orNull(c.payload)},
                        {"frame", c.frame},
                        {"status", c.status},
                        {"error", orNull(c.error)},
                        {"createdAt", c.createdAt},
                        {"updatedAt", c.updatedAt}};
}

}  // namespace kestro::devservice
