#include "kestro/core/utf8.h"

#include <gtest/gtest.h>
#include <unicode/ustring.h>

#include <random>
#include <string>

namespace kestro {
namespace {

// ICU's conversion with U+FFFD as the substitute, back to UTF-8: the reference for repair.
std::string icuRepaired(const std::string& bytes) {
    UErrorCode status = U_ZERO_ERROR;
    std::u16string units(bytes.size() + 1, u'\0');
    int32_t length = 0;
    u_strFromUTF8WithSub(units.data(), static_cast<int32_t>(units.size()), &length, bytes.data(),
                         static_cast<int32_t>(bytes.size()), 0xFFFD, nullptr, &status);
    EXPECT_TRUE(U_SUCCESS(status));
    std::string out(static_cast<std::size_t>(length) * 3 + 1, '\0');
    int32_t written = 0;
    status = U_ZERO_ERROR;
    u_strToUTF8(out.data(), static_cast<int32_t>(out.size()), &written, units.data(), length,
                &status);
    EXPECT_TRUE(U_SUCCESS(status));
    out.resize(static_cast<std::size_t>(written));
    return out;
}

// Repair gives one U+FFFD per maximal ill-formed subpart, as ICU does, and leaves well-formed
// text as it is; it reports whether it replaced anything.
TEST(Utf8Test, RepairAgreesWithIcuSubstitution) {
    std::mt19937 rng(11);
    const unsigned char interesting[] = {0x00, 0x41, 0x7f, 0x80, 0xbf, 0xc0, 0xc2, 0xdf, 0xe0, 0xa0,
                                         0xed, 0x9f, 0xef, 0xf0, 0x90, 0xf4, 0x8f, 0xf5, 0xff};
    for (int round = 0; round < 20000; ++round) {
        std::string s;
        const int n = static_cast<int>(rng() % 14);
        for (int i = 0; i < n; ++i) {
            s.push_back(static_cast<char>(interesting[rng() % sizeof interesting]));
        }
        std::string repaired = s;
        const bool changed = repairUTF8(repaired);
        ASSERT_EQ(repaired, icuRepaired(s)) << round;
        ASSERT_EQ(changed, !isValidUTF8(s)) << round;
        ASSERT_TRUE(isValidUTF8(repaired)) << round;
    }
    std::string text =
        "long enough for the eight-byte path \xF0\x9F\x98\x80 and \xE2\x82"
        "A";
    EXPECT_TRUE(repairUTF8(text));
    EXPECT_EQ(text,
              "long enough for the eight-byte path \xF0\x9F\x98\x80 and \xEF\xBF\xBD"
              "A");
}

// A cut before a sequence, at each byte inside it and after it keeps whole characters only,
// for sequences of every length.
TEST(Utf8Test, PrefixNeverEndsInsideASequence) {
    for (const std::string sequence : {"\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80"}) {
        const std::string text = "a" + sequence + "b";
        SCOPED_TRACE(sequence.size());
        EXPECT_EQ(utf8Prefix(text, 1), "a");  // before
        for (std::size_t inside = 2; inside <= sequence.size(); ++inside)
            EXPECT_EQ(utf8Prefix(text, inside), "a") << inside;
        EXPECT_EQ(utf8Prefix(text, 1 + sequence.size()), "a" + sequence);  // after
        EXPECT_EQ(utf8Prefix(text, text.size()), text);
        EXPECT_EQ(utf8Prefix(text, text.size() + 10), text);
        EXPECT_EQ(utf8Prefix(text, 0), "");
        // Starting with the sequence: a cut inside it leaves nothing.
        EXPECT_EQ(utf8Prefix(sequence, sequence.size() - 1), "");
    }
}

// Text that is not UTF-8 is cut at the limit: stray continuation bytes are not walked back
// over, and a lead byte at the end is dropped only when its sequence cannot fit.
TEST(Utf8Test, PrefixOfIllFormedTextIsBounded) {
    const std::string stray(10, '\x80');
    EXPECT_EQ(utf8Prefix(stray, 7).size(), 7u);
    EXPECT_EQ(utf8Prefix("ab\xE2", 3), "ab");
    EXPECT_EQ(utf8Prefix("ab\xE2!", 4), "ab\xE2!");
}

}  // namespace
}  // namespace kestro
