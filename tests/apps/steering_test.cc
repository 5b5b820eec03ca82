// Mock rules and breakpoints kept per device: the API that changes them, what a device is sent,
// and what is refused.
#include <gtest/gtest.h>

#include <boost/json.hpp>

#include "service_fixture.h"
#include "support/wait.h"

namespace kestro::test {
namespace {
namespace json = boost::json;

class SteeringTest : public ServiceFixture {
  protected:
    void SetUp() override {
        ServiceFixture::SetUp();
        ASSERT_EQ(put("/v1/devices", deviceDictionary("DEV-1")).status, 200u);
    }
    void connect(WsClient& device) {
        ASSERT_TRUE(device.connect(port_, "/?api-key=" + key_ + "&device-id=DEV-1"));
        ASSERT_TRUE(
            waitUntil([&] { return get("/api/devices/DEV-1").json().at("connected") == true; }));
    }
    // The action and the decoded payload of the next frame the device reads.
    std::pair<std::string, json::value> nextCommand(WsClient& device) {
        const auto frame = device.read();
        if (!frame) return {};
        const auto v = json::parse(*frame);
        const auto& payload = v.at("payload");
        return {std::string(v.at("action").as_string()),
                payload.is_string() ? json::parse(payload.as_string()) : json::value(nullptr)};
    }
    std::string rulePath(std::int64_t id, const std::string& tail = "") {
        return "/api/devices/DEV-1/rules/" + std::to_string(id) + tail;
    }
};

TEST_F(SteeringTest, RulesAreKeptPerDeviceAndSentWhenSwitched) {
    const json::object rule{{"url", "http://h/users/*"},
                            {"statusCode", 503},
                            {"headers", {{"Retry-After", "5"}}},
                            {"body", "{}"}};
    const auto made = post("/api/devices/DEV-1/rules", rule);
    ASSERT_EQ(made.status, 201u) << made.body;
    const auto id = made.json().at("rule").at("id").as_int64();
    EXPECT_EQ(made.json().at("rule").at("enabled"), false);
    EXPECT_EQ(made.json().at("rule").at("mockedUrl"), nullptr);
    EXPECT_EQ(post("/api/devices/DEV-1/rules", rule).status, 409u);
    EXPECT_EQ(post("/api/devices/NOPE/rules", rule).status, 404u);
    for (const char* bad : {R"({"statusCode":200})", R"({"url":"x","statusCode":"200"})",
                            R"({"url":"x","headers":{"a":1}})", "[1]", "{"}) {
        EXPECT_EQ(api("POST", "/api/devices/DEV-1/rules", bad).status, 400u) << bad;
    }

    // Switched on while the device is away: kept, sent when it connects.
    const auto on = api("POST", rulePath(id, "/enable"));
    ASSERT_EQ(on.status, 200u);
    EXPECT_EQ(on.json().at("command"), nullptr);
    EXPECT_EQ(on.json().at("rule").at("enabled"), true);
    WsClient device;
    connect(device);
    auto [action, payload] = nextCommand(device);
    EXPECT_EQ(action, "enable_mock_request");
    EXPECT_EQ(payload, json::value(rule));

    // An edit that changes the url of a rule that is on: the device drops the old one first.
    json::object moved = rule;
    moved["url"] = "http://h/orders/*";
    const auto edited = api("PUT", rulePath(id), json::serialize(moved));
    ASSERT_EQ(edited.status, 200u) << edited.body;
    EXPECT_EQ(edited.json().at("commands").as_array().size(), 2u);
    EXPECT_EQ(nextCommand(device),
              std::make_pair(std::string("disable_mock_request"), json::value(rule)));
    EXPECT_EQ(nextCommand(device),
              std::make_pair(std::string("enable_mock_request"), json::value(moved)));

    // Deleting a rule that is on switches it off on the device.
    const auto gone = api("DELETE", rulePath(id));
    ASSERT_EQ(gone.status, 200u);
    EXPECT_EQ(gone.json().at("command").at("status") == "queued" ||
                  gone.json().at("command").at("status") == "delivered",
              true);
    EXPECT_EQ(nextCommand(device).first, "disable_mock_request");
    EXPECT_EQ(get("/api/devices/DEV-1/rules").json().at("rules").as_array().size(), 0u);
    for (const auto& [method, path] : std::vector<std::pair<std::string, std::string>>{
             {"DELETE", rulePath(id)},
             {"POST", rulePath(id, "/enable")},
             {"PUT", rulePath(id)},
             {"POST", "/api/devices/DEV-1/rules/x/enable"}}) {
        EXPECT_EQ(api(method, path, json::serialize(rule)).status, 404u) << method << path;
    }
}

TEST_F(SteeringTest, CommandsChangeTheStateOnlyWhenQueued) {
    const json::object rule{{"url", "http://h/a"}, {"statusCode", 500}};
    // Refused (not connected): nothing changes.
    EXPECT_EQ(
        post("/api/devices/DEV-1/commands", {{"action", "enable_mock_request"}, {"payload", rule}})
            .status,
        409u);
    EXPECT_EQ(post("/api/devices/DEV-1/commands", {{"action", "enable_break_point"}}).status, 409u);
    auto device = get("/api/devices/DEV-1").json();
    EXPECT_EQ(device.at("steering").at("mockRules").as_array().size(), 0u);
    EXPECT_EQ(device.at("steering").at("breakpoints").at("enabled"), false);

    WsClient link;
    connect(link);
    ASSERT_EQ(
        post("/api/devices/DEV-1/commands", {{"action", "enable_mock_request"}, {"payload", rule}})
            .status,
        202u);
    ASSERT_EQ(post("/api/devices/DEV-1/commands", {{"action", "enable_break_point"}}).status, 202u);
    device = get("/api/devices/DEV-1").json();
    ASSERT_EQ(device.at("steering").at("mockRules").as_array().size(), 1u);
    EXPECT_EQ(device.at("steering").at("mockRules").at(0).at("enabled"), true);
    EXPECT_EQ(device.at("steering").at("breakpoints").at("enabled"), true);
    ASSERT_EQ(post("/api/devices/DEV-1/commands",
                   {{"action", "disable_mock_request"}, {"payload", {{"url", "http://h/a"}}}})
                  .status,
              202u);
    EXPECT_EQ(get("/api/devices/DEV-1/rules").json().at("rules").at(0).at("enabled"), false);

    // Breakpoints through their own endpoint, and its refusals.
    const auto off = api("PUT", "/api/devices/DEV-1/breakpoints", R"({"enabled":false})");
    ASSERT_EQ(off.status, 200u);
    EXPECT_EQ(off.json().at("command").at("action"), "disable_break_point");
    EXPECT_EQ(api("PUT", "/api/devices/DEV-1/breakpoints", R"({"enabled":"no"})").status, 400u);
    EXPECT_EQ(api("PUT", "/api/devices/NOPE/breakpoints", R"({"enabled":true})").status, 404u);
    const auto history = get("/api/devices/DEV-1/commands").json().at("commands").as_array();
    ASSERT_EQ(history.size(), 6u);
    EXPECT_EQ(history.at(0).at("action"), "disable_break_point");
    EXPECT_EQ(history.at(5).at("status"), "failed");
}

}  // namespace
}  // namespace kestro::test
