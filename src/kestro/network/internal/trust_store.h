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
    // The environment named a bundle or folder other than libcurl's built-in ones, so each
    // transfer must be told. (Many environments name the built-in ones themselves.)
    bool differsFromBuiltIn = false;
};
SystemTrustStore systemTrustStore();

/// The authorities a session's transfers verify servers against, fixed when the session is
/// made: the system's trust store, plus the configuration's additional authorities, which add
/// to it and never take its place.
///
/// libcurl takes a bundle from a file or from memory, not both (a bundle in memory replaces
/// the file), so a session with additional authorities hands it one bundle in memory: the
/// system bundle's text followed by theirs, beside the system folder. Such a session reads the
/// system bundle once, when it is made, and libcurl parses it at each new connection rather
/// than keeping it cached; connections are shared only between sessions whose bundles are the
/// same (libcurl compares them).
struct SessionTrust {
    SystemTrustStore system;
    // With additional authorities: the system bundle's text, then theirs. Empty otherwise.
    std::string bundleWithExtras;

    /// Whether transfers need trust options of their own (libcurl's defaults do otherwise);
    /// a handle that carried them is reset before it is used again.
    bool custom() const { return system.differsFromBuiltIn || !bundleWithExtras.empty(); }
};
SessionTrust makeSessionTrust(const URLSessionConfiguration& configuration);

/// Sets the transfer's trust options, for a session whose trust is custom().
void applyTrust(CURL* easy, const SessionTrust& trust);

}  // namespace kestro::network::internal
