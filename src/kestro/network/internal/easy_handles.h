#pragma once

// Internal to the network subsystem: the libcurl easy handles transfers run on.

#include <curl/curl.h>

#include <cstddef>
#include <vector>

namespace kestro::network::internal {

/// Spare easy handles, kept with the options every transfer shares already set (callbacks,
/// protocols, redirects, content decoding, HTTP/2, user agent), so that a reused handle only
/// gets the options of its request and keeps libcurl's buffers.
///
/// Not synchronised: the loop uses it under its mutex.
class EasyHandles {
  public:
    EasyHandles() = default;
    EasyHandles(const EasyHandles&) = delete;
    EasyHandles& operator=(const EasyHandles&) = delete;

    /// A spare handle, or a new one with the shared options set; null when libcurl cannot make
    /// one.
    CURL* take();
    /// Keeps a handle whose transfer has ended (or frees it when enough are kept). A handle
    /// that carried per-session trust or followed a redirect (libcurl keeps the referer it
    /// made) is given with `needsReset` and reset first; any other keeps its options, with
    /// nothing of the finished request left reachable from it.
    void give(CURL* easy, bool needsReset);

  private:
    static constexpr std::size_t kSpareEasyHandles = 32;
    static void configure(CURL* e);
    std::vector<CURL*> spare_;
};

}  // namespace kestro::network::internal
