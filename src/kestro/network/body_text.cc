#include "kestro/network/body_text.h"

#include <algorithm>
#include <array>
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

std::string_view withoutCutSequence(std::string_view bytes) {
    return utf8Prefix(bytes, bytes.size());
}

CapturedBody capturedBody(std::string_view kept, std::int64_t totalBytes,
                          std::string_view contentType, std::int64_t maxBytes) {
    const bool cut = maxBytes > 0 && totalBytes > maxBytes;
    if (!cut) return {capturedBodyText(kept, contentType), std::nullopt};
    std::string_view head = kept.substr(0, static_cast<std::size_t>(maxBytes));
    std::string lower(contentType);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (isTextRequest(lower)) head = withoutCutSequence(head);
    return {capturedBodyText(head, lower), totalBytes};
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

std::optional<std::string> base64Decode(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    static constexpr auto kValues = [] {
        std::array<std::int8_t, 256> v{};
        v.fill(-1);
        const char* alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        for (int i = 0; i < 64; ++i)
            v[static_cast<unsigned char>(alphabet[i])] = static_cast<std::int8_t>(i);
        return v;
    }();
    std::size_t padding = 0;
    if (!text.empty() && text.back() == '=') padding = text[text.size() - 2] == '=' ? 2 : 1;
    std::string out;
    out.resize(text.size() / 4 * 3 - padding);
    const auto* in = reinterpret_cast<const unsigned char*>(text.data());
    std::size_t o = 0;
    for (std::size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        const int a = kValues[in[i]], b = kValues[in[i + 1]];
        const int c = last && padding == 2 ? 0 : kValues[in[i + 2]];
        const int d = last && padding >= 1 ? 0 : kValues[in[i + 3]];
        if ((a | b | c | d) < 0) return std::nullopt;
        const std::uint32_t v = (a << 18) | (b << 12) | (c << 6) | d;
        out[o++] = static_cast<char>(v >> 16);
        if (o < out.size()) out[o++] = static_cast<char>((v >> 8) & 0xFF);
        if (o < out.size()) out[o++] = static_cast<char>(v & 0xFF);
    }
    return out;
}

}  // namespace kestro
