// Streamed tasks: answers handed on as they arrive, on the network and through the
// interceptor, for bodies past what a collecting task accepts.

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>

#include "kestro/network/body_text.h"
#include "kestro/network/network_interceptor.h"
#include "kestro/network/url_session.h"
#include "support/http_server.h"
#include "support/wait.h"

namespace kestro {
namespace {

using test::HttpReply;
using test::HttpServer;

constexpr std::uint64_t kBodySize = 8 << 20;

// Checks the bytes against the server's pattern as they come, and what came in which order.
struct StreamWatch {
    std::mutex mutex;
    std::uint64_t received = 0;
    std::uint64_t firstWrongByte = UINT64_MAX;
    int heads = 0;
    int headStatus = 0;
    bool dataBeforeHead = false;
    std::uint64_t receivedAtCompletion = UINT64_MAX;
    test::Recorder<std::optional<URLError>> completions;
    std::optional<std::string> completionData;

    URLSessionStreamHandlers handlers() {
        URLSessionStreamHandlers h;
        h.response = [this](const HTTPURLResponse& r) {
            std::lock_guard lock(mutex);
            ++heads;
            headStatus = static_cast<int>(r.statusCode);
        };
        h.data = [this](std::string_view bytes) {
            std::lock_guard lock(mutex);
            if (heads == 0) dataBeforeHead = true;
            std::string expected(bytes.size(), '\0');
            test::fillPattern(received, expected.data(), expected.size());
            if (firstWrongByte == UINT64_MAX && bytes != expected) firstWrongByte = received;
            received += bytes.size();
        };
        return h;
    }
    URLSession::CompletionHandler completion() {
        return [this](std::optional<std::string> data, auto, std::optional<URLError> error) {
            {
                std::lock_guard lock(mutex);
                receivedAtCompletion = received;
                completionData = std::move(data);
            }
            completions.add(std::move(error));
        };
    }
};

HttpServer::Handler patternBody(bool gzip) {
    return [gzip](const test::ReceivedRequest&) {
        HttpReply reply;
        if (gzip) {
            // The server compresses only bodies it holds.
            reply.body.resize(kBodySize);
            test::fillPattern(0, reply.body.data(), reply.body.size());
            reply.gzip = reply.chunked = true;
        } else {
            reply.generatedBodySize = kBodySize;
        }
        reply.headers.emplace_back("Content-Type", "application/octet-stream");
        return reply;
    };
}

TEST(StreamingTaskTest, BodiesPastTheCollectingLimitArriveWholeInOrderBeforeTheCompletion) {
    URLSessionConfiguration cfg;
    cfg.maximumResponseBodySize = 1 << 20;  // a collecting task fails past this
    URLSession session(cfg);
    for (const bool gzip : {false, true}) {
        HttpServer server(patternBody(gzip));
        StreamWatch watch;
        auto task = session.streamingTask(URLRequest(server.url("/big")), watch.handlers(),
                                          watch.completion());
        task->resume();
        ASSERT_TRUE(watch.completions.waitFor(1, std::chrono::seconds(60)));
        EXPECT_FALSE(watch.completions.values()[0])
            << gzip << " " << watch.completions.values()[0]->localizedDescription();
        std::lock_guard lock(watch.mutex);
        EXPECT_EQ(watch.receivedAtCompletion, kBodySize);
        EXPECT_EQ(watch.firstWrongByte, UINT64_MAX);
        EXPECT_EQ(watch.heads, 1);
        EXPECT_EQ(watch.headStatus, 200);
        EXPECT_FALSE(watch.dataBeforeHead);
        EXPECT_EQ(watch.completionData, "");
    }
}

TEST(StreamingTaskTest, AnEmptyBodyStillGivesItsHeadAndACancelFromTheHandlerEndsTheStream) {
    URLSession session;
    HttpServer server([](const test::ReceivedRequest& r) {
        if (r.target == "/empty") return HttpReply::text(204, "");
        HttpReply reply;
        reply.generatedBodySize = kBodySize;
        return reply;
    });
    StreamWatch empty;
    session.streamingTask(URLRequest(server.url("/empty")), empty.handlers(), empty.completion())
        ->resume();
    ASSERT_TRUE(empty.completions.waitFor(1));
    EXPECT_EQ(empty.heads, 1);
    EXPECT_EQ(empty.headStatus, 204);

    // The handler may call into the layer: cancelling its own task from it neither deadlocks
    // nor hands on anything more.
    std::shared_ptr<URLSessionDataTask> task;
    std::atomic<int> callsAfterCancel{0};
    std::atomic<bool> cancelled{false};
    test::Recorder<std::optional<URLError>> done;
    URLSessionStreamHandlers handlers;
    handlers.data = [&](std::string_view) {
        if (cancelled.exchange(true)) {
            ++callsAfterCancel;
            return;
        }
        task->cancel();
    };
    task = session.streamingTask(URLRequest(server.url("/big")), handlers,
                                 [&](auto, auto, std::optional<URLError> e) { done.add(e); });
    task->resume();
    ASSERT_TRUE(done.waitFor(1));
    ASSERT_TRUE(done.values()[0]);
    EXPECT_TRUE(done.values()[0]->is(URLErrorCode::cancelled));
    EXPECT_EQ(callsAfterCancel.load(), 0);
}

// The application streams an answer through the interceptor: it gets every byte, while the
// capture keeps only the first ones and the size.
TEST(StreamingTaskTest, TheInterceptorPassesAStreamOnAndCapturesOnlyItsFirstBytes) {
    HttpServer server(patternBody(false));
    NetworkInterceptor interceptor(nullptr);
    test::Recorder<InterceptedRequestWrapper> reports;
    interceptor.setCallback([&](const InterceptedRequestWrapper& w) { reports.add(w); });
    interceptor.setMaxBodyBytes(1000);
    URLSessionConfiguration cfg;
    cfg.protocolClasses = {interceptor.protocolClass()};
    cfg.maximumResponseBodySize = 1 << 20;
    URLSession session(cfg);

    StreamWatch watch;
    session.streamingTask(URLRequest(server.url("/big")), watch.handlers(), watch.completion())
        ->resume();
    ASSERT_TRUE(watch.completions.waitFor(1, std::chrono::seconds(60)));
    EXPECT_FALSE(watch.completions.values()[0]);
    {
        std::lock_guard lock(watch.mutex);
        EXPECT_EQ(watch.receivedAtCompletion, kBodySize);
        EXPECT_EQ(watch.firstWrongByte, UINT64_MAX);
        EXPECT_EQ(watch.heads, 1);
    }
    ASSERT_TRUE(reports.waitFor(2));
    const InterceptedResponse response = *reports.values().at(1).response;
    EXPECT_EQ(response.bodyTotalBytes, static_cast<std::int64_t>(kBodySize));
    std::string first(1000, '\0');
    test::fillPattern(0, first.data(), first.size());
    EXPECT_EQ(base64Decode(response.body), first);

    // A collecting task through the interceptor keeps its own limit.
    test::Recorder<std::optional<URLError>> collected;
    session.dataTask(URLRequest(server.url("/big")), [&](auto, auto, auto e) { collected.add(e); })
        ->resume();
    ASSERT_TRUE(collected.waitFor(1, std::chrono::seconds(60)));
    ASSERT_TRUE(collected.values()[0]);
    EXPECT_TRUE(collected.values()[0]->is(URLErrorCode::dataLengthExceedsMaximum));
}

}  // namespace
}  // namespace kestro
