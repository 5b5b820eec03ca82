#pragma once

// Internal to the network subsystem: libcurl's callbacks of one transfer. They run on the
// thread driving the loop, under its mutex, with the task as user data.

#include <curl/curl.h>

#include <cstddef>

namespace kestro::network::internal {

/// Body bytes: kept in the task, up to the session's maximumResponseBodySize (a declared
/// Content-Length past it fails the transfer at once, one within it is reserved in one piece).
std::size_t onResponseBody(char* data, std::size_t size, std::size_t n, void* task);
/// Header lines: a status line starts a new response head (after a 1xx or a followed
/// redirect); each field is kept under its canonical name, repeated fields joined with ", ".
std::size_t onResponseHeader(char* data, std::size_t size, std::size_t n, void* task);
/// Progress: bytes of the request body going out count as activity for the idle time-out.
int onTransferProgress(void* task, curl_off_t dlTotal, curl_off_t dlNow, curl_off_t ulTotal,
                       curl_off_t ulNow);

}  // namespace kestro::network::internal
