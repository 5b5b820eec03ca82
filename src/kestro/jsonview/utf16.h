#pragma once

// Counting UTF-8 text in UTF-16 units, for positions exchanged with UTF-16 based code: one unit
// per scalar below U+10000, two above. Malformed bytes count one unit each, as the replacement
// character they decode to would.

#include <cstddef>
#include <string_view>

namespace kestro::jsonview::internal {

/// UTF-16 units of UTF-8 bytes (a byte that is not a continuation byte counts one, a lead byte of
/// a four-byte sequence two).
std::size_t utf16Count(std::string_view utf8);
/// The byte position reached after advancing utf16Units from the start of utf8.
std::size_t advanceUTF16(std::string_view utf8, std::size_t utf16Units);
/// Number of Unicode scalars.
std::size_t scalarCount(std::string_view utf8);

}  // namespace kestro::jsonview::internal
