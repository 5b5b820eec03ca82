// Redaction and body limits end to end: the application's requests go through the real
// interceptor to a loopback server, the reports through the real pipeline into a real SQLite
// file and to a loopback service.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <boost/json.hpp>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "kestro/core/utf8.h"
#include "kestro/facade/capture_pipeline.h"
#include "kestro/facade/kestro_internal.h"
#include "kestro/network/body_text.h"
#include "kestro/network/network_interceptor.h"
#include "kestro/network/url_session.h"
#include "kestro/remote/upload.h"
#include "kestro/store/request_store_sqlite.h"
#include "support/http_server.h"
#include "support/wait.h"

namespace kestro {
namespace {

using test::HttpReply;
using test::HttpServer;
using test::ReceivedRequest;

struct Answer {
    std::optional<std::string> data;
    std::optional<HTTPURLResponse> response;
    std::optional<URLError> error;
};

std::string fileBytes(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

class CaptureRedactionTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/kestro-redaction-XXXXXX";
        dir_ = mkdtemp(tmpl);
        store_ = std::make_unique<RequestStoreSQLite>(dir_ / "requests.sqlite");
        pipeline_ = std::make_unique<CapturePipeline>(CapturePipeline::Dependencies{
            .store = [this]() -> RequestStoreSQLite& { return *store_; },
            .apiEndpoint = [this] { return service_.url(""); },
            .apiKey = [] { return std::string("kt-dev-test"); },
            .deviceDictionary =
                [] {
                    return JSONDictionary{{"id", "DEVICE"}};
                },
            .send =
                [](std::string url, JSONDictionary body, std::string key) {
                    sendToServer(std::move(url), std::move(body), std::move(key));
                },
        });
        interceptor_.setCallback(
            [this](const InterceptedRequestWrapper& w) { pipeline_->handleNetworkReport(w); });
        URLSessionConfiguration cfg;
        cfg.protocolClasses = {interceptor_.protocolClass()};
        session_ = std::make_unique<URLSession>(cfg);
    }
    void TearDown() override {
        interceptor_.setCallback(nullptr);
        pipeline_.reset();
        store_.reset();
        std::filesystem::remove_all(dir_);
    }

    // The application's request, answered in full; then both reports have been uploaded.
    Answer load(URLRequest request, std::size_t uploadsAfter) {
        test::Recorder<Answer> done;
        auto task =
            session_->dataTask(std::move(request), [&done](auto data, auto response, auto error) {
                done.add({std::move(data), std::move(response), std::move(error)});
            });
        task->resume();
        EXPECT_TRUE(done.waitFor(1, std::chrono::seconds(30)));
        if (!done.values().empty() && done.values().front().error)
            ADD_FAILURE() << done.values().front().error->localizedDescription();
        EXPECT_TRUE(service_.waitForRequests(uploadsAfter, std::chrono::seconds(30)));
        return done.values().empty() ? Answer{} : done.values().front();
    }

    // The one stored exchange once it has its answer.
    RequestTypeRequest storedExchange() {
        std::optional<RequestTypeRequest> found;
        EXPECT_TRUE(test::waitUntil([&] {
            const auto all = store_->getAll();
            if (all.size() != 1 || !all[0].asNetworkRequest()) return false;
            found = *all[0].asNetworkRequest();
            return found->details.response.has_value();
        }));
        return found.value_or(RequestTypeRequest{});
    }

    // Everything the device kept or sent: the database file, its log, and every upload.
    std::string everythingKeptOrSent() const {
        std::string all = fileBytes(dir_ / "requests.sqlite");
        all += fileBytes(dir_ / "requests.sqlite-wal");
        for (const auto& r : service_.requests()) all += r.body;
        return all;
    }

    std::filesystem::path dir_;
    HttpServer service_;
    std::unique_ptr<RequestStoreSQLite> store_;
    std::unique_ptr<CapturePipeline> pipeline_;
    NetworkInterceptor interceptor_{nullptr};
    std::unique_ptr<URLSession> session_;
};

constexpr const char* kSecrets[] = {"HDR-SECRET", "COOKIE-SECRET",    "KEY-SECRET",
                                    "QTOKEN-1",   "QTOKEN-2",         "PW-SECRET",
                                    "PW2-SECRET", "SETCOOKIE-SECRET", "RESP-PW"};

TEST_F(CaptureRedactionTest, SecretsAreKeptOutOfTheStoreAndUploadsWhileTheApplicationGetsAll) {
    RedactionPolicy policy;
    policy.queryItems = {"token"};
    policy.jsonKeys = {"password"};
    pipeline_->setRedactionPolicy(policy);

    const std::string answerBody =
        R"({"ok":true,"items":[{"password":"RESP-PW"},{"password":"RESP-PW"}],"n":1.50})";
    HttpServer app([&](const ReceivedRequest&) {
        HttpReply reply = HttpReply::text(200, answerBody, "application/json");
        reply.headers.emplace_back("Set-Cookie", "sid=SETCOOKIE-SECRET; HttpOnly");
        return reply;
    });
    const std::string requestBody =
        R"({"user":"ann","creds":[{"password":"PW-SECRET"}],"password":"PW2-SECRET",)"
        R"("note":"the text \"password\": x is not a key"})";
    URLRequest request(app.url("/login?token=QTOKEN-1&user=ann&token=QTOKEN-2"));
    request.httpMethod = "POST";
    request.httpBody = requestBody;
    request.setValue("Bearer HDR-SECRET", "AUTHORIZATION");
    request.setValue("session=COOKIE-SECRET", "cookie");
    request.setValue("KEY-SECRET", "X-Api-Key");
    request.setValue("application/json", "Content-Type");

    const Answer answer = load(request, 2);

    // The application and the server see exactly what was sent and answered.
    EXPECT_EQ(answer.data, answerBody);
    ASSERT_TRUE(answer.response);
    EXPECT_EQ(answer.response->allHeaderFields.at("Set-Cookie"), "sid=SETCOOKIE-SECRET; HttpOnly");
    ASSERT_EQ(app.requests().size(), 1u);
    const ReceivedRequest received = app.requests().at(0);
    EXPECT_EQ(received.header("Authorization"), "Bearer HDR-SECRET");
    EXPECT_EQ(received.body, requestBody);
    EXPECT_EQ(received.target, "/login?token=QTOKEN-1&user=ann&token=QTOKEN-2");

    const RequestTypeRequest stored = storedExchange();
    const auto& sent = *stored.details.request;
    EXPECT_EQ(sent.url, app.url("/login?token=<redacted>&user=ann&token=<redacted>"));
    for (const auto& [name, value] : sent.headers) {
        if (name != "Content-Type") EXPECT_EQ(value, kRedactedText) << name;
    }
    EXPECT_EQ(sent.body,
              R"({"user":"ann","creds":[{"password":"<redacted>"}],"password":"<redacted>",)"
              R"("note":"the text \"password\": x is not a key"})");
    const auto& got = *stored.details.response;
    EXPECT_EQ(got.headers.at("Set-Cookie"), kRedactedText);
    EXPECT_EQ(got.body,
              R"({"ok":true,"items":[{"password":"<redacted>"},{"password":"<redacted>"}],)"
              R"("n":1.50})");

    const std::string kept = everythingKeptOrSent();
    ASSERT_GT(kept.size(), 0u);
    ASSERT_NE(kept.find("the text"), std::string::npos);  // the record is in there
    for (const char* secret : kSecrets) EXPECT_EQ(kept.find(secret), std::string::npos) << secret;
}

TEST_F(CaptureRedactionTest, NotCapturedExchangesLeaveNoTraceAndTheOffSwitchKeepsEverything) {
    HttpServer app([](const ReceivedRequest& r) {
        HttpReply reply = HttpReply::text(200, "answer to " + r.target);
        reply.headers.emplace_back("set-cookie", "sid=SETCOOKIE-SECRET");
        return reply;
    });
    RedactionPolicy policy;
    policy.notCaptured = {"127.0.0.1/private/*"};
    pipeline_->setRedactionPolicy(policy);

    // Not captured: answered as usual, nothing stored or uploaded. The exchange after it is
    // captured, so its uploads show the pipeline has seen both.
    URLRequest hidden(app.url("/private/report?token=QTOKEN-1"));
    hidden.setValue("Bearer HDR-SECRET", "Authorization");
    test::Recorder<Answer> done;
    auto task = session_->dataTask(hidden, [&done](auto data, auto response, auto) {
        done.add({std::move(data), std::move(response)});
    });
    task->resume();
    ASSERT_TRUE(done.waitFor(1));
    EXPECT_EQ(done.values()[0].data, "answer to /private/report?token=QTOKEN-1");

    pipeline_->setRedactionPolicy(RedactionPolicy::off());
    URLRequest open(app.url("/public"));
    open.setValue("Bearer HDR-SECRET", "Authorization");
    const Answer answer = load(open, 2);
    EXPECT_EQ(answer.data, "answer to /public");

    const RequestTypeRequest stored = storedExchange();
    EXPECT_EQ(stored.details.request->url, app.url("/public"));
    EXPECT_EQ(stored.details.request->headers.at("Authorization"), "Bearer HDR-SECRET");
    EXPECT_EQ(stored.details.response->headers.at("Set-Cookie"), "sid=SETCOOKIE-SECRET");
    EXPECT_EQ(service_.requestCount(), 2u);
    EXPECT_EQ(everythingKeptOrSent().find("QTOKEN-1"), std::string::npos);
}

TEST_F(CaptureRedactionTest, ABodyThatClaimsJSONAndIsNotIsKeptOrDroppedByItsURL) {
    const std::string notJSON = R"({"password": "PW-SECRET", oops})";
    HttpServer app(
        [&](const ReceivedRequest&) { return HttpReply::text(200, notJSON, "application/json"); });
    RedactionPolicy policy;
    policy.jsonKeys = {"password"};
    pipeline_->setRedactionPolicy(policy);
    EXPECT_EQ(load(URLRequest(app.url("/a")), 2).data, notJSON);
    EXPECT_EQ(storedExchange().details.response->body, notJSON);  // no rule drops it

    store_->deleteAll();
    policy.dropBodiesNotJSON = {"127.0.0.1/b*"};
    pipeline_->setRedactionPolicy(policy);
    EXPECT_EQ(load(URLRequest(app.url("/b")), 4).data, notJSON);
    EXPECT_EQ(storedExchange().details.response->body, kRedactedText);
}

// A text body of two-byte characters cut at an odd size: the cut falls inside a character.
TEST_F(CaptureRedactionTest, BodiesPastTheLimitAreCutAndMarkedWhileTheApplicationGetsAll) {
    std::string text;
    for (int i = 0; i < 1'500'000; ++i) text += i % 1000 == 0 ? "\n" : "é";
    const std::int64_t total = std::ssize(text);
    HttpServer app([&](const ReceivedRequest& r) {
        if (r.target == "/binary") {
            HttpReply reply;
            reply.generatedBodySize = 3 << 20;
            reply.headers.emplace_back("Content-Type", "application/octet-stream");
            return reply;
        }
        return HttpReply::text(200, text, "text/plain; charset=utf-8");
    });
    interceptor_.setMaxBodyBytes(1 << 20);
    ASSERT_EQ((text[1 << 20] & 0xC0), 0x80);  // the limit cuts a character in two

    URLRequest upload(app.url("/text"));
    upload.httpMethod = "POST";
    upload.httpBody = text;
    const Answer answer = load(upload, 2);
    ASSERT_TRUE(answer.data);
    EXPECT_EQ(*answer.data, text);  // whole
    EXPECT_EQ(app.requests().at(0).body, text);

    RequestTypeRequest stored = storedExchange();
    for (const std::string* body :
         {&stored.details.request->body, &stored.details.response->body}) {
        EXPECT_EQ(body->size(), (std::size_t{1} << 20) - 1);  // up to the last whole character
        EXPECT_TRUE(isValidUTF8(*body));
        EXPECT_EQ(*body, text.substr(0, body->size()));
    }
    EXPECT_EQ(stored.details.request->bodyTotalBytes, total);
    EXPECT_EQ(stored.details.response->bodyTotalBytes, total);
    // The stored row and the uploads are valid JSON carrying the mark.
    for (const auto& r : service_.requests()) {
        const auto object = boost::json::parse(r.body).as_object();
        const auto& half = object.at("details").as_object();
        const auto& which = half.contains("response") ? half.at("response") : half.at("request");
        EXPECT_EQ(which.as_object().at("bodyTotalBytes").as_int64(), total);
    }

    // A body that is not text: the base64 of exactly its first bytes.
    store_->deleteAll();
    interceptor_.setMaxBodyBytes(1000);
    const Answer binary = load(URLRequest(app.url("/binary")), 4);
    ASSERT_TRUE(binary.data);
    ASSERT_EQ(binary.data->size(), std::size_t{3} << 20);
    std::string expected(3 << 20, '\0');
    test::fillPattern(0, expected.data(), expected.size());
    EXPECT_EQ(*binary.data, expected);
    stored = storedExchange();
    EXPECT_EQ(stored.details.response->bodyTotalBytes, 3 << 20);
    EXPECT_EQ(base64Decode(stored.details.response->body), expected.substr(0, 1000));
}

// The facade's settings reach the pipeline and the interceptor, from the configuration and at
// run time, and the configuration keeps what is in force.
TEST(FacadeCapturePolicyTest, TheConfigurationAndTheRunTimeCallsSetThePolicyAndTheLimit) {
    KestroInternal k;
    EXPECT_EQ(k.redactionPolicy(), RedactionPolicy{});
    EXPECT_EQ(k.maxBodyBytes(), kDefaultMaxBodyBytes);

    KestroConfig config;
    config.redaction.jsonKeys = {"password"};
    config.maxBodyBytes = 4096;
    k.setConfig(config);
    EXPECT_EQ(k.redactionPolicy(), config.redaction);
    EXPECT_EQ(k.maxBodyBytes(), 4096);
    EXPECT_EQ(k.getNetworkInterceptor().maxBodyBytes(), 4096);

    k.setRedactionPolicy(RedactionPolicy::off());
    k.setMaxBodyBytes(0);
    EXPECT_FALSE(k.redactionPolicy().enabled);
    EXPECT_FALSE(k.getConfig().redaction.enabled);
    EXPECT_EQ(k.getConfig().maxBodyBytes, 0);
    EXPECT_EQ(k.getNetworkInterceptor().maxBodyBytes(), 0);
}

}  // namespace
}  // namespace kestro
