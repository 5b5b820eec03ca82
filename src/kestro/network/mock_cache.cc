#include "kestro/network/mock_cache.h"

#include <algorithm>
#include <cctype>

#include "kestro/core/console.h"
#include "kestro/core/json_numbers.h"

namespace kestro {
namespace {

namespace json = boost::json;

// Decodes one code point of UTF-8 at s[i], advancing i. Bytes that do not start a valid
// sequence stand for themselves (as values above the Unicode range, so they never equal a
// real character or a line break).
char32_t nextCodePoint(std::string_view s, std::size_t& i) {
    const auto b0 = static_cast<unsigned char>(s[i]);
    auto cont = [&](std::size_t k) {
        return i + k < s.size() && (static_cast<unsigned char>(s[i + k]) & 0xC0) == 0x80;
    };
    auto at = [&](std::size_t k) { return static_cast<char32_t>(s[i + k] & 0x3F); };
    if (b0 < 0x80) {
        ++i;
        return b0;
    }
    if (b0 >= 0xC2 && b0 < 0xE0 && cont(1)) {
        const char32_t c = ((b0 & 0x1F) << 6) | at(1);
        i += 2;
        return c;
    }
    if (b0 >= 0xE0 && b0 < 0xF0 && cont(1) && cont(2)) {
        const char32_t c = ((b0 & 0x0F) << 12) | (at(1) << 6) | at(2);
        if (c >= 0x800 && (c < 0xD800 || c > 0xDFFF)) {
            i += 3;
            return c;
        }
    }
    if (b0 >= 0xF0 && b0 < 0xF5 && cont(1) && cont(2) && cont(3)) {
        const char32_t c = ((b0 & 0x07) << 18) | (at(1) << 12) | (at(2) << 6) | at(3);
        if (c >= 0x10000 && c <= 0x10FFFF) {
            i += 4;
            return c;
        }
    }
    ++i;
    return 0x110000 + b0;
}

// The characters a "*" cannot run across: the line terminators of regular expressions.
bool isLineBreak(char32_t c) {
    return (c >= 0x0A && c <= 0x0D) || c == 0x85 || c == 0x2028 || c == 0x2029;
}

std::vector<char32_t> codePoints(std::string_view s) {
    std::vector<char32_t> out;
    out.reserve(s.size());
    for (std::size_t i = 0; i < s.size();) out.push_back(nextCodePoint(s, i));
    return out;
}

constexpr char32_t kStar = U'*';

// Plain ASCII without line breaks: every byte is one character and "*" may take any of them.
bool isPlainASCII(std::string_view s) {
    for (const char c : s) {
        const auto b = static_cast<unsigned char>(c);
        if (b >= 0x80 || (b >= 0x0A && b <= 0x0D)) return false;
    }
    return true;
}

// The glob match on bytes, for plain ASCII text: the classic two-pointer walk that lets the
// last star seen take one more character whenever the rest fails to match. With stars that
// may take anything this finds a match exactly when one exists, in O(|url| * |pattern|) at
// worst and in one pass for the patterns rules use. No allocation.
bool matchesPlain(std::string_view url, std::string_view pattern) {
    std::size_t u = 0, p = 0;
    std::size_t starP = std::string_view::npos, starU = 0;
    while (u < url.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            starP = p++;
            starU = u;
        } else if (p < pattern.size() && pattern[p] == url[u]) {
            ++p;
            ++u;
        } else if (starP != std::string_view::npos) {
            p = starP + 1;
            u = ++starU;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == '*') ++p;
    return p == pattern.size();
}

// The length of the one line break that ends `s` (CR LF counts as one), 0 without one. The
// bytes of U+0085, U+2028 and U+2029 always stand for those characters at the end of a text:
// none of them can continue an earlier sequence.
std::size_t finalLineBreakLength(std::string_view s) {
    if (s.ends_with("\r\n")) return 2;
    if (!s.empty() && s.back() >= 0x0A && s.back() <= 0x0D) return 1;
    if (s.ends_with("\xC2\x85")) return 2;
    if (s.ends_with("\xE2\x80\xA8") || s.ends_with("\xE2\x80\xA9")) return 3;
    return 0;
}

bool globMatches(std::string_view url, std::string_view pattern) {
    if (pattern.find('*') == std::string_view::npos) return url == pattern;
    if (isPlainASCII(url) && isPlainASCII(pattern)) return matchesPlain(url, pattern);

    const std::vector<char32_t> p = codePoints(pattern);
    const std::vector<char32_t> u = codePoints(url);
    // reach[j]: the pattern's first j characters match the URL's characters read so far.
    // One pass over the URL, one row of states: O(|url| * |pattern|) time, no recursion.
    std::vector<char> reach(p.size() + 1, 0), next(p.size() + 1, 0);
    reach[0] = 1;
    for (std::size_t j = 0; j < p.size() && p[j] == kStar; ++j) reach[j + 1] = 1;
    for (const char32_t c : u) {
        std::fill(next.begin(), next.end(), 0);
        bool any = false;
        for (std::size_t j = 0; j < p.size(); ++j) {
            if (!reach[j] && !(p[j] == kStar && reach[j + 1])) continue;
            if (p[j] == kStar) {
                // The star (entered at j, or already inside it at j + 1) takes c.
                if ((reach[j] || reach[j + 1]) && !isLineBreak(c)) next[j + 1] = 1;
            } else if (reach[j] && p[j] == c) {
                next[j + 1] = 1;
            }
        }
        // A star may also match nothing: its end state follows its start state.
        for (std::size_t j = 0; j < p.size(); ++j) {
            if (p[j] == kStar && next[j]) next[j + 1] = 1;
            any = any || next[j];
        }
        any = any || next[p.size()];
        reach.swap(next);
        if (!any) return false;
    }
    return reach[p.size()] != 0;
}

}  // namespace

// The glob stands for an anchored regular expression, and its "$" matches at the end of the
// text and also before one line break that ends it: "https://h/a" and "https://h/*" match the
// URL "https://h/a\n" too.
bool doesURLMatchPattern(std::string_view url, std::string_view pattern) {
    if (globMatches(url, pattern)) return true;
    const std::size_t lineBreak = finalLineBreakLength(url);
    return lineBreak > 0 && globMatches(url.substr(0, url.size() - lineBreak), pattern);
}

// --- MockCacheEntry -------------------------------------------------------------------------

std::optional<MockCacheEntry> MockCacheEntry::decode(const json::object& from) {
    MockCacheEntry e;
    const json::value* url = from.if_contains("url");
    if (url == nullptr || !url->is_string()) return std::nullopt;
    e.url = std::string(url->get_string());

    auto present = [&](const char* key) -> const json::value* {
        const json::value* v = from.if_contains(key);
        return v == nullptr || v->is_null() ? nullptr : v;
    };
    if (const json::value* v = present("mockedUrl")) {
        if (!v->is_string()) return std::nullopt;
        e.mockedUrl = std::string(v->get_string());
    }
    if (const json::value* v = present("statusCode")) {
        e.statusCode = jsonInteger(*v);
        if (!e.statusCode) return std::nullopt;
    }
    if (const json::value* v = present("headers")) {
        if (!v->is_object()) return std::nullopt;
        std::map<std::string, std::string> headers;
        for (const auto& kv : v->get_object()) {
            if (!kv.value().is_string()) return std::nullopt;
            headers[std::string(kv.key())] = std::string(kv.value().get_string());
        }
        e.headers = std::move(headers);
    }
    if (const json::value* v = present("body")) {
        if (!v->is_string()) return std::nullopt;
        e.body = std::string(v->get_string());
    }
    return e;
}

json::object MockCacheEntry::encode() const {
    json::object o;
    o["url"] = url;
    if (mockedUrl) o["mockedUrl"] = *mockedUrl;
    if (statusCode) o["statusCode"] = *statusCode;
    if (headers) {
        json::object h;
        for (const auto& [k, v] : *headers) h[k] = v;
        o["headers"] = std::move(h);
    }
    if (body) o["body"] = *body;
    return o;
}

bool MockCacheEntry::isRequestOfType(std::string_view type) const {
    if (!headers) return false;
    for (const auto& [name, value] : *headers) {
        std::string lower = value;
        std::transform(lower.begin(), lower.end(), lower.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        if (lower.find(type) != std::string::npos) return true;
    }
    return false;
}

bool MockCacheEntry::isMediaRequest() const {
    return isRequestOfType("image/") || isRequestOfType("video/") || isRequestOfType("audio/");
}

// --- MockCache ------------------------------------------------------------------------------

MockCache::MockCache() : rules_(std::make_shared<const Rules>()) {}

void MockCache::addToMockCache(const std::string& key, MockCacheEntry entry) {
    std::lock_guard lock(writeMutex_);
    auto next = std::make_shared<Rules>(*rules_.load());
    auto it = std::find_if(next->begin(), next->end(), [&](const auto& r) { return r.first == key; });
    if (it != next->end()) it->second = std::move(entry);
    else next->emplace_back(key, std::move(entry));
    rules_.store(std::move(next));
}

void MockCache::removeFromMockCache(const std::string& key) {
    std::lock_guard lock(writeMutex_);
    auto current = rules_.load();
    auto it = std::find_if(current->begin(), current->end(), [&](const auto& r) { return r.first == key; });
    if (it == current->end()) return;
    auto next = std::make_shared<Rules>(*current);
    next->erase(next->begin() + (it - current->begin()));
    rules_.store(std::move(next));
}

std::size_t MockCache::getSize() const { return rules_.load()->size(); }

std::optional<MockCacheEntry> MockCache::getEntry(const std::string& key) const {
    const std::shared_ptr<const Rules> rules = rules_.load();
    // The lines are only built when the console shows them.
    const bool verbose = consoleAllows(consoleLevel(), LogLevel::verbose);
    for (const auto& [pattern, rule] : *rules) {
        if (verbose) printI("Check mock cache entry " + pattern + " == " + key, LogLevel::verbose);
        if (doesURLMatchPattern(key, pattern)) {
            if (verbose) printI("Mock Request " + key, LogLevel::verbose);
            return rule;
        }
    }
    return std::nullopt;
}

std::shared_ptr<const MockCache::Rules> MockCache::mockCache() const { return rules_.load(); }

void MockCache::setMockCache(Rules rules) {
    std::lock_guard lock(writeMutex_);
    // Keys stay unique: a later rule with the same key replaces the earlier one in its place.
    Rules unique;
    for (auto& r : rules) {
        auto it = std::find_if(unique.begin(), unique.end(), [&](const auto& u) { return u.first == r.first; });
        if (it != unique.end()) it->second = std::move(r.second);
        else unique.push_back(std::move(r));
    }
    rules_.store(std::make_shared<const Rules>(std::move(unique)));
}

}  // namespace kestro
