#include "kestro/remote/websocket_manager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "kestro/core/console.h"
#include "kestro/core/main_queue.h"
#include "kestro/core/notification_center.h"
#include "support/console_capture.h"
#include "support/ws_server.h"

namespace kestro {
namespace {

using namespace std::chrono_literals;
using Status = WebsocketConnectionStatus;

// Checks and reconnections fast enough for a test; the ping time-out leaves room for a slow
// (sanitized) build answering a healthy ping.
WebsocketOptions fastOptions() {
    WebsocketOptions o;
    o.timing.checkInterval = 100ms;
    o.timing.reconnectDelay = 60ms;
    o.timing.pingTimeout = 250ms;
    o.timing.openTimeout = 3s;
    o.timing.closeTimeout = 500ms;
    return o;
}

// Checks far apart, for tests of everything but the periodic check.
WebsocketOptions quietOptions() {
    WebsocketOptions o = fastOptions();
    o.timing.checkInterval = 60s;
    return o;
}

std::size_t count(const std::string& text, const std::string& what) {
    std::size_t n = 0;
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

class WebsocketManagerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        MainQueue::shared().useHostThread();
        setConsoleLevel(LogLevel::verbose);
        token = NotificationCenter::defaultCenter().addObserver(
            kWebsocketConnectionChange, [this](const Notification& n) {
                statuses.push_back(std::any_cast<Status>(n.object));
                statusTimes.push_back(std::chrono::steady_clock::now());
            });
    }
    void TearDown() override {
        // Failure messages went to the captured console too; show them.
        if (HasFailure()) std::cerr << console.text();
        manager.reset();
        MainQueue::shared().runUntilIdle();
        token.reset();
        MainQueue::shared().useOwnThread();
        setConsoleLevel(LogLevel::debug);
    }

    WebsocketManager& make(const std::string& endpoint, WebsocketOptions options,
                           const std::string& key = "KEY", const std::string& device = "DEVICE") {
        manager = std::make_unique<WebsocketManager>(key, device, endpoint, std::move(options));
        manager->setOnConnect([this] { ++connects; });
        manager->setOnDisconnect([this] { ++disconnects; });
        manager->setOnMessage([this](const std::string& text) { messages.push_back(text); });
        return *manager;
    }
    // Runs the main queue (this thread) until done() or the deadline.
    static bool until(const std::function<bool()>& done, std::chrono::milliseconds timeout = 10s) {
        return MainQueue::shared().runUntil(done, timeout);
    }
    bool connectAndConfirm() {
        manager->connect(true);
        return until([&] { return manager->isConnected() && connects == 1; });
    }

    test::ConsoleCapture console;
    std::unique_ptr<WebsocketManager> manager;
    ObserverToken token;
    std::vector<Status> statuses;
    std::vector<std::chrono::steady_clock::time_point> statusTimes;  // when each was posted
    std::vector<std::string> messages;
    int connects = 0;
    int disconnects = 0;
};

TEST_F(WebsocketManagerTest, OpensTheEndpointWithKeyAndDeviceAppendedUnescaped) {
    test::WsServer server;
    make(server.url() + "/socket", quietOptions(), "a&b=c", "DEV-1");
    ASSERT_TRUE(connectAndConfirm());
    ASSERT_EQ(server.targets().size(), 1u);
    // The ampersand in the key ends it early and adds a query item of its own.
    EXPECT_EQ(server.targets()[0], "/socket?api-key=a&b=c&device-id=DEV-1");
    EXPECT_NE(console.text().find("] ⏰ Connecting to WebSocket: " + server.url() +
                                  "/socket?api-key=a&b=c&device-id=DEV-1\n"),
              std::string::npos)
        << console.text();

    // Without a path the target is the root.
    connects = 0;
    make(server.url(), quietOptions(), "K", "D");
    ASSERT_TRUE(connectAndConfirm());
    EXPECT_EQ(server.targets().back(), "/?api-key=K&device-id=D");
}

TEST_F(WebsocketManagerTest, ConfirmedConnectSetsStateCallsOnConnectAndNotifiesOnce) {
    test::WsServer server;
    make(server.url(), quietOptions());
    EXPECT_FALSE(manager->isConnected());
    ASSERT_TRUE(connectAndConfirm());
    MainQueue::shared().runUntilIdle();
    EXPECT_EQ(connects, 1);
    EXPECT_EQ(statuses, std::vector<Status>{Status::connected});
    EXPECT_EQ(count(console.text(), "] ✅ WebSocket connection is established\n"), 1u);
    EXPECT_EQ(disconnects, 0);
    EXPECT_EQ(manager->reconnectAttempts(), 0);
}

TEST_F(WebsocketManagerTest, TextFramesReachTheHandlerInOrderAndBinaryFramesAreOnlyPrinted) {
    test::WsServer server;
    make(server.url(), quietOptions());
    ASSERT_TRUE(connectAndConfirm());
    server.sendText(R"({"action":"send_ping"})");
    server.sendBinary(std::string("\x00\x01\x02", 3));
    server.sendText("second");
    ASSERT_TRUE(until([&] { return messages.size() == 2; }));
    EXPECT_EQ(messages, (std::vector<std::string>{R"({"action":"send_ping"})", "second"}));
    const std::string out = console.text();
    EXPECT_NE(out.find("] 📩 Received text: {\"action\":\"send_ping\"}\n"), std::string::npos);
    EXPECT_NE(out.find("] 📩 Received binary: 3 bytes\n"), std::string::npos) << out;
    EXPECT_NE(out.find("] 📩 Received text: second\n"), std::string::npos);
}

TEST_F(WebsocketManagerTest, SendsTextOnlyOnAnExistingConnection) {
    test::WsServer server;
    make(server.url(), quietOptions());
    manager->sendWebSocketMessage("dropped: no connection yet");
    ASSERT_TRUE(connectAndConfirm());
    manager->sendWebSocketMessage("one");
    manager->sendWebSocketMessage("two");
    ASSERT_TRUE(until([&] { return server.texts().size() == 2; }));
    EXPECT_EQ(server.texts(), (std::vector<std::string>{"one", "two"}));
    EXPECT_EQ(console.text().find("WebSocket Send Error"), std::string::npos);
}

TEST_F(WebsocketManagerTest, DisconnectClosesWith1001AndNoReconnectionFollows) {
    test::WsServer server;
    make(server.url(), fastOptions());
    ASSERT_TRUE(connectAndConfirm());
    manager->disconnect();
    ASSERT_TRUE(until([&] { return server.closeCodes() == std::vector<int>{1001}; }));
    EXPECT_NE(console.text().find("] ❌ WebSocket disconnected\n"), std::string::npos);
    EXPECT_GE(disconnects, 1);

    // The closed connection fails the next check, which counts past the limit and gives up.
    ASSERT_TRUE(until([&] { return manager->reconnectAttempts() == 6; }));
    EXPECT_FALSE(manager->isConnected());
    EXPECT_EQ(statuses, (std::vector<Status>{Status::connected, Status::disconnected}));
    EXPECT_EQ(count(console.text(), "] 🔄 Attempting to reconnect... 6\n"), 1u) << console.text();
    EXPECT_FALSE(until([&] { return server.accepted() > 1; }, 300ms));
    EXPECT_EQ(count(console.text(), "⏰ Connecting to WebSocket"), 1u);
}

TEST_F(WebsocketManagerTest, ALaterConnectClosesTheReplacedConnectionWith1001) {
    test::WsServer server;
    make(server.url(), quietOptions());
    ASSERT_TRUE(connectAndConfirm());
    manager->connect(true);
    ASSERT_TRUE(until([&] { return connects == 2 && server.closeCodes().size() == 1; }));
    EXPECT_EQ(server.closeCodes(), std::vector<int>{1001});
    EXPECT_TRUE(until([&] { return server.openSessions() == 1; }));
    EXPECT_EQ(server.accepted(), 2u);
    // Frames now come from the new connection only, once each.
    server.sendText("after");
    ASSERT_TRUE(until([&] { return messages.size() == 1; }));
    EXPECT_FALSE(until([&] { return messages.size() > 1; }, 100ms));
    // Closing a replaced connection on purpose is not reported as a failure.
    EXPECT_EQ(console.text().find("WebSocket Error"), std::string::npos) << console.text();
    EXPECT_EQ(disconnects, 0);
}

TEST_F(WebsocketManagerTest, AServerThatStopsAnsweringPingsGetsFiveReconnectionsThenNoMore) {
    test::WsServer server;
    const WebsocketOptions options = fastOptions();
    make(server.url(), options);
    ASSERT_TRUE(connectAndConfirm());
    server.setAnswerPings(false);
    const auto lost = std::chrono::steady_clock::now();

    ASSERT_TRUE(until([&] { return manager->reconnectAttempts() == 6; }, 15s)) << console.text();
    const auto elapsed = std::chrono::steady_clock::now() - lost;
    const std::string out = console.text();
    for (int i = 1; i <= 6; ++i) {
        EXPECT_EQ(count(out, "] 🔄 Attempting to reconnect... " + std::to_string(i) + "\n"), 1u)
            << i << "\n"
            << out;
    }
    // Every attempt opened a new connection after the delay; the sixth opened none.
    EXPECT_EQ(server.accepted(), 6u);
    EXPECT_EQ(count(out, "⏰ Connecting to WebSocket"), 6u);
    EXPECT_GE(elapsed, 5 * (options.timing.reconnectDelay + options.timing.checkInterval));
    EXPECT_FALSE(manager->isConnected());
    EXPECT_EQ(count(out, "] ❌ WebSocket Disconnected: No answer to the ping within 250 ms\n"), 6u);
    // One loss per failed check; the reconnections were never confirmed.
    std::vector<Status> expected{Status::connected};
    expected.insert(expected.end(), 6, Status::disconnected);
    EXPECT_EQ(statuses, expected);
    EXPECT_EQ(connects, 1);
    EXPECT_GE(disconnects, 6);
    EXPECT_FALSE(until([&] { return server.accepted() > 6; },
                       3 * (options.timing.reconnectDelay + options.timing.checkInterval)));
}

// Against a service that accepts connections and never answers a ping, each reconnection is
// found lost when its first check is due (the check takes the connection's first ping as its
// own), so losses come reconnectDelay + checkInterval apart: never sooner, and not a whole
// ping time-out later (which made them about 9 s apart instead of 7).
TEST_F(WebsocketManagerTest, LossesOfASilentServiceComeOneDelayAndOneCheckApart) {
    test::WsServer server;
    WebsocketOptions options = fastOptions();
    options.timing.checkInterval = 400ms;
    options.timing.pingTimeout = 400ms;
    options.timing.reconnectDelay = 500ms;
    make(server.url(), options);
    ASSERT_TRUE(connectAndConfirm());
    server.setAnswerPings(false);
    ASSERT_TRUE(until([&] { return manager->reconnectAttempts() == 3; }, 15s)) << console.text();
    std::vector<std::chrono::steady_clock::time_point> losses;
    for (std::size_t i = 0; i < statuses.size(); ++i) {
        if (statuses[i] == Status::disconnected) losses.push_back(statusTimes[i]);
    }
    ASSERT_EQ(losses.size(), 3u);
    const auto spacing = options.timing.reconnectDelay + options.timing.checkInterval;
    for (std::size_t i = 1; i < losses.size(); ++i) {
        const auto apart = losses[i] - losses[i - 1];
        EXPECT_GE(apart, spacing) << i;
        EXPECT_LT(apart, spacing + options.timing.pingTimeout / 2) << i;
    }
}

// A check's ping that cannot be written (a large frame ahead of it on a connection the service
// no longer reads) still fails pingTimeout after the check, not after it is written.
TEST_F(WebsocketManagerTest, ACheckWhosePingWaitsToBeWrittenStillFailsOnTime) {
    test::WsServer server;
    const WebsocketOptions options = fastOptions();
    make(server.url(), options);
    ASSERT_TRUE(connectAndConfirm());
    server.setAnswerPings(false);
    const auto sent = std::chrono::steady_clock::now();
    manager->sendWebSocketMessage(std::string(32 << 20, 'x'));  // beyond the sockets' buffers
    ASSERT_TRUE(until([&] { return !manager->isConnected(); }, 10s)) << console.text();
    EXPECT_LT(std::chrono::steady_clock::now() - sent,
              options.timing.checkInterval * 2 + options.timing.pingTimeout + 500ms);
    EXPECT_NE(console.text().find("❌ WebSocket Disconnected: No answer to the ping within 250 ms"),
              std::string::npos)
        << console.text();
}

TEST_F(WebsocketManagerTest, AServerDownAtStartUpIsReachedWhenItComesBack) {
    test::WsServer server;
    server.stop();
    make(server.url(), fastOptions());
    manager->connect(true);
    ASSERT_TRUE(until([&] { return manager->reconnectAttempts() >= 1; }));
    EXPECT_NE(console.text().find("] ❌ WebSocket ping failed: Could not connect to 127.0.0.1:"),
              std::string::npos)
        << console.text();
    EXPECT_NE(console.text().find("] ❌ WebSocket Error: Could not connect"), std::string::npos);
    EXPECT_EQ(statuses.front(), Status::disconnected);

    ASSERT_TRUE(server.start());
    ASSERT_TRUE(until([&] { return manager->isConnected(); }));
    EXPECT_EQ(connects, 1);
    EXPECT_EQ(statuses.back(), Status::connected);
    // A successful reconnection keeps the count of attempts used.
    const auto used = manager->reconnectAttempts();
    EXPECT_GE(used, 1);
    EXPECT_LE(used, 5);
    EXPECT_EQ(server.targets().back(), "/?api-key=KEY&device-id=DEVICE");

    // A later loss may use only the attempts that remain.
    server.stop();
    ASSERT_TRUE(until([&] { return manager->reconnectAttempts() == 6; }, 15s)) << console.text();
    EXPECT_EQ(count(console.text(), "⏰ Connecting to WebSocket"), 6u);
}

TEST_F(WebsocketManagerTest, ServerCloseAndRefusedUpgradeAreReported) {
    test::WsServer server;
    make(server.url(), quietOptions());
    ASSERT_TRUE(connectAndConfirm());
    server.closeAll(4000);
    ASSERT_TRUE(until([&] { return disconnects == 1; }));
    EXPECT_NE(
        console.text().find("] ❌ WebSocket Error: The server closed the connection (code 4000)\n"),
        std::string::npos)
        << console.text();

    server.setRefuseUpgrades(true);
    manager->connect(true);
    ASSERT_TRUE(until([&] {
        return console.text().find(
                   "❌ WebSocket ping failed: The server declined the upgrade "
                   "(403 Forbidden)") != std::string::npos;
    })) << console.text();
    EXPECT_EQ(connects, 1);
}

TEST_F(WebsocketManagerTest, AnEndpointThatIsNotAUrlOpensNothing) {
    for (const std::string endpoint : {"not a url", "ftp://127.0.0.1:1", "ws://"}) {
        console.clear();
        make(endpoint, fastOptions());
        manager->connect(true);
        manager->sendWebSocketMessage("nowhere");
        MainQueue::shared().runUntilIdle();
        EXPECT_FALSE(until([&] { return manager->reconnectAttempts() > 0; }, 300ms)) << endpoint;
        const std::string out = console.text();
        EXPECT_NE(out.find("] ⏰ Connecting to WebSocket: " + endpoint + "?api-key=KEY"),
                  std::string::npos)
            << out;
        EXPECT_EQ(count(out, "\n"), 1u) << endpoint << ": " << out;
    }
}

TEST_F(WebsocketManagerTest, DestroyingTheManagerClosesTheLinkAndSilencesIt) {
    test::WsServer server;
    make(server.url(), fastOptions());
    ASSERT_TRUE(connectAndConfirm());
    manager.reset();
    MainQueue::shared().runUntilIdle();
    ASSERT_TRUE(until([&] { return server.closeCodes() == std::vector<int>{1001}; }));
    server.sendText("late");
    EXPECT_FALSE(until([&] { return !messages.empty() || disconnects > 0; }, 300ms));
    EXPECT_EQ(statuses, std::vector<Status>{Status::connected});
}

TEST_F(WebsocketManagerTest, SecureLinkTrustsOnlyTheCertificatesItIsGiven) {
    test::WsServer server(test::WsServer::Options{.tls = true});
    WebsocketOptions untrusted = quietOptions();
    make(server.url(), untrusted);
    manager->connect(true);
    ASSERT_TRUE(until([&] {
        return console.text().find("❌ WebSocket ping failed: TLS handshake failed") !=
               std::string::npos;
    })) << console.text();
    EXPECT_FALSE(manager->isConnected());

    WebsocketOptions trusted = quietOptions();
    trusted.extraTrustedCertificatesPem = server.caCertificatePem();
    make(server.url(), trusted);
    ASSERT_TRUE(connectAndConfirm()) << console.text();
    server.sendText("over tls");
    ASSERT_TRUE(until([&] { return messages.size() == 1; }));
    EXPECT_EQ(messages[0], "over tls");
    EXPECT_EQ(server.targets().back(), "/?api-key=KEY&device-id=DEVICE");
}

}  // namespace
}  // namespace kestro
