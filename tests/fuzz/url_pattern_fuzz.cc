// Compares the mock rules' glob matcher with the regular expression the glob stands for, on
// arbitrary URL and pattern texts. The first byte sets how much of the rest is the pattern.
// Texts that are not UTF-8 have no such expression; for every text it checks what must hold
// whatever the bytes: the matcher returns, and a pattern matches its own text.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "kestro/network/mock_cache.h"
#include "support/glob_regex.h"

namespace {

bool isUTF8(std::string_view s) {
    std::string back;
    return icu::UnicodeString::fromUTF8(s).toUTF8String(back) == s;
}

// ICU backtracks over ".*"; a case that takes it longer than this is skipped, not compared.
constexpr std::int32_t kRegexStepLimit = 50;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0 || size > 1024) return 0;
    const std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);
    const std::size_t split = data[0] % (rest.size() + 1);
    const std::string_view pattern = rest.substr(0, split);
    const std::string_view url = rest.substr(split);

    const bool matched = kestro::doesURLMatchPattern(url, pattern);
    if (!kestro::doesURLMatchPattern(pattern, pattern)) std::abort();
    if (!isUTF8(url) || !isUTF8(pattern)) return 0;
    const std::optional<bool> expected =
        kestro::test::globRegexMatches(url, pattern, kRegexStepLimit);
    if (expected && *expected != matched) std::abort();
    return 0;
}
