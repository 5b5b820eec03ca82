#pragma once

#include <string>
#include <string_view>

#include "kestro/core/export.h"

namespace kestro {

/// The form of a text that case-insensitive, locale-aware matching compares: canonically
/// decomposed, case-folded (full folding, so "ß" matches "SS"; with the Turkic rules for "I"
/// when the default locale's language is Turkish or Azerbaijani), and composed again, so that a
/// letter never matches the base of an accented one. ASCII text is only lower-cased, without
/// ICU. Invalid UTF-8 sequences become U+FFFD. Any thread.
KESTRO_API std::string foldForSearch(std::string_view text);

/// Whether text contains needle, compared as foldForSearch forms (a substring test on the
/// folded texts). An empty needle is contained in every text.
KESTRO_API bool localizedCaseInsensitiveContains(std::string_view text, std::string_view needle);

/// Appends foldForSearch(text) to out, for callers that keep many folded texts in one buffer.
KESTRO_API void appendFoldedForSearch(std::string_view text, std::string& out);

}  // namespace kestro
