#include "kestro/network/body_text.h"

#include <gtest/gtest.h>
#include <unicode/ustring.h>

#include <random>

namespace kestro {
namespace {

TEST(BodyTextTest, TextTypesAreTextAndEverythingElseIsBase64) {
    EXPECT_EQ(capturedBodyText(R"({"a":1})", "Application/JSON; charset=UTF-8"), R"({"a":1})");
    EXPECT_EQ(capturedBodyText("<svg/>", "image/svg+xml"), "<svg/>");
    EXPECT_EQ(capturedBodyText("hi", "text/plain"), "hi");
    EXPECT_EQ(capturedBodyText("<a/>", "application/xml"), "<a/>");
    EXPECT_EQ(capturedBodyText("{}", "application/ld+json"), "{}");
    EXPECT_EQ(capturedBodyText("\x89PNG\r\n", "image/png"), "iVBORw0K");
    EXPECT_EQ(capturedBodyText("hi", ""), "aGk=");
    EXPECT_EQ(capturedBodyText("{\"a\":\"\xff\"}", "application/json"), "[non-utf8 text]");
    EXPECT_FALSE(isTextRequest("application/octet-stream"));
    EXPECT_FALSE(isTextRequest("Text/plain"));  // the caller lowercases first
}

TEST(BodyTextTest, Base64MatchesTheStandardVectors) {
    const std::pair<const char*, const char*> vectors[] = {{"", ""},
                                                           {"f", "Zg=="},
                                                           {"fo", "Zm8="},
                                                           {"foo", "Zm9v"},
                                                           {"foob", "Zm9vYg=="},
                                                           {"fooba", "Zm9vYmE="},
                                                           {"foobar", "Zm9vYmFy"}};
    for (auto [in, out] : vectors) EXPECT_EQ(base64Encode(in), out);
    EXPECT_EQ(base64Encode(std::string("\xfb\xff", 2)), "+/8=");
}

TEST(BodyTextTest, Utf8ValidationAgreesWithIcu) {
    std::mt19937 rng(7);
    const unsigned char interesting[] = {0x00, 0x41, 0x7f, 0x80, 0xbf, 0xc0, 0xc2, 0xdf, 0xe0, 0xa0,
                                         0xed, 0x9f, 0xef, 0xf0, 0x90, 0xf4, 0x8f, 0xf5, 0xff};
    for (int round = 0; round < 20000; ++round) {
        std::string s;
        const int n = static_cast<int>(rng() % 12);
        for (int i = 0; i < n; ++i)
            s.push_back(static_cast<char>(interesting[rng() % sizeof interesting]));
        UErrorCode status = U_ZERO_ERROR;
        int32_t length = 0;
        u_strFromUTF8(nullptr, 0, &length, s.data(), static_cast<int32_t>(s.size()), &status);
        const bool icuValid = status != U_INVALID_CHAR_FOUND && status != U_ILLEGAL_CHAR_FOUND &&
                              status != U_TRUNCATED_CHAR_FOUND;
        ASSERT_EQ(isValidUTF8(s), icuValid) << round;
    }
    EXPECT_TRUE(isValidUTF8("plain ascii text longer than eight bytes \xf0\x9f\x98\x80 done"));
}

}  // namespace
}  // namespace kestro

namespace kestro {
namespace {

TEST(Base64DecodeTest, DecodesWhatTheEncoderWritesAndRefusesEverythingElse) {
    for (std::string bytes :
         {std::string(), std::string("f"), std::string("fo"), std::string("foo"),
          std::string("foob"), std::string("\x00\xff\x10\x89PNG", 7)}) {
        EXPECT_EQ(base64Decode(base64Encode(bytes)), bytes);
    }
    for (const char* bad : {"Zm9", "Zm9v\n", "Zm 9v", "Zg=a", "=Zg=", "Zm9v====", "Zm9-", "Zm9_",
                            "Z===", "iVBORw0KGgo*"}) {
        EXPECT_EQ(base64Decode(bad), std::nullopt) << bad;
    }
}

}  // namespace
}  // namespace kestro
