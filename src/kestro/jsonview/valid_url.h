#pragma once

// Recognising links in JSON strings: a text that is, as a whole, a dotted IPv4 address or looks
// like a web address (an optional http/https scheme, a host with a dot and a short top-level
// part, an optional path and query).
//
// Any thread. The regular expressions are compiled once per process.

#include <optional>
#include <string>
#include <string_view>

#include "kestro/core/export.h"

namespace kestro {

/// A text recognised as a link.
struct KESTRO_API ValidURL {
    std::string urlString;  // the text, with every backslash-slash pair replaced by a slash
    bool isIP = false;

    /// The address to open: for an IP "http://" + urlString; otherwise urlString itself when it
    /// parses as a URL with a scheme, else "https://" + urlString when that parses; else nothing.
    std::optional<std::string> openingURL() const;

    friend bool operator==(const ValidURL&, const ValidURL&) = default;
};

/// The link in text, or nothing: fewer than two characters give nothing; backslash-slash pairs
/// become slashes; the lower-cased result must match the IP pattern or the URL pattern whole.
KESTRO_API std::optional<ValidURL> validURL(std::string_view text);

}  // namespace kestro
