#pragma once

// The operations of a redaction policy on the parts of a network exchange: header fields, the
// URL's query items, JSON bodies, and the globs that say which exchanges are not captured or
// keep no body that is not JSON. Pure functions of their inputs; the capture pipeline applies
// them where a record is made.

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kestro/core/capture_policy.h"
#include "kestro/core/export.h"

namespace kestro {

/// Whether `text` matches `pattern` as a whole: '*' matches any run of characters (none
/// included), '?' exactly one byte, anything else itself, ASCII letters in either case.
KESTRO_API bool globMatches(std::string_view pattern, std::string_view text);

/// Whether any of `globs` matches the URL's host (lower case, without user or port) or its
/// "host/path" (the path without query or fragment; "/" when it has none).
KESTRO_API bool urlMatchesAnyGlob(const std::vector<std::string>& globs, std::string_view url);

/// The URL with the value of every query item whose name (percent-decoded) is one of `names`
/// replaced by "<redacted>"; every other byte is kept as it was. An item without '=' has no
/// value and is kept.
KESTRO_API std::string redactQueryItems(std::string_view url,
                                        const std::vector<std::string>& names);

/// When `text` is one well-formed JSON document: the same text with the value of every object
/// member whose key (unescaped) is one of `keys` replaced by the JSON string "<redacted>", at
/// any depth and for every duplicate, everything else byte for byte. Nothing when `text` is
/// not JSON. With no keys it only checks the text.
KESTRO_API std::optional<std::string> redactJSONKeys(std::string_view text,
                                                     const std::vector<std::string>& keys);

/// A policy prepared for use on many records: the names it compares, lowered once. A plain
/// value, read concurrently by any number of threads.
class KESTRO_API Redactor {
  public:
    explicit Redactor(RedactionPolicy policy = {});

    const RedactionPolicy& policy() const { return policy_; }

    /// False when a notCaptured glob matches the URL: the exchange makes no record.
    bool captures(std::string_view url) const;
    /// The named header fields' values become "<redacted>", names compared in any case.
    void redactHeaders(std::map<std::string, std::string>& headers) const;
    /// The URL with named query items' values hidden.
    std::string redactURL(std::string_view url) const;
    /// A captured body of the exchange at `url`: JSON with the named keys' values hidden; a
    /// body that is not JSON stays as it is, or becomes "<redacted>" when a dropBodiesNotJSON
    /// glob matches the URL. An empty body stays empty.
    std::string redactBody(std::string body, std::string_view url) const;

  private:
    RedactionPolicy policy_;
    std::vector<std::string> lowerHeaders_;
};

}  // namespace kestro
