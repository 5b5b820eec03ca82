#include "kestro/jsonview/utf16.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace kestro::jsonview::internal {

std::size_t utf16Count(std::string_view utf8) {
    // Every byte that is not a continuation byte starts a scalar (one unit); a four-byte lead
    // adds the second unit of a surrogate pair. Malformed bytes count one unit each, as the
    // replacement character they decode to would.
    const char* p = utf8.data();
    const std::size_t n = utf8.size();
    std::size_t units = 0;
    std::size_t i = 0;
    // A word at a time: per byte, bit 7 of x marks a lead or ASCII byte ("not 10xxxxxx"), bit 7
    // of y a four-byte lead ("1111xxxx"). The bits are summed in byte lanes (at most 2 a byte per
    // word, so 127 words fit) and the lanes added up every batch.
    constexpr std::uint64_t kHigh = 0x8080808080808080u;
    while (n - i >= 8) {
        const std::size_t words = std::min<std::size_t>((n - i) / 8, 127);
        std::uint64_t lanes = 0;
        for (std::size_t w = 0; w < words; ++w, i += 8) {
            std::uint64_t v;
            std::memcpy(&v, p + i, 8);
            const std::uint64_t x = ~(v & ~(v << 1)) & kHigh;
            const std::uint64_t y = v & (v << 1) & (v << 2) & (v << 3) & kHigh;
            lanes += (x >> 7) + (y >> 7);
        }
        lanes = (lanes & 0x00FF00FF00FF00FFu) + ((lanes >> 8) & 0x00FF00FF00FF00FFu);
        units += static_cast<std::size_t>((lanes * 0x0001000100010001u) >> 48);
    }
    for (; i < n; ++i) {
        const auto b = static_cast<unsigned char>(p[i]);
        units += ((b & 0xC0) != 0x80) + (b >= 0xF0);
    }
    return units;
}

std::size_t advanceUTF16(std::string_view utf8, std::size_t utf16Units) {
    std::size_t units = 0;
    std::size_t i = 0;
    const std::size_t n = utf8.size();
    while (i < n) {
        const auto b = static_cast<unsigned char>(utf8[i]);
        const std::size_t width = b >= 0xF0 ? 2 : 1;
        if (units + width > utf16Units) break;
        units += width;
        ++i;
        while (i < n && (static_cast<unsigned char>(utf8[i]) & 0xC0) == 0x80) ++i;
    }
    return i;
}

std::size_t scalarCount(std::string_view utf8) {
    std::size_t count = 0;
    for (unsigned char b : utf8) count += (b & 0xC0) != 0x80;
    return count;
}

}  // namespace kestro::jsonview::internal
