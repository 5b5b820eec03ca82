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

}  // namespace
}  // namespace kestro
