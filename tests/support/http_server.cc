#include "support/http_server.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/status.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/zlib/deflate_stream.hpp>
#include <boost/crc.hpp>
#include <condition_variable>
#include <stdexcept>
#include <thread>

namespace kestro::test {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace bhttp = boost::beast::http;
using asio::ip::tcp;

namespace {

constexpr auto kTuple = asio::as_tuple(asio::use_awaitable);

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(a[i])) !=
            std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    }
    return true;
}

// A self-signed certificate for 127.0.0.1 and localhost that is also its own authority, so a
// client can trust exactly this server by adding its PEM.
std::pair<std::string, std::string> makeCertificate() {
    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* cert = X509_new();
    if (!key || !cert) throw std::runtime_error("openssl: cannot make a key");
    X509_set_version(cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert),
                     static_cast<long>(std::chrono::steady_clock::now().time_since_epoch().count() &
                                       0x7fffffff));
    X509_gmtime_adj(X509_getm_notBefore(cert), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert), 30L * 24 * 3600);
    X509_set_pubkey(cert, key);
    X509_NAME* name = X509_get_subject_name(cert);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("Kestro tests"), -1, -1, 0);
    X509_set_issuer_name(cert, name);
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, cert, cert, nullptr, nullptr, 0);
    const std::pair<int, const char*> extensions[] = {
        {NID_subject_alt_name, "IP:127.0.0.1,DNS:localhost"},
        {NID_basic_constraints, "critical,CA:TRUE"},
        {NID_subject_key_identifier, "hash"},
    };
    for (const auto& [nid, value] : extensions) {
        X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
        if (!ext) throw std::runtime_error("openssl: bad extension");
        X509_add_ext(cert, ext, -1);
        X509_EXTENSION_free(ext);
    }
    if (X509_sign(cert, key, EVP_sha256()) == 0) throw std::runtime_error("openssl: sign");

    auto toText = [](BIO* bio) {
        char* data = nullptr;
        const long n = BIO_get_mem_data(bio, &data);
        std::string s(data, static_cast<std::size_t>(n));
        BIO_free(bio);
        return s;
    };
    BIO* certBio = BIO_new(BIO_s_mem());
    PEM_write_bio_X509(certBio, cert);
    BIO* keyBio = BIO_new(BIO_s_mem());
    PEM_write_bio_PrivateKey(keyBio, key, nullptr, nullptr, 0, nullptr, nullptr);
    std::pair<std::string, std::string> out{toText(certBio), toText(keyBio)};
    X509_free(cert);
    EVP_PKEY_free(key);
    return out;
}

std::string gzip(std::string_view in) {
    beast::zlib::deflate_stream ds;
    ds.reset(6, 15, 8, beast::zlib::Strategy::normal);
    std::string raw(in.size() + in.size() / 8 + 1024, '\0');
    beast::zlib::z_params zs;
    zs.next_in = in.data();
    zs.avail_in = in.size();
    zs.next_out = raw.data();
    zs.avail_out = raw.size();
    for (int round = 0; round < 64; ++round) {
        beast::error_code ec;
        ds.write(zs, beast::zlib::Flush::finish, ec);
        if (ec == beast::zlib::error::end_of_stream) break;
        if (ec && ec != beast::zlib::error::need_buffers) throw std::runtime_error("deflate");
        const std::size_t used = raw.size() - zs.avail_out;
        raw.resize(raw.size() * 2);
        zs.next_out = raw.data() + used;
        zs.avail_out = raw.size() - used;
    }
    raw.resize(zs.total_out);
    boost::crc_32_type crc;
    crc.process_bytes(in.data(), in.size());
    auto le32 = [](std::uint32_t v) {
        std::string s(4, '\0');
        for (int i = 0; i < 4; ++i) s[i] = static_cast<char>((v >> (8 * i)) & 0xff);
        return s;
    };
    // gzip member: magic, deflate, no flags, no time, no extra flags, OS unknown.
    std::string out("\x1f\x8b\x08\x00\x00\x00\x00\x00\x00\xff", 10);
    out += raw;
    out += le32(crc.checksum());
    out += le32(static_cast<std::uint32_t>(in.size()));
    return out;
}

std::string statusLine(int status) {
    std::string_view reason = bhttp::obsolete_reason(static_cast<bhttp::status>(status));
    if (reason.empty() || reason.front() == '<') reason = "Status";
    return "HTTP/1.1 " + std::to_string(status) + " " + std::string(reason) + "\r\n";
}

}  // namespace

std::optional<std::string> ReceivedRequest::header(std::string_view name) const {
    for (const auto& [n, v] : headers) {
        if (equalsIgnoringCase(n, name)) return v;
    }
    return std::nullopt;
}

HttpReply HttpReply::text(int status, std::string body, std::string contentType) {
    HttpReply r;
    r.status = status;
    r.body = std::move(body);
    r.headers.emplace_back("Content-Type", std::move(contentType));
    return r;
}

struct HttpServer::Impl {
    explicit Impl(HttpServer& o) : owner(o) {}

    HttpServer& owner;
    std::optional<asio::ssl::context> tls;  // outlives the connections that use it
    std::unique_ptr<asio::io_context> ioc = std::make_unique<asio::io_context>();
    std::optional<tcp::acceptor> acceptor;
    std::thread thread;
    bool stopped = false;

    mutable std::mutex mutex;
    mutable std::condition_variable arrived;
    std::vector<ReceivedRequest> received;
    std::size_t count = 0;
    bool keep = true;
    Handler handler;

    HttpReply answer(const ReceivedRequest& request) {
        Handler h;
        {
            std::lock_guard lock(mutex);
            if (keep) received.push_back(request);
            ++count;
            h = handler;
        }
        arrived.notify_all();
        if (!h) return HttpReply{};
        try {
            return h(request);
        } catch (const std::exception& e) {
            return HttpReply::text(500, std::string("handler threw: ") + e.what());
        }
    }

    template <typename Stream>
    asio::awaitable<void> serve(Stream& stream, std::uint64_t id, bool isTls) {
        beast::flat_buffer buffer;
        for (;;) {
            bhttp::request_parser<bhttp::string_body> parser;
            parser.body_limit(std::uint64_t(1) << 30);
            auto [ec, n] = co_await bhttp::async_read(stream, buffer, parser, kTuple);
            if (ec) co_return;
            const auto& req = parser.get();
            ReceivedRequest rec;
            rec.method = std::string(req.method_string());
            rec.target = std::string(req.target());
            for (const auto& f : req) {
                rec.headers.emplace_back(std::string(f.name_string()), std::string(f.value()));
            }
            rec.body = req.body();
            rec.connection = id;
            rec.tls = isTls;
            const bool keepAlive = req.keep_alive();
            const bool isHead = req.method() == bhttp::verb::head;
            HttpReply reply = answer(rec);

            if (reply.delay.count() > 0) {
                asio::steady_timer timer(stream.get_executor(), reply.delay);
                co_await timer.async_wait(kTuple);
            }
            switch (reply.fault) {
                case HttpReply::Fault::neverAnswer: {
                    asio::steady_timer timer(stream.get_executor(),
                                             asio::steady_timer::time_point::max());
                    co_await timer.async_wait(kTuple);
                    co_return;
                }
                case HttpReply::Fault::closeWithoutAnswer:
                    co_return;
                case HttpReply::Fault::invalidStatusLine: {
                    std::string junk = "HTTP/1.1 2x0 Fine\r\nContent-Length: 2\r\n\r\nok";
                    co_await asio::async_write(stream, asio::buffer(junk), kTuple);
                    co_return;
                }
                default:
                    break;
            }

            std::string body = reply.generatedBodySize ? std::string() : std::move(reply.body);
            if (reply.gzip && !reply.generatedBodySize) body = gzip(body);
            const std::uint64_t size =
                reply.generatedBodySize ? reply.generatedBodySize : body.size();
            const bool noBody = reply.status < 200 || reply.status == 204 || reply.status == 304;

            std::string head = statusLine(reply.status);
            for (const auto& [name, value] : reply.headers) head += name + ": " + value + "\r\n";
            if (reply.gzip) head += "Content-Encoding: gzip\r\n";
            if (!noBody) {
                head += reply.chunked ? std::string("Transfer-Encoding: chunked\r\n")
                                      : "Content-Length: " + std::to_string(size) + "\r\n";
            }
            if (reply.closeConnection || !keepAlive) head += "Connection: close\r\n";
            head += "\r\n";
            auto [wec, wn] = co_await asio::async_write(stream, asio::buffer(head), kTuple);
            if (wec) co_return;
            if (noBody || isHead) {
                if (reply.closeConnection || !keepAlive) co_return;
                continue;
            }

            const std::uint64_t toSend =
                reply.fault == HttpReply::Fault::closeMidBody ? size / 2 : size;
            const std::size_t piece = reply.chunked ? 4096 : 256 * 1024;
            std::string block;
            for (std::uint64_t off = 0; off < toSend;) {
                if (off > 0 && reply.pieceInterval.count() > 0) {
                    asio::steady_timer timer(stream.get_executor(), reply.pieceInterval);
                    co_await timer.async_wait(kTuple);
                }
                const std::size_t len =
                    static_cast<std::size_t>(std::min<std::uint64_t>(piece, toSend - off));
                if (reply.generatedBodySize) {
                    block.resize(len);
                    fillPattern(off, block.data(), len);
                } else {
                    block.assign(body, static_cast<std::size_t>(off), len);
                }
                if (reply.chunked) {
                    char sizeLine[32];
                    std::snprintf(sizeLine, sizeof sizeLine, "%zx\r\n", len);
                    block.insert(0, sizeLine);
                    block += "\r\n";
                }
                auto [bec, bn] = co_await asio::async_write(stream, asio::buffer(block), kTuple);
                if (bec) co_return;
                off += len;
            }
            if (reply.fault == HttpReply::Fault::closeMidBody) co_return;
            if (reply.chunked) {
                auto [cec, cn] =
                    co_await asio::async_write(stream, asio::buffer("0\r\n\r\n", 5), kTuple);
                if (cec) co_return;
            }
            if (reply.closeConnection || !keepAlive) co_return;
        }
    }

    asio::awaitable<void> servePlain(tcp::socket socket, std::uint64_t id) {
        co_await serve(socket, id, false);
        beast::error_code ec;
        socket.shutdown(tcp::socket::shutdown_both, ec);
    }

    asio::awaitable<void> serveTls(tcp::socket socket, std::uint64_t id) {
        asio::ssl::stream<tcp::socket> stream(std::move(socket), *tls);
        auto [ec] = co_await stream.async_handshake(asio::ssl::stream_base::server, kTuple);
        if (ec) co_return;
        co_await serve(stream, id, true);
        beast::error_code ignored;
        stream.next_layer().shutdown(tcp::socket::shutdown_both, ignored);
    }

    asio::awaitable<void> acceptLoop() {
        for (;;) {
            auto [ec, socket] = co_await acceptor->async_accept(kTuple);
            if (ec) co_return;
            beast::error_code ignored;
            socket.set_option(tcp::no_delay(true), ignored);
            const std::uint64_t id = ++owner.connections_;
            if (tls) {
                asio::co_spawn(*ioc, serveTls(std::move(socket), id), asio::detached);
            } else {
                asio::co_spawn(*ioc, servePlain(std::move(socket), id), asio::detached);
            }
        }
    }
};

HttpServer::HttpServer(Handler handler, Scheme scheme)
    : impl_(std::make_unique<Impl>(*this)), scheme_(scheme) {
    impl_->handler = std::move(handler);
    if (scheme == Scheme::https) {
        auto [certPem, keyPem] = makeCertificate();
        const TlsIdentity identity{certPem, keyPem};
        start(&identity);
    } else {
        start(nullptr);
    }
}

HttpServer::HttpServer(Handler handler, const TlsIdentity& identity)
    : impl_(std::make_unique<Impl>(*this)), scheme_(Scheme::https) {
    impl_->handler = std::move(handler);
    start(&identity);
}

void HttpServer::start(const TlsIdentity* identity) {
    if (identity) {
        certificatePem_ = identity->certificatePem;
        impl_->tls.emplace(asio::ssl::context::tls_server);
        impl_->tls->use_certificate_chain(asio::buffer(identity->certificatePem));
        impl_->tls->use_private_key(asio::buffer(identity->keyPem), asio::ssl::context::pem);
    }
    impl_->acceptor.emplace(*impl_->ioc);
    tcp::endpoint endpoint(asio::ip::make_address("127.0.0.1"), 0);
    impl_->acceptor->open(endpoint.protocol());
    impl_->acceptor->set_option(tcp::acceptor::reuse_address(true));
    impl_->acceptor->bind(endpoint);
    impl_->acceptor->listen(asio::socket_base::max_listen_connections);
    port_ = impl_->acceptor->local_endpoint().port();
    asio::co_spawn(*impl_->ioc, impl_->acceptLoop(), asio::detached);
    impl_->thread = std::thread([io = impl_->ioc.get()] { io->run(); });
}

HttpServer::~HttpServer() { stop(); }

void HttpServer::stop() {
    if (impl_->stopped) return;
    impl_->stopped = true;
    impl_->ioc->stop();
    impl_->thread.join();
    // Destroying the context destroys every suspended connection, which closes its socket.
    impl_->acceptor.reset();
    impl_->ioc.reset();
}

void HttpServer::setHandler(Handler handler) {
    std::lock_guard lock(impl_->mutex);
    impl_->handler = std::move(handler);
}

std::string HttpServer::url(std::string_view path) const {
    return std::string(scheme_ == Scheme::https ? "https" : "http") +
           "://127.0.0.1:" + std::to_string(port_) + std::string(path);
}

std::string HttpServer::localhostUrl(std::string_view path) const {
    return std::string(scheme_ == Scheme::https ? "https" : "http") +
           "://localhost:" + std::to_string(port_) + std::string(path);
}

std::vector<ReceivedRequest> HttpServer::requests() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->received;
}

std::size_t HttpServer::requestCount() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->count;
}

void HttpServer::keepRequests(bool keep) {
    std::lock_guard lock(impl_->mutex);
    impl_->keep = keep;
}

bool HttpServer::waitForRequests(std::size_t n, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(impl_->mutex);
    return impl_->arrived.wait_for(lock, timeout, [&] { return impl_->count >= n; });
}

}  // namespace kestro::test
