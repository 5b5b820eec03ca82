#include "kestro/inspector/settings_form.h"

#include <gtest/gtest.h>

#include "inspector/inspector_fixture.h"
#include "inspector/records.h"
#include "kestro/inspector/sheet_presenter.h"
#include "kestro/network/network_interceptor.h"
#include "kestro/remote/websocket_manager.h"
#include "support/console_capture.h"
#include "support/wait.h"

namespace kestro {
namespace {

class SettingsFormTest : public test::InspectorFixture {
  protected:
    void TearDown() override {
        facade_->stopAll();
        test::InspectorFixture::TearDown();
    }
    // Puts a key in use and a (never connecting) dashboard link on the facade.
    void initialize() {
        setenv("KESTRO_DEV_HOST", "127.0.0.1:1", 1);
        // Registration reads (and makes) the device id on a worker: wait for it, so that it is
        // not made again behind the test's back.
        auto registered = std::make_shared<std::atomic<bool>>(false);
        facade::internal::setDeviceUpload(*facade_,
                                          [registered](auto&&...) { *registered = true; });
        facade_->initialize("kt-dev-form",
                            KestroConfig(false, false, true, LogLevel::error, "dev"));
        runMainQueue();
        ASSERT_TRUE(test::waitUntil([&] { return registered->load(); }));
        ASSERT_NE(facade_->websocketManager(), nullptr);
    }
};

TEST_F(SettingsFormTest, SwitchesStartFromTheConfigurationAndCallStartOrStop) {
    struct Case {
        const char* name;
        void (KestroSettingsForm::*set)(bool);
        bool KestroConfig::*field;
    };
    const Case cases[] = {
        {"Logs", &KestroSettingsForm::setLoggingEnabled, &KestroConfig::logs},
        {"Network Requests", &KestroSettingsForm::setNetworkRequestsEnabled,
         &KestroConfig::network},
        {"Custom Events", &KestroSettingsForm::setCustomEventsEnabled, &KestroConfig::events},
    };
    test::ConsoleSilence quiet;
    for (const Case& c : cases) {
        const KestroConfig all(true, true, true, LogLevel::error, "dev");
        facade_->setConfig(all);
        KestroSettingsForm form(services());
        EXPECT_TRUE(form.isSDKEnabled() && form.isLoggingEnabled() &&
                    form.isNetworkRequestsEnabled() && form.isCustomEventsEnabled())
            << c.name;
        // Off: stop() with that one field off, which the facade keeps.
        (form.*c.set)(false);
        KestroConfig expected = all;
        expected.*c.field = false;
        EXPECT_EQ(facade_->getConfig(), expected) << c.name;
        // On: start() with the field on again; start keeps no configuration.
        (form.*c.set)(true);
        EXPECT_EQ(facade_->getConfig(), expected) << c.name;
    }
    // What start and stop switch: network capture follows "Network Requests", log capture
    // follows "Logs".
    facade_->setConfig(KestroConfig(false, false, false, LogLevel::error, "dev"));
    KestroSettingsForm form(services());
    EXPECT_FALSE(form.isSDKEnabled());
    form.setNetworkRequestsEnabled(true);
    EXPECT_TRUE(facade_->getNetworkInterceptor().isIntercepting());
    form.setLoggingEnabled(true);
    EXPECT_TRUE(PrintInterceptor::isIntercepting());
    // start() keeps no configuration, so the one read for the next switch still has logs off:
    // switching network off stops log capture with it.
    form.setNetworkRequestsEnabled(false);
    EXPECT_FALSE(facade_->getNetworkInterceptor().isIntercepting());
    EXPECT_FALSE(PrintInterceptor::isIntercepting());
    EXPECT_TRUE(form.isLoggingEnabled()) << "the form's flag stays as switched";
    // "Enable SDK": off stops everything, on starts everything.
    form.setSDKEnabled(false);
    EXPECT_FALSE(PrintInterceptor::isIntercepting());
    EXPECT_FALSE(facade_->getNetworkInterceptor().isIntercepting());
    form.setSDKEnabled(true);
    EXPECT_TRUE(PrintInterceptor::isIntercepting());
    EXPECT_TRUE(facade_->getNetworkInterceptor().isIntercepting());
    EXPECT_TRUE(form.isSDKEnabled());
}

TEST_F(SettingsFormTest, DeletingTheKeyGoesInItsOrderAndCancellingTouchesNothing) {
    test::ConsoleSilence quiet;
    initialize();
    store_->add(test::log("a", "one"));
    ASSERT_TRUE(getUserDefaults().contains(USER_DEFAULTS_KEY_DEVICE_UUID));
    KestroSettingsForm form(services());
    EXPECT_EQ(form.apiKey(), "kt-dev-form");

    // Cancelling either dialog leaves items, key and link alone.
    form.tapDeleteAPIKey();
    EXPECT_TRUE(form.showDeleteConfirmation());
    form.cancelDeleteAPIKey();
    form.tapDeleteLogs();
    EXPECT_TRUE(form.showDeleteConfirmationForLogs());
    form.cancelDeleteLogs();
    EXPECT_FALSE(form.showDeleteConfirmation() || form.showDeleteConfirmationForLogs());
    EXPECT_EQ(form.totalLogs(), "1");
    EXPECT_EQ(facade_->getAPIKey(), "kt-dev-form");
    EXPECT_TRUE(getUserDefaults().contains(USER_DEFAULTS_KEY_DEVICE_UUID));

    // Each effect sees the ones before it: the id and the key are gone when the items go,
    // and everything is gone when "apiKeyDeleted" arrives.
    std::vector<std::string> seen;
    auto storeWatch = store_->observeRequests([&](const RequestsChange& change) {
        if (change.kind != RequestsChange::Kind::replaced) return;
        seen.push_back(
            std::string("items deleted; key '") + facade_->getAPIKey() + "', id " +
            (getUserDefaults().contains(USER_DEFAULTS_KEY_DEVICE_UUID) ? "kept" : "gone"));
    });
    auto deleted = notifications_.addObserver(kApiKeyDeleted, [&](const Notification& n) {
        seen.push_back("apiKeyDeleted; items " + std::to_string(store_->requests().size()) +
                       (n.object.has_value() ? ", with an object" : ""));
    });
    form.tapDeleteAPIKey();
    form.confirmDeleteAPIKey();
    runMainQueue();
    EXPECT_EQ(seen, (std::vector<std::string>{"items deleted; key '', id gone",
                                              "apiKeyDeleted; items 0"}));
    EXPECT_FALSE(form.showDeleteConfirmation());
    EXPECT_FALSE(facade_->getSavedAPIKey().has_value());
    EXPECT_FALSE(facade_->isConnectedToWs());
}

TEST_F(SettingsFormTest, RedactionSettingsStartFromTheFacadeAndApplyAtOnce) {
    RedactionPolicy configured;
    configured.jsonKeys = {"password"};
    facade_->setRedactionPolicy(configured);
    KestroSettingsForm form(services());
    RedactionSettings& redaction = form.redaction();
    EXPECT_EQ(redaction.policy(), configured);

    redaction.draft(RedactionSettings::List::headers) = "X-Session";
    ASSERT_TRUE(redaction.add(RedactionSettings::List::headers));
    redaction.draft(RedactionSettings::List::notCaptured) = "*.ads.test";
    ASSERT_TRUE(redaction.add(RedactionSettings::List::notCaptured));
    redaction.remove(RedactionSettings::List::jsonKeys, 0);
    RedactionPolicy expected = configured;
    expected.headers.push_back("x-session");
    expected.notCaptured = {"*.ads.test"};
    expected.jsonKeys.clear();
    EXPECT_EQ(facade_->redactionPolicy(), expected);
    redaction.setEnabled(false);
    EXPECT_FALSE(facade_->redactionPolicy().enabled);
    EXPECT_EQ(facade_->redactionPolicy().headers, expected.headers);
}

TEST_F(SettingsFormTest, DeletingLogsEmptiesTheStoreAndTheCount) {
    store_->add(test::log("a", "one"));
    store_->add(test::event("b", "two"));
    KestroSettingsForm form(services());
    EXPECT_EQ(form.totalLogs(), "2");
    form.tapDeleteLogs();
    form.confirmDeleteLogs();
    EXPECT_EQ(form.totalLogs(), "0");
    EXPECT_TRUE(store_->getAll().empty());
}

TEST_F(SettingsFormTest, TheLinkRowFollowsStatusNotificationsOnly) {
    facade_->setConfig(KestroConfig(false, false, false, LogLevel::verbose, "dev"));
    KestroSettingsForm form(services());
    struct Case {
        std::any object;
        bool connected;
        bool printsChange;
    };
    const Case cases[] = {
        {WebsocketConnectionStatus::connected, true, true},
        {std::string("connected"), true, false},  // not a status: the row stays as it was
        {WebsocketConnectionStatus::disconnected, false, true},
        {std::any(), false, false},
        {WebsocketConnectionStatus::connected, true, true},
        {42, true, false},
    };
    for (const Case& c : cases) {
        test::ConsoleCapture console;
        notifications_.post(kWebsocketConnectionChange, c.object);
        runMainQueue();
        EXPECT_EQ(form.isWebSocketConnected(), c.connected);
        const std::string text = console.text();
        EXPECT_NE(text.find("WS-Event"), std::string::npos) << text;
        EXPECT_EQ(text.find("WS-Connection changed") != std::string::npos, c.printsChange) << text;
    }
    // Appearing asks the facade, whose link is down.
    form.onAppear();
    EXPECT_TRUE(form.isWebSocketConnected()) << "asked on the main queue, not at once";
    runMainQueue();
    EXPECT_FALSE(form.isWebSocketConnected());
}

TEST_F(SettingsFormTest, InformationEntriesAndTheLogsList) {
    store_->add(test::log("a", "one"));
    KestroSettingsForm form(services());
    EXPECT_EQ(form.endpoint(), facade_->getAPIEndpoint());
    EXPECT_EQ(form.sdkVersionText(), std::string("SDK Version: ") + SDK_VERSION);
    EXPECT_EQ(form.logsList(), nullptr);
    form.tapOpenLogs();
    ASSERT_TRUE(form.showingLogsModal());
    ASSERT_NE(form.logsList(), nullptr);
    EXPECT_EQ(form.logsList()->rowCount(), 1u);
    form.dismissLogs();
    EXPECT_EQ(form.logsList(), nullptr);
    EXPECT_FALSE(form.showingLogsModal());
}

using SheetTest = SettingsFormTest;

TEST_F(SheetTest, ShakesOpenTheSheetOnlyWhereAllowedAndWithAKey) {
    test::ConsoleSilence quiet;
    struct Case {
        bool debugWindow;
        bool key;
        bool opensOnShake;
    };
    const Case cases[] = {
        {false, false, false}, {false, true, false}, {true, false, false}, {true, true, true}};
    for (const Case& c : cases) {
        if (c.key && facade_->getAPIKey().empty()) initialize();
        if (!c.key) facade_->clearAPIKey();
        facade_->setDebugWindowInProductionBuilds(c.debugWindow);
        KestroSheetModifier modifier(services());
        // This is a development build: the stored switch alone decides.
        EXPECT_EQ(modifier.canShake(), c.debugWindow);
        modifier.shakeDetector().chord(ShakeDetector::Clock::now());
        EXPECT_EQ(modifier.isSheetPresented(), c.opensOnShake) << c.debugWindow << " " << c.key;
        EXPECT_EQ(modifier.sheet() != nullptr, c.opensOnShake);
        // The dashboard's command opens it in every case.
        modifier.dismiss();
        EXPECT_EQ(modifier.sheet(), nullptr);
        notifications_.post(kOpenKestroSheet);
        runMainQueue();
        EXPECT_TRUE(modifier.isSheetPresented());
        ASSERT_NE(modifier.sheet(), nullptr);
        EXPECT_STREQ(modifier.sheet()->title(), "Kestro Settings");
    }
}

TEST(ShakeDetectorTest, MouseStrokesJoltsAndTheChord) {
    using Clock = ShakeDetector::Clock;
    using std::chrono::milliseconds;
    struct Case {
        const char* name;
        std::vector<std::pair<double, int>> moves;  // x, time in ms
        std::uint64_t shakes;
    };
    auto zigzag = [](int strokes, double width, int msPerStroke) {
        std::vector<std::pair<double, int>> moves;
        for (int s = 0; s <= strokes; ++s) {
            for (int step = 0; step < 4; ++step) {
                const double f = step / 4.0;
                moves.push_back({s % 2 == 0 ? f * width : width - f * width,
                                 s * msPerStroke + step * msPerStroke / 4});
            }
        }
        return moves;
    };
    const std::vector<Case> cases = {
        {"five fast wide strokes", zigzag(5, 120, 100), 1},
        {"three strokes are not enough", zigzag(3, 120, 100), 0},
        {"slow strokes", zigzag(6, 120, 400), 0},
        {"jitter", zigzag(12, 10, 30), 0},
        {"one long shake is one shake", zigzag(16, 120, 60), 1},
        {"a straight line", {{0, 0}, {100, 10}, {300, 20}, {900, 30}}, 0},
    };
    for (const Case& c : cases) {
        ShakeDetector detector;
        int calls = 0;
        detector.onShake = [&] { ++calls; };
        const auto start = Clock::now();
        for (const auto& [x, ms] : c.moves) detector.mouseMoved(x, start + milliseconds(ms));
        EXPECT_EQ(detector.shakes(), c.shakes) << c.name;
        EXPECT_EQ(calls, static_cast<int>(c.shakes)) << c.name;
    }

    ShakeDetector detector;
    const auto start = Clock::now();
    // Resting (gravity only), then three jolts within the window.
    detector.acceleration(0, 0, 9.81, start);
    for (int i = 0; i < 3; ++i) {
        detector.acceleration(25, 0, 9.81, start + milliseconds(100 * i + 50));
        detector.acceleration(0, 0, 9.81, start + milliseconds(100 * i + 90));
    }
    EXPECT_EQ(detector.shakes(), 1u);
    // Jolts spread beyond the window do not add up.
    for (int i = 0; i < 3; ++i) {
        detector.acceleration(25, 0, 9.81, start + milliseconds(3000 + 1000 * i));
        detector.acceleration(0, 0, 9.81, start + milliseconds(3100 + 1000 * i));
    }
    EXPECT_EQ(detector.shakes(), 1u);
    detector.chord(start + milliseconds(10000));
    EXPECT_EQ(detector.shakes(), 2u);
    detector.chord(start + milliseconds(10100));  // the same gesture
    EXPECT_EQ(detector.shakes(), 2u);
}

}  // namespace
}  // namespace kestro
