#include "kestro/network/url_request.h"

#include <charconv>

namespace kestro {

namespace network::internal {

namespace {
char lowerAscii(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }
}  // namespace

bool CaseInsensitiveLess::operator()(std::string_view a, std::string_view b) const noexcept {
    const std::size_t n = std::min(a.size(), b.size());
    for (std::size_t i = 0; i < n; ++i) {
        const char x = lowerAscii(a[i]);
        const char y = lowerAscii(b[i]);
        if (x != y) return static_cast<unsigned char>(x) < static_cast<unsigned char>(y);
    }
    return a.size() < b.size();
}

}  // namespace network::internal

std::string canonicalHeaderName(std::string_view name) {
    std::string out(name);
    bool startOfWord = true;
    for (char& c : out) {
        if (startOfWord && c >= 'a' && c <= 'z') {
            c = static_cast<char>(c - 'a' + 'A');
        } else if (!startOfWord && c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
        startOfWord = (c == '-');
    }
    return out;
}

URLRequest::URLRequest(std::string url, URLRequestCachePolicy cachePolicy,
                       std::optional<std::chrono::milliseconds> timeoutInterval)
    : url(std::move(url)), timeoutInterval(timeoutInterval), cachePolicy(cachePolicy) {}

void URLRequest::setValue(std::string value, std::string_view field) {
    auto it = allHTTPHeaderFields.find(field);
    if (it != allHTTPHeaderFields.end()) {
        it->second = std::move(value);
    } else {
        allHTTPHeaderFields.emplace(std::string(field), std::move(value));
    }
}

void URLRequest::addValue(std::string_view value, std::string_view field) {
    auto it = allHTTPHeaderFields.find(field);
    if (it == allHTTPHeaderFields.end()) {
        allHTTPHeaderFields.emplace(std::string(field), std::string(value));
    } else {
        it->second.append(", ").append(value);
    }
}

std::optional<std::string> URLRequest::value(std::string_view field) const {
    auto it = allHTTPHeaderFields.find(field);
    if (it == allHTTPHeaderFields.end()) return std::nullopt;
    return it->second;
}

HTTPURLResponse::HTTPURLResponse(std::string url, std::int64_t statusCode, std::string httpVersion,
                                 HTTPHeaderFields headerFields)
    : url(std::move(url)),
      statusCode(statusCode),
      httpVersion(std::move(httpVersion)),
      allHeaderFields(std::move(headerFields)) {}

std::optional<std::string> HTTPURLResponse::value(std::string_view field) const {
    auto it = allHeaderFields.find(field);
    if (it == allHeaderFields.end()) return std::nullopt;
    return it->second;
}

std::int64_t HTTPURLResponse::expectedContentLength() const {
    auto it = allHeaderFields.find(std::string_view("Content-Length"));
    if (it == allHeaderFields.end()) return -1;
    std::int64_t n = -1;
    const std::string& s = it->second;
    auto [p, ec] = std::from_chars(s.data(), s.data() + s.size(), n);
    if (ec != std::errc() || p != s.data() + s.size() || n < 0) return -1;
    return n;
}

namespace {
const char* standardWords(URLErrorCode code) {
    switch (code) {
        case URLErrorCode::cancelled:
            return "The request was cancelled.";
        case URLErrorCode::badURL:
            return "The URL is not valid.";
        case URLErrorCode::timedOut:
            return "The request timed out.";
        case URLErrorCode::unsupportedURL:
            return "The URL's scheme is not supported.";
        case URLErrorCode::cannotFindHost:
            return "The server's host name could not be found.";
        case URLErrorCode::cannotConnectToHost:
            return "Could not connect to the server.";
        case URLErrorCode::networkConnectionLost:
            return "The network connection was lost.";
        case URLErrorCode::httpTooManyRedirects:
            return "There were too many redirects.";
        case URLErrorCode::badServerResponse:
            return "The server sent a response that is not HTTP.";
        case URLErrorCode::cannotDecodeContentData:
            return "The response body could not be decoded.";
        case URLErrorCode::cannotParseResponse:
            return "The response could not be parsed.";
        case URLErrorCode::dataLengthExceedsMaximum:
            return "The response body is larger than the session's maximum.";
        case URLErrorCode::secureConnectionFailed:
            return "A secure connection to the server could not be made.";
        case URLErrorCode::serverCertificateUntrusted:
            return "The server's certificate is not trusted.";
        case URLErrorCode::unknown:
            break;
    }
    return "The request failed.";
}
}  // namespace

URLError URLError::make(URLErrorCode code, std::string_view detail) {
    std::string text = standardWords(code);
    if (!detail.empty()) text.append(" (").append(detail).append(")");
    return URLError(kDomain, static_cast<std::int64_t>(code), std::move(text));
}

std::string URLError::localizedDescription() const {
    if (description) return *description;
    return "The operation couldn’t be completed. (" + domain + " error " + std::to_string(code) +
           ".)";
}

}  // namespace kestro
