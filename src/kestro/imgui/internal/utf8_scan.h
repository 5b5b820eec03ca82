#pragma once

// UTF-8 stepping for drawing: every byte sequence decodes to something (ill-formed bytes to
// U+FFFD, one byte at a time), so that measuring, drawing and hit-testing walk a text alike.

#include <cstddef>
#include <string>
#include <string_view>

namespace kestro::imgui::internal {

/// The scalar at text[i], advancing i past it. An ill-formed sequence (a stray continuation
/// byte, a truncated, overlong or surrogate sequence, anything above U+10FFFF) gives U+FFFD and
/// advances by one byte.
inline char32_t decodeScalar(std::string_view text, std::size_t& i) {
    const auto b0 = static_cast<unsigned char>(text[i]);
    if (b0 < 0x80) {
        ++i;
        return b0;
    }
    std::size_t len;
    char32_t c;
    char32_t min;
    if (b0 >= 0xC2 && b0 <= 0xDF) {
        len = 2, c = b0 & 0x1F, min = 0x80;
    } else if (b0 >= 0xE0 && b0 <= 0xEF) {
        len = 3, c = b0 & 0x0F, min = 0x800;
    } else if (b0 >= 0xF0 && b0 <= 0xF4) {
        len = 4, c = b0 & 0x07, min = 0x10000;
    } else {
        ++i;
        return 0xFFFD;
    }
    if (i + len > text.size()) {
        ++i;
        return 0xFFFD;
    }
    for (std::size_t k = 1; k < len; ++k) {
        const auto b = static_cast<unsigned char>(text[i + k]);
        if ((b & 0xC0) != 0x80) {
            ++i;
            return 0xFFFD;
        }
        c = (c << 6) | (b & 0x3F);
    }
    if (c < min || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) {
        ++i;
        return 0xFFFD;
    }
    i += len;
    return c;
}

inline void appendUTF8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out.push_back(static_cast<char>(c));
    } else if (c < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (c >> 6)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else if (c < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (c >> 12)));
        out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (c >> 18)));
        out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    }
}

/// Pictographs beyond the Basic Multilingual Plane (faces, objects, symbols, flags).
inline bool isEmoji(char32_t c) { return c >= 0x1F000 && c <= 0x1FAFF; }

/// Characters that only modify an emoji: variation selectors, the joiner, the keycap, skin
/// tones and tag characters. Drawn as nothing.
inline bool isEmojiModifier(char32_t c) {
    return c == 0xFE0E || c == 0xFE0F || c == 0x200D || c == 0x20E3 ||
           (c >= 0x1F3FB && c <= 0x1F3FF) || (c >= 0xE0020 && c <= 0xE007F);
}

/// Emoji glyphs live at these code points of the Private Use Area, in table order.
inline constexpr char32_t kEmojiGlyphBase = 0xE000;
inline constexpr char32_t kEmojiGlyphEnd = 0xE100;

}  // namespace kestro::imgui::internal
