#include "kestro/core/console.h"

#include <gtest/gtest.h>

#include <regex>
#include <thread>
#include <vector>

#include "kestro/core/config.h"
#include "kestro/core/time_text.h"
#include "support/console_capture.h"
#include "support/scoped_env.h"

namespace kestro {
namespace {

constexpr LogLevel kLevels[] = {LogLevel::verbose, LogLevel::debug, LogLevel::info,
                                LogLevel::warning, LogLevel::error};

class ConsoleTest : public ::testing::Test {
  protected:
    void TearDown() override { setConsoleLevel(LogLevel::debug); }
};

// The whole table at once: verbose lines pass only under verbose and error; every other call
// level always passes.
TEST_F(ConsoleTest, LevelTableDecidesWhichLinesAreWritten) {
    std::string expected, actual;
    for (LogLevel configured : kLevels) {
        for (LogLevel call : kLevels) {
            setConsoleLevel(configured);
            test::ConsoleCapture console;
            printI("x", call);
            actual += console.text().empty() ? '.' : 'Y';
        }
        actual += '|';
    }
    EXPECT_EQ(actual, "YYYYY|.YYYY|.YYYY|.YYYY|YYYYY|");
    for (LogLevel configured : kLevels)
        for (LogLevel call : kLevels)
            EXPECT_EQ(consoleAllows(configured, call), call != LogLevel::verbose ||
                                                           configured == LogLevel::verbose ||
                                                           configured == LogLevel::error);
}

TEST_F(ConsoleTest, LineIsTimeStampAndTextEvenWhenEmpty) {
    test::ConsoleCapture console;
    printI("✅ done", LogLevel::info);
    printI("", LogLevel::error);
    const std::string text = console.text();
    EXPECT_TRUE(std::regex_match(text, std::regex(R"(\[\d\d:\d\d:\d\d\.\d{3}Z\] ✅ done\n)"
                                                  R"(\[\d\d:\d\d:\d\d\.\d{3}Z\] \n)")))
        << text;
}

TEST_F(ConsoleTest, DefaultCallLevelIsVerbose) {
    setConsoleLevel(LogLevel::debug);
    test::ConsoleCapture console;
    printI("hidden");
    EXPECT_EQ(console.text(), "");
    setConsoleLevel(LogLevel::error);
    printI("shown");
    EXPECT_NE(console.text().find("shown"), std::string::npos);
}

TEST_F(ConsoleTest, ConcurrentLinesNeverInterleave) {
    test::ConsoleCapture console;
    constexpr int kThreads = 8, kLines = 500;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            const std::string body(200, static_cast<char>('a' + t));
            for (int i = 0; i < kLines; ++i) printI(body, LogLevel::info);
        });
    }
    for (auto& th : threads) th.join();
    const std::string text = console.text();
    const std::regex line(R"(\[\d\d:\d\d:\d\d\.\d{3}Z\] ([a-h])\1{199})");
    std::size_t count = 0, start = 0;
    for (std::size_t nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1) {
        ASSERT_TRUE(std::regex_match(text.substr(start, nl - start), line));
        ++count;
    }
    EXPECT_EQ(count, static_cast<std::size_t>(kThreads * kLines));
}

TEST(TimeTextTest, FormatsAndConvertsPointsInTime) {
    using namespace std::chrono;
    const TimePoint t = TimePoint{} + seconds(1714566896) + milliseconds(789);
    EXPECT_EQ(timeOfDay(t), "12:34:56.789Z");
    EXPECT_EQ(iso8601WithMilliseconds(t), "2024-05-01T12:34:56.789Z");
    EXPECT_DOUBLE_EQ(secondsSince1970(t), 1714566896.789);
    EXPECT_EQ(fromSecondsSince1970(1714566896.789), t);
    // Microseconds survive the trip through a double for present-day times.
    const TimePoint precise = TimePoint{} + microseconds(1714566896123456LL);
    EXPECT_EQ(fromSecondsSince1970(secondsSince1970(precise)), precise);
    // Times outside the clock's range (a corrupt row, a hostile frame) are clamped to its ends,
    // which still format and convert back.
    const TimePoint far = fromSecondsSince1970(171456623456.0);  // the year 7403
    EXPECT_GT(far, TimePoint{} + hours(24 * 365 * 290));
    EXPECT_EQ(fromSecondsSince1970(secondsSince1970(far)), far);
    EXPECT_EQ(fromSecondsSince1970(1e300), far);
    EXPECT_LT(fromSecondsSince1970(-1e300), TimePoint{} - hours(24 * 365 * 290));
    EXPECT_EQ(fromSecondsSince1970(std::nan("")), TimePoint{});
    // Past 2038 a double of seconds no longer holds every microsecond: a time read from one
    // must still survive any number of further trips unchanged (4300000000.1, the year 2106,
    // moved by a microsecond per trip).
    std::uint64_t lcg = 12345;
    for (int i = 0; i < 20000; ++i) {
        lcg = lcg * 6364136223846793005ULL + 1442695040888963407ULL;
        const double magnitude = 2147483648.0 + static_cast<double>(lcg >> 11) * 0x1p-53 * 7.1e9;
        for (const double seconds : {magnitude, -magnitude}) {
            const TimePoint once = fromSecondsSince1970(seconds);
            ASSERT_EQ(fromSecondsSince1970(secondsSince1970(once)), once) << seconds;
        }
    }
    const TimePoint y2106 = fromSecondsSince1970(4300000000.1);
    EXPECT_EQ(fromSecondsSince1970(secondsSince1970(y2106)), y2106);
    EXPECT_FALSE(iso8601WithMilliseconds(far).empty());
    // Before 1970 the fraction is still a positive number of milliseconds.
    EXPECT_EQ(iso8601WithMilliseconds(TimePoint{} - milliseconds(1)), "1969-12-31T23:59:59.999Z");
    EXPECT_EQ(timeOfDay(TimePoint{} - milliseconds(1)), "23:59:59.999Z");
}

TEST(ConfigTest, EndpointsFollowEnvironmentAndOverrides) {
    test::ScopedEnv devHost("KESTRO_DEV_HOST", std::nullopt);
    test::ScopedEnv prodHost("KESTRO_PROD_HOST", std::nullopt);
    EXPECT_EQ(getAPIEndpoint(), "http://127.0.0.1:3007");
    EXPECT_EQ(getWSAPIEndpoint(), "ws://127.0.0.1:3007");
    EXPECT_TRUE(hasServiceHost(KestroEnvironment::dev));
    devHost.set("localhost");
    prodHost.set("127.0.0.2");
    EXPECT_TRUE(hasServiceHost(KestroEnvironment::prod));
    EXPECT_EQ(getAPIEndpoint(KestroEnvironment::dev), "http://localhost:3007");
    EXPECT_EQ(getAPIEndpoint(KestroEnvironment::prod), "https://127.0.0.2");
    EXPECT_EQ(getWSAPIEndpoint(KestroEnvironment::prod), "wss://127.0.0.2");
    // A development host may name its own port; a bracketed IPv6 address alone does not.
    devHost.set("127.0.0.1:4100");
    EXPECT_EQ(getAPIEndpoint(KestroEnvironment::dev), "http://127.0.0.1:4100");
    EXPECT_EQ(getWSAPIEndpoint(KestroEnvironment::dev), "ws://127.0.0.1:4100");
    devHost.set("[::1]:4100");
    EXPECT_EQ(getAPIEndpoint(KestroEnvironment::dev), "http://[::1]:4100");
    devHost.set("[::1]");
    EXPECT_EQ(getAPIEndpoint(KestroEnvironment::dev), "http://[::1]:3007");
}

// Production has no host of its own: only the build setting (none by default) or the
// environment names one, and an empty variable names none even where the build does.
TEST(ConfigTest, ProductionHasOnlyTheHostItIsGiven) {
    test::ScopedEnv prodHost("KESTRO_PROD_HOST", std::nullopt);
    const std::string built = KESTRO_BUILD_PROD_HOST;
    EXPECT_EQ(hasServiceHost(KestroEnvironment::prod), !built.empty());
    EXPECT_EQ(getAPIEndpoint(KestroEnvironment::prod), built.empty() ? "" : "https://" + built);
    EXPECT_EQ(getWSAPIEndpoint(KestroEnvironment::prod), built.empty() ? "" : "wss://" + built);
    prodHost.set("");
    EXPECT_FALSE(hasServiceHost(KestroEnvironment::prod));
    EXPECT_EQ(getAPIEndpoint(KestroEnvironment::prod), "");
    EXPECT_EQ(getWSAPIEndpoint(KestroEnvironment::prod), "");
}

TEST(ConfigTest, DictionaryAndEnableAllTouchOnlyTheirFields) {
    KestroConfig c(false, false, false, LogLevel::info, std::nullopt);
    const auto before = dictionary(c);
    c.events = true;
    c.environment = "dev";
    EXPECT_EQ(dictionary(c), before);
    c.events = false;
    c.enableAllBooleans();
    EXPECT_TRUE(c.logs);
    EXPECT_TRUE(c.network);
    EXPECT_FALSE(c.events);
    const KestroConfig start;
    EXPECT_EQ(start, KestroConfig(false, false, false, LogLevel::debug, std::nullopt));
}

}  // namespace
}  // namespace kestro
