#pragma once

#include <boost/json/value.hpp>
#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "kestro/core/export.h"
#include "kestro/network/url_session.h"

namespace kestro::http {

/// The outcome of one call: the status, header fields and body of the response, or the error
/// that ended the request. A plain value.
struct KESTRO_API Result {
    std::int64_t status = 0;  // 0 when no response arrived
    HTTPHeaderFields headers;
    std::string body;
    std::optional<URLError> error;

    /// No error and a status in 200–299.
    bool ok() const { return !error && status >= 200 && status <= 299; }
    /// The body parsed as JSON, or nothing when it is not JSON.
    std::optional<boost::json::value> json() const;
    /// One line for logs: "200 OK (12 bytes)", "404 (0 bytes)" or the error's description.
    std::string summary() const;
};

using Callback = std::function<void(Result)>;

/// Per-call settings beyond the URL and the body.
struct KESTRO_API Options {
    HTTPHeaderFields headers;
    /// Longest wait for the next byte; absent: the session's setting.
    std::optional<std::chrono::milliseconds> timeout;
    /// The session to load on; absent: URLSession::shared() (which capture handlers see).
    URLSession* session = nullptr;
};

// One-line calls for the common cases. They return at once; the callback runs once, where a
// data task's completion runs (a loading thread or a worker of the global executor, never the
// calling thread). Any thread.

/// GET url.
KESTRO_API void get(std::string url, Callback callback, Options options = {});
/// POST a JSON value (serialised compactly, "Content-Type: application/json").
KESTRO_API void postJSON(std::string url, const boost::json::value& body, Callback callback,
                         Options options = {});
/// Any request.
KESTRO_API void send(URLRequest request, Callback callback, Options options = {});

// Blocking forms for command-line tools: they wait for the result at most `deadline`, after
// which the request is cancelled and the result carries URLErrorCode::timedOut. They hold the
// calling thread meanwhile; inside a completion prefer the callback forms, since a completion
// that waits keeps a loading thread or an executor worker from other work.

KESTRO_API Result getBlocking(std::string url, std::chrono::milliseconds deadline,
                              Options options = {});
KESTRO_API Result postJSONBlocking(std::string url, const boost::json::value& body,
                                   std::chrono::milliseconds deadline, Options options = {});
KESTRO_API Result sendBlocking(URLRequest request, std::chrono::milliseconds deadline,
                               Options options = {});

}  // namespace kestro::http
