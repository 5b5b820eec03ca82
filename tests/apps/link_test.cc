// Device links over WebSocket and the commands sent to them through the control API.
#include <gtest/gtest.h>

#include <boost/json.hpp>

#include "service_fixture.h"
#include "support/console_capture.h"
#include "support/wait.h"

namespace kestro::test {
namespace {
namespace json = boost::json;

class LinkTest : public ServiceFixture {
  protected:
    void SetUp() override {
        ServiceFixture::SetUp();
        kLink = linkTarget("DEV-1");
    }
    bool connected(const std::string& device) {
        auto r = get("/api/devices/" + device);
        return r.status == 200 && r.json().at("connected") == true;
    }
    std::string linkTarget(const std::string& device) const {
        return "/?api-key=" + key_ + "&device-id=" + device;
    }
    HttpResult sendCommand(std::uint16_t, const std::string& device, const json::value& body) {
        return post("/api/devices/" + device + "/commands", body);
    }

    std::string kLink;
};

TEST_F(LinkTest, ACommandReachesTheConnectedDeviceInTheFrameItDecodes) {
    WsClient device;
    ASSERT_TRUE(device.connect(port_, kLink));
    ASSERT_TRUE(waitUntil([&] { return connected("DEV-1"); }));
    EXPECT_EQ(get("/api/health").json().at("connectedDevices"), 1);

    auto sent = sendCommand(port_, "DEV-1", {{"action", "enable_break_point"}});
    ASSERT_EQ(sent.status, 202u) << sent.body;
    EXPECT_EQ(device.read(), R"({"action":"enable_break_point","payload":null})");

    // The rule may be given as JSON text or as the object itself; it travels as text.
    const json::object rule{{"url", "http://127.0.0.1:3007/sample/users/*"},
                            {"statusCode", 500},
                            {"body", "{\"error\":\"mocked\"}"}};
    ASSERT_EQ(
        sendCommand(port_, "DEV-1", {{"action", "enable_mock_request"}, {"payload", rule}}).status,
        202u);
    auto frame = device.read();
    ASSERT_TRUE(frame);
    const auto decoded = json::parse(*frame).as_object();
    ASSERT_EQ(decoded.size(), 2u);
    EXPECT_EQ(decoded.at("action"), "enable_mock_request");
    ASSERT_TRUE(decoded.at("payload").is_string());
    EXPECT_EQ(json::parse(decoded.at("payload").as_string()), rule);

    const std::string text = json::serialize(rule);
    ASSERT_EQ(
        sendCommand(port_, "DEV-1", {{"action", "disable_mock_request"}, {"payload", text}}).status,
        202u);
    EXPECT_EQ(device.read(),
              json::serialize(json::object{{"action", "disable_mock_request"}, {"payload", text}}));

    // The remaining actions, in order.
    for (const char* action : {"open_kestro_sheet", "disable_break_point", "send_ping"}) {
        ASSERT_EQ(sendCommand(port_, "DEV-1", {{"action", action}, {"payload", nullptr}}).status,
                  202u);
    }
    for (const char* action : {"open_kestro_sheet", "disable_break_point", "send_ping"}) {
        EXPECT_EQ(device.read(), std::string("{\"action\":\"") + action + "\",\"payload\":null}");
    }
}

TEST_F(LinkTest, PingsAreAnsweredAndDeviceFramesAreShownAndIgnored) {
    service_.reset();
    ConsoleCapture console;
    startService(10 * 1024 * 1024, true);
    WsClient device;
    ASSERT_TRUE(device.connect(port_, kLink));
    ASSERT_TRUE(waitUntil([&] { return connected("DEV-1"); }));
    device.ping();
    device.write("hello from the device");
    // The service answers a ping before it reads what follows, so once the text is shown the
    // pong is on the wire ahead of the command's frame.
    ASSERT_TRUE(waitUntil([&] {
        return console.text().find("📩 Device DEV-1 sent: hello from the device") !=
               std::string::npos;
    }));
    ASSERT_EQ(sendCommand(port_, "DEV-1", {{"action", "send_ping"}}).status, 202u);
    EXPECT_EQ(device.read(), R"({"action":"send_ping","payload":null})");
    EXPECT_EQ(device.pongs(), 1);
    EXPECT_NE(console.text().find("🔌 GET /?api-key=kt-dev-…&device-id=DEV-1 → 101"),
              std::string::npos)
        << console.text();
    EXPECT_EQ(console.text().find(key_.substr(7)), std::string::npos);
    service_.reset();
}

TEST_F(LinkTest, ANewConnectionReplacesTheOldOne) {
    WsClient first;
    ASSERT_TRUE(first.connect(port_, kLink));
    ASSERT_TRUE(waitUntil([&] { return connected("DEV-1"); }));
    const auto since = get("/api/devices/DEV-1").json().at("connectedSince").as_double();

    WsClient second;
    ASSERT_TRUE(second.connect(port_, kLink));
    // The old connection is closed by the service.
    EXPECT_FALSE(first.read());
    EXPECT_EQ(first.closeCode(), 1000);
    ASSERT_TRUE(waitUntil([&] {
        auto d = get("/api/devices/DEV-1").json();
        return d.at("connected") == true && d.at("connectedSince").as_double() >= since;
    }));

    ASSERT_EQ(sendCommand(port_, "DEV-1", {{"action", "enable_break_point"}}).status, 202u);
    EXPECT_EQ(second.read(), R"({"action":"enable_break_point","payload":null})");
    EXPECT_EQ(get("/api/health").json().at("connectedDevices"), 1);
}

TEST_F(LinkTest, LinkRequestsNeedAWellFormedKeyAndADeviceId) {
    struct Case {
        std::string target;
        unsigned status;
    };
    for (const auto& c : std::vector<Case>{{"/?device-id=DEV-1", 401},
                                           {"/?api-key=kt-test-1&device-id=DEV-1", 401},
                                           {"/?api-key=KT-DEV-1&device-id=DEV-1", 401},
                                           {"/?api-key=kt-dev-1&device-id=DEV-1", 401},
                                           {"/?api-key=" + key_, 400},
                                           {"/?api-key=" + key_ + "&device-id=", 400}}) {
        WsClient client;
        unsigned status = 0;
        EXPECT_FALSE(client.connect(port_, c.target, &status)) << c.target;
        EXPECT_EQ(status, c.status) << c.target;
    }
    // The SDK puts the key in unescaped: what follows an ampersand is another query item, and
    // the key before it still counts.
    WsClient odd;
    ASSERT_TRUE(odd.connect(port_, "/?api-key=" + key_ + "&b=c&device-id=DEV-9"));
    ASSERT_TRUE(waitUntil([&] { return connected("DEV-9"); }));
    EXPECT_EQ(get("/api/devices/DEV-9").json().at("keyKind"), "dev");
}

TEST_F(LinkTest, CommandsToAbsentDevicesAndBadCommandsAreRefused) {
    auto unknown = sendCommand(port_, "NOPE", {{"action", "send_ping"}});
    EXPECT_EQ(unknown.status, 404u);
    EXPECT_TRUE(unknown.json().at("error").is_string());

    ASSERT_EQ(put("/v1/devices", deviceDictionary("DEV-1")).status, 200u);
    auto offline = sendCommand(port_, "DEV-1", {{"action", "send_ping"}});
    EXPECT_EQ(offline.status, 409u);
    EXPECT_NE(std::string(offline.json().at("error").as_string()).find("not connected"),
              std::string::npos);

    // Malformed commands are refused before the device is looked at.
    for (const auto& body : std::vector<std::string>{
             "nonsense", "[]", "{}", R"({"action":7})", R"({"action":"Send_Ping"})",
             R"({"action":"enable_mock_request"})",
             R"({"action":"enable_mock_request","payload":"{not json"})",
             R"({"action":"enable_mock_request","payload":{"statusCode":500}})",
             R"({"action":"disable_mock_request","payload":{"url":"x","statusCode":"500"}})"}) {
        auto r = api("POST", "/api/devices/DEV-1/commands", body);
        EXPECT_EQ(r.status, 400u) << body;
        EXPECT_TRUE(r.json().at("error").is_string()) << body;
    }

    // Once a device goes away, commands to it are refused again.
    {
        WsClient device;
        ASSERT_TRUE(device.connect(port_, kLink));
        ASSERT_TRUE(waitUntil([&] { return connected("DEV-1"); }));
    }
    ASSERT_TRUE(waitUntil([&] { return !connected("DEV-1"); }));
    EXPECT_EQ(sendCommand(port_, "DEV-1", {{"action", "send_ping"}}).status, 409u);
}

TEST_F(LinkTest, ACommandIsAcceptedOnlyWhenItsFrameIsQueuedForTheDevice) {
    // A device that stops reading: frames fill the socket, then the service's queue for it.
    WsClient device;
    ASSERT_TRUE(device.connect(port_, kLink));
    ASSERT_TRUE(waitUntil([&] { return connected("DEV-1"); }));
    const json::object rule{{"url", "http://127.0.0.1/big"}, {"body", std::string(16 * 1024, 'x')}};
    int accepted = 0;
    unsigned refusal = 0;
    std::string refusalBody;
    for (int i = 0; i < 3000 && refusal == 0; ++i) {
        auto r =
            sendCommand(port_, "DEV-1", {{"action", "enable_mock_request"}, {"payload", rule}});
        if (r.status == 202) {
            ++accepted;
        } else {
            refusal = r.status;
            refusalBody = r.body;
        }
    }
    EXPECT_EQ(refusal, 503u) << refusalBody;
    EXPECT_NE(refusalBody.find("waiting"), std::string::npos) << refusalBody;

    // Every accepted command reaches the device, and nothing else: once they are read, the
    // next command is the next frame.
    for (int i = 0; i < accepted; ++i) {
        auto frame = device.read();
        ASSERT_TRUE(frame) << "frame " << i << " of " << accepted << " accepted never arrived";
        ASSERT_EQ(frame->rfind(R"({"action":"enable_mock_request")", 0), 0u);
    }
    ASSERT_EQ(sendCommand(port_, "DEV-1", {{"action", "send_ping"}}).status, 202u);
    EXPECT_EQ(device.read(), R"({"action":"send_ping","payload":null})");
}

TEST_F(LinkTest, BrokenFramesCloseOnlyTheirOwnConnection) {
    WsClient broken;
    ASSERT_TRUE(broken.connect(port_, kLink));
    WsClient other;
    ASSERT_TRUE(other.connect(port_, linkTarget("DEV-2")));
    ASSERT_TRUE(waitUntil([&] { return connected("DEV-1"); }));
    ASSERT_TRUE(waitUntil([&] { return connected("DEV-2"); }));

    // An unmasked frame with reserved bits and opcode set: not valid from a client.
    broken.writeRaw(std::string("\xff\x05hello", 7));
    EXPECT_FALSE(broken.read());
    ASSERT_TRUE(waitUntil([&] { return !connected("DEV-1"); }));

    ASSERT_EQ(sendCommand(port_, "DEV-2", {{"action", "open_kestro_sheet"}}).status, 202u);
    EXPECT_EQ(other.read(), R"({"action":"open_kestro_sheet","payload":null})");
}

TEST_F(LinkTest, StoppingTheServiceClosesLinksAsGoingAway) {
    WsClient device;
    ASSERT_TRUE(device.connect(port_, kLink));
    ASSERT_TRUE(waitUntil([&] { return connected("DEV-1"); }));
    service_->stop();
    EXPECT_FALSE(device.read());
    EXPECT_EQ(device.closeCode(), 1001);
}

}  // namespace
}  // namespace kestro::test
