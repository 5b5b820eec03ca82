#pragma once

// Internal to the network subsystem: which certificate authorities a session trusts.

#include <curl/curl.h>

#include <optional>
#include <string>

#include "kestro/network/url_session.h"

namespace kestro::network::internal {

/// Where the system's trust store is: the bundle file and the folder of hashed certificates
/// named by OpenSSL's own variables SSL_CERT_FILE and SSL_CERT_DIR when they are set, each
/// otherwise libcurl's built-in one (on Debian /etc/ssl/certs/ca-certificates.crt and
/// /etc/ssl/certs). Read when a session is made.
struct SystemTrustStore {
    std::string file;    // empty: none
    std::string folder;  // empty: none
    bool named = false;  // either one was named by the environment
};
SystemTrustStore systemTrustStore();

/// The authorities a session's transfers verify servers against, fixed when the session is
/// made: the system's trust store, plus the configuration's additional authorities.
struct SessionTrust {
    SystemTrustStore system;
    std::string extraPEM;  // the additional authorities, file and text together; empty: none

    /// Whether transfers need trust options of their own (libcurl's defaults do otherwise);
    /// a handle that carried them is reset before it is used again.
    bool custom() const { return system.named || !extraPEM.empty(); }
};
SessionTrust makeSessionTrust(const URLSessionConfiguration& configuration);

/// Sets the transfer's trust options, for a session whose trust is custom().
void applyTrust(CURL* easy, const SessionTrust& trust);

}  // namespace kestro::network::internal
