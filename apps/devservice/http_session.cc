// One HTTP connection, plain or TLS: reads requests one after the other (keep-alive), answers
// each through the router, and hands the connection to a device link or a push channel when a
// request asks for an upgrade that passes its checks.
#include <fmt/format.h>

#include <array>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>

#include "devservice/server.h"
#include "devservice/ws_sessions.h"

namespace kestro::devservice::internal {

namespace ssl = boost::asio::ssl;
using tcp = net::ip::tcp;

constexpr auto kReadTimeout = std::chrono::seconds(30);
constexpr auto kWriteTimeout = std::chrono::seconds(30);
constexpr auto kHandshakeTimeout = std::chrono::seconds(10);
constexpr std::size_t kHeaderLimit = 16 * 1024;
// After a 413 the rest of the body is read and thrown away (up to this much, for at most
// kDrainTimeout), so that a client still sending gets to read the answer instead of a reset.
constexpr std::size_t kMaxDrainBytes = 64 * 1024 * 1024;
constexpr auto kDrainTimeout = std::chrono::seconds(2);

const char* marker(unsigned status) {
    if (status >= 500) return "❌";
    if (status >= 400) return "⚠️";
    return "✅";
}

template <class Stream>
constexpr bool kIsTls = !std::is_same_v<Stream, beast::tcp_stream>;

template <class Stream>
class HttpSession : public std::enable_shared_from_this<HttpSession<Stream>> {
  public:
    template <class... Args>
    HttpSession(ServiceCore& core, Args&&... args)
        : stream_(std::forward<Args>(args)...), core_(core), timer_(stream_.get_executor()) {}

    void run() {
        net::dispatch(stream_.get_executor(), [self = this->shared_from_this()] {
            if constexpr (kIsTls<Stream>) {
                beast::get_lowest_layer(self->stream_).expires_after(kHandshakeTimeout);
                self->stream_.async_handshake(ssl::stream_base::server,
                                              [self](beast::error_code ec) {
                                                  if (ec) return self->closeNow();
                                                  self->readRequest();
                                              });
            } else {
                self->readRequest();
            }
        });
    }

  private:
    Context& context() const { return *core_.context; }

    void readRequest() {
        parser_.emplace();
        parser_->body_limit(context().options.maxBodyBytes);
        parser_->header_limit(kHeaderLimit);
        beast::get_lowest_layer(stream_).expires_after(kReadTimeout);
        http::async_read(stream_, buffer_, *parser_,
                         beast::bind_front_handler(&HttpSession::onRead, this->shared_from_this()));
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
        if (parser_->is_header_done()) {
            method_ = std::string(parser_->get().method_string());
            target_ = std::string(parser_->get().target());
        }
        if (ec == http::error::body_limit) {
            return respond(ApiRouter::error(413, fmt::format("the request body exceeds the limit "
                                                             "of {} bytes",
                                                             context().options.maxBodyBytes)),
                           false, false, true);
        }
        if (ec == http::error::header_limit) {
            return respond(ApiRouter::error(431, "the request header is too large"), false, false,
                           true);
        }
        const bool gone = ec == http::error::end_of_stream || ec == http::error::partial_message ||
                          ec == beast::error::timeout || ec == net::error::eof ||
                          ec == net::error::connection_reset ||
                          ec == net::error::operation_aborted || ec == ssl::error::stream_truncated;
        if (gone) {
            // Closing between requests is the normal end of a keep-alive connection.
            if (parser_->got_some()) {
                context().log(fmt::format("⚠️ {} {} → the client went away mid-request ({})",
                                          method_.empty() ? "?" : method_,
                                          target_.empty() ? "?" : redactTarget(target_),
                                          ec.message()));
            }
            return closeNow();
        }
        method_ = method_.empty() ? "?" : method_;
        target_ = target_.empty() ? "?" : target_;
        respond(ApiRouter::error(400, "malformed HTTP request: " + ec.message()), false, false,
                false);
    }

    void upgrade() {
        const Request& request = parser_->get();
        if (ApiRouter::isLiveChannel(request)) {
            if (auto refused = core_.router->checkLive(request)) {
                return respond(std::move(*refused), false, false, false);
            }
            beast::get_lowest_layer(stream_).expires_never();
            std::make_shared<LiveSession<Stream>>(std::move(stream_), core_)
                ->run(parser_->release());
            return;
        }
        auto checked = core_.router->checkLink(request);
        if (auto* reply = std::get_if<Reply>(&checked)) {
            return respond(std::move(*reply), false, false, false);
        }
        beast::get_lowest_layer(stream_).expires_never();
        std::make_shared<DeviceSession<Stream>>(std::move(stream_), core_,
                                                std::get<LinkRequest>(std::move(checked)), target_)
            ->run(parser_->release());
    }

    void respond(Reply reply, bool keepAlive, bool head, bool drainAfter) {
        reply_ = std::move(reply);
        drainAfter_ = drainAfter;
        auto& res = reply_.response;
        res.keep_alive(keepAlive);
        res.set(http::field::server, "kestro-devservice");
        res.prepare_payload();
        // A HEAD answer keeps the GET answer's Content-Length but sends no body.
        if (head) res.body().clear();
        if (reply_.delay.count() > 0) {
            timer_.expires_after(reply_.delay);
            timer_.async_wait([self = this->shared_from_this()](beast::error_code ec) {
                if (!ec) self->write();
            });
            return;
        }
        write();
    }

    void write() {
        beast::get_lowest_layer(stream_).expires_after(kWriteTimeout);
        http::async_write(
            stream_, reply_.response,
            beast::bind_front_handler(&HttpSession::onWrite, this->shared_from_this()));
    }

    void onWrite(beast::error_code ec, std::size_t) {
        const unsigned status = reply_.response.result_int();
        const double ms =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started_)
                .count();
        context().log(fmt::format("{} {} {} → {} in {:.1f} ms{}{}{}", marker(status), method_,
                                  redactTarget(target_), status, ms,
                                  reply_.note.empty() ? "" : " (", reply_.note,
                                  reply_.note.empty() ? "" : ")"));
        if (ec) return closeNow();
        if (drainAfter_) return drain();
        if (!reply_.response.keep_alive()) return closeNow();
        readRequest();
    }

    void drain() {
        beast::error_code ignored;
        beast::get_lowest_layer(stream_).socket().shutdown(tcp::socket::shutdown_send, ignored);
        beast::get_lowest_layer(stream_).expires_after(kDrainTimeout);
        drainNext();
    }

    void drainNext() {
        stream_.async_read_some(
            net::buffer(drainBuffer_),
            [self = this->shared_from_this()](beast::error_code ec, std::size_t n) {
                self->drained_ += n;
                if (ec || self->drained_ > kMaxDrainBytes) return self->closeNow();
                self->drainNext();
            });
    }

    // Ends the connection without a TLS close notification: the answers it owed are written,
    // and a peer that waits for more sees the connection end.
    void closeNow() {
        beast::error_code ignored;
        auto& socket = beast::get_lowest_layer(stream_).socket();
        socket.shutdown(tcp::socket::shutdown_both, ignored);
        socket.close(ignored);
    }

    Stream stream_;
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
    core.acceptor->async_accept(net::make_strand(core.ioc), [&core](beast::error_code ec,
                                                                    tcp::socket socket) {
        if (ec == net::error::operation_aborted || !core.acceptor->is_open()) return;
        if (!ec) {
            if (core.tls) {
                std::make_shared<HttpSession<beast::ssl_stream<beast::tcp_stream>>>(
                    core, std::move(socket), *core.tls)
                    ->run();
            } else {
                std::make_shared<HttpSession<beast::tcp_stream>>(core, std::move(socket))->run();
            }
        } else {
            core.context->log("❌ Accepting a connection failed: " + ec.message());
        }
        acceptNext(core);
    });
}

}  // namespace kestro::devservice::internal
