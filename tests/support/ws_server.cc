#include "support/ws_server.h"

#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <deque>
#include <future>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>

namespace kestro::test {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = net::ip::tcp;
using beast::error_code;

namespace {

// ---------------------------------------------------------------------------------------------
// A self-signed certificate for 127.0.0.1 and localhost, made with the OpenSSL API.

struct Credentials {
    std::string certPem;
    std::string keyPem;
};

std::string bioText(BIO* bio) {
    char* data = nullptr;
    const long n = BIO_get_mem_data(bio, &data);
    return std::string(data, static_cast<std::size_t>(n));
}

Credentials makeSelfSigned() {
    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* cert = X509_new();
    if (!key || !cert) throw std::runtime_error("OpenSSL could not make a key");
    X509_set_version(cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert), 24 * 3600);
    X509_set_pubkey(cert, key);
    X509_NAME* name = X509_get_subject_name(cert);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("Kestro test server"), -1, -1,
                               0);
    X509_set_issuer_name(cert, name);
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, cert, cert, nullptr, nullptr, 0);
    for (auto [nid, value] : {std::pair{NID_basic_constraints, "critical,CA:TRUE"},
                              std::pair{NID_subject_alt_name, "IP:127.0.0.1,DNS:localhost"}}) {
        X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
        X509_add_ext(cert, ext, -1);
        X509_EXTENSION_free(ext);
    }
    if (X509_sign(cert, key, EVP_sha256()) == 0) throw std::runtime_error("X509_sign failed");

    Credentials out;
    BIO* certBio = BIO_new(BIO_s_mem());
    PEM_write_bio_X509(certBio, cert);
    out.certPem = bioText(certBio);
    BIO_free(certBio);
    BIO* keyBio = BIO_new(BIO_s_mem());
    PEM_write_bio_PrivateKey(keyBio, key, nullptr, nullptr, 0, nullptr, nullptr);
    out.keyPem = bioText(keyBio);
    BIO_free(keyBio);
    X509_free(cert);
    EVP_PKEY_free(key);
    return out;
}

// ---------------------------------------------------------------------------------------------
// A TCP socket whose read completions can be held back. While the gate is shut, bytes that
// arrive are still read into the caller's buffer, but the completion is delivered only when the
// gate opens again; so the WebSocket layer above sees no ping and sends no pong meanwhile.

class GatedSocket {
  public:
    using executor_type = tcp::socket::executor_type;
    using lowest_layer_type = tcp::socket::lowest_layer_type;

    GatedSocket(tcp::socket socket, const std::atomic<bool>* open)
        : socket_(std::move(socket)), gate_(socket_.get_executor()), open_(open) {}

    executor_type get_executor() { return socket_.get_executor(); }
    lowest_layer_type& lowest_layer() { return socket_.lowest_layer(); }
    tcp::socket& socket() { return socket_; }

    /// Delivers completions held back while the gate was shut.
    void release() { gate_.cancel(); }
    /// From now on the gate applies (after the upgrade, so that new upgrades still succeed).
    void arm() { armed_ = true; }

    template <class Buffers, class Handler>
    auto async_read_some(const Buffers& buffers, Handler&& handler) {
        return net::async_initiate<Handler, void(error_code, std::size_t)>(
            [this](auto done, const Buffers& b) {
                socket_.async_read_some(
                    b, [this, done = std::move(done)](error_code ec, std::size_t n) mutable {
                        if (!armed_ || open_->load() || ec) {
                            std::move(done)(ec, n);
                            return;
                        }
                        gate_.expires_at(net::steady_timer::time_point::max());
                        gate_.async_wait([done = std::move(done), ec, n](error_code) mutable {
                            std::move(done)(ec, n);
                        });
                    });
            },
            handler, buffers);
    }

    template <class Buffers, class Handler>
    auto async_write_some(const Buffers& buffers, Handler&& handler) {
        return socket_.async_write_some(buffers, std::forward<Handler>(handler));
    }

  private:
    tcp::socket socket_;
    net::steady_timer gate_;
    const std::atomic<bool>* open_;
    bool armed_ = false;
};

template <class Handler>
void async_teardown(beast::role_type role, GatedSocket& s, Handler&& handler) {
    beast::websocket::async_teardown(role, s.socket(), std::forward<Handler>(handler));
}
inline void beast_close_socket(GatedSocket& s) {
    error_code ignored;
    s.socket().close(ignored);
}
inline void teardown(beast::role_type role, GatedSocket& s, error_code& ec) {
    beast::websocket::teardown(role, s.socket(), ec);
}

class Session {
  public:
    virtual ~Session() = default;
    virtual void run() = 0;
    virtual void send(std::string bytes, bool binary) = 0;
    virtual void closeWith(int code) = 0;
    virtual void drop() = 0;
    virtual void releaseGate() = 0;
};

}  // namespace

// What the server records and what it is told; shared by the sessions of every run.
struct WsServer::State : std::enable_shared_from_this<WsServer::State> {
    Options options;
    Credentials credentials;
    std::optional<net::ssl::context> sslContext;

    std::atomic<bool> answerPings{true};
    std::atomic<bool> refuseUpgrades{false};

    mutable std::mutex mutex;  // guards what follows
    std::vector<std::string> targets;
    std::vector<std::string> texts;
    std::vector<int> closeCodes;
    std::size_t accepted = 0;
    std::size_t open = 0;
    std::uint16_t port = 0;

    // One run of the server, from start() to stop().
    struct Run {
        net::io_context ioc{1};
        std::optional<net::executor_work_guard<net::io_context::executor_type>> work;
        tcp::acceptor acceptor{ioc};
        std::vector<std::weak_ptr<Session>> sessions;  // server thread only
        std::thread thread;
        std::promise<void> done;
        std::future<void> finished;
    };
    std::unique_ptr<Run> run;
    std::mutex runMutex;  // guards `run` against concurrent start/stop

    template <class F>
    void onServerThread(F f) {
        std::lock_guard lock(runMutex);
        if (run) net::post(run->ioc, std::move(f));
    }
    void forEachSession(const std::function<void(Session&)>& f) {
        std::lock_guard lock(runMutex);
        if (!run) return;
        Run* r = run.get();
        net::post(r->ioc, [r, f] {
            for (auto& weak : r->sessions)
                if (auto s = weak.lock()) f(*s);
        });
    }
    void accept(Run* r);
};

namespace {

template <class Stream>
class WsSession : public Session, public std::enable_shared_from_this<WsSession<Stream>> {
  public:
    WsSession(std::shared_ptr<WsServer::State> state, Stream stream)
        : state_(std::move(state)), ws_(std::move(stream)) {}

    void run() override {
        if constexpr (std::is_same_v<Stream, net::ssl::stream<GatedSocket>>) {
            ws_.next_layer().async_handshake(net::ssl::stream_base::server,
                                             [self = this->shared_from_this()](error_code ec) {
                                                 if (!ec) self->readRequest();
                                             });
        } else {
            readRequest();
        }
    }

    void send(std::string bytes, bool binary) override {
        if (!open_) return;
        outbox_.push_back({std::move(bytes), binary, 0});
        pump();
    }
    void closeWith(int code) override {
        if (!open_) return;
        outbox_.push_back({{}, false, code});
        pump();
    }
    void drop() override {
        error_code ignored;
        beast::get_lowest_layer(ws_).socket().close(ignored);
        releaseGate();
        markClosed();
    }
    void releaseGate() override { beast::get_lowest_layer(ws_).release(); }

  private:
    struct Outgoing {
        std::string bytes;
        bool binary;
        int closeCode;  // non-zero: a close frame
    };

    void readRequest() {
        http::async_read(ws_.next_layer(), buffer_, request_,
                         [self = this->shared_from_this()](error_code ec, std::size_t) {
                             if (!ec) self->onRequest();
                         });
    }

    void onRequest() {
        {
            std::lock_guard lock(state_->mutex);
            state_->targets.emplace_back(request_.target());
        }
        if (state_->refuseUpgrades.load() || !websocket::is_upgrade(request_)) {
            auto response = std::make_shared<http::response<http::string_body>>(
                http::status::forbidden, request_.version());
            response->set(http::field::connection, "close");
            response->body() = "upgrade refused";
            response->prepare_payload();
            http::async_write(ws_.next_layer(), *response,
                              [self = this->shared_from_this(), response](error_code, std::size_t) {
                                  self->drop();
                              });
            return;
        }
        ws_.async_accept(request_, [self = this->shared_from_this()](error_code ec) {
            if (ec) return;
            self->open_ = true;
            beast::get_lowest_layer(self->ws_).arm();
            {
                std::lock_guard lock(self->state_->mutex);
                ++self->state_->accepted;
                ++self->state_->open;
            }
            self->read();
        });
    }

    void read() {
        buffer_.clear();
        ws_.async_read(buffer_, [self = this->shared_from_this()](error_code ec, std::size_t) {
            self->onRead(ec);
        });
    }

    void onRead(error_code ec) {
        if (ec) {
            if (ec == websocket::error::closed) {
                std::lock_guard lock(state_->mutex);
                state_->closeCodes.push_back(static_cast<int>(ws_.reason().code));
            }
            markClosed();
            return;
        }
        if (ws_.got_text()) {
            std::lock_guard lock(state_->mutex);
            state_->texts.push_back(beast::buffers_to_string(buffer_.data()));
        }
        read();
    }

    void pump() {
        if (writing_ || outbox_.empty() || !open_) return;
        writing_ = true;
        Outgoing& next = outbox_.front();
        auto self = this->shared_from_this();
        auto done = [self](error_code ec, std::size_t = 0) {
            self->writing_ = false;
            self->outbox_.pop_front();
            if (ec) {
                self->outbox_.clear();
                return;
            }
            self->pump();
        };
        if (next.closeCode != 0) {
            ws_.async_close(websocket::close_reason(static_cast<std::uint16_t>(next.closeCode)),
                            [done](error_code ec) { done(ec); });
        } else {
            ws_.binary(next.binary);
            ws_.async_write(net::buffer(next.bytes), done);
        }
    }

    void markClosed() {
        if (!open_) return;
        open_ = false;
        std::lock_guard lock(state_->mutex);
        --state_->open;
    }

    std::shared_ptr<WsServer::State> state_;
    websocket::stream<Stream> ws_;
    beast::flat_buffer buffer_;
    http::request<http::string_body> request_;
    std::deque<Outgoing> outbox_;
    bool writing_ = false;
    bool open_ = false;
};

}  // namespace

void WsServer::State::accept(Run* r) {
    r->acceptor.async_accept([this, r](error_code ec, tcp::socket socket) {
        if (ec) return;  // the acceptor was closed
        // Sessions are owned by their pending operations; the list only reaches them.
        std::shared_ptr<Session> session;
        GatedSocket gated(std::move(socket), &answerPings);
        if (options.tls) {
            session = std::make_shared<WsSession<net::ssl::stream<GatedSocket>>>(
                shared_from_this(), net::ssl::stream<GatedSocket>(std::move(gated), *sslContext));
        } else {
            session =
                std::make_shared<WsSession<GatedSocket>>(shared_from_this(), std::move(gated));
        }
        std::erase_if(r->sessions, [](const auto& w) { return w.expired(); });
        r->sessions.push_back(session);
        session->run();
        accept(r);
    });
}

WsServer::WsServer() : WsServer(Options{}) {}

WsServer::WsServer(Options options) : state_(std::make_shared<State>()) {
    // The client under test may still be finishing a TLS connection on a worker of its pool
    // (never joined) when the test process exits; OpenSSL must not clean up under it.
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    state_->options = options;
    if (options.tls) {
        state_->credentials = makeSelfSigned();
        auto& ctx = state_->sslContext.emplace(net::ssl::context::tls_server);
        ctx.use_certificate_chain(net::buffer(state_->credentials.certPem));
        ctx.use_private_key(net::buffer(state_->credentials.keyPem), net::ssl::context::pem);
    }
    if (!start()) throw std::runtime_error("the test WebSocket server could not listen");
}

WsServer::~WsServer() { stop(); }

bool WsServer::start() {
    std::lock_guard lock(state_->runMutex);
    if (state_->run) return true;
    auto run = std::make_unique<State::Run>();
    error_code ec;
    const tcp::endpoint at(net::ip::make_address_v4("127.0.0.1"), port());
    run->acceptor.open(at.protocol(), ec);
    if (!ec) run->acceptor.set_option(net::socket_base::reuse_address(true), ec);
    if (!ec) run->acceptor.bind(at, ec);
    if (!ec) run->acceptor.listen(net::socket_base::max_listen_connections, ec);
    if (ec) return false;
    {
        std::lock_guard data(state_->mutex);
        state_->port = run->acceptor.local_endpoint().port();
    }
    run->work.emplace(run->ioc.get_executor());
    State::Run* r = run.get();
    state_->accept(r);
    r->finished = r->done.get_future();
    r->thread = std::thread([r] {
        r->ioc.run();
        r->done.set_value();
    });
    state_->run = std::move(run);
    return true;
}

void WsServer::stop() {
    std::unique_ptr<State::Run> run;
    {
        std::lock_guard lock(state_->runMutex);
        run = std::move(state_->run);
    }
    if (!run) return;
    State::Run* r = run.get();
    net::post(r->ioc, [r] {
        error_code ignored;
        r->acceptor.close(ignored);
        for (auto& weak : r->sessions)
            if (auto s = weak.lock()) s->drop();
        r->sessions.clear();
    });
    // With every socket closed, the pending operations finish with errors and run() returns;
    // stop() is the backstop for an operation that would not finish.
    run->work.reset();
    if (run->finished.wait_for(std::chrono::seconds(5)) != std::future_status::ready) {
        run->ioc.stop();
    }
    run->thread.join();
}

bool WsServer::running() const {
    std::lock_guard lock(state_->runMutex);
    return state_->run != nullptr;
}

std::uint16_t WsServer::port() const {
    std::lock_guard lock(state_->mutex);
    return state_->port;
}

std::string WsServer::url() const {
    return std::string(state_->options.tls ? "wss" : "ws") +
           "://127.0.0.1:" + std::to_string(port());
}

std::string WsServer::caCertificatePem() const { return state_->credentials.certPem; }

std::vector<std::string> WsServer::targets() const {
    std::lock_guard lock(state_->mutex);
    return state_->targets;
}
std::vector<std::string> WsServer::texts() const {
    std::lock_guard lock(state_->mutex);
    return state_->texts;
}
std::vector<int> WsServer::closeCodes() const {
    std::lock_guard lock(state_->mutex);
    return state_->closeCodes;
}
std::size_t WsServer::accepted() const {
    std::lock_guard lock(state_->mutex);
    return state_->accepted;
}
std::size_t WsServer::openSessions() const {
    std::lock_guard lock(state_->mutex);
    return state_->open;
}

void WsServer::sendText(const std::string& text) {
    state_->forEachSession([text](Session& s) { s.send(text, false); });
}
void WsServer::sendBinary(const std::string& bytes) {
    state_->forEachSession([bytes](Session& s) { s.send(bytes, true); });
}
void WsServer::setAnswerPings(bool answer) {
    state_->answerPings.store(answer);
    if (answer) state_->forEachSession([](Session& s) { s.releaseGate(); });
}
void WsServer::setRefuseUpgrades(bool refuse) { state_->refuseUpgrades.store(refuse); }
void WsServer::closeAll(int code) {
    state_->forEachSession([code](Session& s) { s.closeWith(code); });
}

}  // namespace kestro::test
