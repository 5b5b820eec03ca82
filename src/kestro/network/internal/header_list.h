#pragma once

// Internal to the network subsystem: the header list a request hands to libcurl.

#include <curl/curl.h>

namespace kestro::network::internal {

struct TaskCore;

/// Gives the transfer its header list: the request's own fields, the session's additional
/// ones it does not override, and an empty "Expect:" (no "100-continue" round trip before
/// large bodies) unless the request sets one. A name or value ends at its first CR, LF or NUL,
/// so that no field can add lines of its own.
///
/// A request with no fields of its own (nor its session) shares one list made once for the
/// process. Any other list is built by hand in two allocations, kept in the task: its lines in
/// one buffer and libcurl's curl_slist nodes pointing into it, instead of three allocations
/// per field through curl_slist_append (libcurl only reads the list).
void setRequestHeaders(CURL* easy, TaskCore& core);

/// Frees the task's own list once libcurl no longer reads it.
void freeRequestHeaders(TaskCore& core);

}  // namespace kestro::network::internal
