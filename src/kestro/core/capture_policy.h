#pragma once

// What the SDK keeps of the application's traffic, and for how long: the redaction policy
// applied where a network record is made, the size at which a captured body is cut, and the
// limits of the on-device store. Plain values, part of KestroConfig and changeable at run time
// through the facade.

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace kestro {

/// The text that replaces a redacted value.
inline constexpr const char* kRedactedText = "<redacted>";

/// What is hidden, or not captured at all, in network records. Applied where a record is
/// made, so the store, the upload, the inspector, the dashboard and every export see only the
/// redacted form; the application's own request and response are never changed.
struct RedactionPolicy {
    /// False: nothing is redacted, dropped or skipped (a debugging session; see off()).
    bool enabled = true;
    /// Header names, compared case-insensitively; their values become "<redacted>".
    std::vector<std::string> headers{"authorization", "proxy-authorization", "cookie",
                                     "set-cookie", "x-api-key"};
    /// URL query item names (exact); every occurrence's value becomes "<redacted>".
    std::vector<std::string> queryItems;
    /// JSON object keys, at any depth of a body that parses as JSON; their values become
    /// "<redacted>" and the body is written again.
    std::vector<std::string> jsonKeys;
    /// Globs on "host" or "host/path" ('*' any run of characters, '?' one): matching
    /// exchanges are not captured at all.
    std::vector<std::string> notCaptured;
    /// Globs as above: matching exchanges' bodies that do not parse as JSON become
    /// "<redacted>" (JSON bodies there get the key rules like any other).
    std::vector<std::string> dropBodiesNotJSON;

    /// No redaction at all: `config.redaction = RedactionPolicy::off();`
    static RedactionPolicy off() {
        RedactionPolicy p;
        p.enabled = false;
        return p;
    }
    bool operator==(const RedactionPolicy&) const = default;
};

/// The default size above which a captured body is cut in its record (1 MiB).
inline constexpr std::int64_t kDefaultMaxBodyBytes = std::int64_t{1} << 20;

/// The on-device store's limits. Trimmed oldest first, off the capturing threads; a trim never
/// removes an item that is within every limit. A limit of 0 is no limit.
struct StoreRetention {
    std::int64_t maxItems = 50'000;
    std::chrono::seconds maxAge = std::chrono::days(14);
    std::int64_t maxBytes = std::int64_t{256} << 20;

    static StoreRetention unlimited() { return {0, std::chrono::seconds(0), 0}; }
    bool operator==(const StoreRetention&) const = default;
};

}  // namespace kestro
