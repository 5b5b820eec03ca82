// The SDK end to end against the real development service on a loopback port: initialisation
// registers the device and opens the link; captured items arrive at the service with the device
// dictionary and are kept in the SDK's own store; the dashboard's commands steer the SDK.
//
// Every test runs in a process of its own (one per CTest test), so each initialises the
// process-wide facade once, against its own service and its own data directory.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <boost/json.hpp>
#include <string>

#include "devservice/service.h"
#include "kestro/core/notification_center.h"
#include "kestro/facade/kestro_internal.h"
#include "kestro/network/http.h"
#include "kestro/network/mock_cache.h"
#include "kestro/network/network_interceptor.h"
#include "kestro/remote/websocket_manager.h"
#include "kestro/store/request_store_sqlite.h"
#include "service_fixture.h"
#include "support/wait.h"
#include "test_client.h"

namespace kestro {
namespace {

namespace json = boost::json;
using namespace std::chrono_literals;
using test::waitUntil;

class EndToEndTest : public ::testing::Test {
  protected:
    void SetUp() override {
        devservice::DevServiceOptions options;
        options.port = 0;
        options.dataDirectory = serviceDir_.path();
        options.logRequests = false;
        service_ = std::make_unique<devservice::DevService>(options);
        std::string error;
        ASSERT_TRUE(service_->start(&error)) << error;
        port_ = service_->port();
        token_ = service_->dashboardToken();
        const std::string key = test::firstKey(port_, token_);

        // Before the facade's first use: where the SDK keeps its files and where its
        // development endpoint is.
        setenv("KESTRO_HOME", sdkDir_.path().c_str(), 1);
        setenv("KESTRO_DEV_HOST", ("127.0.0.1:" + std::to_string(port_)).c_str(), 1);

        Kestro().initialize(key, KestroConfig(true, true, true, LogLevel::verbose, "dev"));
        deviceId_ = Kestro().deviceUUID();
        ASSERT_FALSE(deviceId_.empty());
        // Registered over HTTP and linked over WebSocket.
        ASSERT_TRUE(waitUntil(
            [&] {
                const json::value d = serviceGet("/api/devices/" + deviceId_);
                return d.is_object() && d.as_object().contains("info") &&
                       d.at("info").is_object() &&
                       d.at("info").as_object().contains("sdkVersion") &&
                       d.at("connected") == json::value(true);
            },
            15s))
            << json::serialize(serviceGet("/api/devices/" + deviceId_));
        ASSERT_TRUE(waitUntil([] { return Kestro().isConnectedToWs(); }, 10s));
    }

    void TearDown() override {
        Kestro().stopAll();
        if (auto link = Kestro().websocketManager()) link->disconnect();
        service_->stop();
    }

    json::value serviceGet(const std::string& target) {
        return test::httpRequest(port_, "GET", target, {}, {{"Authorization", "Bearer " + token_}})
            .json();
    }

    void command(const std::string& action, const json::value& payload = nullptr) {
        const auto r = test::httpRequest(
            port_, "POST", "/api/devices/" + deviceId_ + "/commands",
            json::serialize(json::object{{"action", action}, {"payload", payload}}),
            {{"Content-Type", "application/json"}, {"Authorization", "Bearer " + token_}});
        ASSERT_EQ(r.status, 202u) << r.body;
    }

    // The service's item of this device that satisfies `match`, waiting for it to arrive.
    json::object waitForItem(const std::function<bool(const json::object&)>& match,
                             std::chrono::milliseconds timeout = 10s) {
        json::object found;
        const bool ok = waitUntil(
            [&] {
                const json::value page = serviceGet("/api/items?limit=500&device=" + deviceId_);
                if (!page.is_object()) return false;
                for (const auto& item : page.at("items").as_array()) {
                    const json::value full =
                        serviceGet("/api/devices/" + deviceId_ + "/items/" +
                                   std::string(item.at("id").as_string()) + "?uploads=1");
                    if (full.is_object() && match(full.as_object())) {
                        found = full.as_object();
                        return true;
                    }
                }
                return false;
            },
            timeout);
        EXPECT_TRUE(ok) << "no matching item arrived";
        return found;
    }

    std::string url(const std::string& path) const {
        return "http://127.0.0.1:" + std::to_string(port_) + path;
    }

    test::TempDir serviceDir_;
    test::TempDir sdkDir_;
    std::unique_ptr<devservice::DevService> service_;
    std::uint16_t port_ = 0;
    std::string token_;
    std::string deviceId_;
};

const json::object& record(const json::object& item) { return item.at("record").as_object(); }

TEST_F(EndToEndTest, CapturedItemsArriveWithTheDeviceAndAreStored) {
    // A log line.
    Kestro().i("checkout started", 3);
    const json::object log = waitForItem([](const json::object& item) {
        return item.at("kind") == "log" &&
               record(item).at("details").at("message") == "checkout started 3";
    });
    ASSERT_FALSE(log.empty());
    const std::string logId(log.at("id").as_string());

    // An HTTP exchange through the URL-loading layer: two uploads under one id, one with only
    // the request half and one with only the response half. They are separate POSTs that may
    // travel on different connections, so the service may receive them in either order.
    const http::Result users = http::getBlocking(url("/sample/users"), 10s);
    ASSERT_TRUE(users.ok()) << users.summary();
    const json::object exchange = waitForItem([&](const json::object& item) {
        return item.at("kind") == "networkRequest" && item.at("uploadCount") == 2 &&
               record(item).at("details").as_object().contains("request") &&
               record(item).at("details").at("request").at("url") ==
                   json::value(url("/sample/users"));
    });
    ASSERT_FALSE(exchange.empty());
    const auto& uploads = exchange.at("uploads").as_array();
    ASSERT_EQ(uploads.size(), 2u);
    const bool requestFirst = uploads[0].at("body").at("details").as_object().contains("request");
    const json::object& requestHalf = uploads[requestFirst ? 0 : 1].at("body").as_object();
    const json::object& responseHalf = uploads[requestFirst ? 1 : 0].at("body").as_object();
    EXPECT_TRUE(requestHalf.at("details").as_object().contains("request"));
    EXPECT_FALSE(requestHalf.at("details").as_object().contains("response"));
    EXPECT_FALSE(responseHalf.at("details").as_object().contains("request"));
    EXPECT_EQ(responseHalf.at("details").at("response").at("statusCode"), 200);
    EXPECT_EQ(responseHalf.at("details").at("response").at("body"), json::value(users.body));
    for (const json::object* body : {&requestHalf, &responseHalf}) {
        EXPECT_EQ(body->at("device").at("id"), json::value(deviceId_));
        EXPECT_EQ(body->at("device").at("platform"), "linux");
    }

    // A custom event.
    Kestro().logEvent("purchase", "shop", {{"sku", "A-1"}, {"quantity", 2}});
    const json::object event = waitForItem([](const json::object& item) {
        return item.at("kind") == "customEvent" &&
               record(item).at("details").at("name") == "purchase";
    });
    ASSERT_FALSE(event.empty());
    EXPECT_EQ(record(event).at("details").at("payload").at("quantity"), 2);
    const std::string eventId(event.at("id").as_string());

    // All three are in the SDK's own store, the exchange with both halves.
    RequestStoreSQLite& store = RequestStoreSQLite::shared();
    ASSERT_TRUE(waitUntil([&] { return store.getById(eventId).has_value(); }));
    EXPECT_EQ(store.getById(logId)->kind(), RequestEventType::Kind::log);
    const auto stored = store.getById(std::string(exchange.at("id").as_string()));
    ASSERT_TRUE(stored && stored->asNetworkRequest());
    EXPECT_TRUE(stored->asNetworkRequest()->details.request.has_value());
    ASSERT_TRUE(stored->asNetworkRequest()->details.response.has_value());
    EXPECT_EQ(stored->asNetworkRequest()->details.response->statusCode, 200);
}

TEST_F(EndToEndTest, BreakpointHoldsTheNextRequestUntilSwitchedOff) {
    NetworkInterceptor& interceptor = Kestro().getNetworkInterceptor();
    command("enable_break_point");
    ASSERT_TRUE(waitUntil([&] { return interceptor.isBreakPointEnabled(); }));

    std::atomic<bool> done{false};
    std::atomic<std::int64_t> status{0};
    http::get(url("/sample/users/2"), [&](http::Result r) {
        status = r.status;
        done = true;
    });
    ASSERT_TRUE(waitUntil([&] { return interceptor.semaphore().heldCount() == 1; }));
    EXPECT_FALSE(done.load());

    command("disable_break_point");
    ASSERT_TRUE(waitUntil([&] { return done.load(); }));
    EXPECT_EQ(status.load(), 200);
    EXPECT_FALSE(interceptor.isBreakPointEnabled());
    EXPECT_EQ(interceptor.semaphore().heldCount(), 0u);
}

TEST_F(EndToEndTest, MockRuleAnswersTheNextMatchingRequest) {
    const std::string pattern = url("/sample/users/*");
    command("enable_mock_request",
            json::object{{"url", pattern}, {"statusCode", 418}, {"body", R"({"mocked":true})"}});
    ASSERT_TRUE(waitUntil([] { return Kestro().getMockCache().getSize() == 1; }));

    const http::Result mocked = http::getBlocking(url("/sample/users/4"), 10s);
    EXPECT_EQ(mocked.status, 418);
    EXPECT_EQ(mocked.body, R"({"mocked":true})");
    // Other URLs still reach the service.
    EXPECT_EQ(http::getBlocking(url("/sample/users"), 10s).status, 200);

    command("disable_mock_request", json::object{{"url", pattern}});
    ASSERT_TRUE(waitUntil([] { return Kestro().getMockCache().getSize() == 0; }));
    EXPECT_EQ(http::getBlocking(url("/sample/users/4"), 10s).status, 200);
}

TEST_F(EndToEndTest, PingUploadsAnEventAndOpenSheetPostsItsNotification) {
    std::atomic<int> opened{0};
    auto token = NotificationCenter::defaultCenter().addObserver(
        kOpenKestroSheet, [&](const Notification&) { opened.fetch_add(1); });

    command("send_ping");
    const json::object ping = waitForItem([](const json::object& item) {
        return item.at("kind") == "customEvent" && record(item).at("details").at("name") == "Ping";
    });
    ASSERT_FALSE(ping.empty());
    EXPECT_EQ(record(ping).at("details").at("category"), "GENERAL");

    command("open_kestro_sheet");
    ASSERT_TRUE(waitUntil([&] { return opened.load() == 1; }));
}

TEST_F(EndToEndTest, CaptureStopsAndStartsWithTheSwitches) {
    Kestro().stop(KestroConfig(true, false, true, LogLevel::verbose, "dev"));
    EXPECT_FALSE(Kestro().getNetworkInterceptor().isIntercepting());
    EXPECT_TRUE(PrintInterceptor::isIntercepting());
    EXPECT_FALSE(Kestro().getConfig().network);

    // With network capture off the exchange reaches the service but is not captured.
    ASSERT_TRUE(http::getBlocking(url("/sample/users/1"), 10s).ok());
    Kestro().i("after the uncaptured request");
    const json::object marker = waitForItem([](const json::object& item) {
        return item.at("kind") == "log" &&
               record(item).at("details").at("message") == "after the uncaptured request";
    });
    ASSERT_FALSE(marker.empty());
    const json::value page = serviceGet("/api/items?limit=500&device=" + deviceId_);
    for (const auto& item : page.at("items").as_array()) {
        EXPECT_NE(item.at("kind"), "networkRequest") << json::serialize(item);
    }

    Kestro().stopAll();
    EXPECT_FALSE(PrintInterceptor::isIntercepting());
    Kestro().startAll();
    EXPECT_TRUE(Kestro().getNetworkInterceptor().isIntercepting());
    EXPECT_TRUE(PrintInterceptor::isIntercepting());
    EXPECT_TRUE(Kestro().getConfig().events);  // the other fields are kept
}

}  // namespace
}  // namespace kestro
