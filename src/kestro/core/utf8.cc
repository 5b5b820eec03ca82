#include "kestro/core/utf8.h"

#include <cstdint>

namespace kestro {

bool isValidUTF8(std::string_view bytes) {
    const auto* s = reinterpret_cast<const unsigned char*>(bytes.data());
    const std::size_t n = bytes.size();
    std::size_t i = 0;
    while (i < n) {
        // Eight ASCII bytes at a time: the common case for bodies and records.
        while (i + 8 <= n) {
            std::uint64_t v;
            __builtin_memcpy(&v, s + i, 8);
            if (v & 0x8080808080808080ULL) break;
            i += 8;
        }
        if (i >= n) break;
        const unsigned char c = s[i];
        if (c < 0x80) {
            ++i;
            continue;
        }
        std::size_t len;
        unsigned char lo = 0x80, hi = 0xBF;
        if (c >= 0xC2 && c <= 0xDF) {
            len = 2;
        } else if (c >= 0xE0 && c <= 0xEF) {
            len = 3;
            if (c == 0xE0) lo = 0xA0;  // no overlongs
            if (c == 0xED) hi = 0x9F;  // no surrogates
        } else if (c >= 0xF0 && c <= 0xF4) {
            len = 4;
            if (c == 0xF0) lo = 0x90;  // no overlongs
            if (c == 0xF4) hi = 0x8F;  // nothing above U+10FFFF
        } else {
            return false;
        }
        if (i + len > n) return false;
        if (s[i + 1] < lo || s[i + 1] > hi) return false;
        for (std::size_t k = 2; k < len; ++k)
            if ((s[i + k] & 0xC0) != 0x80) return false;
        i += len;
    }
    return true;
}

bool repairUTF8(std::string& text) {
    if (isValidUTF8(text)) return false;
    std::string repaired;
    appendRepairedUTF8(repaired, text);
    text = std::move(repaired);
    return true;
}

std::string_view utf8Prefix(std::string_view text, std::size_t maxBytes) {
    const std::string_view head = text.substr(0, maxBytes);
    // Back over at most three continuation bytes to the sequence's lead byte.
    std::size_t lead = head.size();
    while (lead > 0 && head.size() - lead < 4 &&
           (static_cast<unsigned char>(head[lead - 1]) & 0xC0) == 0x80)
        --lead;
    if (lead == 0) return head;
    const auto b = static_cast<unsigned char>(head[lead - 1]);
    const std::size_t length = b >= 0xF0 ? 4 : b >= 0xE0 ? 3 : b >= 0xC0 ? 2 : 1;
    return lead - 1 + length > head.size() ? head.substr(0, lead - 1) : head;
}

}  // namespace kestro
