#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "kestro/core/time_text.h"
#include "kestro/core/uuid.h"
#include "kestro/network/url_request.h"

namespace kestro {

/// The request half of a capture report: the forwarded copy's URL, method, header fields and
/// body bytes, and when the interceptor started it.
struct InterceptedRequest {
    struct Copy {
        std::optional<std::string> url;  // absolute text; absent when the request had none
        std::optional<std::string> method;
        std::map<std::string, std::string> headers;
        std::optional<std::string> body;  // bytes; the first ones only when cut
        /// Set when the body was longer than the capture limit: the whole body's size.
        std::optional<std::int64_t> bodyTotalBytes;
    };
    std::optional<Copy> request;
    std::optional<TimePoint> startedAt;
};

/// The response half of a capture report.
struct InterceptedResponse {
    std::int64_t statusCode = 0;
    std::map<std::string, std::string> headers;
    std::string body;  // text, base64 of the bytes, or "[non-utf8 text]"
    std::optional<TimePoint> receivedAt;
    /// Set when the body was longer than the capture limit: the whole body's size; `body` is
    /// then the captured form of its first bytes.
    std::optional<std::int64_t> bodyTotalBytes;
    /// The URL of the request it answers, as its start report gave it.
    std::optional<std::string> url;
    /// The phases of the real exchange; absent for mocked answers.
    std::optional<URLSessionTaskMetrics> timings;
};

/// One report of the network interceptor: the start of a request (request half only) or its
/// response (response half only), both under the same identifier.
struct InterceptedRequestWrapper {
    std::optional<InterceptedRequest> request;
    std::optional<InterceptedResponse> response;
    std::optional<UUID> requestId;
};

}  // namespace kestro
