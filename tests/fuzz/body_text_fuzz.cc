// Feeds arbitrary bodies to the captured body text. The first byte picks a content type. It
// checks the UTF-8 test against ICU (a text is well-formed exactly when ICU converts it to
// UTF-16 and back unchanged), that a text body is captured as itself or as the placeholder, and
// that a binary body's base64 has the standard form and decodes back to the body. A body cut at
// a limit picked by the first byte is the longest whole-character prefix of a text body within
// the limit, or the base64 of exactly the first bytes. As a JSON body, its redaction agrees with
// Boost.JSON on what is JSON, keeps it JSON, and redacting again changes nothing.

#include <unicode/unistr.h>

#include <array>
#include <boost/json.hpp>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kestro/core/redaction.h"
#include "kestro/network/body_text.h"

namespace {

constexpr std::array<std::string_view, 6> kContentTypes = {
    "application/json; charset=utf-8", "Text/HTML", "image/svg+xml", "image/png",
    "application/octet-stream",        "",
};

bool icuSaysUTF8(std::string_view s) {
    std::string back;
    return icu::UnicodeString::fromUTF8(s).toUTF8String(back) == s;
}

// Standard base64 with padding, decoded; nothing when the text is not in that form.
std::optional<std::string> decodeBase64(std::string_view text) {
    static constexpr std::string_view kAlphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    if (text.size() % 4 != 0) return std::nullopt;
    std::string out;
    for (std::size_t i = 0; i < text.size(); i += 4) {
        std::uint32_t bits = 0;
        int padding = 0;
        for (std::size_t k = 0; k < 4; ++k) {
            const char c = text[i + k];
            const bool last = i + 4 == text.size();
            if (c == '=' && last && k >= 2 && (k == 3 || text[i + 3] == '=')) {
                ++padding;
                bits <<= 6;
                continue;
            }
            const auto v = kAlphabet.find(c);
            if (v == std::string_view::npos || padding > 0) return std::nullopt;
            bits = (bits << 6) | static_cast<std::uint32_t>(v);
        }
        out.push_back(static_cast<char>(bits >> 16));
        if (padding < 2) out.push_back(static_cast<char>((bits >> 8) & 0xFF));
        if (padding < 1) out.push_back(static_cast<char>(bits & 0xFF));
    }
    return out;
}

bool hasSurrogateEscape(std::string_view s) {
    for (auto at = s.find("\\u"); at != std::string_view::npos; at = s.find("\\u", at + 1)) {
        if (at + 3 < s.size() && (s[at + 2] == 'd' || s[at + 2] == 'D') &&
            std::string_view("89abcdefABCDEF").find(s[at + 3]) != std::string_view::npos)
            return true;
    }
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::string_view contentType = kContentTypes[data[0] % kContentTypes.size()];
    const std::string_view body(reinterpret_cast<const char*>(data) + 1, size - 1);

    const bool valid = kestro::isValidUTF8(body);
    if (valid != icuSaysUTF8(body)) std::abort();

    const std::string captured = kestro::capturedBodyText(body, contentType);
    std::string lower(contentType);
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (kestro::isTextRequest(lower)) {
        if (captured != (valid ? std::string(body) : std::string("[non-utf8 text]"))) std::abort();
    } else {
        const auto decoded = decodeBase64(captured);
        if (!decoded || *decoded != body) std::abort();
        // The library's decoder, which the inspector's image preview uses, agrees.
        if (kestro::base64Decode(captured) != decoded) std::abort();
    }
    // Any other text: the library decodes exactly what this reference decodes.
    if (kestro::base64Decode(body) != decodeBase64(body)) std::abort();

    const std::int64_t total = std::ssize(body);
    const std::int64_t limit = data[0] >> 3;  // 0 (no limit) to 31 bytes
    const kestro::CapturedBody cut = kestro::capturedBody(body, total, contentType, limit);
    if (limit == 0 || total <= limit) {
        if (cut.totalBytes || cut.text != captured) std::abort();
    } else if (cut.totalBytes != total) {
        std::abort();
    } else if (kestro::isTextRequest(lower)) {
        // Valid text: a prefix within the limit, at most three bytes short of it, ending at a
        // whole character; the placeholder when the bytes before the cut are not UTF-8.
        const std::string_view head = body.substr(0, static_cast<std::size_t>(limit));
        if (kestro::isValidUTF8(kestro::withoutCutSequence(head))) {
            if (!body.starts_with(cut.text) || std::ssize(cut.text) > limit ||
                std::ssize(cut.text) < limit - 3 || !kestro::isValidUTF8(cut.text))
                std::abort();
        } else if (cut.text != "[non-utf8 text]") {
            std::abort();
        }
    } else if (kestro::base64Decode(cut.text) != body.substr(0, static_cast<std::size_t>(limit))) {
        std::abort();
    }

    const std::vector<std::string> keys{"a", "password"};
    const auto redacted = kestro::redactJSONKeys(body, keys);
    if (redacted.has_value() != kestro::redactJSONKeys(body, {}).has_value()) std::abort();
    if (redacted) {
        if (kestro::redactJSONKeys(*redacted, keys) != redacted) std::abort();
    }
    if (valid) {
        boost::json::parse_options options;
        options.max_depth = 1 << 20;
        boost::system::error_code ec;
        boost::json::parse(body, ec, {}, options);
        // A number whose exponent Boost.JSON cannot hold, or an escaped surrogate (which
        // Boost.JSON rejects unless paired), is still JSON text by its grammar: kept as it is.
        const bool grammarOnly =
            ec == boost::json::error::exponent_overflow || hasSurrogateEscape(body);
        if (!grammarOnly && !ec != redacted.has_value()) std::abort();
    }
    return 0;
}
