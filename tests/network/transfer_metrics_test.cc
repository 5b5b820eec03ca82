// The phases of each transfer, as the session's loop measures them with libcurl.
#include <gtest/gtest.h>

#include <chrono>

#include "kestro/network/url_session.h"
#include "network/url_test_util.h"
#include "support/http_server.h"

namespace kestro {
namespace {

using test::HttpReply;
using test::HttpServer;
using test::load;
using test::Outcome;

double sum(const URLSessionTaskMetrics& m) {
    return m.nameLookup + m.connect + m.tls + m.firstByte + m.transfer;
}

void expectSane(const URLSessionTaskMetrics& m) {
    for (double phase : {m.nameLookup, m.connect, m.tls, m.firstByte, m.transfer}) {
        EXPECT_GE(phase, 0);
        EXPECT_LT(phase, 10'000);
    }
}

TEST(TransferMetricsTest, PlainTransferHasNoTLSAndAReusedConnectionNoSetUp) {
    HttpServer server([](const test::ReceivedRequest& r) {
        HttpReply reply = HttpReply::text(200, "ok");
        if (r.target == "/slow") reply.delay = std::chrono::milliseconds(150);
        return reply;
    });
    URLSession session;
    Outcome first = load(session, server.url("/first"));
    ASSERT_TRUE(first.response && first.response->metrics);
    const URLSessionTaskMetrics fresh = *first.response->metrics;
    expectSane(fresh);
    EXPECT_EQ(fresh.tls, 0);
    EXPECT_GT(fresh.nameLookup + fresh.connect, 0);  // a new connection was made

    // The server waits before answering: the wait shows as time to the first byte, and the
    // kept-alive connection is reused (no lookup, no connect).
    Outcome slow = load(session, server.url("/slow"));
    ASSERT_TRUE(slow.response && slow.response->metrics);
    const URLSessionTaskMetrics reused = *slow.response->metrics;
    expectSane(reused);
    EXPECT_EQ(server.connectionCount(), 1u);
    EXPECT_EQ(reused.nameLookup, 0);
    EXPECT_EQ(reused.connect, 0);
    EXPECT_EQ(reused.tls, 0);
    EXPECT_GE(reused.firstByte, 140);
    EXPECT_GE(sum(reused), reused.firstByte);
}

TEST(TransferMetricsTest, TLSHandshakeIsItsOwnPhase) {
    HttpServer server([](const test::ReceivedRequest&) { return HttpReply::text(200, "ok"); },
                      HttpServer::Scheme::https);
    URLSessionConfiguration config;
    config.additionalTrustedCAPEM = server.certificatePem();
    URLSession session(config);
    Outcome o = load(session, server.url("/tls"));
    ASSERT_FALSE(o.error) << o.error->localizedDescription();
    ASSERT_TRUE(o.response && o.response->metrics);
    expectSane(*o.response->metrics);
    EXPECT_GT(o.response->metrics->tls, 0);
}

TEST(TransferMetricsTest, ReceivingASlowBodyIsTheTransferPhase) {
    HttpServer server([](const test::ReceivedRequest&) {
        HttpReply reply;
        reply.generatedBodySize = 3 * 256 * 1024;  // three pieces
        reply.pieceInterval = std::chrono::milliseconds(60);
        return reply;
    });
    URLSession session;
    Outcome o = load(session, server.url("/body"));
    ASSERT_TRUE(o.response && o.response->metrics);
    expectSane(*o.response->metrics);
    EXPECT_GE(o.response->metrics->transfer, 100);
}

}  // namespace
}  // namespace kestro
