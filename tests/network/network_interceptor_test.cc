#include "kestro/network/network_interceptor.h"

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "kestro/core/console.h"
#include "kestro/network/body_text.h"
#include "kestro/network/http.h"
#include "network/url_test_util.h"
#include "support/console_capture.h"
#include "support/http_server.h"
#include "support/wait.h"

namespace kestro {
namespace {

using namespace std::chrono_literals;
using test::HttpReply;
using test::HttpServer;
using test::Recorder;

// A request made through the shared session, as the application would make it.
http::Result fetch(URLRequest request) { return http::sendBlocking(std::move(request), 10s); }
http::Result fetch(const std::string& url) { return fetch(URLRequest(url)); }

// Starts capturing into a recorder and stops when the test ends.
struct Capture {
    std::shared_ptr<MockCache> cache = std::make_shared<MockCache>();
    NetworkInterceptor interceptor{cache};
    Recorder<InterceptedRequestWrapper> reports;

    Capture() {
        interceptor.startIntercepting(
            [this](const InterceptedRequestWrapper& w) { reports.add(w); });
    }
    ~Capture() { interceptor.stopIntercepting(); }
};

class NetworkInterceptorTest : public ::testing::Test {
  protected:
    void SetUp() override { setConsoleLevel(LogLevel::verbose); }
    void TearDown() override { setConsoleLevel(LogLevel::debug); }
};

TEST(NetworkInterceptorAdmission, PropertiesDecideWhichRequestsAreTakenOver) {
    struct Case {
        const char* what;
        std::optional<URLPropertyValue> skip;
        std::optional<URLPropertyValue> intercepted;
        bool admitted;
    };
    const std::vector<Case> cases = {
        {"plain request", {}, {}, true},
        {"SkipIntercept true (the SDK's own upload)", true, {}, false},
        {"SkipIntercept false", false, {}, true},
        {"SkipIntercept that is not a boolean", std::string("true"), {}, true},
        {"Intercepted true (a forwarded copy)", {}, true, false},
        {"Intercepted of any value", {}, std::string("no"), false},
        {"Intercepted wins over SkipIntercept false", false, true, false},
    };
    for (const auto& c : cases) {
        URLRequest request("http://127.0.0.1:1/x");
        if (c.skip) URLProtocol::setProperty(*c.skip, "SkipIntercept", request);
        if (c.intercepted) URLProtocol::setProperty(*c.intercepted, "Intercepted", request);
        EXPECT_EQ(NetworkInterceptorRequest::canInit(request), c.admitted) << c.what;
    }
}

TEST_F(NetworkInterceptorTest, ReportsStartAndResponseUnderOneIdAndForwardsACleanCopy) {
    HttpServer server([](const test::ReceivedRequest&) {
        return HttpReply::text(201, R"({"id":7})", "Application/JSON; charset=utf-8");
    });
    Capture capture;
    test::ConsoleCapture console;

    URLRequest request(server.url("/orders?page=2"));
    request.httpMethod = "POST";
    request.httpBody = R"({"sku":"A-1"})";
    request.setValue("application/json", "Content-Type");
    request.setValue("abc", "X-Trace");
    const auto result = fetch(request);

    ASSERT_FALSE(result.error) << result.summary();
    EXPECT_EQ(result.status, 201);
    EXPECT_EQ(result.body, R"({"id":7})");
    ASSERT_TRUE(capture.reports.waitFor(2));
    const auto reports = capture.reports.values();

    const auto& start = reports[0];
    ASSERT_TRUE(start.request && start.request->request);
    EXPECT_FALSE(start.response);
    EXPECT_EQ(start.request->request->url, server.url("/orders?page=2"));
    EXPECT_EQ(start.request->request->method, "POST");
    EXPECT_EQ(start.request->request->body, R"({"sku":"A-1"})");
    EXPECT_EQ(start.request->request->headers.at("X-Trace"), "abc");
    EXPECT_TRUE(start.request->startedAt);

    const auto& done = reports[1];
    EXPECT_FALSE(done.request);
    ASSERT_TRUE(done.response);
    EXPECT_EQ(done.requestId, start.requestId);
    ASSERT_TRUE(start.requestId);
    EXPECT_EQ(done.response->statusCode, 201);
    EXPECT_EQ(done.response->body, R"({"id":7})");  // a JSON type is reported as text
    EXPECT_EQ(done.response->headers.at("Content-Type"), "Application/JSON; charset=utf-8");
    EXPECT_TRUE(done.response->receivedAt);
    // A real exchange carries its phases; the wait for the answer is among them.
    ASSERT_TRUE(done.response->timings);
    EXPECT_GE(done.response->timings->firstByte, 0);

    // Only the application's own fields reached the server: properties never go on the wire.
    ASSERT_EQ(server.requestCount(), 1u);
    const auto received = server.requests()[0];
    EXPECT_EQ(received.method, "POST");
    EXPECT_EQ(received.body, R"({"sku":"A-1"})");
    EXPECT_EQ(received.header("X-Trace"), "abc");
    EXPECT_FALSE(received.header("Intercepted"));
    EXPECT_FALSE(received.header("Kes-Tro-Request-ID"));

    const std::string text = console.text();
    EXPECT_NE(text.find("📝 Intercept Req: POST:" + server.url("/orders?page=2")),
              std::string::npos);
    EXPECT_NE(
        text.find("⚡ Should mock: false POST:" + server.url("/orders?page=2") + "  hasSkip: -0"),
        std::string::npos);
}

TEST_F(NetworkInterceptorTest, ApplicationReceivesTheSameResponseWithAndWithoutCapture) {
    std::string png = "\x89PNG\r\n\x1a\n";
    for (int i = 0; i < 300; ++i) png.push_back(static_cast<char>(i * 37));
    struct Case {
        const char* what;
        HttpReply reply;
        std::string reportedBody;  // what the response report carries
    };
    HttpReply chunked = HttpReply::text(200, std::string(20000, 'c'), "text/plain");
    chunked.chunked = true;
    HttpReply gzip = HttpReply::text(200, std::string(5000, 'z'), "application/json");
    gzip.gzip = true;
    HttpReply nonUtf8 = HttpReply::text(200, "{\"a\":\"\xff\xfe\"}", "application/json");
    const std::vector<Case> cases = {
        {"text", HttpReply::text(200, "hello", "text/plain"), "hello"},
        {"json", HttpReply::text(404, R"({"e":1})", "application/json"), R"({"e":1})"},
        {"png", HttpReply::text(200, png, "image/png"), base64Encode(png)},
        {"svg counts as text", HttpReply::text(200, "<svg/>", "image/svg+xml"), "<svg/>"},
        {"chunked", chunked, std::string(20000, 'c')},
        {"gzip-encoded", gzip, std::string(5000, 'z')},
        {"json that is not UTF-8", nonUtf8, "[non-utf8 text]"},
    };
    for (const auto& c : cases) {
        HttpServer server([&](const test::ReceivedRequest&) { return c.reply; });
        const auto plain = fetch(server.url("/r"));
        ASSERT_FALSE(plain.error) << c.what;

        Capture capture;
        const auto captured = fetch(server.url("/r"));
        ASSERT_FALSE(captured.error) << c.what;
        EXPECT_EQ(captured.status, plain.status) << c.what;
        EXPECT_EQ(captured.body, plain.body) << c.what;
        auto withoutDate = [](HTTPHeaderFields h) {
            h.erase("Date");
            return h;
        };
        EXPECT_EQ(withoutDate(captured.headers), withoutDate(plain.headers)) << c.what;

        ASSERT_TRUE(capture.reports.waitFor(2)) << c.what;
        const auto done = capture.reports.values()[1];
        ASSERT_TRUE(done.response) << c.what;
        EXPECT_EQ(done.response->body, c.reportedBody) << c.what;
        EXPECT_EQ(done.response->statusCode, plain.status) << c.what;
    }
}

TEST_F(NetworkInterceptorTest, TransportFailuresReachTheApplicationAsWithoutCapture) {
    HttpReply midBody = HttpReply::text(200, std::string(100000, 'x'));
    midBody.fault = HttpReply::Fault::closeMidBody;
    HttpReply badStatus;
    badStatus.fault = HttpReply::Fault::invalidStatusLine;
    for (const auto& reply : {midBody, badStatus}) {
        HttpServer server([&](const test::ReceivedRequest&) { return reply; });
        const auto plain = fetch(server.url("/f"));
        ASSERT_TRUE(plain.error);

        Capture capture;
        const auto captured = fetch(server.url("/f"));
        ASSERT_TRUE(captured.error);
        EXPECT_EQ(captured.error->code, plain.error->code);
        EXPECT_EQ(captured.error->domain, plain.error->domain);
        // The start was reported; a failed load reports no response.
        ASSERT_TRUE(capture.reports.waitFor(1));
        EXPECT_EQ(capture.reports.size(), 1u);
    }
}

// The application's time-outs (the request's own, its session's idle and resource ones) apply
// whether or not capture takes the request: against a server that never answers, the
// application gets the same error at the same time. A request held at a breakpoint ends at its
// own time-out when that comes before the breakpoint's.
TEST_F(NetworkInterceptorTest, TheApplicationsTimeOutsApplyWithAndWithoutCapture) {
    HttpReply silent;
    silent.fault = HttpReply::Fault::neverAnswer;
    HttpServer server([&](const test::ReceivedRequest&) { return silent; });
    // Long enough that a loaded machine's scheduling (a quarter to half a second seen under
    // two sanitizer builds) stays well inside the tolerance below, which a second timer run
    // after the first (twice the limit) still exceeds.
    constexpr auto kLimit = 800ms;
    constexpr auto kTolerance = 600ms;
    struct Case {
        const char* what;
        std::optional<std::chrono::milliseconds> requestTimeout;
        std::optional<std::chrono::milliseconds> sessionRequestTimeout;
        std::optional<std::chrono::milliseconds> sessionResourceTimeout;
        bool heldAtBreakpoint = false;
    };
    const std::vector<Case> cases = {
        {"the request's timeoutInterval", kLimit, {}, {}},
        {"the session's request time-out", {}, kLimit, {}},
        {"the session's resource time-out", 60s, {}, kLimit},
        {"held at a breakpoint", kLimit, {}, {}, true},
    };
    struct Ended {
        std::optional<URLError> error;
        std::chrono::milliseconds after{};
    };
    auto load = [&](const Case& c, std::shared_ptr<const URLProtocolClass> capture) {
        URLSessionConfiguration cfg;
        if (c.sessionRequestTimeout) cfg.timeoutIntervalForRequest = *c.sessionRequestTimeout;
        if (c.sessionResourceTimeout) cfg.timeoutIntervalForResource = *c.sessionResourceTimeout;
        if (capture) cfg.protocolClasses = {std::move(capture)};
        URLSession session(cfg);
        URLRequest request(server.url("/silent"));
        request.timeoutInterval = c.requestTimeout;
        const auto begun = std::chrono::steady_clock::now();
        test::Fetch fetch(session, request);
        const test::Outcome outcome = fetch.resume().wait(5s);
        return Ended{outcome.error, std::chrono::duration_cast<std::chrono::milliseconds>(
                                        std::chrono::steady_clock::now() - begun)};
    };
    for (const auto& c : cases) {
        const Ended off = load(c, nullptr);
        Capture capture;
        capture.interceptor.setBreakPointEnabled(c.heldAtBreakpoint);
        const Ended on = load(c, capture.interceptor.protocolClass());
        ASSERT_TRUE(off.error && on.error) << c.what;
        EXPECT_TRUE(off.error->is(URLErrorCode::timedOut)) << c.what;
        EXPECT_EQ(*on.error, *off.error) << c.what << ": " << on.error->localizedDescription()
                                         << " / " << off.error->localizedDescription();
        EXPECT_GE(on.after, kLimit) << c.what;
        EXPECT_GE(off.after, kLimit) << c.what;
        EXPECT_NEAR(on.after.count(), off.after.count(), kTolerance.count()) << c.what;
        // The start was reported, and nothing is left held or loading.
        ASSERT_TRUE(capture.reports.waitFor(1)) << c.what;
        EXPECT_TRUE(test::waitUntil([&] {
            return capture.interceptor.semaphore().heldCount() == 0 &&
                   URLSession::activeTransferCount() == 0;
        })) << c.what;
    }
}

// Under capture the application's request is answered when the private load is complete; the
// bytes that load receives meanwhile count for the request's idle time-out, so a slow but
// steady answer is not cut off by it, with capture as without.
TEST_F(NetworkInterceptorTest, ASteadyAnswerOutlastsTheIdleTimeOutUnderCapture) {
    HttpReply steady = HttpReply::text(200, std::string(8 * 4096, 's'));
    steady.chunked = true;
    steady.pieceInterval = 100ms;  // 700 ms in all, never 300 ms without a byte
    HttpServer server([&](const test::ReceivedRequest&) { return steady; });
    URLRequest request(server.url("/steady"));
    request.timeoutInterval = 300ms;

    const auto plain = fetch(request);
    ASSERT_FALSE(plain.error) << plain.summary();
    Capture capture;
    const auto captured = fetch(request);
    ASSERT_FALSE(captured.error) << captured.summary();
    EXPECT_EQ(captured.body, plain.body);
    EXPECT_EQ(captured.body.size(), 8u * 4096);
}

TEST_F(NetworkInterceptorTest, MockRulesAnswerWithoutTheNetwork) {
    HttpServer server;
    Capture capture;
    test::ConsoleCapture console;
    MockCacheEntry rule;
    rule.url = server.url("/users/*");
    rule.statusCode = 404;
    rule.headers =
        std::map<std::string, std::string>{{"Content-Type", "application/json"}, {"X-Mock", "yes"}};
    rule.body = R"({"error":"gone"})";
    capture.cache->addToMockCache(rule.url, rule);

    const auto result = fetch(server.url("/users/42"));
    ASSERT_FALSE(result.error) << result.summary();
    EXPECT_EQ(result.status, 404);
    EXPECT_EQ(result.body, R"({"error":"gone"})");
    EXPECT_EQ(result.headers.at("X-Mock"), "yes");
    EXPECT_FALSE(result.headers.count("Kestro-Intercepted"));  // the application never sees it
    EXPECT_EQ(server.requestCount(), 0u);

    ASSERT_TRUE(capture.reports.waitFor(2));
    const auto done = capture.reports.values()[1];
    ASSERT_TRUE(done.response);
    EXPECT_EQ(done.response->statusCode, 404);
    EXPECT_EQ(done.response->headers.at("Kestro-Intercepted"), "true");
    EXPECT_EQ(done.response->headers.at("X-Mock"), "yes");
    EXPECT_EQ(done.response->body, R"({"error":"gone"})");
    EXPECT_FALSE(done.response->timings);  // nothing was measured
    EXPECT_NE(console.text().find("customStatusCode:: 404\n"), std::string::npos);
    EXPECT_NE(console.text().find("⚡ Should mock: true GET:" + server.url("/users/42") +
                                  "  hasSkip: -404"),
              std::string::npos);

    // A rule without status and body answers 200 with an empty body.
    MockCacheEntry bare;
    bare.url = server.url("/bare");
    capture.cache->addToMockCache(bare.url, bare);
    const auto empty = fetch(server.url("/bare"));
    ASSERT_FALSE(empty.error) << empty.summary();
    EXPECT_EQ(empty.status, 200);
    EXPECT_EQ(empty.body, "");
    EXPECT_EQ(server.requestCount(), 0u);
}

// A mock answers inside the start of the request, before its start report has been made: the
// response report of every request still comes after its start report.
TEST_F(NetworkInterceptorTest, EachRequestsStartReportPrecedesItsResponseReport) {
    HttpServer server;
    Capture capture;
    MockCacheEntry rule;
    rule.url = server.url("/fast/*");
    rule.body = "ok";
    capture.cache->addToMockCache(rule.url, rule);

    constexpr int kThreads = 4;
    constexpr int kPerThread = 50;
    Recorder<bool> answered;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) {
                http::get(server.url("/fast/" + std::to_string(t) + "-" + std::to_string(i)),
                          [&](http::Result r) { answered.add(r.ok() && r.body == "ok"); });
            }
        });
    }
    for (auto& thread : threads) thread.join();
    ASSERT_TRUE(answered.waitFor(kThreads * kPerThread));
    ASSERT_TRUE(capture.reports.waitFor(2 * kThreads * kPerThread));
    for (bool ok : answered.values()) EXPECT_TRUE(ok);

    std::map<std::string, int> seen;  // id -> reports so far
    for (const auto& report : capture.reports.values()) {
        ASSERT_TRUE(report.requestId);
        int& count = seen[report.requestId->string()];
        if (count == 0) {
            EXPECT_TRUE(report.request && !report.response) << "a response report came first";
        } else {
            EXPECT_TRUE(report.response && !report.request) << "a second start report";
        }
        ++count;
    }
    EXPECT_EQ(seen.size(), static_cast<std::size_t>(kThreads * kPerThread));
    EXPECT_EQ(server.requestCount(), 0u);
}

TEST_F(NetworkInterceptorTest, MediaRulesRedirectTheRealLoad) {
    HttpServer server([](const test::ReceivedRequest& r) {
        return HttpReply::text(200, "bytes of " + r.target, "image/jpeg");
    });
    Capture capture;
    MockCacheEntry media;
    media.url = server.url("/avatar.png");
    media.mockedUrl = server.url("/placeholder.jpg");
    media.headers = std::map<std::string, std::string>{{"Content-Type", "IMAGE/JPEG"}};
    capture.cache->addToMockCache(media.url, media);
    MockCacheEntry withoutTarget;
    withoutTarget.url = server.url("/video");
    withoutTarget.headers = std::map<std::string, std::string>{{"Accept", "video/mp4"}};
    capture.cache->addToMockCache(withoutTarget.url, withoutTarget);

    const auto redirected = fetch(server.url("/avatar.png"));
    ASSERT_FALSE(redirected.error) << redirected.summary();
    EXPECT_EQ(redirected.body, "bytes of /placeholder.jpg");
    ASSERT_TRUE(capture.reports.waitFor(2));
    // The start report names the URL the application asked for.
    EXPECT_EQ(capture.reports.values()[0].request->request->url, server.url("/avatar.png"));

    // A media rule without another URL loads the request's own.
    const auto own = fetch(server.url("/video"));
    ASSERT_FALSE(own.error) << own.summary();
    EXPECT_EQ(own.body, "bytes of /video");
}

TEST_F(NetworkInterceptorTest, HeldRequestsWaitForTheSwitchOffAndThenSeeNewRules) {
    HttpServer server([](const test::ReceivedRequest&) { return HttpReply::text(200, "real"); });
    Capture capture;
    test::ConsoleCapture console;
    capture.interceptor.setBreakPointEnabled(true);

    Recorder<http::Result> results;
    http::get(server.url("/one"), [&](http::Result r) { results.add(std::move(r)); });
    http::get(server.url("/two"), [&](http::Result r) { results.add(std::move(r)); });

    // Both starts are reported while the requests are held; nothing reached the server.
    ASSERT_TRUE(capture.reports.waitFor(2));
    ASSERT_TRUE(test::waitUntil([&] { return capture.interceptor.semaphore().heldCount() == 2; }));
    EXPECT_EQ(server.requestCount(), 0u);
    EXPECT_EQ(results.size(), 0u);
    EXPECT_NE(console.text().find("Waiting for breakpoint... " + server.url("/one")),
              std::string::npos);

    // A rule added while they are held applies once they go on.
    MockCacheEntry rule;
    rule.url = server.url("/two");
    rule.statusCode = 503;
    rule.body = "mocked";
    capture.cache->addToMockCache(rule.url, rule);

    capture.interceptor.setBreakPointEnabled(false);
    capture.interceptor.semaphore().release();  // one switch-off lets every held request go
    ASSERT_TRUE(results.waitFor(2));
    std::map<std::string, http::Result> byBody;
    for (auto& r : results.values()) byBody[r.body] = r;
    EXPECT_EQ(byBody.at("real").status, 200);
    EXPECT_EQ(byBody.at("mocked").status, 503);
    EXPECT_EQ(server.requestCount(), 1u);
    EXPECT_NE(console.text().find("Continue after breakpoint..."), std::string::npos);

    // A switch-off with nothing held leaves one spare permit: the next request passes.
    capture.interceptor.semaphore().release();
    capture.interceptor.setBreakPointEnabled(true);
    const auto passed = fetch(server.url("/three"));
    EXPECT_EQ(passed.status, 200);
    EXPECT_EQ(capture.interceptor.semaphore().sparePermits(), 0);
}

TEST_F(NetworkInterceptorTest, AHeldRequestGivesUpAfterItsTimeOutAndCancellingReleasesIt) {
    HttpServer server;
    Capture capture;
    capture.interceptor.setBreakPointEnabled(true);
    capture.interceptor.setBreakpointTimeout(200ms);

    const auto timedOut = fetch(server.url("/held"));
    ASSERT_TRUE(timedOut.error);
    EXPECT_TRUE(timedOut.error->is(URLErrorCode::timedOut)) << timedOut.summary();
    EXPECT_EQ(server.requestCount(), 0u);

    // An application that cancels a held request ends the hold at once.
    capture.interceptor.setBreakpointTimeout(std::chrono::seconds(60));
    Recorder<std::optional<URLError>> done;
    auto task = URLSession::shared().dataTask(
        URLRequest(server.url("/cancelled")),
        [&](auto, auto, std::optional<URLError> error) { done.add(error); });
    task->resume();
    ASSERT_TRUE(test::waitUntil([&] { return capture.interceptor.semaphore().heldCount() == 1; }));
    task->cancel();
    ASSERT_TRUE(done.waitFor(1));
    ASSERT_TRUE(done.values()[0]);
    EXPECT_TRUE(done.values()[0]->is(URLErrorCode::cancelled));
    EXPECT_TRUE(test::waitUntil([&] { return capture.interceptor.semaphore().heldCount() == 0; }));
}

TEST_F(NetworkInterceptorTest, CancellingTheApplicationRequestCancelsThePrivateLoad) {
    HttpReply silent;
    silent.fault = HttpReply::Fault::neverAnswer;
    HttpServer server([&](const test::ReceivedRequest&) { return silent; });
    Capture capture;
    const std::size_t before = URLSession::activeTransferCount();

    Recorder<std::optional<URLError>> done;
    auto task = URLSession::shared().dataTask(
        URLRequest(server.url("/slow")),
        [&](auto, auto, std::optional<URLError> error) { done.add(error); });
    task->resume();
    ASSERT_TRUE(server.waitForRequests(1));
    task->cancel();
    ASSERT_TRUE(done.waitFor(1));
    EXPECT_TRUE(done.values()[0] && done.values()[0]->is(URLErrorCode::cancelled));
    EXPECT_TRUE(test::waitUntil([&] { return URLSession::activeTransferCount() <= before; }));
}

TEST_F(NetworkInterceptorTest, StoppingLetsNewRequestsThroughUnreported) {
    HttpServer server;
    auto capture = std::make_unique<Capture>();
    ASSERT_FALSE(fetch(server.url("/a")).error);
    ASSERT_TRUE(capture->reports.waitFor(2));
    capture->interceptor.stopIntercepting();
    EXPECT_FALSE(capture->interceptor.isIntercepting());
    EXPECT_FALSE(capture->interceptor.hasCallback());

    ASSERT_FALSE(fetch(server.url("/b")).error);
    EXPECT_EQ(capture->reports.size(), 2u);
    EXPECT_EQ(server.requestCount(), 2u);
}

// Each interceptor registers a handler class of its own: the newest takes the requests, and
// stopping one interceptor leaves another's capture on.
TEST_F(NetworkInterceptorTest, EachInterceptorsRegistrationIsItsOwn) {
    HttpServer server;
    Capture first;
    Capture second;
    ASSERT_FALSE(fetch(server.url("/both")).error);
    ASSERT_TRUE(second.reports.waitFor(2));
    EXPECT_EQ(first.reports.size(), 0u);

    // The older one takes over again when the newer stops.
    second.interceptor.stopIntercepting();
    ASSERT_FALSE(fetch(server.url("/first")).error);
    ASSERT_TRUE(first.reports.waitFor(2));

    // Stopping the older one leaves the newer capturing.
    second.interceptor.startIntercepting(
        [&](const InterceptedRequestWrapper& w) { second.reports.add(w); });
    first.interceptor.stopIntercepting();
    ASSERT_FALSE(fetch(server.url("/second")).error);
    ASSERT_TRUE(second.reports.waitFor(4));
    EXPECT_EQ(first.reports.size(), 2u);
    EXPECT_EQ(server.requestCount(), 3u);
}

TEST_F(NetworkInterceptorTest, UploadsMarkedSkipInterceptAreNeverTakenOver) {
    HttpServer server;
    Capture capture;
    URLRequest own(server.url("/v1/requests"));
    URLProtocol::setProperty(true, "SkipIntercept", own);
    ASSERT_FALSE(fetch(own).error);
    EXPECT_EQ(server.requestCount(), 1u);
    EXPECT_EQ(capture.reports.size(), 0u);
}

}  // namespace
}  // namespace kestro
