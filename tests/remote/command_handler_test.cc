#include <gtest/gtest.h>

#include <boost/json.hpp>

#include "kestro/core/console.h"
#include "kestro/core/main_queue.h"
#include "kestro/core/notification_center.h"
#include "kestro/network/mock_cache.h"
#include "kestro/remote/command_handler.h"
#include "support/console_capture.h"

namespace kestro {
namespace {

namespace json = boost::json;

class CommandHandlerTest : public ::testing::Test {
protected:
    void SetUp() override {
        MainQueue::shared().useHostThread();
        setConsoleLevel(LogLevel::verbose);
        targets.mockCache = [this]() -> MockCache& { return cache; };
        targets.setBreakPointEnabled = [this](bool on) { switches.push_back(on ? "on" : "off"); };
        targets.releaseBreakpoints = [this] { switches.push_back("release"); };
        targets.logEvent = [this](const std::string& n, const std::string& c, const json::object& p) {
            events.push_back(n + "/" + c + "/" + json::serialize(p));
        };
    }
    void TearDown() override {
        MainQueue::shared().runUntilIdle();
        MainQueue::shared().useOwnThread();
        setConsoleLevel(LogLevel::debug);
    }
    // Runs a frame as the receive loop does (on the main queue) and everything it queued.
    std::string run(const std::string& frame) {
        test::ConsoleCapture console;
        MainQueue::shared().post([&] { handleWebSocketMessage(frame, targets); });
        MainQueue::shared().runUntilIdle();
        return console.text();
    }
    static std::string frame(const std::string& action, std::optional<std::string> payload = {}) {
        return WebSocketMessage{action, std::move(payload)}.encode();
    }

    MockCache cache;
    RemoteCommandTargets targets;
    std::vector<std::string> switches, events;
};

TEST_F(CommandHandlerTest, MockRulesAreAddedAndRemovedByTheirUrl) {
    const std::string rule = R"({"url":"https://h/users/*","statusCode":500,"body":"{}"})";
    std::string out = run(frame("enable_mock_request", rule));
    EXPECT_NE(out.find("] Entry added to cache https://h/users/*\n"), std::string::npos) << out;
    ASSERT_EQ(cache.getSize(), 1u);
    EXPECT_EQ(cache.getEntry("https://h/users/7")->statusCode, 500);

    run(frame("disable_mock_request", R"({"url":"https://h/users/7"})"));  // not the key
    EXPECT_EQ(cache.getSize(), 1u);
    out = run(frame("disable_mock_request", R"({"url":"https://h/users/*"})"));
    EXPECT_EQ(cache.getSize(), 0u);
    EXPECT_EQ(out, "");  // removal is silent
}

TEST_F(CommandHandlerTest, BadFramesAndRulesChangeNothing) {
    auto expectLine = [&](const std::string& frameText, const std::string& line) {
        const std::string out = run(frameText);
        EXPECT_NE(out.find("] " + line), std::string::npos) << frameText << " gave " << out;
    };
    expectLine("not json", "❌ JSON Decoding Error: ");
    expectLine("[1,2]", "❌ JSON Decoding Error: ");
    expectLine(R"({"payload":"x"})", "❌ JSON Decoding Error: ");
    expectLine(R"({"action":"enable_mock_request","payload":{"url":"x"}})", "❌ JSON Decoding Error: ");
    expectLine(frame("enable_mock_request"), "Failed to convert payload to Data");
    expectLine(frame("enable_mock_request", R"({"statusCode":1})"),
               "❌ JSON Decoding of enable_mock_request failed: ");
    expectLine(frame("enable_mock_request", "not json"),
               "❌ JSON Decoding of enable_mock_request failed: ");
    expectLine(frame("disable_mock_request", R"({"body":"x"})"),
               "❌ JSON Decoding of disable_mock_request failed: ");
    expectLine(frame("Send_Ping"), "⚠️ Unknown action: Send_Ping");
    EXPECT_EQ(run(frame("disable_mock_request")), "");
    EXPECT_EQ(cache.getSize(), 0u);
    EXPECT_TRUE(switches.empty());
    EXPECT_TRUE(events.empty());
}

TEST_F(CommandHandlerTest, BreakpointsPingAndSheetInFrameOrder) {
    int sheets = 0;
    auto token = NotificationCenter::defaultCenter().addObserver(kOpenKestroSheet,
                                                                 [&](const Notification&) { ++sheets; });
    const std::string out = run(frame("enable_break_point", "ignored payload"));
    EXPECT_NE(out.find("] Set breakpoint\n"), std::string::npos);
    run(frame("disable_break_point"));
    run(frame("send_ping"));
    run(frame("open_kestro_sheet"));
    EXPECT_EQ(switches, (std::vector<std::string>{"on", "off", "release"}));
    EXPECT_EQ(events, std::vector<std::string>{"Ping/GENERAL/{}"});
    EXPECT_EQ(sheets, 1);

    // Queued actions keep the order of their frames even when frames arrive back to back.
    switches.clear();
    MainQueue::shared().post([&] {
        handleWebSocketMessage(frame("enable_break_point"), targets);
        handleWebSocketMessage(frame("disable_break_point"), targets);
        handleWebSocketMessage(frame("enable_break_point"), targets);
    });
    MainQueue::shared().runUntilIdle();
    EXPECT_EQ(switches, (std::vector<std::string>{"on", "off", "release", "on"}));
}

TEST(WebSocketMessageTest, EncodesPayloadOnlyWhenPresent) {
    EXPECT_EQ((WebSocketMessage{"send_ping", {}}.encode()), R"({"action":"send_ping"})");
    const WebSocketMessage m{"enable_mock_request", R"({"url":"u"})"};
    EXPECT_EQ(WebSocketMessage::decode(m.encode(), nullptr), m);
    EXPECT_EQ(WebSocketMessage::decode(R"({"action":"a","payload":null,"x":1})", nullptr),
              (WebSocketMessage{"a", {}}));
}

}  // namespace
}  // namespace kestro
