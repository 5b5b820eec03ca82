#include "kestro/facade/capture_pipeline.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <boost/json.hpp>
#include <filesystem>

#include "kestro/core/console.h"
#include "kestro/logging/print_interceptor.h"
#include "kestro/remote/upload.h"
#include "kestro/store/request_store_sqlite.h"
#include "support/console_capture.h"
#include "support/http_server.h"
#include "support/wait.h"

namespace kestro {
namespace {

using test::HttpServer;

// A real store in a fresh folder and a real service on loopback that answers 200.
class CapturePipelineTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/kestro-pipeline-XXXXXX";
        dir_ = mkdtemp(tmpl);
        store_ = std::make_unique<RequestStoreSQLite>(dir_ / "requests.sqlite");
        pipeline_ = std::make_unique<CapturePipeline>(CapturePipeline::Dependencies{
            .store = [this]() -> RequestStoreSQLite& { return *store_; },
            .apiEndpoint = [this] { return "http://127.0.0.1:" + std::to_string(server_.port()); },
            .apiKey = [] { return std::string("kt-dev-test"); },
            .deviceDictionary =
                [] {
                    return JSONDictionary{{"id", "DEVICE"}, {"platform", "linux"}};
                },
            .send =
                [](std::string url, JSONDictionary body, std::string key) {
                    sendToServer(std::move(url), std::move(body), std::move(key));
                },
        });
        setConsoleLevel(LogLevel::verbose);
    }
    void TearDown() override {
        setConsoleLevel(LogLevel::debug);
        pipeline_.reset();
        store_.reset();
        std::filesystem::remove_all(dir_);
    }
    std::vector<boost::json::object> uploads(std::size_t n) {
        EXPECT_TRUE(server_.waitForRequests(n));
        std::vector<boost::json::object> bodies;
        for (const auto& r : server_.requests()) {
            EXPECT_EQ(r.target, "/v1/requests");
            EXPECT_EQ(r.header("Api-Key"), "kt-dev-test");
            bodies.push_back(boost::json::parse(r.body).as_object());
        }
        return bodies;
    }

    std::filesystem::path dir_;
    HttpServer server_;
    std::unique_ptr<RequestStoreSQLite> store_;
    std::unique_ptr<CapturePipeline> pipeline_;
};

InterceptedRequestWrapper startReport(const UUID& id) {
    InterceptedRequestWrapper w;
    InterceptedRequest::Copy copy{"https://api.example.com/orders",
                                  "POST",
                                  {{"Accept", "application/json"}},
                                  R"({"sku":"A"})"};
    w.request = InterceptedRequest{copy, std::chrono::system_clock::now()};
    w.requestId = id;
    return w;
}

InterceptedRequestWrapper responseReport(const std::optional<UUID>& id, std::int64_t status) {
    InterceptedRequestWrapper w;
    w.response = InterceptedResponse{status,
                                     {{"Content-Type", "application/json"}},
                                     R"({"ok":1})",
                                     std::chrono::system_clock::now()};
    w.response->timings = URLSessionTaskMetrics{0.5, 1.25, 3, 20.5, 2};
    w.requestId = id;
    return w;
}

TEST_F(CapturePipelineTest, AnExchangeIsUploadedTwiceAndStoredOnceWithBothHalves) {
    test::ConsoleCapture console;
    const UUID id = UUID::random();
    pipeline_->handleNetworkReport(startReport(id));
    pipeline_->handleNetworkReport(responseReport(id, 201));

    const auto bodies = uploads(2);
    for (const auto& body : bodies) {
        EXPECT_EQ(body.at("id").as_string(), id.string());
        EXPECT_EQ(body.at("eventType").as_string(), "networkRequest");
        EXPECT_EQ(body.at("device").as_object().at("id").as_string(), "DEVICE");
    }
    // One body carries only the request half, the other only the response half (the two
    // uploads run concurrently, so they may arrive in either order).
    int requestHalves = 0, responseHalves = 0;
    for (const auto& body : bodies) {
        const auto& details = body.at("details").as_object();
        EXPECT_NE(details.contains("request"), details.contains("response"));
        requestHalves += details.contains("request");
        responseHalves += details.contains("response");
    }
    EXPECT_EQ(requestHalves, 1);
    EXPECT_EQ(responseHalves, 1);

    const auto all = store_->getAll();
    ASSERT_EQ(all.size(), 1u);
    const RequestTypeRequest* stored = all[0].asNetworkRequest();
    ASSERT_TRUE(stored);
    ASSERT_TRUE(stored->details.request);
    EXPECT_EQ(stored->details.request->url, "https://api.example.com/orders");
    EXPECT_EQ(stored->details.request->body, R"({"sku":"A"})");
    ASSERT_TRUE(stored->details.response);
    EXPECT_EQ(stored->details.response->statusCode, 201);
    EXPECT_EQ(stored->details.response->timings,
              (RequestTypeRequestTimings{0.5, 1.25, 3, 20.5, 2}));

    const std::string text = console.text();
    EXPECT_NE(text.find("✉️ SEND_REQ_TO_SERVER POST:https://api.example.com/orders ID: " +
                        id.string() + " IS_RESPONSE: false"),
              std::string::npos);
    EXPECT_NE(text.find("✉️ SEND_REQ_TO_SERVER : ID: " + id.string() + " IS_RESPONSE: true"),
              std::string::npos);
}

TEST_F(CapturePipelineTest, ReportsWithoutIdOrWithAnotherKindsIdFollowTheMergeRule) {
    test::ConsoleCapture console;
    // No id: stored under the empty id, and a second such report updates that item.
    pipeline_->handleNetworkReport(responseReport(std::nullopt, 500));
    pipeline_->handleNetworkReport(responseReport(std::nullopt, 502));
    EXPECT_NE(console.text().find(" ID: - IS_RESPONSE: true"), std::string::npos);
    auto all = store_->getAll();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].id(), "");
    EXPECT_EQ(all[0].asNetworkRequest()->details.response->statusCode, 502);

    // An id already used by a log line: uploaded, not stored.
    const UUID shared = UUID::random();
    RequestTypeLog log;
    log.id = shared.string();
    log.type = "log";
    log.level = "info";
    log.sentAt = log.createdAt = std::chrono::system_clock::now();
    pipeline_->handleLogRecord(log);
    pipeline_->handleNetworkReport(responseReport(shared, 200));
    uploads(4);
    all = store_->getAll();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_TRUE(store_->getById(shared.string())->asLog());
}

TEST_F(CapturePipelineTest, LogLinesAndEventsAreUploadedAndStored) {
    test::ConsoleCapture console;
    RequestTypeLog log;
    log.id = newUUIDString();
    log.type = "log";
    log.level = "warn";
    log.sentAt = log.createdAt = std::chrono::system_clock::now();
    log.details.message = "cache is 93.5 % full";
    pipeline_->handleLogRecord(log);
    const RequestTypeEvent event =
        pipeline_->logEvent("checkout", "shop", JSONDictionary{{"total", 31.5}, {"items", 2}});

    auto bodies = uploads(2);
    if (bodies[0].at("eventType").as_string() != "log") std::swap(bodies[0], bodies[1]);
    EXPECT_EQ(bodies[0].at("eventType").as_string(), "log");
    EXPECT_EQ(bodies[1].at("eventType").as_string(), "customEvent");
    const auto& payload = bodies[1].at("details").as_object().at("payload").as_object();
    EXPECT_EQ(payload.at("items").as_int64(), 2);
    EXPECT_EQ(payload.at("total").as_double(), 31.5);

    ASSERT_EQ(store_->getAll().size(), 2u);
    EXPECT_EQ(store_->getById(log.id)->asLog()->details.message, "cache is 93.5 % full");
    EXPECT_EQ(store_->getById(event.id)->asCustomEvent()->details.name, "checkout");
    EXPECT_NE(console.text().find("📡 SEND_LOG_TO_SERVER cache is 93.5 % full"), std::string::npos);
}

// Texts with ill-formed UTF-8 (a log line's message, file path, subsystem and category; an
// event's name, category and payload texts, keys included; a request's header fields) are
// repaired where the records are built, so each record is stored and uploaded as JSON.
TEST_F(CapturePipelineTest, IllFormedUTF8IsRepairedSoEveryRecordIsStoredAndUploaded) {
    const std::string fffd = "\xEF\xBF\xBD";
    test::ConsoleCapture console;
    PrintInterceptor::startIntercepting(
        [this](const RequestTypeLog& record) { pipeline_->handleLogRecord(record); });
    PrintInterceptor::log({.level = "warn",
                           .subsystem = "sub\xC3",
                           .category = "\xE2\x82(cat)",
                           .file = "/src/\xFF\xFE"
                                   "dir/file\xC0.cc",
                           .line = 4},
                          "caf\xE9 au lait");
    ASSERT_TRUE(PrintInterceptor::flush());
    PrintInterceptor::stopIntercepting();
    pipeline_->logEvent("sign\xEDin",
                        "\xF5"
                        "acct",
                        JSONDictionary{{"note", "ok \xED\xA0\x80 end"},
                                       {"k\xFF", boost::json::array{"\xF0\x9F\x98", 1}}});
    const UUID id = UUID::random();
    InterceptedRequestWrapper start = startReport(id);
    start.request->request->headers["X-Legacy"] =
        "Stra\xDF"
        "e";
    pipeline_->handleNetworkReport(start);

    auto bodies = uploads(3);
    std::map<std::string, boost::json::object> byKind;
    for (auto& body : bodies) byKind[std::string(body.at("eventType").as_string())] = body;
    const auto& log = byKind["log"].at("details").as_object();
    EXPECT_EQ(log.at("message").as_string(), "caf" + fffd + " au lait");
    EXPECT_EQ(log.at("subsystem").as_string(), "sub" + fffd);
    EXPECT_EQ(log.at("category").as_string(), fffd + "(cat)");
    EXPECT_EQ(log.at("filePath").as_string(), "/src/" + fffd + fffd + "dir/file" + fffd + ".cc");
    EXPECT_EQ(log.at("file").as_string(), "file" + fffd + ".cc");
    const auto& event = byKind["customEvent"].at("details").as_object();
    EXPECT_EQ(event.at("name").as_string(), "sign" + fffd + "in");
    EXPECT_EQ(event.at("category").as_string(), fffd + "acct");
    const auto& payload = event.at("payload").as_object();
    EXPECT_EQ(payload.at("note").as_string(), "ok " + fffd + fffd + fffd + " end");
    EXPECT_EQ(payload.at("k" + fffd).as_array().at(0).as_string(), fffd);
    const auto& request = byKind["networkRequest"].at("details").at("request").as_object();
    EXPECT_EQ(request.at("headers").at("X-Legacy").as_string(), "Stra" + fffd + "e");

    EXPECT_EQ(store_->getAll().size(), 3u);
    EXPECT_EQ(console.text().find("Encoding failed"), std::string::npos) << console.text();
}

// Without a service (production with no host) every kind of item is stored, none is sent.
TEST_F(CapturePipelineTest, WithoutAServiceItemsAreStoredAndNotSent) {
    int sent = 0;
    const CapturePipeline offline(CapturePipeline::Dependencies{
        .store = [this]() -> RequestStoreSQLite& { return *store_; },
        .apiEndpoint = [] { return std::string(); },
        .apiKey = [] { return std::string("kt-prod-test"); },
        .deviceDictionary = [] { return JSONDictionary{}; },
        .send = [&](std::string, JSONDictionary, std::string) { ++sent; },
    });
    test::ConsoleSilence quiet;
    const UUID id = UUID::random();
    offline.handleNetworkReport(startReport(id));
    offline.handleNetworkReport(responseReport(id, 200));
    RequestTypeLog log;
    log.id = newUUIDString();
    log.type = "log";
    offline.handleLogRecord(log);
    offline.logEvent("offline", "test", {});
    EXPECT_EQ(sent, 0);
    EXPECT_EQ(store_->getAll().size(), 3u);
    ASSERT_TRUE(store_->getById(id.string()).has_value());
    EXPECT_TRUE(store_->getById(id.string())->asNetworkRequest()->details.response.has_value());
}

}  // namespace
}  // namespace kestro
