// The facade's life cycle on a local instance: key validation, the choice of environment, the
// capture switches and the gating of custom events. Uploads go to a loopback server standing in
// for the development service; items go to a real store in a temporary data directory.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <boost/json.hpp>
#include <filesystem>

#include "kestro/core/main_queue.h"
#include "kestro/facade/kestro_internal.h"
#include "kestro/network/network_interceptor.h"
#include "kestro/remote/websocket_manager.h"
#include "kestro/store/request_store_sqlite.h"
#include "support/console_capture.h"
#include "support/http_server.h"
#include "support/scoped_env.h"
#include "support/wait.h"

namespace kestro {
namespace {

namespace json = boost::json;
using namespace std::chrono_literals;
using test::waitUntil;

class LifecycleTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/kestro-lifecycle-XXXXXX";
        dir_ = mkdtemp(tmpl);
        setenv("KESTRO_HOME", dir_.c_str(), 1);
        setenv("KESTRO_DEV_HOST", ("127.0.0.1:" + std::to_string(server_.port())).c_str(), 1);
    }
    void TearDown() override {
        PrintInterceptor::stopIntercepting();
        std::filesystem::remove_all(dir_);
    }

    // The events the stand-in service received, in order.
    std::vector<json::object> uploadedEvents() {
        std::vector<json::object> events;
        for (const auto& r : server_.requests()) {
            if (r.target != "/v1/requests") continue;
            auto body = json::parse(r.body).as_object();
            if (body.at("eventType") == "customEvent") events.push_back(std::move(body));
        }
        return events;
    }

    // Waits until the main-queue part of initialize has run (it installs the link).
    static bool linkInstalled(const KestroInternal& k) {
        return waitUntil([&] { return k.websocketManager() != nullptr; });
    }

    std::filesystem::path dir_;
    test::HttpServer server_;
};

TEST_F(LifecycleTest, AnInvalidKeyPrintsOneLineAndChangesNothing) {
    KestroInternal k;
    const KestroConfig before = k.getConfig();
    test::ConsoleCapture console;
    for (const char* key : {"kt-staging-1", "", "KT-DEV-1", " kt-dev-1"}) {
        k.initialize(key, KestroConfig(true, true, true, LogLevel::verbose, "dev"));
    }
    const std::string line =
        "Your APIKey has an incorrect format. Please check your APIKey and try again.";
    const std::string text = console.text();
    std::size_t lines = 0;
    for (std::size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + 1)) {
        ++lines;
    }
    EXPECT_EQ(lines, 4u) << text;
    EXPECT_EQ(text.find("Kestro setup"), std::string::npos);
    EXPECT_EQ(k.getAPIKey(), "");
    EXPECT_EQ(k.getConfig(), before);
    EXPECT_TRUE(k.deviceUUID().empty());
    EXPECT_FALSE(k.getNetworkInterceptor().isIntercepting());
    // Nothing is queued for the main queue either: no link appears.
    EXPECT_TRUE(MainQueue::shared().waitIdle());
    EXPECT_EQ(k.websocketManager(), nullptr);
}

TEST_F(LifecycleTest, OnlyTheExactDevEnvironmentSelectsTheDevelopmentService) {
    struct Case {
        std::optional<std::string> environment;
        KestroEnvironment expected;
    };
    for (const Case& c :
         {Case{"dev", KestroEnvironment::dev}, Case{"Dev", KestroEnvironment::prod},
          Case{std::nullopt, KestroEnvironment::prod}, Case{"staging", KestroEnvironment::prod}}) {
        KestroInternal k;
        test::ConsoleCapture console;
        k.initialize("kt-dev-env",
                     KestroConfig(false, false, false, LogLevel::verbose, c.environment));
        EXPECT_EQ(k.getEnvironment(), c.expected) << c.environment.value_or("(absent)");
        const std::string endpoint = getWSAPIEndpoint(c.expected);
        EXPECT_NE(console.text().find("🐶 Kestro setup: kt-dev-env endpoint: " + endpoint +
                                      " deviceUUID: " + k.deviceUUID()),
                  std::string::npos)
            << console.text();
        ASSERT_TRUE(linkInstalled(k));
        EXPECT_EQ(k.websocketManager()->endpoint(), endpoint);
        EXPECT_EQ(k.websocketManager()->deviceId(), k.deviceUUID());
    }
}

// Production without a host: capture and the store go on; nothing is registered or uploaded,
// no link is opened, and one warning line says so, however often the host initialises.
TEST_F(LifecycleTest, ProductionWithoutAHostStoresButUploadsAndLinksNothing) {
    test::ScopedEnv noHost("KESTRO_PROD_HOST", "");
    KestroInternal k;
    std::atomic<int> registrations{0};
    facade::internal::setDeviceUpload(
        k, [&](const std::string&, const DeviceDictionary&, const std::string&,
               std::function<void(RegistrationResult)> done) {
            ++registrations;
            done(std::nullopt);
        });
    test::ConsoleCapture console;
    for (int i = 0; i < 2; ++i) {
        k.initialize("kt-prod-nohost", KestroConfig(true, true, true, LogLevel::verbose, {}));
    }
    EXPECT_EQ(k.getEnvironment(), KestroEnvironment::prod);
    EXPECT_EQ(k.getAPIEndpoint(), "");
    // The main-queue half has run: capture is on, and there is no link.
    ASSERT_TRUE(waitUntil([&] { return k.getNetworkInterceptor().isIntercepting(); }));
    ASSERT_TRUE(MainQueue::shared().waitIdle());
    EXPECT_EQ(k.websocketManager(), nullptr);
    EXPECT_TRUE(PrintInterceptor::isIntercepting());

    k.logEvent("offline", "test", {{"n", 1}});
    const auto all = RequestStoreSQLite::shared().getAll();
    EXPECT_TRUE(std::any_of(all.begin(), all.end(), [](const RequestEventType& item) {
        return item.asCustomEvent() && item.asCustomEvent()->details.name == "offline";
    }));
    EXPECT_FALSE(waitUntil([&] { return registrations.load() > 0; }, 300ms));

    const std::string text = console.text();
    const std::string warning = "⚠️ No production service is configured";
    EXPECT_NE(text.find(warning), std::string::npos) << text;
    EXPECT_EQ(text.find(warning), text.rfind(warning)) << text;
    EXPECT_EQ(text.find("Connecting to WebSocket"), std::string::npos) << text;
    EXPECT_EQ(server_.requestCount(), 0u);
}

TEST_F(LifecycleTest, InitializeAppliesTheStoreLimitsAndTheyChangeAtRunTime) {
    test::ScopedEnv noHost("KESTRO_PROD_HOST", "");
    KestroInternal k;
    facade::internal::setDeviceUpload(
        k, [](const std::string&, const DeviceDictionary&, const std::string&,
              std::function<void(RegistrationResult)> done) { done(std::nullopt); });
    RequestStoreSQLite& store = RequestStoreSQLite::shared();
    EXPECT_EQ(store.retention(), StoreRetention{});  // the defaults before any configuration

    KestroConfig config(false, false, true, LogLevel::error, {});
    config.retention = {3, std::chrono::seconds(0), 0};
    k.initialize("kt-prod-limits", config);
    EXPECT_EQ(k.storeRetention(), config.retention);
    for (int i = 0; i < 6; ++i) k.logEvent("event-" + std::to_string(i), "test");
    ASSERT_TRUE(waitUntil([&] { return !store.trimPending() && store.requests().size() == 3; }));
    EXPECT_EQ(store.requests()[0].asCustomEvent()->details.name, "event-5");
    EXPECT_EQ(store.requests()[2].asCustomEvent()->details.name, "event-3");

    k.setStoreRetention(StoreRetention::unlimited());
    EXPECT_EQ(k.storeRetention(), StoreRetention::unlimited());
    EXPECT_EQ(k.getConfig().retention, StoreRetention::unlimited());
}

TEST_F(LifecycleTest, StopSwitchesOffOnlyWhatTheConfigurationTurnsOff) {
    KestroInternal k;
    test::ConsoleSilence quiet;
    k.initialize("kt-dev-switches", KestroConfig(true, true, true, LogLevel::error, "dev"));
    ASSERT_TRUE(linkInstalled(k));
    // Capture starts on the main queue, network first, then logs.
    ASSERT_TRUE(waitUntil([] { return PrintInterceptor::isIntercepting(); }));
    EXPECT_TRUE(k.getNetworkInterceptor().isIntercepting());
    EXPECT_TRUE(k.isEnabled());

    const KestroConfig logsOnly(true, false, false, LogLevel::warning, std::string("dev"));
    k.stop(logsOnly);
    EXPECT_EQ(k.getConfig(), logsOnly);
    EXPECT_FALSE(k.getNetworkInterceptor().isIntercepting());
    EXPECT_TRUE(PrintInterceptor::isIntercepting());

    k.stopAll();
    EXPECT_FALSE(PrintInterceptor::isIntercepting());
    EXPECT_EQ(k.getConfig(), logsOnly);  // stopAll leaves the configuration alone

    k.startAll();
    EXPECT_TRUE(k.getNetworkInterceptor().isIntercepting());
    EXPECT_TRUE(PrintInterceptor::isIntercepting());
    const KestroConfig after = k.getConfig();
    EXPECT_TRUE(after.logs && after.network);
    EXPECT_EQ(after.logLevel, LogLevel::warning);
    EXPECT_FALSE(after.events);
}

// The feature states follow the switches: network and log while their capture is installed,
// event with the stored configuration's events flag.
TEST_F(LifecycleTest, FeatureStatesFollowStartStopStartAllAndStopAll) {
    KestroInternal k;
    test::ConsoleSilence quiet;
    const std::vector<RequestType> all{RequestType::network, RequestType::log, RequestType::event};
    EXPECT_EQ(k.supportedRequestTypes(), all);
    const auto states = k.sdkFeatureState();
    ASSERT_EQ(states.size(), 3u);
    for (std::size_t i = 0; i < states.size(); ++i) EXPECT_EQ(states[i]->requestType(), all[i]);
    struct On {
        bool network, log, event;
        bool operator==(const On&) const = default;
    };
    auto on = [&] {
        // The states match what is really installed.
        EXPECT_EQ(states[0]->isEnabled(), k.getNetworkInterceptor().isIntercepting());
        EXPECT_EQ(states[1]->isEnabled(), PrintInterceptor::isIntercepting());
        return On{states[0]->isEnabled(), states[1]->isEnabled(), states[2]->isEnabled()};
    };
    EXPECT_EQ(on(), (On{false, false, false}));
    k.start(KestroConfig(true, false, true, LogLevel::error, "dev"));  // stores nothing
    EXPECT_EQ(on(), (On{false, true, false}));
    k.stop(KestroConfig(true, false, true, LogLevel::error, "dev"));
    EXPECT_EQ(on(), (On{false, true, true}));
    k.startAll();
    EXPECT_EQ(on(), (On{true, true, true}));
    k.stopAll();
    EXPECT_EQ(on(), (On{false, false, true}));
    k.startAll();
    k.stop(KestroConfig(false, true, false, LogLevel::error, "dev"));
    EXPECT_EQ(on(), (On{true, false, false}));
    k.stopAll();
    EXPECT_EQ(k.sdkFeatureState(), states);  // the same shared states throughout
}

TEST_F(LifecycleTest, EventsRecordBeforeInitialisationAndAfterItOnlyWhileSwitchedOn) {
    KestroInternal k;
    test::ConsoleSilence quiet;
    RequestStoreSQLite& store = RequestStoreSQLite::shared();

    // Before initialize: stored, and uploaded to the development endpoint with an empty key.
    k.logEvent("early", "test", {{"n", 1}});
    ASSERT_TRUE(server_.waitForRequests(1));
    const auto first = server_.requests()[0];
    EXPECT_EQ(first.target, "/v1/requests");
    EXPECT_EQ(first.header("Api-Key"), std::optional<std::string>(""));
    const auto early = uploadedEvents();
    ASSERT_EQ(early.size(), 1u);
    EXPECT_EQ(early[0].at("details").at("name"), "early");
    EXPECT_TRUE(early[0].contains("device"));
    EXPECT_TRUE(store.getById(std::string(early[0].at("id").as_string())).has_value());

    // After initialize with events off: nothing; switched on again: recorded with the key.
    k.initialize("kt-dev-events", KestroConfig(false, false, false, LogLevel::error, "dev"));
    k.logEvent("gated", "test");
    k.stop(KestroConfig(false, false, true, LogLevel::error, "dev"));
    k.logEvent("allowed", "test");
    ASSERT_TRUE(waitUntil([&] { return uploadedEvents().size() >= 2; }));
    const auto events = uploadedEvents();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[1].at("details").at("name"), "allowed");
    for (const auto& r : server_.requests()) {
        if (r.body.find("\"allowed\"") != std::string::npos) {
            EXPECT_EQ(r.header("Api-Key"), std::optional<std::string>("kt-dev-events"));
        }
    }
    const auto all = store.getAll();
    EXPECT_EQ(std::count_if(all.begin(), all.end(),
                            [](const RequestEventType& item) {
                                const auto* e = item.asCustomEvent();
                                return e && e->details.name == "gated";
                            }),
              0);
}

TEST_F(LifecycleTest, LogLinesAreUploadedAndStoredWhileLogCaptureIsOn) {
    KestroInternal k;
    test::ConsoleSilence quiet;
    k.initialize("kt-dev-logs", KestroConfig(true, false, false, LogLevel::error, "dev"));
    ASSERT_TRUE(waitUntil([] { return PrintInterceptor::isIntercepting(); }));
    k.w("disk is", 91, "% full");
    ASSERT_TRUE(waitUntil([&] {
        for (const auto& r : server_.requests()) {
            if (r.target == "/v1/requests" && r.body.find("disk is 91 % full") != std::string::npos)
                return true;
        }
        return false;
    }));
    ASSERT_TRUE(waitUntil([&] {
        const auto all = RequestStoreSQLite::shared().getAll();
        return std::any_of(all.begin(), all.end(), [](const RequestEventType& item) {
            return item.asLog() && item.asLog()->details.message == "disk is 91 % full";
        });
    }));
}

}  // namespace
}  // namespace kestro
