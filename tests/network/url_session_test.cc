#include "kestro/network/url_session.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <strings.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "kestro/network/http.h"
#include "kestro/network/internal/loading_loop.h"
#include "network/url_test_util.h"
#include "support/certificate_authority.h"
#include "support/console_capture.h"
#include "support/http_server.h"

namespace kestro {
namespace {

using test::HttpReply;
using test::HttpServer;
using test::load;
using test::Outcome;

URLSession& session() {
    static URLSession s;
    return s;
}

TEST(URLSessionTest, GetAndPostRoundTrips) {
    HttpServer server([](const test::ReceivedRequest& r) {
        if (r.method == "GET") {
            HttpReply reply = HttpReply::text(200, "hello " + r.target);
            reply.headers.emplace_back("X-Answer", "42");
            return reply;
        }
        // Echo method and body back.
        return HttpReply::text(201, r.method + ":" + r.body, "application/octet-stream");
    });

    URLRequest get(server.url("/greet?who=me"));
    get.setValue("7", "x-request-id");
    const std::thread::id caller = std::this_thread::get_id();
    Outcome o = load(session(), get);
    ASSERT_FALSE(o.error) << o.error->localizedDescription();
    ASSERT_TRUE(o.response && o.data);
    EXPECT_EQ(*o.data, "hello /greet?who=me");
    EXPECT_EQ(o.response->statusCode, 200);
    EXPECT_EQ(o.response->httpVersion, "HTTP/1.1");
    EXPECT_EQ(o.response->url, server.url("/greet?who=me"));
    EXPECT_EQ(o.response->value("x-answer"), "42");
    EXPECT_NE(o.thread, caller);

    const std::string binary("a\0b\xff\r\n", 6);
    for (const char* method : {"POST", "PUT", "PATCH", "DELETE"}) {
        URLRequest r(server.url("/echo"));
        r.httpMethod = method;
        r.httpBody = binary;
        o = load(session(), r);
        ASSERT_FALSE(o.error) << method;
        EXPECT_EQ(o.response->statusCode, 201);
        EXPECT_EQ(*o.data, std::string(method) + ":" + binary) << method;
    }
    // A POST without body is sent with an empty one.
    URLRequest empty(server.url("/echo"));
    empty.httpMethod = "POST";
    o = load(session(), empty);
    EXPECT_EQ(o.data, "POST:");

    const auto received = server.requests();
    ASSERT_EQ(received.size(), 6u);
    EXPECT_EQ(received[0].method, "GET");
    EXPECT_EQ(received[0].target, "/greet?who=me");
    EXPECT_EQ(received[0].header("X-Request-Id"), "7");
    EXPECT_TRUE(received[0].header("User-Agent").value_or("").starts_with("kestro/"));
    EXPECT_FALSE(received[1].header("Expect").has_value());
    EXPECT_EQ(received[5].header("Content-Length"), "0");
}

// The header list given to libcurl is built by hand: every field must arrive once, with its
// value, whether it comes from the request or the session, and fields with an empty value too;
// none may smuggle in lines of its own.
TEST(URLSessionTest, RequestAndSessionHeaderFieldsAreSentOnceEach) {
    HttpServer server([](const test::ReceivedRequest&) { return HttpReply::text(200, "ok"); });
    URLSessionConfiguration cfg;
    cfg.httpAdditionalHeaders.emplace("X-App", "demo");
    cfg.httpAdditionalHeaders.emplace("X-Shared", "from the session");
    URLSession withExtras(cfg);

    URLRequest r(server.url("/h"));
    // Above 1 MiB libcurl would ask for "100-continue" unless told otherwise.
    r.httpMethod = "POST";
    r.httpBody = std::string(2 << 20, 'b');
    r.setValue("from the request", "x-shared");
    r.setValue("", "X-Empty");
    // A field cannot add lines of its own: it ends at a line break or NUL.
    r.setValue("a\r\nX-Injected: 1", "X-Broken");
    r.setValue(std::string("b\0X-Hidden: 2", 13), "X-Nul");
    for (int i = 0; i < 20; ++i)
        r.setValue(std::string(i * 10, 'v'), "X-Field-" + std::to_string(i));
    Outcome o = load(withExtras, r);
    ASSERT_FALSE(o.error) << o.error->localizedDescription();
    // A request with no fields of its own gets the session's.
    o = load(withExtras, URLRequest(server.url("/s")));
    ASSERT_FALSE(o.error) << o.error->localizedDescription();

    const auto received = server.requests();
    ASSERT_EQ(received.size(), 2u);
    const auto& first = received[0];
    EXPECT_EQ(first.header("X-App"), "demo");
    EXPECT_EQ(first.header("X-Shared"), "from the request");
    EXPECT_EQ(first.header("X-Empty"), "");
    EXPECT_EQ(first.header("X-Broken"), "a");
    EXPECT_EQ(first.header("X-Nul"), "b");
    EXPECT_FALSE(first.header("X-Injected").has_value());
    EXPECT_FALSE(first.header("X-Hidden").has_value());
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(first.header("X-Field-" + std::to_string(i)), std::string(i * 10, 'v')) << i;
    }
    EXPECT_FALSE(first.header("Expect").has_value());
    EXPECT_EQ(first.body.size(), 2u << 20);
    int shared = 0;
    for (const auto& [name, value] : first.headers)
        shared += strcasecmp(name.c_str(), "x-shared") == 0;
    EXPECT_EQ(shared, 1);
    EXPECT_EQ(received[1].header("X-Shared"), "from the session");
    EXPECT_FALSE(received[1].header("X-Empty").has_value());
}

TEST(URLSessionTest, ResponseHeadersAreCanonicalAndRepeatedFieldsJoined) {
    EXPECT_EQ(canonicalHeaderName("content-TYPE"), "Content-Type");
    EXPECT_EQ(canonicalHeaderName("x-a-b"), "X-A-B");
    EXPECT_EQ(canonicalHeaderName("ETAG"), "Etag");
    EXPECT_EQ(canonicalHeaderName(""), "");

    HttpServer server([](const test::ReceivedRequest&) {
        HttpReply reply;
        reply.headers = {{"content-type", "application/json"},
                         {"x-weird-HEADER", "v"},
                         {"set-cookie", "a=1"},
                         {"Set-Cookie", "b=2"}};
        reply.body = "{}";
        return reply;
    });
    Outcome o = load(session(), server.url());
    ASSERT_TRUE(o.response);
    const auto& h = o.response->allHeaderFields;
    std::vector<std::string> names;
    for (const auto& [name, value] : h) names.push_back(name);
    EXPECT_NE(std::find(names.begin(), names.end(), "Content-Type"), names.end());
    EXPECT_NE(std::find(names.begin(), names.end(), "X-Weird-Header"), names.end());
    EXPECT_EQ(o.response->value("SET-COOKIE"), "a=1, b=2");
    EXPECT_EQ(o.response->expectedContentLength(), 2);
}

TEST(URLSessionTest, SequentialRequestsReuseOneConnection) {
    HttpServer server;
    for (int i = 0; i < 5; ++i) {
        Outcome o = load(session(), server.url("/n" + std::to_string(i)));
        ASSERT_FALSE(o.error);
    }
    EXPECT_EQ(server.connectionCount(), 1u);
    for (const auto& r : server.requests()) EXPECT_EQ(r.connection, 1u);

    // An answer that closes the connection makes the next request open a new one.
    server.setHandler([](const test::ReceivedRequest&) {
        HttpReply r;
        r.closeConnection = true;
        return r;
    });
    ASSERT_FALSE(load(session(), server.url("/close")).error);
    ASSERT_FALSE(load(session(), server.url("/after")).error);
    EXPECT_EQ(server.connectionCount(), 2u);
}

TEST(URLSessionTest, HttpsIsVerifiedAgainstTheSystemStoreAndTheConfiguredAuthority) {
    HttpServer server([](const test::ReceivedRequest& r) { return HttpReply::text(200, r.target); },
                      HttpServer::Scheme::https);

    // Without the test authority the certificate is not trusted.
    Outcome untrusted = load(session(), server.url("/x"));
    ASSERT_TRUE(untrusted.error);
    EXPECT_TRUE(untrusted.error->is(URLErrorCode::serverCertificateUntrusted) ||
                untrusted.error->is(URLErrorCode::secureConnectionFailed))
        << untrusted.error->localizedDescription();

    URLSessionConfiguration pemConfig;
    pemConfig.additionalTrustedCAPEM = server.certificatePem();
    URLSession pemSession(pemConfig);
    for (const std::string& url : {server.url("/ip"), server.localhostUrl("/name")}) {
        Outcome o = load(pemSession, url);
        ASSERT_FALSE(o.error) << url << ": " << o.error->localizedDescription();
        EXPECT_EQ(o.response->statusCode, 200);
    }

    const auto file = std::filesystem::temp_directory_path() /
                      ("kestro-ca-" + std::to_string(server.port()) + ".pem");
    std::ofstream(file) << server.certificatePem();
    URLSessionConfiguration fileConfig;
    fileConfig.additionalTrustedCAFile = file.string();
    URLSession fileSession(fileConfig);
    Outcome viaFile = load(fileSession, server.url("/file"));
    std::filesystem::remove(file);
    ASSERT_FALSE(viaFile.error) << viaFile.error->localizedDescription();
    EXPECT_EQ(viaFile.data, "/file");
    for (const auto& r : server.requests()) EXPECT_TRUE(r.tls);
}

// Sets an environment variable for the lifetime of the object, and restores it after.
class ScopedEnv {
  public:
    ScopedEnv(const char* name, const std::string& value) : name_(name) {
        if (const char* old = std::getenv(name)) old_ = old;
        ::setenv(name, value.c_str(), 1);
    }
    ~ScopedEnv() {
        if (old_) {
            ::setenv(name_, old_->c_str(), 1);
        } else {
            ::unsetenv(name_);
        }
    }

  private:
    const char* name_;
    std::optional<std::string> old_;
};

// Authorities a test makes, and a server signed by each: one stands in for the system's trust
// store, one is given to a session as extra trust, one nobody trusts. The stand-in is put where
// the system store is looked for, in either form: a bundle file (SSL_CERT_FILE, with an empty
// SSL_CERT_DIR) or a folder of hashed certificates (SSL_CERT_DIR, with a bundle file holding an
// authority no server uses).
class TrustFixture {
  public:
    enum class Form { bundleFile, hashedFolder };

    TrustFixture() {
        std::string tmpl =
            (std::filesystem::temp_directory_path() / "kestro-trust-XXXXXX").string();
        if (!mkdtemp(tmpl.data())) throw std::runtime_error("mkdtemp");
        dir_ = tmpl;
    }
    ~TrustFixture() { std::filesystem::remove_all(dir_); }

    // Points the layer at the stand-in system store, in `form`, for the fixture's lifetime;
    // sessions made afterwards see it.
    void useSystemStore(Form form) {
        env_.clear();
        const auto folder = dir_ / (form == Form::bundleFile ? "empty" : "hashed");
        std::filesystem::create_directories(folder);
        const auto bundle = dir_ / (form == Form::bundleFile ? "system.pem" : "unused.pem");
        if (form == Form::bundleFile) {
            std::ofstream(bundle) << system.pem();
        } else {
            std::ofstream(bundle) << unused.pem();
            std::ofstream(folder / system.hashedFileName()) << system.pem();
        }
        env_.push_back(std::make_unique<ScopedEnv>("SSL_CERT_FILE", bundle.string()));
        env_.push_back(std::make_unique<ScopedEnv>("SSL_CERT_DIR", folder.string()));
    }
    std::string writeFile(const std::string& name, const std::string& text) const {
        std::ofstream(dir_ / name) << text;
        return (dir_ / name).string();
    }

    test::CertificateAuthority system{"Stand-in system authority"};
    test::CertificateAuthority extra{"Extra authority"};
    test::CertificateAuthority stranger{"Stranger authority"};
    test::CertificateAuthority unused{"Unused authority"};
    HttpServer bySystem{ok(), system.issueServerIdentity()};
    HttpServer byExtra{ok(), extra.issueServerIdentity()};
    HttpServer byStranger{ok(), stranger.issueServerIdentity()};

  private:
    static HttpServer::Handler ok() {
        return [](const test::ReceivedRequest&) { return HttpReply::text(200, "trusted"); };
    }
    std::filesystem::path dir_;
    std::vector<std::unique_ptr<ScopedEnv>> env_;
};

bool verifies(URLSession& session, const HttpServer& server) {
    const Outcome o = load(session, server.url("/t"));
    if (o.error) {
        EXPECT_TRUE(o.error->is(URLErrorCode::serverCertificateUntrusted) ||
                    o.error->is(URLErrorCode::secureConnectionFailed))
            << o.error->localizedDescription();
        return false;
    }
    return o.data == "trusted";
}

// The system's trust store is where OpenSSL's variables name it, a bundle file or a folder of
// hashed certificates, as it is when a session is made.
TEST(URLSessionTest, TheSystemTrustStoreIsWhereTheEnvironmentNamesIt) {
    TrustFixture trust;
    for (const auto form : {TrustFixture::Form::bundleFile, TrustFixture::Form::hashedFolder}) {
        SCOPED_TRACE(form == TrustFixture::Form::bundleFile ? "bundle file" : "hashed folder");
        trust.useSystemStore(form);
        URLSession session;
        EXPECT_TRUE(verifies(session, trust.bySystem));
        EXPECT_FALSE(verifies(session, trust.byExtra));
        EXPECT_FALSE(verifies(session, trust.byStranger));
    }
}

// Extra authorities are added to the system's trust store, never put in its place.
TEST(URLSessionTest, ExtraAuthoritiesAddToTheSystemTrustStore) {
    TrustFixture trust;
    const std::string extraFile = trust.writeFile("extra.pem", trust.extra.pem());
    for (const auto form : {TrustFixture::Form::bundleFile, TrustFixture::Form::hashedFolder}) {
        trust.useSystemStore(form);
        URLSessionConfiguration asText;
        asText.additionalTrustedCAPEM = trust.extra.pem();
        URLSessionConfiguration asFile;
        asFile.additionalTrustedCAFile = extraFile;
        for (const auto& cfg : {asText, asFile}) {
            SCOPED_TRACE(std::string(form == TrustFixture::Form::bundleFile ? "bundle file"
                                                                            : "hashed folder") +
                         (cfg.additionalTrustedCAFile ? ", extra as a file" : ", extra as text"));
            URLSession session(cfg);
            EXPECT_TRUE(verifies(session, trust.bySystem));
            EXPECT_TRUE(verifies(session, trust.byExtra));
            EXPECT_FALSE(verifies(session, trust.byStranger));
        }
    }
}

TEST(URLSessionTest, CompressedAndChunkedBodiesAreDecoded) {
    std::string text;
    for (int i = 0; i < 2000; ++i) text += "line " + std::to_string(i) + "\n";
    HttpServer server([&](const test::ReceivedRequest& r) {
        HttpReply reply = HttpReply::text(200, text);
        reply.gzip = r.target != "/chunked";
        reply.chunked = r.target != "/gzip";
        return reply;
    });
    for (const char* path : {"/gzip", "/chunked", "/both"}) {
        Outcome o = load(session(), server.url(path));
        ASSERT_FALSE(o.error) << path;
        EXPECT_EQ(o.data, text) << path;
    }
    const auto accept = server.requests()[0].header("Accept-Encoding").value_or("");
    EXPECT_NE(accept.find("gzip"), std::string::npos);
    EXPECT_NE(accept.find("br"), std::string::npos);
}

TEST(URLSessionTest, RedirectsAreFollowedAsABrowserWould) {
    HttpServer server([](const test::ReceivedRequest& r) {
        auto redirect = [](int status, std::string to) {
            HttpReply reply;
            reply.status = status;
            reply.headers.emplace_back("Location", std::move(to));
            return reply;
        };
        if (r.target == "/see-other") return redirect(303, "/final");
        if (r.target == "/moved") return redirect(301, "/final");
        if (r.target == "/temporary") return redirect(307, "/final");
        if (r.target.starts_with("/loop")) return redirect(302, "/loop" + r.target);
        return HttpReply::text(200, r.method + " " + r.body);
    });
    auto post = [&](const char* path) {
        URLRequest r(server.url(path));
        r.httpMethod = "POST";
        r.httpBody = "payload";
        return load(session(), r);
    };
    Outcome o = post("/see-other");
    EXPECT_EQ(o.data, "GET ");
    EXPECT_EQ(o.response->url, server.url("/final"));
    EXPECT_EQ(post("/moved").data, "GET ");
    EXPECT_EQ(post("/temporary").data, "POST payload");

    URLSessionConfiguration cfg;
    cfg.maximumRedirects = 3;
    URLSession limited(cfg);
    Outcome loop = load(limited, server.url("/loop"));
    ASSERT_TRUE(loop.error);
    EXPECT_TRUE(loop.error->is(URLErrorCode::httpTooManyRedirects));
}

TEST(URLSessionTest, CancellationCompletesOnceWithCancelled) {
    HttpServer server([](const test::ReceivedRequest&) {
        HttpReply r;
        r.fault = HttpReply::Fault::neverAnswer;
        return r;
    });
    test::Fetch running(session(), URLRequest(server.url("/held")));
    running.resume();
    ASSERT_TRUE(server.waitForRequests(1));
    running.task().cancel();
    running.task().cancel();
    Outcome o = running.wait();
    ASSERT_TRUE(o.error);
    EXPECT_TRUE(o.error->is(URLErrorCode::cancelled));
    EXPECT_EQ(running.task().state(), URLSessionDataTask::State::completed);
    ASSERT_TRUE(test::waitUntil([] { return URLSession::activeTransferCount() == 0; }));

    // Cancelled before it ever ran: completes once, and resume() no longer starts it.
    test::Fetch never(session(), URLRequest(server.url("/never")));
    never.task().cancel();
    never.resume();
    EXPECT_TRUE(never.wait().error->is(URLErrorCode::cancelled));

    // A later request through the same loop completes normally, and by then no second
    // completion of the cancelled tasks has arrived.
    server.setHandler({});
    EXPECT_FALSE(load(session(), server.url("/after")).error);
    EXPECT_EQ(running.completions(), 1u);
    EXPECT_EQ(never.completions(), 1u);
    EXPECT_EQ(server.requestCount(), 2u);
}

TEST(URLSessionTest, TimeOutsFire) {
    HttpServer server([](const test::ReceivedRequest& r) {
        HttpReply reply = HttpReply::text(200, "late");
        if (r.target == "/silent") reply.fault = HttpReply::Fault::neverAnswer;
        if (r.target == "/slow") reply.delay = std::chrono::milliseconds(100);
        return reply;
    });
    URLRequest silent(server.url("/silent"));
    silent.timeoutInterval = std::chrono::milliseconds(200);
    const auto start = std::chrono::steady_clock::now();
    Outcome o = load(session(), silent);
    ASSERT_TRUE(o.error);
    EXPECT_TRUE(o.error->is(URLErrorCode::timedOut)) << o.error->localizedDescription();
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));

    URLSessionConfiguration cfg;
    cfg.timeoutIntervalForRequest = std::chrono::milliseconds(150);
    URLSession quick(cfg);
    EXPECT_TRUE(load(quick, server.url("/silent")).error->is(URLErrorCode::timedOut));
    // A slow answer within the time-out arrives.
    Outcome slow = load(quick, server.url("/slow"));
    ASSERT_FALSE(slow.error);
    EXPECT_EQ(slow.data, "late");

    cfg.timeoutIntervalForRequest = std::chrono::seconds(30);
    cfg.timeoutIntervalForResource = std::chrono::milliseconds(200);
    URLSession resourceBound(cfg);
    EXPECT_TRUE(load(resourceBound, server.url("/silent")).error->is(URLErrorCode::timedOut));
}

TEST(URLSessionTest, TransportFaultsAreReportedOnce) {
    std::uint16_t closedPort = 0;
    {
        boost::asio::io_context io;
        boost::asio::ip::tcp::acceptor a(io, {boost::asio::ip::make_address("127.0.0.1"), 0});
        closedPort = a.local_endpoint().port();
    }
    Outcome refused = load(session(), "http://127.0.0.1:" + std::to_string(closedPort) + "/nobody");
    ASSERT_TRUE(refused.error);
    EXPECT_TRUE(refused.error->is(URLErrorCode::cannotConnectToHost))
        << refused.error->localizedDescription();
    EXPECT_FALSE(refused.response);

    HttpServer server([](const test::ReceivedRequest& r) {
        HttpReply reply = HttpReply::text(200, std::string(10000, 'x'));
        if (r.target == "/mid") reply.fault = HttpReply::Fault::closeMidBody;
        if (r.target == "/nothing") reply.fault = HttpReply::Fault::closeWithoutAnswer;
        if (r.target == "/garbage") reply.fault = HttpReply::Fault::invalidStatusLine;
        return reply;
    });
    Outcome mid = load(session(), server.url("/mid"));
    ASSERT_TRUE(mid.error);
    EXPECT_TRUE(mid.error->is(URLErrorCode::networkConnectionLost))
        << mid.error->localizedDescription();
    ASSERT_TRUE(mid.response);  // the head had arrived
    EXPECT_EQ(mid.response->statusCode, 200);
    EXPECT_FALSE(mid.data);

    Outcome nothing = load(session(), server.url("/nothing"));
    ASSERT_TRUE(nothing.error);
    EXPECT_TRUE(nothing.error->is(URLErrorCode::networkConnectionLost))
        << nothing.error->localizedDescription();

    Outcome garbage = load(session(), server.url("/garbage"));
    ASSERT_TRUE(garbage.error);
    EXPECT_TRUE(garbage.error->is(URLErrorCode::badServerResponse))
        << garbage.error->localizedDescription();

    for (const char* url : {"not a url", "http://", "/relative/path"}) {
        // Each right after a valid one: a URL is not taken for the last one checked.
        EXPECT_FALSE(load(session(), server.url("/ok")).error);
        Outcome bad = load(session(), url);
        ASSERT_TRUE(bad.error) << url;
        EXPECT_TRUE(bad.error->is(URLErrorCode::badURL)) << url;
    }
    EXPECT_TRUE(load(session(), "ftp://127.0.0.1/file").error->is(URLErrorCode::unsupportedURL));
    EXPECT_TRUE(load(session(), URLRequest()).error->is(URLErrorCode::badURL));

    // The layer still serves requests after all of that.
    server.setHandler({});
    EXPECT_FALSE(load(session(), server.url("/ok")).error);
}

TEST(URLSessionTest, LargeBodiesAreDeliveredIntactOrRefusedPastTheLimit) {
    // Large enough to need many reads and an odd tail (not a multiple of any buffer size),
    // small enough to stay cheap under the sanitizers.
    constexpr std::uint64_t kLarge = (32ull << 20) + 12345;
    HttpServer server([](const test::ReceivedRequest& r) {
        HttpReply reply;
        if (r.target == "/large") reply.generatedBodySize = kLarge;
        if (r.target == "/1gb") reply.generatedBodySize = 1ull << 30;
        if (r.target == "/chunked") {
            reply.generatedBodySize = 64ull << 20;
            reply.chunked = true;
        }
        return reply;
    });
    Outcome big = load(session(), URLRequest(server.url("/large")), std::chrono::seconds(60));
    ASSERT_FALSE(big.error) << big.error->localizedDescription();
    ASSERT_TRUE(big.data);
    ASSERT_EQ(big.data->size(), kLarge);
    std::string expected(1 << 20, '\0');
    std::uint64_t badBlocks = 0;
    for (std::uint64_t off = 0; off < kLarge; off += expected.size()) {
        const auto len =
            static_cast<std::size_t>(std::min<std::uint64_t>(expected.size(), kLarge - off));
        test::fillPattern(off, expected.data(), len);
        badBlocks += std::memcmp(big.data->data() + off, expected.data(), len) != 0;
    }
    EXPECT_EQ(badBlocks, 0u);
    big = {};

    // A declared 1 GB body is refused as soon as its head arrives, by the default limit.
    Outcome huge = load(session(), URLRequest(server.url("/1gb")), std::chrono::seconds(30));
    ASSERT_TRUE(huge.error);
    EXPECT_TRUE(huge.error->is(URLErrorCode::dataLengthExceedsMaximum));

    // A body of unknown length is cut off once it passes the limit.
    URLSessionConfiguration cfg;
    cfg.maximumResponseBodySize = 1 << 20;
    URLSession small(cfg);
    Outcome chunked = load(small, URLRequest(server.url("/chunked")), std::chrono::seconds(30));
    ASSERT_TRUE(chunked.error);
    EXPECT_TRUE(chunked.error->is(URLErrorCode::dataLengthExceedsMaximum));
    EXPECT_FALSE(load(small, server.url("/small")).error);
}

TEST(URLSessionTest, CompletionsMayWaitForOtherRequests) {
    HttpServer server(
        [](const test::ReceivedRequest& r) { return HttpReply::text(200, r.target); });
    test::Recorder<std::string> inner;
    auto task = session().dataTask(
        server.url("/outer"),
        [&](std::optional<std::string>, std::optional<HTTPURLResponse>, std::optional<URLError>) {
            http::Result r = http::getBlocking(server.url("/inner"), std::chrono::seconds(5));
            inner.add(r.ok() ? r.body : r.summary());
        });
    task->resume();
    ASSERT_TRUE(inner.waitFor(1));
    EXPECT_EQ(inner.values()[0], "/inner");
}

// A completion that keeps its thread (here: until another request, started elsewhere, has
// completed) does not hold up the transfers of others.
TEST(URLSessionTest, ALongCompletionDoesNotStallOtherTransfers) {
    HttpServer server(
        [](const test::ReceivedRequest& r) { return HttpReply::text(200, r.target); });
    // Shared with the completion, which may still be returning (and releasing its lock) when
    // the test has seen its last event and ends.
    struct Shared {
        test::Recorder<std::string> events;
        std::mutex m;
        std::condition_variable cv;
        bool otherDone = false;
    };
    auto shared = std::make_shared<Shared>();
    auto first = session().dataTask(
        server.url("/first"),
        [shared](std::optional<std::string>, std::optional<HTTPURLResponse>,
                 std::optional<URLError>) {
            shared->events.add("first running");
            std::unique_lock lock(shared->m);
            const bool seen = shared->cv.wait_for(lock, std::chrono::seconds(5),
                                                  [&] { return shared->otherDone; });
            lock.unlock();
            shared->events.add(seen ? "first saw other" : "first gave up");
        });
    first->resume();
    ASSERT_TRUE(shared->events.waitFor(1));
    Outcome other = load(session(), server.url("/other"));
    ASSERT_FALSE(other.error);
    EXPECT_EQ(other.data, "/other");
    {
        std::lock_guard lock(shared->m);
        shared->otherDone = true;
    }
    shared->cv.notify_all();
    ASSERT_TRUE(shared->events.waitFor(2));
    EXPECT_EQ(shared->events.values()[1], "first saw other");
}

// Work handed to an idle loop runs on the loading thread (or, while the loop cannot take it
// there, a worker), never on the caller's, without a transfer to wake the loop: a timer does.
// A throwing item is reported and the others still run.
TEST(URLSessionTest, WorkHandedToAnIdleLoopRunsOffTheCallersThreadWithoutATransfer) {
    ASSERT_TRUE(test::waitUntil([] { return URLSession::activeTransferCount() == 0; }));
    test::ConsoleCapture console;
    test::Recorder<std::string> ran;
    network::internal::runOnLoadingThreadSoon([&] { ran.add(test::threadName()); });
    network::internal::runOnLoadingThreadSoon([] { throw std::runtime_error("boom"); });
    network::internal::runOnLoadingThreadSoon([&] { ran.add(test::threadName()); });
    ASSERT_TRUE(ran.waitFor(2));
    for (const std::string& name : ran.values()) {
        EXPECT_TRUE(name == "kestro-loading" || name == "kestro-worker") << name;
    }
    EXPECT_NE(console.text().find("❌ Work handed to the loading thread threw: boom"),
              std::string::npos);
    // Each item after the first finds the loop asleep again (it went back to epoll_wait after
    // taking the previous one). Without the timer such an item would wait for the loop's
    // longest sleep, a second.
    for (std::size_t i = 3; i < 8; ++i) {
        const auto handed = std::chrono::steady_clock::now();
        network::internal::runOnLoadingThreadSoon([&] { ran.add("next"); });
        ASSERT_TRUE(ran.waitFor(i));
        EXPECT_LT(std::chrono::steady_clock::now() - handed, std::chrono::milliseconds(700));
    }
}

// While transfers are under way, the loop is left alone: the work goes to a worker at once.
TEST(URLSessionTest, WorkHandedToABusyLoopGoesToAWorker) {
    HttpServer server([](const test::ReceivedRequest&) {
        HttpReply r = HttpReply::text(200, "late");
        r.delay = std::chrono::seconds(2);
        return r;
    });
    test::Fetch slow(session(), URLRequest(server.url("/slow")));
    slow.resume();
    ASSERT_TRUE(test::waitUntil([] { return URLSession::activeTransferCount() > 0; }));
    test::Recorder<std::string> ran;
    network::internal::runOnLoadingThreadSoon([&] { ran.add(test::threadName()); });
    ASSERT_TRUE(ran.waitFor(1, std::chrono::seconds(1)));
    EXPECT_EQ(ran.values()[0], "kestro-worker");
    slow.task().cancel();
}

// Cancelling while the answer is arriving: whichever wins, the completion runs exactly once,
// never on the thread that resumed and cancelled, and the loop holds nothing afterwards.
TEST(URLSessionTest, CancelRacingTheAnswerCompletesOnce) {
    // Every twentieth request goes to a path the server never answers, so that some
    // cancellations certainly come first however the threads are scheduled; the others race
    // their answer.
    HttpServer server([](const test::ReceivedRequest& r) {
        if (r.target == "/held") {
            HttpReply reply;
            reply.fault = HttpReply::Fault::neverAnswer;
            return reply;
        }
        return HttpReply::text(200, "ok");
    });
    const std::thread::id caller = std::this_thread::get_id();
    std::vector<std::unique_ptr<test::Fetch>> fetches;
    for (int i = 0; i < 200; ++i) {
        const char* path = i % 20 == 0 ? "/held" : "/race";
        auto f = std::make_unique<test::Fetch>(session(), URLRequest(server.url(path)));
        f->resume();
        // Spread the cancellations over the transfer's life: before the request is written,
        // while the answer is on its way, and after it has been delivered.
        for (int spin = 0; spin < (i % 20) * 50; ++spin) std::this_thread::yield();
        f->task().cancel();
        fetches.push_back(std::move(f));
    }
    int cancelled = 0;
    for (std::size_t i = 0; i < fetches.size(); ++i) {
        Outcome o = fetches[i]->wait();
        EXPECT_NE(o.thread, caller);
        if (i % 20 == 0) {
            EXPECT_TRUE(o.error) << "request " << i << " was never answered";
        }
        if (o.error) {
            EXPECT_TRUE(o.error->is(URLErrorCode::cancelled)) << o.error->localizedDescription();
            ++cancelled;
        } else {
            EXPECT_EQ(o.data, "ok");
        }
    }
    EXPECT_GE(cancelled, 10);
    ASSERT_TRUE(test::waitUntil([] { return URLSession::activeTransferCount() == 0; }));
    // A request made after all of them has completed, so any second completion would be in.
    EXPECT_FALSE(load(session(), server.url("/after")).error);
    for (auto& f : fetches) EXPECT_EQ(f->completions(), 1u);
}

TEST(HttpTest, OneLineCallsAndBlockingDeadline) {
    HttpServer server([](const test::ReceivedRequest& r) {
        if (r.target == "/silent") {
            HttpReply reply;
            reply.fault = HttpReply::Fault::neverAnswer;
            return reply;
        }
        if (r.method == "POST") return HttpReply::text(200, r.body, "application/json");
        return HttpReply::text(404, "missing");
    });
    test::Recorder<http::Result> results;
    http::postJSON(server.url("/json"), boost::json::value{{"a", 1}, {"b", {true, nullptr}}},
                   [&](http::Result r) { results.add(std::move(r)); });
    ASSERT_TRUE(results.waitFor(1));
    http::Result posted = results.values()[0];
    EXPECT_TRUE(posted.ok());
    ASSERT_TRUE(posted.json());
    EXPECT_EQ(*posted.json(), (boost::json::value{{"a", 1}, {"b", {true, nullptr}}}));
    EXPECT_EQ(server.requests()[0].header("Content-Type"), "application/json");

    http::get(server.url("/nothing-here"), [&](http::Result r) { results.add(std::move(r)); });
    ASSERT_TRUE(results.waitFor(2));
    http::Result missing = results.values()[1];
    EXPECT_FALSE(missing.ok());
    EXPECT_EQ(missing.status, 404);
    EXPECT_EQ(missing.summary(), "404 (7 bytes)");
    EXPECT_FALSE(missing.json());

    http::Options opts;
    opts.headers.emplace("Authorization", "Bearer t");
    http::Result blocking =
        http::postJSONBlocking(server.url("/b"), {{"x", 2}}, std::chrono::seconds(5), opts);
    EXPECT_EQ(blocking.body, R"({"x":2})");
    EXPECT_EQ(server.requests().back().header("Authorization"), "Bearer t");

    const auto start = std::chrono::steady_clock::now();
    http::Result late = http::getBlocking(server.url("/silent"), std::chrono::milliseconds(100));
    ASSERT_TRUE(late.error);
    EXPECT_TRUE(late.error->is(URLErrorCode::timedOut));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_TRUE(test::waitUntil([] { return URLSession::activeTransferCount() == 0; }));
}

}  // namespace
}  // namespace kestro
