// Feeds arbitrary bodies to the captured body text. The first byte picks a content type. It
// checks the UTF-8 test against ICU (a text is well-formed exactly when ICU converts it to
// UTF-16 and back unchanged), that a text body is captured as itself or as the placeholder, and
// that a binary body's base64 has the standard form and decodes back to the body.

#include <unicode/unistr.h>

#include <array>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

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
    return 0;
}
