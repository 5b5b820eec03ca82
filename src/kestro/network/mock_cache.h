#pragma once

#include <boost/json/object.hpp>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kestro/core/export.h"
#include "kestro/network/snapshot.h"

namespace kestro {

/// One mock rule: a URL pattern and what to answer. Also the payload of the dashboard's mock
/// commands, as a JSON object with the keys "url", "mockedUrl", "statusCode", "headers", "body".
struct KESTRO_API MockCacheEntry {
    std::string url;                                          // the pattern; the rule's key
    std::optional<std::string> mockedUrl;                     // media: where to load instead
    std::optional<std::int64_t> statusCode;                   // 200 when absent
    std::optional<std::map<std::string, std::string>> headers;
    std::optional<std::string> body;

    /// "url" must be text; each other key may be absent or null; a value of the wrong type
    /// fails the whole decoding; unknown keys are ignored.
    static std::optional<MockCacheEntry> decode(const boost::json::object& from);
    /// "url" always, each optional key only when present.
    boost::json::object encode() const;

    /// Any header value, lowercased, contains `type`.
    bool isRequestOfType(std::string_view type) const;
    /// Of type "image/", "video/" or "audio/".
    bool isMediaRequest() const;

    bool operator==(const MockCacheEntry&) const = default;
};

/// Whether `url` matches the glob `pattern`: every character stands for itself, case-sensitively,
/// except "*", which stands for any run of characters that contains no line break (none
/// included). A URL that ends in one line break (CR LF counting as one) also matches what it
/// matches without it, as the anchored regular expression the glob stands for does. Linear in
/// practice and never fails, whatever the pattern holds.
KESTRO_API bool doesURLMatchPattern(std::string_view url, std::string_view pattern);

/// The mock rules, in memory, keyed by their pattern text, looked up in insertion order.
///
/// Thread safety: written on the main queue (dashboard commands), read on the loading threads
/// of concurrent requests. Readers work on an immutable snapshot that writers replace
/// atomically, so a lookup never waits for a write and sees the rules either before or after it.
class KESTRO_API MockCache {
public:
    using Rules = std::vector<std::pair<std::string, MockCacheEntry>>;

    MockCache();

    /// Stores the rule under `key`, replacing a rule with the same key in its place.
    void addToMockCache(const std::string& key, MockCacheEntry entry);
    /// Removes the rule stored under exactly `key`; unknown keys are ignored.
    void removeFromMockCache(const std::string& key);
    std::size_t getSize() const;
    /// The first rule, in insertion order, whose pattern matches the request URL, printing
    /// "Check mock cache entry …" per rule and "Mock Request …" on a match (verbose).
    std::optional<MockCacheEntry> getEntry(const std::string& key) const;

    /// The rules as they are now.
    std::shared_ptr<const Rules> mockCache() const;
    /// Replaces every rule.
    void setMockCache(Rules rules);

private:
    std::mutex writeMutex_;  // serialises writers; readers never take it
    network::internal::Snapshot<const Rules> rules_;
};

}  // namespace kestro
