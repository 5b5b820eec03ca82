#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "kestro/core/export.h"

namespace kestro {

namespace network::internal {
/// ASCII case-insensitive ordering, so that header names compare as HTTP compares them.
struct CaseInsensitiveLess {
    using is_transparent = void;
    bool operator()(std::string_view a, std::string_view b) const noexcept;
};
}  // namespace network::internal

/// Header fields of a request or a response. Names compare case-insensitively ("content-type"
/// finds "Content-Type"); a name appears once, repeated fields are joined with ", ".
using HTTPHeaderFields = std::map<std::string, std::string, network::internal::CaseInsensitiveLess>;

/// The canonical capitalisation of a header name: each word between hyphens starts with an
/// upper-case letter, the rest is lower case ("content-TYPE" → "Content-Type").
KESTRO_API std::string canonicalHeaderName(std::string_view name);

/// How a request may use cached responses. The layer keeps no response cache of its own, so
/// every policy loads from the network; the value travels with the request for handlers that
/// care.
enum class URLRequestCachePolicy : std::uint8_t {
    useProtocolCachePolicy = 0,
    reloadIgnoringLocalCacheData = 1,
    returnCacheDataElseLoad = 2,
    returnCacheDataDontLoad = 3,
};

/// A value attached to a request under a text key (see URLProtocol::setProperty). Properties
/// live inside the process only; they are never sent on the wire.
using URLPropertyValue = std::variant<bool, std::int64_t, double, std::string>;

/// One HTTP request: a plain value. Copies carry everything, the property bag included, so a
/// property set on a request is seen on every copy made afterwards.
///
/// Not synchronised: one request object is used by one thread at a time (copy it to share).
struct KESTRO_API URLRequest {
    URLRequest() = default;
    explicit URLRequest(
        std::string url,
        URLRequestCachePolicy cachePolicy = URLRequestCachePolicy::useProtocolCachePolicy,
        std::optional<std::chrono::milliseconds> timeoutInterval = std::nullopt);

    /// Absolute URL text; absent for a request made without one.
    std::optional<std::string> url;
    /// Absent means "GET".
    std::optional<std::string> httpMethod;
    HTTPHeaderFields allHTTPHeaderFields;
    /// Body bytes; absent means no body at all (different from an empty body).
    std::optional<std::string> httpBody;
    /// Longest wait for the next byte (connecting included). Absent: the session's
    /// timeoutIntervalForRequest applies.
    std::optional<std::chrono::milliseconds> timeoutInterval;
    URLRequestCachePolicy cachePolicy = URLRequestCachePolicy::useProtocolCachePolicy;
    /// The property bag; use URLProtocol::property / setProperty to read and write it.
    std::map<std::string, URLPropertyValue, std::less<>> properties;

    /// httpMethod, or "GET" when it is absent.
    std::string method() const { return httpMethod.value_or("GET"); }
    /// Sets (replaces) a header field.
    void setValue(std::string value, std::string_view field);
    /// Appends to a header field: a second value is joined with ", ".
    void addValue(std::string_view value, std::string_view field);
    std::optional<std::string> value(std::string_view field) const;

    bool operator==(const URLRequest&) const = default;
};

/// How long each phase of one transfer took, in milliseconds, as libcurl measured it: name
/// lookup, TCP connect, TLS handshake, from the connection's being ready to the answer's first
/// byte (sending the request and the server's work), and receiving the rest. A phase that did
/// not happen (lookup and connect on a reused connection, TLS over plain HTTP) is 0. The five
/// add up to the transfer's whole time.
struct KESTRO_API URLSessionTaskMetrics {
    double nameLookup = 0;
    double connect = 0;
    double tls = 0;
    double firstByte = 0;
    double transfer = 0;

    bool operator==(const URLSessionTaskMetrics&) const = default;
};

/// The head of an HTTP response: final URL (after redirects), status, header fields in
/// canonical capitalisation, and the protocol version ("HTTP/1.1", "HTTP/2", ...). A plain
/// value; handlers may build one themselves (mock answers).
struct KESTRO_API HTTPURLResponse {
    HTTPURLResponse() = default;
    HTTPURLResponse(std::string url, std::int64_t statusCode, std::string httpVersion,
                    HTTPHeaderFields headerFields);

    std::string url;
    std::int64_t statusCode = 0;
    std::string httpVersion = "HTTP/1.1";
    HTTPHeaderFields allHeaderFields;
    /// The phases of the transfer that brought this response, when the session's loop made it
    /// (absent in responses that handlers build, such as mock answers).
    std::optional<URLSessionTaskMetrics> metrics;

    std::optional<std::string> value(std::string_view field) const;
    /// The "Content-Length" field as a number, or -1 when absent or not a number.
    std::int64_t expectedContentLength() const;

    bool operator==(const HTTPURLResponse&) const = default;
};

/// Codes of the errors the URL-loading layer makes itself (domain URLError::kDomain). Each
/// failure kind has its own code.
enum class URLErrorCode : std::int64_t {
    unknown = -1,
    cancelled = -999,
    badURL = -1000,
    timedOut = -1001,
    unsupportedURL = -1002,
    cannotFindHost = -1003,
    cannotConnectToHost = -1004,
    networkConnectionLost = -1005,
    httpTooManyRedirects = -1007,
    badServerResponse = -1011,
    cannotDecodeContentData = -1016,
    cannotParseResponse = -1017,
    dataLengthExceedsMaximum = -1103,
    secureConnectionFailed = -1200,
    serverCertificateUntrusted = -1202,
};

/// An error: a domain, an integer code and an optional human-readable description. Errors of
/// the loading layer use kDomain and a URLErrorCode; other parts of Kestro (the upload) make
/// errors of their own domains.
struct KESTRO_API URLError {
    static constexpr const char* kDomain = "KestroURLErrorDomain";

    std::string domain;
    std::int64_t code = 0;
    std::optional<std::string> description;

    URLError() = default;
    URLError(std::string domain, std::int64_t code, std::optional<std::string> description = {})
        : domain(std::move(domain)), code(code), description(std::move(description)) {}
    /// An error of the loading layer, described in its standard words plus detail if given.
    static URLError make(URLErrorCode code, std::string_view detail = {});

    /// The description, or for an error without one "The operation couldn’t be completed. ("
    /// + domain + " error " + code + ".)".
    std::string localizedDescription() const;
    bool is(URLErrorCode c) const {
        return domain == kDomain && code == static_cast<std::int64_t>(c);
    }

    bool operator==(const URLError&) const = default;
};

}  // namespace kestro
