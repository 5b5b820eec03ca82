#include "kestro/remote/websocket_manager.h"

#include <fmt/format.h>
#include <openssl/crypto.h>
#include <openssl/ssl.h>

#include <atomic>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/url/parse.hpp>
#include <charconv>
#include <deque>
#include <map>
#include <optional>
#include <type_traits>
#include <vector>

#include "kestro/core/console.h"
#include "kestro/core/executor.h"
#include "kestro/core/main_queue.h"
#include "kestro/core/notification_center.h"
#include "kestro/network/tls_runtime.h"

namespace kestro {
namespace remote::internal {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using tcp = net::ip::tcp;
using beast::error_code;

/// A failure text, or none for success.
using Completion = std::function<void(const std::string* error)>;

struct Frame {
    bool binary = false;
    std::string data;
};
/// Exactly one of frame and error is set.
using Receiver = std::function<void(const Frame* frame, const std::string* error)>;

/// Where a connection goes, taken apart from the URL.
struct Target {
    bool tls = false;
    std::string host;        // without brackets
    std::string port;        // service or number
    std::string hostHeader;  // "host[:port]" as in the URL
    std::string target;      // "/path?query", the query exactly as written
};

/// Parses a ws/wss (or http/https) URL; none when the text is not a usable absolute URL.
std::optional<Target> parseTarget(const std::string& text) {
    auto parsed = boost::urls::parse_uri(text);
    if (!parsed) return std::nullopt;
    const auto& url = *parsed;
    const std::string scheme = url.scheme();
    Target t;
    if (scheme == "ws" || scheme == "http") {
        t.tls = false;
    } else if (scheme == "wss" || scheme == "https") {
        t.tls = true;
    } else {
        return std::nullopt;
    }
    if (!url.has_authority() || url.encoded_host().empty()) return std::nullopt;
    t.host = url.host_address();
    t.port = url.has_port() ? std::string(url.port()) : (t.tls ? "443" : "80");
    t.hostHeader = url.encoded_host_and_port();
    t.target = url.encoded_path().empty() ? "/" : std::string(url.encoded_path());
    if (url.has_query()) t.target += "?" + std::string(url.encoded_query());
    return t;
}

std::string describe(std::string_view what, const error_code& ec) {
    return fmt::format("{}: {}", what, ec.message());
}

/// One WebSocket connection: the stand-in for a platform WebSocket task. Operations may be
/// requested from any thread and run on the connection's strand; pings, sends and receives
/// asked for while the connection opens wait for it. One write (text, ping or close) is in
/// flight at a time; a read is kept running while the link is open so that pongs are seen.
class Connection {
  public:
    virtual ~Connection() = default;
    virtual void start() = 0;
    /// Completes when the pong arrives, or fails when the link fails or pingTimeout after the
    /// ping was asked for, however long it waited to be written (from the open, for a ping
    /// asked for while the connection opens).
    virtual void ping(Completion done) = 0;
    virtual void send(std::string text, Completion done) = 0;
    /// Delivers the next frame (frames are kept in order until asked for).
    virtual void receive(Receiver receiver) = 0;
    /// Close handshake with the code; the socket is dropped after closeTimeout at the latest.
    virtual void close(std::uint16_t code) = 0;
};

namespace {

// Frames kept for a receiver that has not asked yet; reading pauses beyond this.
constexpr std::size_t kMaxHeldFrames = 256;

template <bool Tls>
class ConnectionImpl final : public Connection,
                             public std::enable_shared_from_this<ConnectionImpl<Tls>> {
  public:
    using Next = std::conditional_t<Tls, beast::ssl_stream<beast::tcp_stream>, beast::tcp_stream>;
    using Strand = net::strand<net::thread_pool::executor_type>;

    ConnectionImpl(Target target, WebsocketTiming timing, std::shared_ptr<net::ssl::context> tls)
        : target_(std::move(target)),
          timing_(timing),
          tls_(std::move(tls)),
          strand_(net::make_strand(globalExecutor())),
          resolver_(strand_),
          openTimer_(strand_),
          closeTimer_(strand_) {
        if constexpr (Tls) {
            ws_.emplace(strand_, *tls_);
        } else {
            ws_.emplace(strand_);
        }
    }

    void start() override {
        net::post(strand_, [self = this->shared_from_this()] { self->resolve(); });
    }

    void ping(Completion done) override {
        net::post(strand_, [self = this->shared_from_this(), done = std::move(done)]() mutable {
            if (self->phase_ == Phase::closed) return done(&self->error_);
            const std::uint64_t id = ++self->lastPingId_;
            self->pings_.emplace(id, PendingPing{std::move(done), nullptr});
            if (self->phase_ != Phase::opening) self->armPingTimer(id);
            self->outbox_.push_back({Kind::ping, {}, id, 0, nullptr});
            self->pump();
        });
    }

    void send(std::string text, Completion done) override {
        net::post(strand_, [self = this->shared_from_this(), text = std::move(text),
                            done = std::move(done)]() mutable {
            if (self->phase_ == Phase::closed || self->phase_ == Phase::closing) {
                const std::string error =
                    self->phase_ == Phase::closed ? self->error_ : "The connection is closing";
                return done(&error);
            }
            self->outbox_.push_back({Kind::text, std::move(text), 0, 0, std::move(done)});
            self->pump();
        });
    }

    void receive(Receiver receiver) override {
        net::post(strand_, [self = this->shared_from_this(), r = std::move(receiver)]() mutable {
            if (!self->held_.empty()) {
                Frame frame = std::move(self->held_.front());
                self->held_.pop_front();
                self->read();  // resumes reading if it paused on a full queue
                return r(&frame, nullptr);
            }
            if (self->phase_ == Phase::closed) return r(nullptr, &self->error_);
            self->receivers_.push_back(std::move(r));
        });
    }

    void close(std::uint16_t code) override {
        net::post(strand_, [self = this->shared_from_this(), code] {
            switch (self->phase_) {
                case Phase::closed:
                case Phase::closing:
                    return;
                case Phase::opening:
                    return self->fail("The connection was closed before it opened");
                case Phase::open:
                    break;
            }
            self->phase_ = Phase::closing;
            self->closeCode_ = code;
            // Whatever has not been written yet is dropped; the close frame goes next.
            auto dropped = std::move(self->outbox_);
            self->outbox_.clear();
            self->outbox_.push_back({Kind::close, {}, 0, code, nullptr});
            const std::string error = "The connection is closing";
            for (auto& item : dropped) self->completeDropped(item, error);
            self->closeTimer_.expires_after(self->timing_.closeTimeout);
            self->closeTimer_.async_wait([self](error_code ec) {
                if (!ec)
                    self->fail(
                        fmt::format("The connection was closed (code {})", self->closeCode_));
            });
            self->pump();
        });
    }

  private:
    enum class Phase { opening, open, closing, closed };
    enum class Kind { text, ping, close };
    struct Outgoing {
        Kind kind;
        std::string text;
        std::uint64_t pingId;
        std::uint16_t closeCode;
        Completion done;  // text frames only
    };
    struct PendingPing {
        Completion done;
        std::unique_ptr<net::steady_timer> timer;  // armed once the ping is written
    };

    auto& lowest() { return beast::get_lowest_layer(*ws_); }

    void resolve() {
        openTimer_.expires_after(timing_.openTimeout);
        openTimer_.async_wait([self = this->shared_from_this()](error_code ec) {
            if (!ec && self->phase_ == Phase::opening) {
                self->fail(fmt::format("The connection did not open within {} ms",
                                       self->timing_.openTimeout.count()));
            }
        });
        resolver_.async_resolve(
            target_.host, target_.port,
            [self = this->shared_from_this()](error_code ec, tcp::resolver::results_type found) {
                if (self->phase_ != Phase::opening) return;
                if (ec) return self->fail(describe("Could not resolve " + self->target_.host, ec));
                self->lowest().async_connect(
                    found, [self](error_code ec, const tcp::endpoint&) { self->connected(ec); });
            });
    }

    void connected(const error_code& ec) {
        if (phase_ != Phase::opening) return;
        if (ec) {
            return fail(describe(
                fmt::format("Could not connect to {}:{}", target_.host, target_.port), ec));
        }
        if constexpr (Tls) {
            auto& ssl = ws_->next_layer();
            error_code addressError;
            net::ip::make_address(target_.host, addressError);
            if (addressError) {  // a name, not an address literal: send it for SNI
                SSL_set_tlsext_host_name(ssl.native_handle(), target_.host.c_str());
            }
            ssl.set_verify_mode(net::ssl::verify_peer);
            ssl.set_verify_callback(net::ssl::host_name_verification(target_.host));
            ssl.async_handshake(net::ssl::stream_base::client,
                                [self = this->shared_from_this()](error_code ec) {
                                    if (self->phase_ != Phase::opening) return;
                                    if (ec) return self->fail(describe("TLS handshake failed", ec));
                                    self->upgrade();
                                });
        } else {
            upgrade();
        }
    }

    void upgrade() {
        ws_->set_option(websocket::stream_base::timeout{timing_.openTimeout,
                                                        websocket::stream_base::none(), false});
        ws_->set_option(websocket::stream_base::decorator([](websocket::request_type& req) {
            req.set(beast::http::field::user_agent, std::string("Kestro/") + SDK_VERSION);
        }));
        ws_->async_handshake(
            response_, target_.hostHeader, target_.target,
            [self = this->shared_from_this()](error_code ec) {
                if (self->phase_ != Phase::opening) return;
                if (ec) {
                    if (ec == websocket::error::upgrade_declined) {
                        return self->fail(fmt::format("The server declined the upgrade ({} {})",
                                                      self->response_.result_int(),
                                                      std::string(self->response_.reason())));
                    }
                    return self->fail(describe("WebSocket upgrade failed", ec));
                }
                self->opened();
            });
    }

    void opened() {
        phase_ = Phase::open;
        openTimer_.cancel();
        // From here the websocket's own deadline covers the close handshake.
        ws_->set_option(websocket::stream_base::timeout{timing_.closeTimeout,
                                                        websocket::stream_base::none(), false});
        ws_->control_callback([this](websocket::frame_type kind, beast::string_view payload) {
            if (kind == websocket::frame_type::pong) pong(payload);
        });
        // Pings asked for while opening have their time from now.
        for (auto& [id, ping] : pings_) {
            if (!ping.timer) armPingTimer(id);
        }
        read();
        pump();
    }

    void pong(beast::string_view payload) {
        std::uint64_t id = 0;
        const auto [end, ec] = std::from_chars(payload.data(), payload.data() + payload.size(), id);
        if (ec != std::errc() || end != payload.data() + payload.size()) return;
        auto it = pings_.find(id);
        if (it == pings_.end()) return;
        PendingPing ping = std::move(it->second);
        pings_.erase(it);
        if (ping.timer) ping.timer->cancel();
        ping.done(nullptr);
    }

    void read() {
        if (reading_ || (phase_ != Phase::open && phase_ != Phase::closing)) return;
        if (held_.size() >= kMaxHeldFrames) return;
        reading_ = true;
        ws_->async_read(readBuffer_, [self = this->shared_from_this()](error_code ec, std::size_t) {
            self->reading_ = false;
            if (ec) {
                if (ec == websocket::error::closed) {
                    const auto& reason = self->ws_->reason();
                    return self->fail(
                        reason.reason.empty()
                            ? fmt::format("The server closed the connection (code {})", reason.code)
                            : fmt::format("The server closed the connection (code {}: {})",
                                          reason.code,
                                          std::string(reason.reason.data(), reason.reason.size())));
                }
                if (self->phase_ == Phase::closing && ec == net::error::operation_aborted) {
                    return;  // the close handshake finishes the connection
                }
                return self->fail(describe("Reading from the connection failed", ec));
            }
            Frame frame{!self->ws_->got_text(), beast::buffers_to_string(self->readBuffer_.data())};
            self->readBuffer_.consume(self->readBuffer_.size());
            if (!self->receivers_.empty()) {
                Receiver r = std::move(self->receivers_.front());
                self->receivers_.pop_front();
                r(&frame, nullptr);
            } else {
                self->held_.push_back(std::move(frame));
            }
            self->read();
        });
    }

    void pump() {
        if (writing_ || outbox_.empty()) return;
        if (phase_ != Phase::open && phase_ != Phase::closing) return;
        writing_ = true;
        current_ = std::move(outbox_.front());
        outbox_.pop_front();
        auto self = this->shared_from_this();
        switch (current_.kind) {
            case Kind::text:
                ws_->text(true);
                ws_->async_write(net::buffer(current_.text), [self](error_code ec, std::size_t) {
                    self->writing_ = false;
                    Completion done = std::move(self->current_.done);
                    if (ec) {
                        const std::string error = describe("Sending failed", ec);
                        if (done) done(&error);
                        return self->fail(error);
                    }
                    if (done) done(nullptr);
                    self->pump();
                });
                break;
            case Kind::ping:
                ws_->async_ping(websocket::ping_data(std::to_string(current_.pingId)),
                                [self](error_code ec) {
                                    self->writing_ = false;
                                    if (ec) return self->fail(describe("Ping failed", ec));
                                    self->pump();
                                });
                break;
            case Kind::close:
                ws_->async_close(websocket::close_reason(current_.closeCode), [self](error_code) {
                    self->writing_ = false;
                    self->fail(
                        fmt::format("The connection was closed (code {})", self->closeCode_));
                });
                break;
        }
    }

    void armPingTimer(std::uint64_t id) {
        auto it = pings_.find(id);
        if (it == pings_.end()) return;
        it->second.timer = std::make_unique<net::steady_timer>(strand_);
        it->second.timer->expires_after(timing_.pingTimeout);
        it->second.timer->async_wait([self = this->shared_from_this(), id](error_code ec) {
            if (ec) return;
            auto found = self->pings_.find(id);
            if (found == self->pings_.end()) return;
            PendingPing ping = std::move(found->second);
            self->pings_.erase(found);
            const std::string error = fmt::format("No answer to the ping within {} ms",
                                                  self->timing_.pingTimeout.count());
            ping.done(&error);
        });
    }

    void completeDropped(Outgoing& item, const std::string& error) {
        if (item.kind == Kind::text && item.done) item.done(&error);
        if (item.kind == Kind::ping) failPing(item.pingId, error);
    }

    void failPing(std::uint64_t id, const std::string& error) {
        auto it = pings_.find(id);
        if (it == pings_.end()) return;
        PendingPing ping = std::move(it->second);
        pings_.erase(it);
        if (ping.timer) ping.timer->cancel();
        ping.done(&error);
    }

    // Ends the connection: the socket is dropped and everything waiting fails with `error`.
    void fail(std::string error) {
        if (phase_ == Phase::closed) return;
        phase_ = Phase::closed;
        error_ = std::move(error);
        openTimer_.cancel();
        closeTimer_.cancel();
        resolver_.cancel();
        error_code ignored;
        lowest().socket().shutdown(tcp::socket::shutdown_both, ignored);
        lowest().socket().close(ignored);
        auto outbox = std::move(outbox_);
        outbox_.clear();
        for (auto& item : outbox) completeDropped(item, error_);
        auto pings = std::move(pings_);
        pings_.clear();
        for (auto& [id, ping] : pings) {
            if (ping.timer) ping.timer->cancel();
            ping.done(&error_);
        }
        auto receivers = std::move(receivers_);
        receivers_.clear();
        for (auto& r : receivers) r(nullptr, &error_);
    }

    const Target target_;
    const WebsocketTiming timing_;
    const std::shared_ptr<net::ssl::context> tls_;
    Strand strand_;
    tcp::resolver resolver_;
    net::steady_timer openTimer_;
    net::steady_timer closeTimer_;
    std::optional<websocket::stream<Next>> ws_;
    websocket::response_type response_;
    beast::flat_buffer readBuffer_;

    Phase phase_ = Phase::opening;
    std::string error_;
    std::uint16_t closeCode_ = 0;
    bool reading_ = false;
    bool writing_ = false;
    Outgoing current_{Kind::text, {}, 0, 0, nullptr};
    std::deque<Outgoing> outbox_;
    std::map<std::uint64_t, PendingPing> pings_;
    std::uint64_t lastPingId_ = 0;
    std::deque<Frame> held_;
    std::deque<Receiver> receivers_;
};

}  // namespace

std::shared_ptr<Connection> makeConnection(Target target, const WebsocketTiming& timing,
                                           std::shared_ptr<net::ssl::context> tls) {
    if (target.tls) {
        return std::make_shared<ConnectionImpl<true>>(std::move(target), timing, std::move(tls));
    }
    return std::make_shared<ConnectionImpl<false>>(std::move(target), timing, nullptr);
}

}  // namespace remote::internal

// ---------------------------------------------------------------------------------------------

using remote::internal::Connection;
using remote::internal::Frame;

struct WebsocketManager::Impl : std::enable_shared_from_this<WebsocketManager::Impl> {
    Impl(std::string key, std::string device, std::string base, WebsocketOptions opts)
        : apiKey(std::move(key)),
          deviceId(std::move(device)),
          endpoint(std::move(base)),
          options(std::move(opts)) {}

    // Everything below is touched on the main queue only, except `connected` and `alive`.
    const std::string apiKey;
    const std::string deviceId;
    const std::string endpoint;
    const WebsocketOptions options;
    std::shared_ptr<boost::asio::ssl::context> tls;
    std::shared_ptr<Connection> task;
    std::function<void()> onConnect;
    std::function<void()> onDisconnect;
    std::function<void(const std::string&)> onMessage;
    std::atomic<bool> connected{false};
    std::atomic<bool> alive{true};
    std::int64_t reconnectAttempts = 0;
    std::vector<DelayedTask> timers;
    // The current connection's first ping (sent by connect), which the first check after the
    // connect takes as its own: a service that never answers is then found lost when that
    // check is due, not one ping time-out later.
    struct FirstPing {
        bool answered = false;
        std::optional<std::string> error;
        bool checkWaiting = false;  // the first check is due and waits for the answer
    } firstPing;

    void schedule(std::chrono::milliseconds delay, std::function<void()> job) {
        std::erase_if(timers, [](const DelayedTask& t) { return !t.active(); });
        timers.push_back(runOnMainAfter(delay, std::move(job)));
    }

    bool ensureTls() {
        if (tls) return true;
        try {
            namespace ssl = boost::asio::ssl;
            auto ctx = std::make_shared<ssl::context>(ssl::context::tls_client);
            ctx->set_default_verify_paths();
            if (!options.extraTrustedCertificatesPem.empty()) {
                ctx->add_certificate_authority(
                    boost::asio::buffer(options.extraTrustedCertificatesPem));
            }
            tls = std::move(ctx);
            return true;
        } catch (const std::exception& e) {
            printI(std::string("❌ WebSocket TLS set-up failed: ") + e.what(), LogLevel::error);
            return false;
        }
    }

    void connect(bool resetAttempts) {
        if (resetAttempts) reconnectAttempts = 0;
        const std::string url = endpoint + "?api-key=" + apiKey + "&device-id=" + deviceId;
        printI("⏰ Connecting to WebSocket: " + url, LogLevel::verbose);
        auto target = remote::internal::parseTarget(url);
        if (!target) return;
        if (target->tls && !ensureTls()) return;

        auto replaced = std::move(task);
        task = remote::internal::makeConnection(std::move(*target), options.timing, tls);
        if (replaced) replaced->close(1001);
        task->start();

        std::weak_ptr<Impl> weak = weak_from_this();
        std::weak_ptr<Connection> pinged = task;
        firstPing = {};
        task->ping([weak, pinged](const std::string* error) {
            std::optional<std::string> failure;
            if (error) {
                printI("❌ WebSocket ping failed: " + *error, LogLevel::error);
                failure = *error;
            }
            MainQueue::shared().post([weak, pinged, failure = std::move(failure)] {
                auto self = weak.lock();
                if (!self || !self->alive.load()) return;
                if (!failure) {
                    self->connected.store(true);
                    if (self->onConnect) self->onConnect();
                    NotificationCenter::defaultCenter().post(kWebsocketConnectionChange,
                                                             WebsocketConnectionStatus::connected);
                    printI("✅ WebSocket connection is established", LogLevel::verbose);
                }
                if (!self->task || self->task != pinged.lock()) return;
                self->firstPing.answered = true;
                self->firstPing.error = failure;
                if (self->firstPing.checkWaiting) self->checked(failure);
            });
        });
        listenForMessages(weak, task);
        listenForDisconnect(task);
    }

    static void listenForMessages(std::weak_ptr<Impl> weak, const std::shared_ptr<Connection>& on) {
        std::weak_ptr<Connection> weakTask = on;
        on->receive([weak, weakTask](const Frame* frame, const std::string* error) {
            if (error) {
                MainQueue::shared().post([weak, weakTask, error = *error] {
                    auto self = weak.lock();
                    if (!self || !self->alive.load()) return;
                    // A connection replaced by a later connect was closed on purpose; only the
                    // current one reports its end.
                    if (self->task != weakTask.lock()) return;
                    if (self->onDisconnect) self->onDisconnect();
                    printItems(LogLevel::error, "❌ WebSocket Error:", error);
                });
                return;
            }
            std::optional<std::string> text;
            if (frame->binary) {
                printI(fmt::format("📩 Received binary: {} bytes", frame->data.size()),
                       LogLevel::verbose);
            } else {
                printI("📩 Received text: " + frame->data, LogLevel::verbose);
                text = frame->data;
            }
            MainQueue::shared().post([weak, weakTask, text = std::move(text)] {
                auto self = weak.lock();
                if (!self || !self->alive.load()) return;
                if (text && self->onMessage) self->onMessage(*text);
                // Read on only while this connection is the current one: a later connect
                // started its own loop on its own connection.
                if (self->alive.load() && self->task && self->task == weakTask.lock()) {
                    listenForMessages(weak, self->task);
                }
            });
        });
    }

    // The periodic check: checkInterval from now, ping whatever connection is current; an
    // answer schedules the next check, a failure (an error, or no pong within pingTimeout of
    // the check) reports the loss and reconnects. The first check after a connect, given the
    // connection it was started for, takes that connection's first ping as its own.
    void listenForDisconnect(std::weak_ptr<Connection> opened = {}) {
        std::weak_ptr<Impl> weak = weak_from_this();
        schedule(options.timing.checkInterval, [weak, opened] {
            auto self = weak.lock();
            if (!self || !self->alive.load() || !self->task) return;
            if (!opened.expired() && self->task == opened.lock()) {
                if (!self->firstPing.answered) {
                    self->firstPing.checkWaiting = true;  // its answer or time-out decides
                    return;
                }
                if (self->firstPing.error) return self->checked(self->firstPing.error);
            }
            // The answer keeps the manager's state alive until it has been handled.
            self->task->ping([self](const std::string* error) {
                std::optional<std::string> failure;
                if (error) failure = *error;
                MainQueue::shared().post([self, failure = std::move(failure)] {
                    if (self->alive.load()) self->checked(failure);
                });
            });
        });
    }

    // The outcome of a check (on the main queue).
    void checked(const std::optional<std::string>& failure) {
        if (!failure) {
            listenForDisconnect();
            return;
        }
        connected.store(false);
        NotificationCenter::defaultCenter().post(kWebsocketConnectionChange,
                                                 WebsocketConnectionStatus::disconnected);
        printI("❌ WebSocket Disconnected: " + *failure, LogLevel::error);
        if (onDisconnect) onDisconnect();
        if (alive.load()) reconnect();
    }

    void reconnect() {
        ++reconnectAttempts;
        printItems(LogLevel::verbose, "🔄 Attempting to reconnect...", reconnectAttempts);
        if (reconnectAttempts > maxReconnectAttempts) return;
        std::weak_ptr<Impl> weak = weak_from_this();
        schedule(options.timing.reconnectDelay, [weak] {
            auto self = weak.lock();
            if (self && self->alive.load()) self->connect(false);
        });
    }

    void disconnect() {
        reconnectAttempts = maxReconnectAttempts;
        if (task) task->close(1001);
        printI("❌ WebSocket disconnected", LogLevel::error);
        if (onDisconnect) onDisconnect();
    }

    void send(std::string text) {
        if (!task) return;
        task->send(std::move(text), [](const std::string* error) {
            if (error) printI("WebSocket Send Error: " + *error, LogLevel::error);
        });
    }

    void shutdown() {
        alive.store(false);
        timers.clear();  // cancels pending checks and reconnections
        if (task) task->close(1001);
        task.reset();
        onConnect = nullptr;
        onDisconnect = nullptr;
        onMessage = nullptr;
    }
};

namespace {

template <class F>
void onMain(const std::shared_ptr<WebsocketManager::Impl>& impl, F f) {
    MainQueue::shared().dispatch([impl, f = std::move(f)]() mutable {
        if (impl->alive.load()) f(*impl);
    });
}

}  // namespace

WebsocketManager::WebsocketManager(std::string apiKey, std::string deviceId, std::string endpoint,
                                   WebsocketOptions options)
    : impl_((initTLSRuntime(), std::make_shared<Impl>(std::move(apiKey), std::move(deviceId),
                                                      std::move(endpoint), std::move(options)))) {}

WebsocketManager::~WebsocketManager() {
    impl_->alive.store(false);
    MainQueue::shared().dispatch([impl = std::move(impl_)] { impl->shutdown(); });
}

void WebsocketManager::connect(bool resetAttempts) {
    onMain(impl_, [resetAttempts](Impl& impl) { impl.connect(resetAttempts); });
}

void WebsocketManager::disconnect() {
    onMain(impl_, [](Impl& impl) { impl.disconnect(); });
}

void WebsocketManager::sendWebSocketMessage(std::string text) {
    onMain(impl_, [text = std::move(text)](Impl& impl) mutable { impl.send(std::move(text)); });
}

bool WebsocketManager::isConnected() const { return impl_->connected.load(); }

void WebsocketManager::setConnected(bool connected) { impl_->connected.store(connected); }

void WebsocketManager::setOnConnect(std::function<void()> callback) {
    onMain(impl_,
           [cb = std::move(callback)](Impl& impl) mutable { impl.onConnect = std::move(cb); });
}

void WebsocketManager::setOnDisconnect(std::function<void()> callback) {
    onMain(impl_,
           [cb = std::move(callback)](Impl& impl) mutable { impl.onDisconnect = std::move(cb); });
}

void WebsocketManager::setOnMessage(std::function<void(const std::string&)> callback) {
    onMain(impl_,
           [cb = std::move(callback)](Impl& impl) mutable { impl.onMessage = std::move(cb); });
}

const std::function<void()>& WebsocketManager::onConnect() const { return impl_->onConnect; }
const std::function<void()>& WebsocketManager::onDisconnect() const { return impl_->onDisconnect; }
std::int64_t WebsocketManager::reconnectAttempts() const { return impl_->reconnectAttempts; }
const std::string& WebsocketManager::apiKey() const { return impl_->apiKey; }
const std::string& WebsocketManager::deviceId() const { return impl_->deviceId; }
const std::string& WebsocketManager::endpoint() const { return impl_->endpoint; }

}  // namespace kestro
