#include "kestro/network/body_text.h"

#include <algorithm>
#include <cctype>
#include <cstdint>

namespace kestro {

bool isTextRequest(std::string_view contentType) {
    for (std::string_view kind :
         {"application/json", "application/ld+json", "image/svg+xml", "application/xml", "text/"}) {
        if (contentType.find(kind) != std::string_view::npos) return true;
    }
    return false;
}

std::string capturedBodyText(std::string_view bytes, std::string_view contentType) {
    std::string lower(contentType);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (!isTextRequest(lower)) return base64Encode(bytes);
    if (!isValidUTF8(bytes)) return "[non-utf8 text]";
    return std::string(bytes);
}

std::string base64Encode(std::string_view bytes) {
    static constexpr char kAlphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.resize((bytes.size() + 2) / 3 * 4);
    const auto* in = reinterpret_cast<const unsigned char*>(bytes.data());
    char* o = out.data();
    std::size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        const std::uint32_t v = (in[i] << 16) | (in[i + 1] << 8) | in[i + 2];
        *o++ = kAlphabet[v >> 18];
        *o++ = kAlphabet[(v >> 12) & 63];
        *o++ = kAlphabet[(v >> 6) & 63];
        *o++ = kAlphabet[v & 63];
    }
    if (const std::size_t rest = bytes.size() - i; rest > 0) {
        const std::uint32_t v = (in[i] << 16) | (rest == 2 ? in[i + 1] << 8 : 0);
        *o++ = kAlphabet[v >> 18];
        *o++ = kAlphabet[(v >> 12) & 63];
        *o++ = rest == 2 ? kAlphabet[(v >> 6) & 63] : '=';
        *o++ = '=';
    }
    return out;
}

}  // namespace kestro
