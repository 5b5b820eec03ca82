#include "kestro/remote/local_network_probe.h"

#include <avahi-client/client.h>
#include <avahi-client/lookup.h>
#include <avahi-common/error.h>
#include <avahi-common/thread-watch.h>

#include <atomic>
#include <mutex>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <string>

#include "kestro/core/console.h"
#include "kestro/core/executor.h"

namespace kestro {

namespace net = boost::asio;
using Strand = net::strand<net::thread_pool::executor_type>;

// ---------------------------------------------------------------------------------------------
// BonjourClient

struct BonjourClient::Impl : std::enable_shared_from_this<BonjourClient::Impl> {
    explicit Impl(std::chrono::milliseconds timeout)
        : answerTimeout(timeout), strand(net::make_strand(globalExecutor())) {}
    ~Impl() { stopBrowse(); }

    const std::chrono::milliseconds answerTimeout;
    Strand strand;  // "com.kestro.localnetwork": all of the state below lives on it
    std::atomic<bool> alive{true};
    // Held while the callback runs and while the owner's destructor marks the client released,
    // so that once the destructor has returned the callback never runs again.
    std::mutex callbackMutex;
    std::function<void(bool)> onPermissionChecked;
    std::uint64_t probe = 0;  // the current probe; answers of other probes are stale
    bool answered = true;
    AvahiThreadedPoll* poll = nullptr;
    AvahiClient* client = nullptr;
    AvahiServiceBrowser* browser = nullptr;
    std::shared_ptr<net::steady_timer> timer;

    template <class F>
    void onQueue(F f) {
        net::post(strand, [weak = weak_from_this(), f = std::move(f)]() mutable {
            auto self = weak.lock();
            if (self && self->alive.load()) f(*self);
        });
    }

    void start() {
        stopBrowse();
        const std::uint64_t id = ++probe;
        answered = false;

        timer = std::make_shared<net::steady_timer>(strand);
        timer->expires_after(answerTimeout);
        timer->async_wait([weak = weak_from_this(), id](const boost::system::error_code& ec) {
            auto self = weak.lock();
            if (ec || !self || !self->alive.load()) return;
            self->answer(id, false);
        });

        int error = 0;
        poll = avahi_threaded_poll_new();
        if (!poll) return fail(id, "the event loop could not be created");
        client = avahi_client_new(avahi_threaded_poll_get(poll), AvahiClientFlags(0), nullptr,
                                  nullptr, &error);
        if (!client) return fail(id, avahi_strerror(error));
        token = new Token{weak_from_this(), id};
        browser =
            avahi_service_browser_new(client, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, serviceType,
                                      domain, AvahiLookupFlags(0), &Impl::browsed, token);
        if (!browser) return fail(id, avahi_strerror(avahi_client_errno(client)));
        if (avahi_threaded_poll_start(poll) < 0) return fail(id, "the event loop did not start");
    }

    // What a browse callback knows of its probe; freed with the browse (see stopBrowse).
    struct Token {
        std::weak_ptr<Impl> impl;
        std::uint64_t probe;
    };
    Token* token = nullptr;

    // Runs on Avahi's poll thread: only hands the event to the queue.
    static void browsed(AvahiServiceBrowser* browser, AvahiIfIndex, AvahiProtocol,
                        AvahiBrowserEvent event, const char*, const char*, const char*,
                        AvahiLookupResultFlags, void* userdata) {
        if (event != AVAHI_BROWSER_NEW && event != AVAHI_BROWSER_FAILURE) return;
        const auto* token = static_cast<const Token*>(userdata);
        auto self = token->impl.lock();
        if (!self) return;
        const std::uint64_t id = token->probe;
        if (event == AVAHI_BROWSER_NEW) {
            self->onQueue([id](Impl& impl) { impl.answer(id, true); });
            return;
        }
        std::string why =
            avahi_strerror(avahi_client_errno(avahi_service_browser_get_client(browser)));
        self->onQueue([id, why = std::move(why)](Impl& impl) {
            if (id == impl.probe && !impl.answered) impl.fail(id, why);
        });
    }

    void fail(std::uint64_t id, const std::string& why) {
        printI("❌ Local network browse failed: " + why, LogLevel::error);
        answer(id, false);
    }

    // The first answer of the current probe is final: the browse stops, then the callback runs.
    void answer(std::uint64_t id, bool value) {
        if (id != probe || answered) return;
        answered = true;
        stopBrowse();
        std::lock_guard lock(callbackMutex);
        if (alive.load() && onPermissionChecked) onPermissionChecked(value);
    }

    void stopBrowse() {
        if (timer) {
            timer->cancel();
            timer.reset();
        }
        // Stopping joins the poll thread, whose callbacks only post to the queue; after it no
        // callback runs, so the browser and its token can go.
        if (poll) avahi_threaded_poll_stop(poll);
        if (browser) avahi_service_browser_free(browser);
        if (client) avahi_client_free(client);
        if (poll) avahi_threaded_poll_free(poll);
        browser = nullptr;
        client = nullptr;
        poll = nullptr;
        delete token;
        token = nullptr;
    }
};

BonjourClient::BonjourClient(std::chrono::milliseconds answerTimeout)
    : impl_(std::make_shared<Impl>(answerTimeout)) {}

BonjourClient::~BonjourClient() {
    if (impl_->strand.running_in_this_thread()) {
        impl_->alive.store(false);  // destroyed from inside its own callback
    } else {
        std::lock_guard lock(impl_->callbackMutex);  // waits for a callback that is running
        impl_->alive.store(false);
    }
    // The browse is stopped on the queue, never on the destroying thread.
    auto strand = impl_->strand;
    net::post(strand, [impl = std::move(impl_)] { impl->stopBrowse(); });
}

void BonjourClient::setOnPermissionChecked(std::function<void(bool)> callback) {
    impl_->onQueue([cb = std::move(callback)](Impl& impl) mutable {
        impl.onPermissionChecked = std::move(cb);
    });
}

void BonjourClient::checkLocalNetworkPermission() {
    impl_->onQueue([](Impl& impl) { impl.start(); });
}

// ---------------------------------------------------------------------------------------------
// testLocalNetworkAccess

namespace {

struct AccessProbe : std::enable_shared_from_this<AccessProbe> {
    AccessProbe(std::function<void(bool)> done)
        : strand(net::make_strand(globalExecutor())),
          socket(strand),
          timer(strand),
          completion(std::move(done)) {}

    Strand strand;
    net::ip::tcp::socket socket;
    net::steady_timer timer;
    std::function<void(bool)> completion;

    void run(const net::ip::tcp::endpoint& target, std::chrono::milliseconds timeout) {
        auto self = shared_from_this();
        timer.expires_after(timeout);
        timer.async_wait([self](const boost::system::error_code& ec) {
            if (!ec) self->finish(false);
        });
        socket.async_connect(target,
                             [self](const boost::system::error_code& ec) { self->finish(!ec); });
    }

    // The first outcome is the answer; the connection is closed before it is given.
    void finish(bool ready) {
        if (!completion) return;
        auto done = std::move(completion);
        completion = nullptr;
        timer.cancel();
        boost::system::error_code ignored;
        socket.close(ignored);
        runReportingThrows("The local network access completion", [&] { done(ready); });
    }
};

}  // namespace

void testLocalNetworkAccess(std::function<void(bool)> completion, LocalNetworkTarget target) {
    if (!completion) return;
    boost::system::error_code ec;
    const auto address = net::ip::make_address(target.address, ec);
    if (ec) {
        printI("❌ Local network access: \"" + target.address + "\" is not an IP address",
               LogLevel::error);
        postTask([completion = std::move(completion)] { completion(false); });
        return;
    }
    auto probe = std::make_shared<AccessProbe>(std::move(completion));
    net::post(probe->strand, [probe, endpoint = net::ip::tcp::endpoint(address, target.port),
                              timeout = target.timeout] { probe->run(endpoint, timeout); });
}

}  // namespace kestro
