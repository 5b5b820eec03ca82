#include "kestro/remote/upload.h"

#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/json/parse.hpp>
#include <limits>

#include "kestro/network/url_protocol.h"
#include "support/http_server.h"
#include "support/wait.h"

namespace kestro {
namespace {

using test::HttpReply;
using test::HttpServer;
using test::Recorder;

// Declines everything but remembers how each offered request was marked.
class Observer : public URLProtocol {
  public:
    using URLProtocol::URLProtocol;
    static inline Recorder<std::optional<URLPropertyValue>> offered;
    static bool canInit(const URLRequest& r) {
        offered.add(URLProtocol::property("SkipIntercept", r));
        return false;
    }
    void startLoading() override {}
    void stopLoading() override {}
};

JSONDictionary sampleRecord() {
    return boost::json::parse(R"({"eventType":"log","id":"6A1B","timestamp":1714567890.5,
        "details":{"message":"hi","line":12,"tags":["a","b",{"deep":null}]},
        "device":{"platform":"linux","sdkVersion":"1.4.402"}})")
        .as_object();
}

UploadResult upload(const std::string& url, JSONDictionary data = sampleRecord()) {
    Recorder<UploadResult> results;
    sendToServer(url, std::move(data), "key-123 with spaces",
                 [&](UploadResult r) { results.add(std::move(r)); });
    if (!results.waitFor(1)) {
        ADD_FAILURE() << "no completion";
        return UploadResult::failure(URLError("none", 0));
    }
    return results.values()[0];
}

TEST(UploadTest, PostsTheDictionaryWithKeyAndMarksTheRequestAsOwn) {
    URLProtocol::registerClass<Observer>();
    HttpServer server(
        [](const test::ReceivedRequest&) { return HttpReply::text(200, "{\"ok\":1}"); });
    const JSONDictionary data = sampleRecord();
    UploadResult r = upload(server.url("/v1/requests"), data);
    URLProtocol::unregisterClass<Observer>();

    ASSERT_TRUE(r.isSuccess());
    EXPECT_EQ(*r.body(), "{\"ok\":1}");
    const auto received = server.requests();
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].method, "POST");
    EXPECT_EQ(received[0].target, "/v1/requests");
    EXPECT_EQ(received[0].header("Api-Key"), "key-123 with spaces");
    EXPECT_EQ(received[0].header("Content-Type"), "application/json");
    EXPECT_EQ(boost::json::parse(received[0].body), boost::json::value(data));
    EXPECT_EQ(received[0].body.find(' '), std::string::npos);  // compact
    EXPECT_EQ(received[0].body.find('\n'), std::string::npos);

    ASSERT_GE(Observer::offered.size(), 1u);
    EXPECT_EQ(Observer::offered.values().back(), URLPropertyValue(true));

    auto request = remote::internal::makeUploadRequest("http://127.0.0.1:1/v1/devices", data, "k");
    ASSERT_TRUE(request);
    EXPECT_EQ(request->timeoutInterval, std::chrono::seconds(60));
    EXPECT_EQ(request->cachePolicy, URLRequestCachePolicy::useProtocolCachePolicy);
    EXPECT_EQ(request->allHTTPHeaderFields.size(), 2u);

    // A dictionary holding a number with no JSON form goes out with no body rather than with
    // text that is not JSON.
    JSONDictionary unwritable = data;
    unwritable["details"] = boost::json::object{{"ratio", std::numeric_limits<double>::infinity()}};
    request = remote::internal::makeUploadRequest("http://127.0.0.1:1/v1/devices", unwritable, "k");
    ASSERT_TRUE(request);
    EXPECT_FALSE(request->httpBody);
}

TEST(UploadTest, ResultCasesInOrder) {
    HttpServer server([](const test::ReceivedRequest& r) {
        const int status = std::stoi(r.target.substr(1));
        return HttpReply::text(status, status == 500 ? "server exploded" : "");
    });
    for (int status : {200, 204, 299}) {
        UploadResult r = upload(server.url("/" + std::to_string(status)));
        ASSERT_TRUE(r.isSuccess()) << status;
        EXPECT_EQ(*r.body(), "") << status;
    }
    for (int status : {300, 404, 500}) {
        UploadResult r = upload(server.url("/" + std::to_string(status)));
        ASSERT_FALSE(r.isSuccess()) << status;
        EXPECT_EQ(*r.error(),
                  URLError("HTTPError", status,
                           "Server responded with status code " + std::to_string(status)));
    }

    // Transport errors pass through unchanged.
    std::uint16_t closedPort = 0;
    {
        boost::asio::io_context io;
        boost::asio::ip::tcp::acceptor a(io, {boost::asio::ip::make_address("127.0.0.1"), 0});
        closedPort = a.local_endpoint().port();
    }
    UploadResult refused = upload("http://127.0.0.1:" + std::to_string(closedPort) + "/v1/devices");
    ASSERT_FALSE(refused.isSuccess());
    EXPECT_TRUE(refused.error()->is(URLErrorCode::cannotConnectToHost));

    // The decision order, including the cases a real transfer rarely produces: an error beats
    // a bad status, a bad status beats a body, and a finished transfer without any body
    // buffer is "No Data".
    using remote::internal::uploadResult;
    const HTTPURLResponse r500("http://h/", 500, "HTTP/1.1", {});
    const HTTPURLResponse r200("http://h/", 200, "HTTP/1.1", {});
    const URLError lost = URLError::make(URLErrorCode::networkConnectionLost);
    EXPECT_EQ(uploadResult("body", r500, lost), UploadResult::failure(lost));
    EXPECT_EQ(uploadResult("body", r500, std::nullopt).error()->code, 500);
    EXPECT_EQ(uploadResult(std::nullopt, r200, std::nullopt),
              UploadResult::failure(URLError("No Data", 0)));
    EXPECT_EQ(uploadResult(std::nullopt, std::nullopt, std::nullopt),
              UploadResult::failure(URLError("No Data", 0)));
    EXPECT_EQ(uploadResult(std::string(), std::nullopt, std::nullopt), UploadResult::success(""));
}

TEST(UploadTest, InvalidURLSendsNothingAndNeverCompletes) {
    for (const char* bad : {"", "not a url", "/v1/requests", "http//missing-colon"}) {
        EXPECT_FALSE(remote::internal::makeUploadRequest(bad, sampleRecord(), "k")) << bad;
    }
    std::atomic<int> calls{0};
    sendToServer("not a url", sampleRecord(), "k", [&](UploadResult) { calls.fetch_add(1); });
    // A valid upload sent afterwards completes; the invalid one stays silent (bounded wait).
    HttpServer server;
    ASSERT_TRUE(upload(server.url("/v1/requests")).isSuccess());
    EXPECT_FALSE(test::waitUntil([&] { return calls.load() > 0; }, std::chrono::milliseconds(200)));
    EXPECT_EQ(server.requestCount(), 1u);
}

}  // namespace
}  // namespace kestro
