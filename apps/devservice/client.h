#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace kestro::devservice {

/// Where the command line's client finds a running service, and how it proves who it is.
struct ServiceAddress {
    std::string host = "127.0.0.1";
    std::uint16_t port = 3007;
    /// Sent as "Authorization: Bearer <token>" when not empty.
    std::string token;
    /// With a certificate file the connection is TLS, trusting that file and the system's
    /// authorities.
    std::filesystem::path trust;

    /// "http://host:port" (or https).
    std::string base() const;
};

/// An HTTP answer as the command line needs it.
struct HttpAnswer {
    unsigned status = 0;
    std::string contentType;
    std::string body;
};

/// One blocking HTTP/1.1 exchange with a running service. Gives nothing and sets `error` when
/// the service cannot be reached, the TLS handshake fails or no answer comes in time. Any
/// thread.
std::optional<HttpAnswer> httpExchange(
    const ServiceAddress& service, const std::string& method, const std::string& target,
    const std::string& body, std::string* error,
    std::chrono::milliseconds timeout = std::chrono::seconds(10));

}  // namespace kestro::devservice
