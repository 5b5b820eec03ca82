#include "kestro/network/url_protocol.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>

#include "kestro/core/executor.h"
#include "kestro/network/url_session.h"
#include "network/url_test_util.h"
#include "support/console_capture.h"
#include "support/http_server.h"

namespace kestro {
namespace {

using test::HttpReply;
using test::HttpServer;
using test::load;
using test::Outcome;

// Registers a handler class for the scope of a test.
template <typename T>
struct Registered {
    Registered() { URLProtocol::registerClass<T>(); }
    ~Registered() { URLProtocol::unregisterClass<T>(); }
};

bool hasFlag(const URLRequest& r, const char* key) {
    auto v = URLProtocol::property(key, r);
    return v && std::holds_alternative<bool>(*v) && std::get<bool>(*v);
}

// Answers requests that carry the property "Answer" itself, in three pieces, from the
// executor: never on the thread that started it.
class AnsweringHandler : public URLProtocol {
  public:
    using URLProtocol::URLProtocol;
    static bool canInit(const URLRequest& r) { return hasFlag(r, "Answer"); }
    static URLRequest canonicalRequest(const URLRequest& r) {
        URLRequest c = r;
        c.setValue("yes", "X-Canonical");
        return c;
    }
    void startLoading() override {
        postTask([self = shared_from_this()] {
            auto& client = *self->client();
            HTTPHeaderFields h{
                {"X-Canonical-Seen", self->request().value("X-Canonical").value_or("no")}};
            client.didReceiveResponse(*self,
                                      HTTPURLResponse(*self->request().url, 201, "HTTP/1.1", h),
                                      URLCacheStoragePolicy::notAllowed);
            client.didLoadData(*self, "one,");
            client.didLoadData(*self, "two,");
            client.didLoadData(*self, "three");
            client.didFinishLoading(*self);
        });
    }
    void stopLoading() override {}
};

// Admits the same requests; registered later, it must win over AnsweringHandler.
class FailingHandler : public URLProtocol {
  public:
    using URLProtocol::URLProtocol;
    static bool canInit(const URLRequest& r) { return hasFlag(r, "Answer"); }
    void startLoading() override {
        client()->didFailWithError(*this, URLError("Test", 7, std::string("refused by handler")));
    }
    void stopLoading() override {}
};

// Holds every request until the test releases it, like a breakpoint, without holding a
// thread; counts stopLoading calls.
class HoldingHandler : public URLProtocol {
  public:
    using URLProtocol::URLProtocol;
    static inline std::mutex mutex;
    static inline std::vector<std::shared_ptr<URLProtocol>> held;
    static inline std::atomic<int> stops{0};

    static bool canInit(const URLRequest& r) { return hasFlag(r, "Hold"); }
    void startLoading() override {
        std::lock_guard lock(mutex);
        held.push_back(shared_from_this());
    }
    void stopLoading() override { stops.fetch_add(1); }
    static void releaseAll() {
        std::vector<std::shared_ptr<URLProtocol>> all;
        {
            std::lock_guard lock(mutex);
            all.swap(held);
        }
        for (auto& p : all) {
            p->client()->didReceiveResponse(*p,
                                            HTTPURLResponse(*p->request().url, 200, "HTTP/1.1", {}),
                                            URLCacheStoragePolicy::notAllowed);
            p->client()->didLoadData(*p, "released");
            p->client()->didFinishLoading(*p);
        }
    }
    static std::size_t heldCount() {
        std::lock_guard lock(mutex);
        return held.size();
    }
};

// Takes over every request not marked "Forwarded", loads a marked copy on a private session
// that consults no handlers, and passes the answer on: the shape of a capturing interceptor.
class ForwardingHandler : public URLProtocol {
  public:
    using URLProtocol::URLProtocol;
    static inline std::atomic<int> forwarded{0};
    static bool canInit(const URLRequest& r) {
        if (URLProtocol::property("Forwarded", r)) return false;
        auto skip = URLProtocol::property("SkipIntercept", r);
        if (skip && std::holds_alternative<bool>(*skip)) return !std::get<bool>(*skip);
        return true;
    }
    void startLoading() override {
        URLRequest copy = request();
        URLProtocol::setProperty(true, "Forwarded", copy);
        URLSessionConfiguration cfg;
        cfg.timeoutIntervalForRequest = std::chrono::seconds(300);
        URLSession privateSession(cfg);
        forwarded.fetch_add(1);
        auto task = privateSession.dataTask(
            copy, [self = shared_from_this()](std::optional<std::string> data,
                                              std::optional<HTTPURLResponse> response,
                                              std::optional<URLError> error) {
                auto& client = *self->client();
                if (error) return client.didFailWithError(*self, *error);
                if (response && data) {
                    client.didReceiveResponse(*self, *response, URLCacheStoragePolicy::notAllowed);
                    client.didLoadData(*self, *data);
                }
                client.didFinishLoading(*self);
            });
        task->resume();
    }
    void stopLoading() override {}
};

URLRequest marked(const std::string& url, const char* key, URLPropertyValue value = true) {
    URLRequest r(url);
    URLProtocol::setProperty(std::move(value), key, r);
    return r;
}

TEST(URLProtocolTest, PropertiesTravelWithCopiesAndStayOffTheWire) {
    URLRequest original("http://127.0.0.1/x");
    URLProtocol::setProperty(true, "SkipIntercept", original);
    URLProtocol::setProperty(std::string("5F0C"), "Kes-Tro-Request-ID", original);
    URLProtocol::setProperty(std::int64_t{3}, "Count", original);

    URLRequest copy = original;
    EXPECT_EQ(URLProtocol::property("SkipIntercept", copy), URLPropertyValue(true));
    EXPECT_EQ(URLProtocol::property("Kes-Tro-Request-ID", copy),
              URLPropertyValue(std::string("5F0C")));
    EXPECT_EQ(URLProtocol::property("Count", copy), URLPropertyValue(std::int64_t{3}));
    EXPECT_FALSE(URLProtocol::property("skipintercept", copy));  // keys are exact

    URLProtocol::setProperty(false, "SkipIntercept", copy);
    URLProtocol::removeProperty("Count", copy);
    EXPECT_EQ(URLProtocol::property("SkipIntercept", original), URLPropertyValue(true));
    EXPECT_TRUE(URLProtocol::property("Count", original));
    EXPECT_FALSE(URLProtocol::property("Count", copy));

    HttpServer server;
    original.url = server.url("/x");
    URLSession s;
    ASSERT_FALSE(load(s, original).error);
    const auto received = server.requests();
    ASSERT_EQ(received.size(), 1u);
    for (const auto& [name, value] : received[0].headers) {
        EXPECT_EQ(name.find("Intercept"), std::string::npos) << name;
        EXPECT_EQ(name.find("Kes-Tro"), std::string::npos) << name;
    }
}

TEST(URLProtocolTest, SharedSessionConsultsRegisteredHandlersNewestFirst) {
    HttpServer server([](const test::ReceivedRequest&) { return HttpReply::text(200, "network"); });
    {
        Registered<AnsweringHandler> answering;
        EXPECT_EQ(URLProtocol::registeredClasses()->front(),
                  URLProtocolClass::of<AnsweringHandler>());

        // Admitted: answered by the handler from its client calls, with its canonical form.
        Outcome o = load(URLSession::shared(), marked(server.url("/a"), "Answer"));
        ASSERT_FALSE(o.error);
        EXPECT_EQ(o.data, "one,two,three");
        EXPECT_EQ(o.response->statusCode, 201);
        EXPECT_EQ(o.response->value("X-Canonical-Seen"), "yes");

        // Declined (no property, or the property false): straight to the network.
        EXPECT_EQ(load(URLSession::shared(), server.url("/b")).data, "network");
        EXPECT_EQ(load(URLSession::shared(), marked(server.url("/c"), "Answer", false)).data,
                  "network");

        // A session made from a configuration consults only its own list: none here.
        URLSession plain;
        EXPECT_EQ(load(plain, marked(server.url("/d"), "Answer")).data, "network");
        URLSessionConfiguration cfg;
        cfg.protocolClasses = {URLProtocolClass::of<AnsweringHandler>()};
        URLSession listed(cfg);
        EXPECT_EQ(load(listed, marked(server.url("/e"), "Answer")).data, "one,two,three");

        // The most recently registered admitting class wins, and its failure is the task's.
        {
            Registered<FailingHandler> failing;
            Outcome f = load(URLSession::shared(), marked(server.url("/f"), "Answer"));
            ASSERT_TRUE(f.error);
            EXPECT_EQ(*f.error, URLError("Test", 7, std::string("refused by handler")));
            EXPECT_FALSE(f.data);
        }
        EXPECT_EQ(load(URLSession::shared(), marked(server.url("/g"), "Answer")).data,
                  "one,two,three");
        // Registering again moves a class to the front instead of listing it twice.
        URLProtocol::registerClass<AnsweringHandler>();
        EXPECT_EQ(URLProtocol::registeredClasses()->size(), 1u);
    }
    EXPECT_TRUE(URLProtocol::registeredClasses()->empty());
    EXPECT_EQ(load(URLSession::shared(), marked(server.url("/h"), "Answer")).data, "network");

    std::vector<std::string> reached;
    for (const auto& r : server.requests()) reached.push_back(r.target);
    EXPECT_EQ(reached, (std::vector<std::string>{"/b", "/c", "/d", "/h"}));
}

// A handler class assembled at run time that starts on the resuming thread, the application's:
// its admission test throws for requests marked "ThrowAdmit", and the handler it makes for
// requests marked "ThrowStart" throws something that is not a std::exception.
class ThrowingClass final : public URLProtocolClass {
    class Handler : public URLProtocol {
      public:
        using URLProtocol::URLProtocol;
        void startLoading() override { throw 42; }
        void stopLoading() override {}
    };

  public:
    bool canInit(const URLRequest& r) const override {
        if (hasFlag(r, "ThrowAdmit")) throw std::runtime_error("admit broke");
        return hasFlag(r, "ThrowStart");
    }
    URLRequest canonicalRequest(const URLRequest& r) const override { return r; }
    std::shared_ptr<URLProtocol> create(const URLRequest& r,
                                        std::shared_ptr<URLProtocolClient> client) const override {
        return std::make_shared<Handler>(r, std::move(client));
    }
    bool startsOnCallingThread() const override { return true; }
};

// Nothing a handler class throws reaches the thread that resumed the task: a throwing
// admission test declines (the request goes to the network), a throwing start fails the task.
TEST(URLProtocolTest, AThrowingHandlerClassNeverThrowsIntoTheApplication) {
    HttpServer server([](const test::ReceivedRequest&) { return HttpReply::text(200, "network"); });
    URLSessionConfiguration cfg;
    cfg.protocolClasses = {std::make_shared<ThrowingClass>()};
    URLSession session(cfg);
    test::ConsoleCapture console;

    Outcome declined = load(session, marked(server.url("/a"), "ThrowAdmit"));
    EXPECT_EQ(declined.data, "network");

    Outcome failed = load(session, marked(server.url("/b"), "ThrowStart"));
    ASSERT_TRUE(failed.error);
    EXPECT_TRUE(failed.error->is(URLErrorCode::unknown));
    EXPECT_FALSE(failed.data);

    const std::string text = console.text();
    EXPECT_NE(text.find("❌ A protocol handler's admission test threw: admit broke"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("❌ A protocol handler failed to start: unknown exception"),
              std::string::npos)
        << text;
    ASSERT_EQ(server.requests().size(), 1u);
    EXPECT_EQ(server.requests()[0].target, "/a");
}

TEST(URLProtocolTest, HeldRequestsPinNoThreadAndCancellationStopsTheHandler) {
    Registered<HoldingHandler> holding;
    HttpServer server([](const test::ReceivedRequest&) { return HttpReply::text(200, "network"); });
    HoldingHandler::stops = 0;

    // Far more held requests than the executor has threads.
    constexpr int kHeld = 64;
    std::vector<std::unique_ptr<test::Fetch>> fetches;
    for (int i = 0; i < kHeld; ++i) {
        fetches.push_back(std::make_unique<test::Fetch>(URLSession::shared(),
                                                        marked(server.url("/held"), "Hold")));
        fetches.back()->resume();
    }
    ASSERT_TRUE(test::waitUntil([] { return HoldingHandler::heldCount() == kHeld; }));
    // Other requests (and their completions) still run.
    EXPECT_EQ(load(URLSession::shared(), server.url("/free")).data, "network");

    // Cancel one: it completes once with cancelled, and its handler is told to stop.
    fetches[0]->task().cancel();
    Outcome cancelled = fetches[0]->wait();
    ASSERT_TRUE(cancelled.error);
    EXPECT_TRUE(cancelled.error->is(URLErrorCode::cancelled));
    ASSERT_TRUE(test::waitUntil([] { return HoldingHandler::stops.load() == 1; }));

    // Releasing answers the rest; the cancelled one's late client calls are ignored.
    HoldingHandler::releaseAll();
    for (int i = 1; i < kHeld; ++i) EXPECT_EQ(fetches[i]->wait().data, "released");
    EXPECT_EQ(load(URLSession::shared(), server.url("/free")).data, "network");
    EXPECT_EQ(fetches[0]->completions(), 1u);
    EXPECT_EQ(HoldingHandler::stops.load(), 1);
    EXPECT_EQ(server.requestCount(), 2u);
}

TEST(URLProtocolTest, AHandlerMayForwardOnAPrivateSession) {
    HttpServer server([](const test::ReceivedRequest& r) {
        HttpReply reply =
            HttpReply::text(r.target == "/missing" ? 404 : 200, "body of " + r.target);
        reply.headers.emplace_back("x-served-by", "test");
        return reply;
    });
    Registered<ForwardingHandler> forwarding;
    ForwardingHandler::forwarded = 0;

    URLRequest post(server.url("/items"));
    post.httpMethod = "POST";
    post.httpBody = "{\"n\":1}";
    post.setValue("application/json", "Content-Type");
    Outcome o = load(URLSession::shared(), post);
    ASSERT_FALSE(o.error);
    EXPECT_EQ(o.data, "body of /items");
    EXPECT_EQ(o.response->value("X-Served-By"), "test");
    EXPECT_EQ(load(URLSession::shared(), server.url("/missing")).response->statusCode, 404);

    // Marked as the SDK's own: not taken over.
    load(URLSession::shared(), marked(server.url("/own"), "SkipIntercept"));
    EXPECT_EQ(ForwardingHandler::forwarded.load(), 2);

    // Each request reached the server exactly once (the private session consulted no handler).
    const auto received = server.requests();
    ASSERT_EQ(received.size(), 3u);
    EXPECT_EQ(received[0].body, "{\"n\":1}");
    EXPECT_EQ(received[0].header("Content-Type"), "application/json");

    // A transport failure of the forwarded load is the application's failure.
    server.stop();
    Outcome refused = load(URLSession::shared(), server.url("/gone"));
    ASSERT_TRUE(refused.error);
    EXPECT_TRUE(refused.error->is(URLErrorCode::cannotConnectToHost));
}

}  // namespace
}  // namespace kestro
