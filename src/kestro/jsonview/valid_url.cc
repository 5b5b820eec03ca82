#include "kestro/jsonview/valid_url.h"

#include <unicode/locid.h>
#include <unicode/regex.h>
#include <unicode/unistr.h>
#include <unicode/utext.h>

#include <algorithm>
#include <array>
#include <boost/url/parse.hpp>
#include <functional>
#include <memory>

#include "kestro/core/console.h"
#include "kestro/jsonview/attributed_text.h"

namespace kestro {

namespace {

constexpr const char* kURLPattern =
    R"(((?:http|https)://)?[-a-zA-Z0-9@:%._\+~#=]{1,256}\.[a-zA-Z0-9()]{1,6}\b([-a-zA-Z0-9()@:%_\+.~#?&//=]*))";
constexpr const char* kIPPattern =
    R"(^(?:(?:25[0-5]|2[0-4][0-9]|[01]?[0-9][0-9]?)\.){3}(?:25[0-5]|2[0-4][0-9]|[01]?[0-9][0-9]?)$)";

// Compiled patterns are immutable and may be shared by threads; matchers may not, so each
// thread keeps its own matcher per pattern.
std::unique_ptr<icu::RegexPattern> compile(const char* pattern) {
    UErrorCode status = U_ZERO_ERROR;
    UParseError parseError{};
    std::unique_ptr<icu::RegexPattern> compiled(
        icu::RegexPattern::compile(icu::UnicodeString::fromUTF8(pattern), 0, parseError, status));
    if (U_FAILURE(status)) {
        printI(std::string("❌ A link pattern could not be compiled: ") + u_errorName(status),
               LogLevel::error);
        return nullptr;
    }
    return compiled;
}

const icu::RegexPattern* urlPattern() {
    static const icu::RegexPattern* p = compile(kURLPattern).release();
    return p;
}
const icu::RegexPattern* ipPattern() {
    static const icu::RegexPattern* p = compile(kIPPattern).release();
    return p;
}

struct Matchers {
    std::unique_ptr<icu::RegexMatcher> url;
    std::unique_ptr<icu::RegexMatcher> ip;
};

icu::RegexMatcher* matcherFor(std::unique_ptr<icu::RegexMatcher>& slot,
                              const icu::RegexPattern* pattern) {
    if (!slot && pattern) {
        UErrorCode status = U_ZERO_ERROR;
        slot.reset(pattern->matcher(status));
        if (U_FAILURE(status)) slot.reset();
        // Bound the work on pathological inputs (long runs of host characters make the
        // pattern backtrack); a match that times out counts as no match.
        if (slot) slot->setTimeLimit(2000, status);
    }
    return slot.get();
}

bool matchesWhole(icu::RegexMatcher* m, const icu::UnicodeString& text) {
    if (!m) return false;
    m->reset(text);
    UErrorCode status = U_ZERO_ERROR;
    const bool ok = m->matches(status);
    return U_SUCCESS(status) && ok;
}

// Whether every ASCII character of text may appear in a link: one the URL pattern (or a
// backslash before a slash, which becomes a slash) can match. Lower-casing keeps ASCII
// characters ASCII, and the patterns match ASCII characters only, so a text with any other
// ASCII character (a blank, a quote, a comma) matches neither pattern as a whole. Characters
// beyond ASCII are left to the patterns.
bool mayBeLink(std::string_view text) {
    static constexpr auto kAllowed = [] {
        std::array<bool, 128> allowed{};
        for (char c : std::string_view("-@:%._+~#=()?&/"))
            allowed[static_cast<unsigned char>(c)] = true;
        for (int c = '0'; c <= '9'; ++c) allowed[static_cast<std::size_t>(c)] = true;
        for (int c = 'a'; c <= 'z'; ++c) allowed[static_cast<std::size_t>(c)] = true;
        for (int c = 'A'; c <= 'Z'; ++c) allowed[static_cast<std::size_t>(c)] = true;
        return allowed;
    }();
    bool stop = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c >= 0x80) continue;
        if (c == '\\' && i + 1 < text.size() && text[i + 1] == '/') {
            ++i;
            continue;
        }
        if (!kAllowed[c]) return false;
        stop |= c == '.';
    }
    // Both patterns need a full stop.
    return stop;
}

// Whether text has two scalars or more; stops at the second.
bool twoScalarsOrMore(std::string_view text) {
    int scalars = 0;
    for (unsigned char b : text)
        if ((b & 0xC0) != 0x80 && ++scalars == 2) return true;
    return false;
}

std::optional<ValidURL> match(std::string_view text);

// The last answers of this thread: a document repeats its links (a user's picture, a site's
// address), and matching costs far more than a look-up. The patterns' step limit makes every
// answer a function of the text alone, so a kept answer is the answer.
struct RecentAnswers {
    static constexpr std::size_t kSlots = 64;
    struct Slot {
        std::string text;
        std::optional<ValidURL> answer;
        bool used = false;
    };
    Slot slots[kSlots];

    static constexpr std::size_t kLongest = 1024;  // longer texts are matched, not kept

    std::optional<ValidURL> lookUp(std::string_view text) {
        if (text.size() > kLongest) return match(text);
        Slot& slot = slots[std::hash<std::string_view>{}(text) % kSlots];
        if (!slot.used || slot.text != text) {
            slot.text.assign(text);
            slot.answer = match(text);
            slot.used = true;
        }
        return slot.answer;
    }
};

}  // namespace

std::optional<ValidURL> validURL(std::string_view text) {
    if (!twoScalarsOrMore(text)) return std::nullopt;
    // Most strings (words, sentences, numbers without a full stop) cannot be links as a whole
    // and skip the matchers.
    if (!mayBeLink(text)) return std::nullopt;
    thread_local RecentAnswers recent;
    return recent.lookUp(text);
}

namespace {

std::optional<ValidURL> match(std::string_view text) {
    std::string replaced;
    replaced.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 1 < text.size() && text[i + 1] == '/') {
            replaced.push_back('/');
            ++i;
        } else {
            replaced.push_back(text[i]);
        }
    }
    icu::UnicodeString lowered;
    if (std::all_of(replaced.begin(), replaced.end(),
                    [](char c) { return static_cast<unsigned char>(c) < 0x80; })) {
        // Lower-casing ASCII in the root locale maps A-Z to a-z and nothing else.
        std::string ascii = replaced;
        for (char& c : ascii)
            if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        lowered = icu::UnicodeString::fromUTF8(ascii);
    } else {
        lowered = icu::UnicodeString::fromUTF8(replaced);
        lowered.toLower(icu::Locale::getRoot());
    }

    thread_local Matchers matchers;
    if (matchesWhole(matcherFor(matchers.ip, ipPattern()), lowered))
        return ValidURL{std::move(replaced), true};
    if (matchesWhole(matcherFor(matchers.url, urlPattern()), lowered))
        return ValidURL{std::move(replaced), false};
    return std::nullopt;
}

}  // namespace

std::optional<std::string> ValidURL::openingURL() const {
    if (isIP) {
        std::string s = "http://" + urlString;
        if (boost::urls::parse_uri_reference(s)) return s;
        return std::nullopt;
    }
    if (auto u = boost::urls::parse_uri_reference(urlString); u && u->has_scheme())
        return urlString;
    std::string s = "https://" + urlString;
    if (boost::urls::parse_uri_reference(s)) return s;
    return std::nullopt;
}

}  // namespace kestro
