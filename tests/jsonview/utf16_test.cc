#include "kestro/jsonview/utf16.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <string_view>

namespace kestro {
namespace {

// UTF-16 units are counted a word at a time over ASCII; byte by byte the count is simple to
// state, and random texts (ASCII runs, every sequence length, stray and truncated bytes) must
// agree with that.
TEST(UTF16Count, WordAtATimeCountsAgreeWithByteByByteOnes) {
    auto unitsByByte = [](std::string_view s) {
        std::size_t units = 0;
        for (unsigned char b : s) units += ((b & 0xC0) != 0x80) + (b >= 0xF0);
        return units;
    };
    const std::string pieces[] = {"abcdefgh",         "x",       "\xC3\xA9", "\xE2\x82\xAC",
                                  "\xF0\x9F\x98\x80", "\x80",    "\xFF",     "\xED\xA0\x80",
                                  "\xF0\x9F",         "\xC0\xAF"};
    std::mt19937 rng(99);
    for (int i = 0; i < 3000; ++i) {
        std::string s;
        const int n = static_cast<int>(rng() % 40);
        for (int k = 0; k < n; ++k) s += pieces[rng() % (i % 3 == 0 ? 10 : 5)];
        ASSERT_EQ(jsonview::internal::utf16Count(s), unitsByByte(s)) << i;
    }
}

}  // namespace
}  // namespace kestro
