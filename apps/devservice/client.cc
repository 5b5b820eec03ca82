#include "devservice/client.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>

namespace kestro::devservice {
namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
namespace ssl = net::ssl;
using tcp = net::ip::tcp;

namespace {

void setSocketTimeout(tcp::socket& socket, std::chrono::milliseconds timeout) {
    timeval tv{};
    tv.tv_sec = static_cast<time_t>(timeout.count() / 1000);
    tv.tv_usec = static_cast<suseconds_t>((timeout.count() % 1000) * 1000);
    setsockopt(socket.native_handle(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(socket.native_handle(), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
}

template <class Stream>
std::optional<HttpAnswer> exchange(Stream& stream, const ServiceAddress& service,
                                   const std::string& method, const std::string& target,
                                   const std::string& body, std::string* error) {
    http::request<http::string_body> request(http::string_to_verb(method), target, 11);
    request.set(http::field::host, fmt::format("{}:{}", service.host, service.port));
    request.set(http::field::user_agent, "kestro-devservice");
    if (!service.token.empty()) request.set(http::field::authorization, "Bearer " + service.token);
    if (!body.empty()) request.set(http::field::content_type, "application/json");
    request.body() = body;
    request.prepare_payload();
    beast::error_code ec;
    http::write(stream, request, ec);
    if (ec) {
        if (error) *error = "sending the request failed: " + ec.message();
        return std::nullopt;
    }
    beast::flat_buffer buffer;
    http::response_parser<http::string_body> parser;
    parser.body_limit(256 * 1024 * 1024);
    http::read(stream, buffer, parser, ec);
    if (ec) {
        if (error) *error = "reading the answer failed: " + ec.message();
        return std::nullopt;
    }
    const auto& response = parser.get();
    return HttpAnswer{response.result_int(), std::string(response[http::field::content_type]),
                      response.body()};
}

}  // namespace

std::string ServiceAddress::base() const {
    const bool v6 = host.find(':') != std::string::npos;
    return fmt::format("{}://{}{}{}:{}", trust.empty() ? "http" : "https", v6 ? "[" : "", host,
                       v6 ? "]" : "", port);
}

std::optional<HttpAnswer> httpExchange(const ServiceAddress& service, const std::string& method,
                                       const std::string& target, const std::string& body,
                                       std::string* error, std::chrono::milliseconds timeout) {
    auto fail = [&](std::string message) -> std::optional<HttpAnswer> {
        if (error) *error = std::move(message);
        return std::nullopt;
    };
    try {
        net::io_context ioc;
        tcp::resolver resolver(ioc);
        beast::error_code ec;
        const auto endpoints = resolver.resolve(service.host, std::to_string(service.port), ec);
        if (ec) return fail("cannot resolve " + service.host + ": " + ec.message());
        tcp::socket socket(ioc);
        net::connect(socket, endpoints, ec);
        if (ec) {
            return fail(fmt::format("cannot reach the service at {}:{}: {}", service.host,
                                    service.port, ec.message()));
        }
        setSocketTimeout(socket, timeout);
        if (service.trust.empty()) {
            auto answer = exchange(socket, service, method, target, body, error);
            socket.shutdown(tcp::socket::shutdown_both, ec);
            return answer;
        }
        ssl::context tls(ssl::context::tls_client);
        tls.set_default_verify_paths(ec);
        tls.load_verify_file(service.trust.string(), ec);
        if (ec) return fail("cannot read the certificate " + service.trust.string());
        tls.set_verify_mode(ssl::verify_peer);
        ssl::stream<tcp::socket> stream(std::move(socket), tls);
        stream.set_verify_callback(ssl::host_name_verification(service.host));
        // Server name indication carries host names only, never addresses.
        net::ip::make_address(service.host, ec);
        if (ec) SSL_set_tlsext_host_name(stream.native_handle(), service.host.c_str());
        stream.handshake(ssl::stream_base::client, ec);
        if (ec) return fail("the TLS handshake with the service failed: " + ec.message());
        return exchange(stream, service, method, target, body, error);
    } catch (const std::exception& e) {
        return fail(e.what());
    }
}

}  // namespace kestro::devservice
