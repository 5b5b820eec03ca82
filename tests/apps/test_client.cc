#include "test_client.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/json/parse.hpp>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace kestro::test {
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
namespace net = boost::asio;
using tcp = net::ip::tcp;

namespace {
constexpr auto kDeadline = std::chrono::seconds(5);

tcp::socket connectLoopback(net::io_context& ioc, std::uint16_t port, int receiveBuffer = 0) {
    tcp::socket socket(ioc);
    socket.open(tcp::v4());
    // Set before connecting, so that the window offered to the server is small from the start.
    if (receiveBuffer > 0) socket.set_option(net::socket_base::receive_buffer_size(receiveBuffer));
    socket.connect(tcp::endpoint(net::ip::address_v4::loopback(), port));
    setTimeouts(socket, kDeadline);
    return socket;
}
}  // namespace

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kestro-svc-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

boost::json::value HttpResult::json() const {
    boost::system::error_code ec;
    auto v = boost::json::parse(body, ec);
    return ec ? boost::json::value(nullptr) : v;
}

std::string HttpResult::header(const std::string& lowerName) const {
    auto it = headers.find(lowerName);
    return it == headers.end() ? std::string() : it->second;
}

void setTimeouts(tcp::socket& socket, std::chrono::milliseconds timeout) {
    timeval tv{};
    tv.tv_sec = static_cast<time_t>(timeout.count() / 1000);
    tv.tv_usec = static_cast<suseconds_t>((timeout.count() % 1000) * 1000);
    setsockopt(socket.native_handle(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(socket.native_handle(), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
}

HttpResult httpRequest(std::uint16_t port, const std::string& method, const std::string& target,
                       const std::string& body, const std::map<std::string, std::string>& headers) {
    net::io_context ioc;
    auto socket = connectLoopback(ioc, port);
    http::request<http::string_body> request(http::string_to_verb(method), target, 11);
    request.set(http::field::host, "127.0.0.1:" + std::to_string(port));
    for (const auto& [name, value] : headers) request.set(name, value);
    request.body() = body;
    request.prepare_payload();
    http::write(socket, request);

    beast::flat_buffer buffer;
    http::response_parser<http::string_body> parser;
    parser.body_limit(64 * 1024 * 1024);
    parser.skip(method == "HEAD");
    http::read(socket, buffer, parser);
    HttpResult result;
    result.status = parser.get().result_int();
    for (const auto& f : parser.get()) {
        std::string name(f.name_string());
        for (auto& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        result.headers[name] = std::string(f.value());
    }
    result.body = parser.get().body();
    return result;
}

HttpResult upload(std::uint16_t port, const std::string& path, const std::string& body,
                  const std::string& apiKey) {
    return httpRequest(port, "POST", path, body,
                       {{"Api-Key", apiKey}, {"Content-Type", "application/json"}});
}

std::string rawExchange(std::uint16_t port, const std::string& bytes, bool closeAfterWrite) {
    net::io_context ioc;
    auto socket = connectLoopback(ioc, port);
    net::write(socket, net::buffer(bytes));
    if (closeAfterWrite) {
        socket.close();
        return {};
    }
    std::string out;
    char chunk[4096];
    // Bounded by the socket's read deadline and by the size read.
    for (int i = 0; i < 256; ++i) {
        boost::system::error_code ec;
        const auto n = socket.read_some(net::buffer(chunk), ec);
        out.append(chunk, n);
        if (ec) break;
    }
    return out;
}

bool WsClient::connect(std::uint16_t port, const std::string& target, unsigned* status,
                       const std::map<std::string, std::string>& headers) {
    if (status) *status = 0;
    ws_.emplace(connectLoopback(ioc_, port, receiveBuffer_));
    ws_->control_callback([this](websocket::frame_type kind, beast::string_view) {
        if (kind == websocket::frame_type::pong) ++pongs_;
    });
    ws_->set_option(websocket::stream_base::decorator([headers](websocket::request_type& r) {
        for (const auto& [name, value] : headers) r.set(name, value);
    }));
    response_ = {};
    boost::system::error_code ec;
    ws_->handshake(response_, "127.0.0.1:" + std::to_string(port), target, ec);
    if (ec) {
        if (status) *status = response_.result_int();
        return false;
    }
    return true;
}

std::optional<std::string> WsClient::read(std::chrono::milliseconds timeout) {
    std::optional<std::string> out;
    bool done = false;
    ws_->async_read(buffer_, [&](boost::system::error_code ec, std::size_t n) {
        done = true;
        if (!ec) {
            out = beast::buffers_to_string(buffer_.data());
            buffer_.consume(n);
        }
    });
    ioc_.restart();
    ioc_.run_for(timeout);
    if (!done) {
        // The deadline passed: the connection is given up.
        boost::system::error_code ignored;
        ws_->next_layer().close(ignored);
        ioc_.restart();
        ioc_.run_for(std::chrono::seconds(1));
    }
    return out;
}

void WsClient::write(const std::string& text) {
    ws_->text(true);
    ws_->write(net::buffer(text));
}

void WsClient::writeRaw(const std::string& bytes) { net::write(socket(), net::buffer(bytes)); }

void WsClient::ping() { ws_->ping({}); }

int WsClient::closeCode() const { return ws_ ? static_cast<int>(ws_->reason().code) : 0; }

bool LivePage::open(std::uint16_t port, const std::string& token, unsigned* status,
                    std::map<std::string, std::string> headers) {
    headers.emplace("Sec-WebSocket-Protocol", "kestro.v1, kestro.token." + token);
    return ws_.connect(port, "/api/live", status, headers);
}

std::optional<boost::json::object> LivePage::next(std::chrono::milliseconds timeout) {
    if (pending_.empty()) {
        auto frame = ws_.read(timeout);
        if (!frame) return std::nullopt;
        std::size_t start = 0;
        while (start <= frame->size()) {
            const auto end = std::min(frame->find('\n', start), frame->size());
            boost::system::error_code ec;
            auto v = boost::json::parse(std::string_view(*frame).substr(start, end - start), ec);
            if (ec || !v.is_object()) throw std::runtime_error("not a message: " + *frame);
            pending_.push_back(std::move(v.as_object()));
            start = end + 1;
        }
    }
    auto message = std::move(pending_.front());
    pending_.pop_front();
    return message;
}

std::optional<boost::json::object> LivePage::waitFor(
    const std::function<bool(const boost::json::object&)>& match,
    std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    // Bounded by the deadline: each read waits at most until then.
    while (std::chrono::steady_clock::now() < deadline) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        auto message = next(std::max(left, std::chrono::milliseconds(1)));
        if (!message) return std::nullopt;
        if (match(*message)) return message;
    }
    return std::nullopt;
}

std::string messageType(const boost::json::object& message) {
    std::string type;
    if (const auto* t = message.if_contains("type"); t && t->is_string()) type = t->as_string();
    if (const auto* c = message.if_contains("change"); c && c->is_string()) {
        type += "." + std::string(c->as_string());
    }
    return type;
}

CertificateFiles writeCertificate(const std::filesystem::path& dir) {
    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* cert = X509_new();
    if (!key || !cert) throw std::runtime_error("openssl: no key");
    X509_set_version(cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert), -60);
    X509_gmtime_adj(X509_getm_notAfter(cert), 24L * 3600);
    X509_set_pubkey(cert, key);
    X509_NAME* name = X509_get_subject_name(cert);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
    X509_set_issuer_name(cert, name);
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, cert, cert, nullptr, nullptr, 0);
    for (const auto& [nid, value] :
         {std::pair<int, const char*>{NID_subject_alt_name, "IP:127.0.0.1,DNS:localhost"},
          std::pair<int, const char*>{NID_basic_constraints, "critical,CA:TRUE"}}) {
        X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
        if (!ext) throw std::runtime_error("openssl: extension");
        X509_add_ext(cert, ext, -1);
        X509_EXTENSION_free(ext);
    }
    if (X509_sign(cert, key, EVP_sha256()) == 0) throw std::runtime_error("openssl: sign");
    CertificateFiles files{dir / "cert.pem", dir / "key.pem"};
    FILE* c = std::fopen(files.cert.c_str(), "w");
    FILE* k = std::fopen(files.key.c_str(), "w");
    const bool ok = c && k && PEM_write_X509(c, cert) &&
                    PEM_write_PrivateKey(k, key, nullptr, nullptr, 0, nullptr, nullptr);
    if (c) std::fclose(c);
    if (k) std::fclose(k);
    X509_free(cert);
    EVP_PKEY_free(key);
    if (!ok) throw std::runtime_error("cannot write the certificate files");
    return files;
}

}  // namespace kestro::test
