#include "test_client.h"

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
#include <stdexcept>

namespace kestro::test {
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
namespace net = boost::asio;
using tcp = net::ip::tcp;

namespace {
constexpr auto kDeadline = std::chrono::seconds(5);

tcp::socket connectLoopback(net::io_context& ioc, std::uint16_t port) {
    tcp::socket socket(ioc);
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
    ws_.emplace(connectLoopback(ioc_, port));
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

}  // namespace kestro::test
