#pragma once

// The JSON parser's and the decorator's names for core's UTF-8 repair (kestro/core/utf8.h), which
// the record texts use too: one U+FFFD per maximal ill-formed prefix.

#include "kestro/core/utf8.h"

namespace kestro::jsonview::internal {

using kestro::utf8SequenceLength;

/// Appends bytes to out as UTF-8, replacing ill-formed sequences with U+FFFD.
inline void appendRepaired(std::string& out, std::string_view bytes) {
    appendRepairedUTF8(out, bytes);
}

}  // namespace kestro::jsonview::internal
