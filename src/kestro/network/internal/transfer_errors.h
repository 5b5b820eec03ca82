#pragma once

// Internal to the network subsystem: what a libcurl transfer's result means to the layer.

#include <curl/curl.h>

#include <string>

#include "kestro/network/url_request.h"

namespace kestro::network::internal {

struct TaskCore;

/// The layer's error for a transfer that ended with `code`: each failure kind has its own
/// URLErrorCode, and libcurl's own words (its error buffer) as detail; a time-out is told in the
/// layer's words (TaskCore::timeoutError).
URLError errorFor(CURLcode code, const TaskCore& core);

/// "HTTP/1.1", "HTTP/2", ... for libcurl's CURLINFO_HTTP_VERSION.
std::string versionText(long version);

}  // namespace kestro::network::internal
