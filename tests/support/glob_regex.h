#pragma once

// The regular expression a mock rule's glob stands for, evaluated with ICU: the pattern with
// every character escaped, each star turned into ".*", anchored with "^" and "$", compiled with
// no options, and looked for anywhere in the URL. The reference the glob matcher is compared
// with, in the unit tests and in the fuzz target.

#include <unicode/regex.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <cstdint>
#include <optional>
#include <string_view>

namespace kestro::test {

/// Whether the expression finds a match; nothing when ICU gave up (a `timeLimit` in ICU's
/// match steps, 0 for none, was reached) or the expression did not compile.
inline std::optional<bool> globRegexMatches(std::string_view url, std::string_view pattern,
                                            std::int32_t timeLimit = 0) {
    icu::UnicodeString escaped;
    const icu::UnicodeString p = icu::UnicodeString::fromUTF8(pattern);
    for (std::int32_t i = 0; i < p.length();) {
        const UChar32 c = p.char32At(i);
        i += U16_LENGTH(c);
        if (c == '*') {
            escaped += ".*";
        } else if (c < 0x80 && u_isalnum(c)) {
            escaped.append(c);
        } else {
            escaped.append(u"\\Q").append(c).append(u"\\E");
        }
    }
    UErrorCode status = U_ZERO_ERROR;
    // The matcher reads the input where it lies: it must outlive the matcher.
    const icu::UnicodeString input = icu::UnicodeString::fromUTF8(url);
    icu::RegexMatcher m("^" + escaped + "$", input, 0, status);
    if (U_FAILURE(status)) return std::nullopt;
    if (timeLimit > 0) m.setTimeLimit(timeLimit, status);
    const bool found = m.find(status);
    if (U_FAILURE(status)) return std::nullopt;
    return found;
}

}  // namespace kestro::test
