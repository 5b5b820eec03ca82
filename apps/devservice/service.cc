#include "devservice/service.h"

#include <fmt/format.h>

#include <atomic>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "devservice/api.h"
#include "devservice/device_links.h"
#include "devservice/store.h"
#include "kestro/core/console.h"

namespace kestro::devservice {
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
namespace net = boost::asio;
using tcp = net::ip::tcp;

namespace internal {

constexpr auto kReadTimeout = std::chrono::seconds(30);
constexpr auto kWriteTimeout = std::chrono::seconds(30);
constexpr std::size_t kHeaderLimit = 16 * 1024;
constexpr std::size_t kMaxFrameBytes = 1024 * 1024;
// What may wait for one device: frames beyond either bound are refused, and the command that
// made them is answered so.
constexpr std::size_t kMaxQueuedFrames = 1024;
constexpr std::size_t kMaxQueuedBytes = 16 * 1024 * 1024;
// After a 413 the rest of the body is read and thrown away (up to this much, for at most
// kDrainTimeout), so that a client still sending gets to read the answer instead of a reset.
constexpr std::size_t kMaxDrainBytes = 64 * 1024 * 1024;
constexpr auto kDrainTimeout = std::chrono::seconds(2);
constexpr auto kStopGrace = std::chrono::milliseconds(300);

// Everything a running service owns. Members are declared so that the io_context is destroyed
// before what its pending handlers refer to (store, links, router): sessions hold a reference
// to the core, never ownership.
struct ServiceCore {
    explicit ServiceCore(DevServiceOptions o) : options(std::move(o)) {}

    DevServiceOptions options;
    std::unique_ptr<DevStore> store;
    DeviceLinks links;
    std::unique_ptr<ApiRouter> router;
    net::io_context ioc;
    std::optional<tcp::acceptor> acceptor;
    std::optional<net::executor_work_guard<net::io_context::executor_type>> work;
    std::vector<std::thread> threads;
    std::atomic<bool> running{false};
    std::atomic<std::uint16_t> port{0};
    std::mutex stopMutex;

    void log(std::string_view line) const {
        if (options.logRequests) printI(line, LogLevel::info);
    }
};

const char* marker(unsigned status) {
    if (status >= 500) return "❌";
    if (status >= 400) return "⚠️";
    return "✅";
}

std::string clipFrame(std::string_view text) {
    if (text.size() <= 300) return std::string(text);
    std::size_t end = 300;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
    return std::string(text.substr(0, end)) + "…";
}

// One device's WebSocket connection. The stream is touched only on the connection's strand;
// the frame queue and the closing flag are shared with senders on other threads under
// queueMutex_, so that send() can say at once whether a frame was queued.
class WsSession : public DeviceLink, public std::enable_shared_from_this<WsSession> {
  public:
    WsSession(tcp::socket&& socket, ServiceCore& core, LinkRequest link, std::string target)
        : ws_(std::move(socket)), core_(core), link_(std::move(link)), target_(std::move(target)) {}

    void run(Request request) {
        request_ = std::move(request);
        beast::get_lowest_layer(ws_).expires_never();
        ws_.set_option(websocket::stream_base::timeout::suggested(beast::role_type::server));
        ws_.set_option(websocket::stream_base::decorator([](websocket::response_type& res) {
            res.set(http::field::server, "kestro-devservice");
        }));
        ws_.read_message_max(kMaxFrameBytes);
        ws_.async_accept(request_,
                         beast::bind_front_handler(&WsSession::onAccept, shared_from_this()));
    }

    SendResult send(std::string text) override {
        {
            std::lock_guard lock(queueMutex_);
            if (closing_) return SendResult::closing;
            if (queue_.size() >= kMaxQueuedFrames || queuedBytes_ + text.size() > kMaxQueuedBytes) {
                return SendResult::queueFull;
            }
            queuedBytes_ += text.size();
            queue_.push_back(std::move(text));
            if (queue_.size() > 1) return SendResult::queued;
        }
        net::post(ws_.get_executor(), [self = shared_from_this()] { self->writeNext(); });
        return SendResult::queued;
    }

    void close(std::uint16_t code, std::string reason) override {
        {
            std::lock_guard lock(queueMutex_);
            if (closing_) return;
            closing_ = true;
        }
        net::post(ws_.get_executor(),
                  [self = shared_from_this(), code, reason = std::move(reason)]() {
                      if (!self->open_) return;
                      self->ws_.async_close(
                          websocket::close_reason(static_cast<websocket::close_code>(code), reason),
                          [self](beast::error_code) {});
                  });
    }

  private:
    void onAccept(beast::error_code ec) {
        if (ec) {
            core_.log(fmt::format("❌ GET {} → WebSocket handshake with device {} failed: {}",
                                  redactTarget(target_), link_.deviceId, ec.message()));
            return;
        }
        open_ = true;
        const double now = nowSeconds();
        core_.store->touchDevice(link_.deviceId, link_.keyKind, now);
        core_.links.attach(link_.deviceId, shared_from_this(), now);
        core_.log(fmt::format("🔌 GET {} → 101, device {} connected", redactTarget(target_),
                              link_.deviceId));
        readNext();
    }

    void readNext() {
        ws_.async_read(buffer_, beast::bind_front_handler(&WsSession::onRead, shared_from_this()));
    }

    void onRead(beast::error_code ec, std::size_t) {
        if (ec) {
            bool closedHere = false;
            {
                std::lock_guard lock(queueMutex_);
                closedHere = closing_;
                closing_ = true;
            }
            core_.links.detach(link_.deviceId, this);
            const std::string why =
                ec == websocket::error::closed
                    ? std::string(closedHere ? "closed" : "closed by the device")
                    : ec.message();
            core_.log(fmt::format("🔌 Device {} disconnected ({})", link_.deviceId, why));
            return;
        }
        // Devices send nothing the service acts on; what arrives is shown and dropped.
        if (ws_.got_text()) {
            core_.log(fmt::format("📩 Device {} sent: {}", link_.deviceId,
                                  clipFrame(beast::buffers_to_string(buffer_.data()))));
        } else {
            core_.log(
                fmt::format("📩 Device {} sent {} binary bytes", link_.deviceId, buffer_.size()));
        }
        buffer_.consume(buffer_.size());
        readNext();
    }

    // On the strand, with one write in flight at most. The front frame stays in the queue
    // until written; frames added behind it do not move it (a deque keeps its elements).
    void writeNext() {
        const std::string* front = nullptr;
        {
            std::lock_guard lock(queueMutex_);
            if (queue_.empty()) return;
            front = &queue_.front();
        }
        ws_.text(true);
        ws_.async_write(net::buffer(*front),
                        beast::bind_front_handler(&WsSession::onWrite, shared_from_this()));
    }

    void onWrite(beast::error_code ec, std::size_t) {
        bool more = false;
        {
            std::lock_guard lock(queueMutex_);
            if (ec) {
                // The device is gone; the read side sees the same failure and reports it.
                closing_ = true;
                queue_.clear();
                queuedBytes_ = 0;
                return;
            }
            queuedBytes_ -= queue_.front().size();
            queue_.pop_front();
            more = !queue_.empty();
        }
        if (more) writeNext();
    }

    websocket::stream<beast::tcp_stream> ws_;
    ServiceCore& core_;
    LinkRequest link_;
    std::string target_;
    Request request_;
    beast::flat_buffer buffer_;
    bool open_ = false;
    std::mutex queueMutex_;
    std::deque<std::string> queue_;
    std::size_t queuedBytes_ = 0;
    bool closing_ = false;
};

// One HTTP connection: reads requests one after the other (keep-alive), answers each, and
// hands the connection to a WsSession when a request asks for an upgrade.
class HttpSession : public std::enable_shared_from_this<HttpSession> {
  public:
    HttpSession(tcp::socket&& socket, ServiceCore& core)
        : stream_(std::move(socket)), core_(core), timer_(stream_.get_executor()) {}

    void run() {
        net::dispatch(stream_.get_executor(),
                      beast::bind_front_handler(&HttpSession::readRequest, shared_from_this()));
    }

  private:
    void readRequest() {
        parser_.emplace();
        parser_->body_limit(core_.options.maxBodyBytes);
        parser_->header_limit(kHeaderLimit);
        stream_.expires_after(kReadTimeout);
        http::async_read(stream_, buffer_, *parser_,
                         beast::bind_front_handler(&HttpSession::onRead, shared_from_this()));
    }

    void onRead(beast::error_code ec, std::size_t) {
        started_ = std::chrono::steady_clock::now();
        if (ec) return readFailed(ec);
        Request& request = parser_->get();
        method_ = std::string(request.method_string());
        target_ = std::string(request.target());
        if (websocket::is_upgrade(request)) return upgrade();

        Reply reply;
        try {
            reply = core_.router->route(request);
        } catch (const std::exception& e) {
            reply = ApiRouter::error(500, std::string("internal error: ") + e.what(),
                                     request.version());
        }
        const bool head = request.method() == http::verb::head;
        respond(std::move(reply), request.keep_alive(), head, false);
    }

    void readFailed(beast::error_code ec) {
        const bool headerDone = parser_->is_header_done();
        if (headerDone) {
            method_ = std::string(parser_->get().method_string());
            target_ = std::string(parser_->get().target());
        }
        if (ec == http::error::body_limit) {
            return respond(
                ApiRouter::error(413, fmt::format("the request body exceeds the limit of "
                                                  "{} bytes",
                                                  core_.options.maxBodyBytes)),
                false, false, true);
        }
        if (ec == http::error::header_limit) {
            return respond(ApiRouter::error(431, "the request header is too large"), false, false,
                           true);
        }
        const bool gone = ec == http::error::end_of_stream || ec == http::error::partial_message ||
                          ec == beast::error::timeout || ec == net::error::eof ||
                          ec == net::error::connection_reset || ec == net::error::operation_aborted;
        if (gone) {
            // Closing between requests is the normal end of a keep-alive connection.
            if (parser_->got_some()) {
                core_.log(fmt::format("⚠️ {} {} → the client went away mid-request ({})",
                                      method_.empty() ? "?" : method_,
                                      target_.empty() ? "?" : redactTarget(target_), ec.message()));
            }
            return closeNow();
        }
        method_ = method_.empty() ? "?" : method_;
        target_ = target_.empty() ? "?" : target_;
        respond(ApiRouter::error(400, "malformed HTTP request: " + ec.message()), false, false,
                false);
    }

    void upgrade() {
        auto checked = core_.router->checkLink(parser_->get());
        if (auto* reply = std::get_if<Reply>(&checked)) {
            return respond(std::move(*reply), false, false, false);
        }
        stream_.expires_never();
        std::make_shared<WsSession>(stream_.release_socket(), core_,
                                    std::get<LinkRequest>(std::move(checked)), target_)
            ->run(parser_->release());
    }

    void respond(Reply reply, bool keepAlive, bool head, bool drainAfter) {
        reply_ = std::move(reply);
        drainAfter_ = drainAfter;
        auto& res = reply_.response;
        res.keep_alive(keepAlive);
        res.set(http::field::server, "kestro-devservice");
        res.set(http::field::access_control_allow_origin, "*");
        res.prepare_payload();
        // A HEAD answer keeps the GET answer's Content-Length but sends no body.
        if (head) res.body().clear();
        if (reply_.delay.count() > 0) {
            timer_.expires_after(reply_.delay);
            timer_.async_wait([self = shared_from_this()](beast::error_code ec) {
                if (!ec) self->write();
            });
            return;
        }
        write();
    }

    void write() {
        stream_.expires_after(kWriteTimeout);
        http::async_write(stream_, reply_.response,
                          beast::bind_front_handler(&HttpSession::onWrite, shared_from_this()));
    }

    void onWrite(beast::error_code ec, std::size_t) {
        const unsigned status = reply_.response.result_int();
        const double ms =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started_)
                .count();
        core_.log(fmt::format("{} {} {} → {} in {:.1f} ms{}{}{}", marker(status), method_,
                              redactTarget(target_), status, ms, reply_.note.empty() ? "" : " (",
                              reply_.note, reply_.note.empty() ? "" : ")"));
        if (ec) return closeNow();
        if (drainAfter_) return drain();
        if (!reply_.response.keep_alive()) return closeNow();
        readRequest();
    }

    void drain() {
        beast::error_code ignored;
        stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
        stream_.expires_after(kDrainTimeout);
        drainNext();
    }

    void drainNext() {
        stream_.async_read_some(net::buffer(drainBuffer_),
                                [self = shared_from_this()](beast::error_code ec, std::size_t n) {
                                    self->drained_ += n;
                                    if (ec || self->drained_ > kMaxDrainBytes)
                                        return self->closeNow();
                                    self->drainNext();
                                });
    }

    void closeNow() {
        beast::error_code ignored;
        stream_.socket().shutdown(tcp::socket::shutdown_both, ignored);
        stream_.close();
    }

    beast::tcp_stream stream_;
    ServiceCore& core_;
    net::steady_timer timer_;
    beast::flat_buffer buffer_;
    std::optional<http::request_parser<http::string_body>> parser_;
    Reply reply_;
    std::string method_;
    std::string target_;
    std::chrono::steady_clock::time_point started_;
    bool drainAfter_ = false;
    std::array<char, 16 * 1024> drainBuffer_{};
    std::size_t drained_ = 0;
};

void acceptNext(ServiceCore& core) {
    core.acceptor->async_accept(
        net::make_strand(core.ioc), [&core](beast::error_code ec, tcp::socket socket) {
            if (ec == net::error::operation_aborted || !core.acceptor->is_open()) return;
            if (!ec) {
                std::make_shared<HttpSession>(std::move(socket), core)->run();
            } else {
                core.log("❌ Accepting a connection failed: " + ec.message());
            }
            acceptNext(core);
        });
}

}  // namespace internal

DevService::DevService(DevServiceOptions options) : options_(std::move(options)) {}

DevService::~DevService() { stop(); }

bool DevService::start(std::string* error) {
    if (running()) return true;
    auto fail = [&](std::string message) {
        if (error) *error = std::move(message);
        core_.reset();
        return false;
    };
    core_ = std::make_shared<internal::ServiceCore>(options_);
    auto& core = *core_;

    std::string storeError;
    const auto file = options_.dataDirectory / kDatabaseFileName;
    core.store = DevStore::open(file, &storeError);
    if (!core.store) return fail("cannot open the database " + file.string() + ": " + storeError);
    core.router = std::make_unique<ApiRouter>(options_, *core.store, core.links);

    beast::error_code ec;
    const auto address = net::ip::make_address(options_.address, ec);
    if (ec) return fail("\"" + options_.address + "\" is not an IP address");
    const tcp::endpoint endpoint(address, options_.port);
    core.acceptor.emplace(net::make_strand(core.ioc));
    auto& acceptor = *core.acceptor;
    if (acceptor.open(endpoint.protocol(), ec); !ec) {
        acceptor.set_option(net::socket_base::reuse_address(true), ec);
        acceptor.bind(endpoint, ec);
    }
    if (!ec) acceptor.listen(net::socket_base::max_listen_connections, ec);
    if (ec) {
        return fail(fmt::format("cannot listen on {}:{}: {}", options_.address, options_.port,
                                ec.message()));
    }
    core.port = acceptor.local_endpoint().port();
    core.running = true;
    internal::acceptNext(core);
    core.work.emplace(core.ioc.get_executor());
    for (unsigned i = 0; i < std::max(1u, options_.threads); ++i) {
        core.threads.emplace_back([&core] { core.ioc.run(); });
    }
    return true;
}

void DevService::stop() {
    if (!core_) return;
    auto& core = *core_;
    {
        std::lock_guard lock(core.stopMutex);
        if (!core.running.exchange(false)) return;
        net::post(core.acceptor->get_executor(), [&core] {
            beast::error_code ignored;
            core.acceptor->close(ignored);
        });
        // Close handshakes get a moment to complete; then the loop ends regardless. Plain
        // HTTP exchanges are short and are not waited for.
        const auto open = core.links.closeAll("the service is stopping");
        auto timer = std::make_shared<net::steady_timer>(
            core.ioc, open > 0 ? internal::kStopGrace : std::chrono::milliseconds(0));
        timer->async_wait([&core, timer](beast::error_code) { core.ioc.stop(); });
        core.work.reset();
        for (auto& t : core.threads) t.join();
        core.threads.clear();
    }
    core_.reset();
}

bool DevService::running() const { return core_ && core_->running; }

std::uint16_t DevService::port() const { return core_ ? core_->port.load() : 0; }

std::string DevService::httpURL() const {
    const bool v6 = options_.address.find(':') != std::string::npos;
    return fmt::format("http://{}{}{}:{}", v6 ? "[" : "", options_.address, v6 ? "]" : "", port());
}

std::string DevService::webSocketURL() const { return "ws" + httpURL().substr(4); }

}  // namespace kestro::devservice
