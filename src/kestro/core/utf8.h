#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "kestro/core/export.h"

namespace kestro {

/// Whether bytes are well-formed UTF-8 (no overlongs, no surrogates, nothing above U+10FFFF).
KESTRO_API bool isValidUTF8(std::string_view bytes);

// Repair: every ill-formed sequence is replaced by one U+FFFD per maximal prefix of a valid
// sequence (the replacement practice of the Unicode standard, so "\xE2\x82" followed by "A"
// gives U+FFFD then "A"). The record texts, the JSON parser's strings and raw text use it.

/// For p at a byte of 0x80 or above (p < end): the length (2-4) of the well-formed sequence
/// starting there, or minus the length (1-3) of the ill-formed prefix that one U+FFFD replaces.
inline int utf8SequenceLength(const std::uint8_t* p, const std::uint8_t* end) {
    const std::uint8_t lead = p[0];
    int need;
    std::uint8_t lo = 0x80, hi = 0xBF;  // range of the second byte
    if (lead >= 0xC2 && lead <= 0xDF) {
        need = 1;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        need = 2;
        if (lead == 0xE0) lo = 0xA0;  // no overlongs
        if (lead == 0xED) hi = 0x9F;  // no surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        need = 3;
        if (lead == 0xF0) lo = 0x90;  // no overlongs
        if (lead == 0xF4) hi = 0x8F;  // nothing above U+10FFFF
    } else {
        return -1;
    }
    const std::ptrdiff_t available = end - p - 1;
    for (int k = 1; k <= need; ++k) {
        if (k > available) return -k;
        const std::uint8_t c = p[k];
        const bool ok = k == 1 ? (c >= lo && c <= hi) : (c >= 0x80 && c <= 0xBF);
        if (!ok) return -k;
    }
    return need + 1;
}

/// Appends bytes to out as UTF-8, replacing ill-formed sequences with U+FFFD.
inline void appendRepairedUTF8(std::string& out, std::string_view bytes) {
    const auto* p = reinterpret_cast<const std::uint8_t*>(bytes.data());
    const auto* const end = p + bytes.size();
    const auto* run = p;
    out.reserve(out.size() + bytes.size());
    while (p < end) {
        if (*p < 0x80) {
            ++p;
            continue;
        }
        const int length = utf8SequenceLength(p, end);
        if (length > 0) {
            p += length;
            continue;
        }
        out.append(reinterpret_cast<const char*>(run), static_cast<std::size_t>(p - run));
        out += "\xEF\xBF\xBD";
        p += -length;
        run = p;
    }
    out.append(reinterpret_cast<const char*>(run), static_cast<std::size_t>(p - run));
}

/// The longest prefix of `text` of at most `maxBytes` bytes that does not end inside a UTF-8
/// sequence: a sequence the cut would leave short is dropped whole. The decision reads only
/// the bytes before the cut (at most the last four), so it also serves for text of which the
/// bytes after the cut were never kept. A prefix of valid UTF-8 text ends at a character
/// boundary; anything else is kept as it is.
KESTRO_API std::string_view utf8Prefix(std::string_view text, std::size_t maxBytes);

/// Makes text well-formed UTF-8 in place, replacing ill-formed sequences with U+FFFD. Text
/// that is already well-formed (the usual case) is only checked, eight ASCII bytes at a time.
/// Returns whether anything was replaced.
KESTRO_API bool repairUTF8(std::string& text);

}  // namespace kestro
