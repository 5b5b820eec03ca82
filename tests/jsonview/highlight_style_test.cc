#include "kestro/jsonview/highlight_style.h"

#include <gtest/gtest.h>

#include <string>

namespace kestro {
namespace {

TEST(ConvertibleToColor, IntegersAndHexTextsConvertAsDesigned) {
    auto rgb = [](ConvertibleToColor c) { return c.color().argb32(); };
    EXPECT_EQ(rgb(0x5264FF), 0xFF5264FFu);
    EXPECT_EQ(rgb("#5264FF"), 0xFF5264FFu);
    EXPECT_EQ(rgb("#1C1B1D"), 0xFF1C1B1Du);
    EXPECT_EQ(rgb("4075a6"), 0xFF4075A6u);  // upper-cased first
    EXPECT_EQ(rgb(std::string("B72E22")), 0xFFB72E22u);
    EXPECT_EQ(rgb(0x7F5264FF), 0xFF5264FFu);  // only the low 24 bits
    EXPECT_EQ(rgb(-1), 0xFFFFFFFFu);
    EXPECT_EQ(rgb(Color{0.5, 0, 0, 0.25}), (Color{0.5, 0, 0, 0.25}.argb32()));
    // Nothing is rejected: "G" reads as 16, carrying into the next digit.
    EXPECT_EQ(rgb("0G"), 0xFF000010u);
    EXPECT_EQ(rgb(""), 0xFF000000u);
    const Color c = ConvertibleToColor("#5264FF").color();
    EXPECT_DOUBLE_EQ(c.red, 0x52 / 255.0);
    EXPECT_DOUBLE_EQ(c.green, 0x64 / 255.0);
    EXPECT_DOUBLE_EQ(c.blue, 0xFF / 255.0);
    EXPECT_EQ(c.alpha, 1);
}

TEST(HighlightStyle, ThemesAndBoldSearchFont) {
    const HighlightColor& d = HighlightColor::default_();
    EXPECT_EQ(d.keyWord, Color::black());
    EXPECT_EQ(d.key, Color::rgb24(0xB72E22));
    EXPECT_EQ(d.searchHitBackground, Color::rgb24(0xFFFB00));
    EXPECT_EQ(d.jsonBackground, Color::white());
    EXPECT_EQ(d.lineText, Color::rgb24(0xA3A3A3));
    const HighlightColor& m = HighlightColor::mariana();
    EXPECT_EQ(m.keyWord, Color::rgb24(0x767677));
    EXPECT_EQ(m.jsonBackground, Color::rgb24(0x3D444C));
    EXPECT_EQ(m.unknownBackground, Color::rgb24(0xFBE3E4));

    const HighlightStyle& s = HighlightStyle::default_();
    EXPECT_EQ(s.lineHeight, 24);
    EXPECT_EQ(s.expandIcon.name, "expand");
    EXPECT_EQ(s.foldIcon.name, "fold");
    EXPECT_EQ(s.jsonFont.size(), 16);
    ASSERT_TRUE(s.boldOfJSONFont());
    EXPECT_TRUE(s.boldOfJSONFont()->isBold());
    EXPECT_EQ(s.boldOfJSONFont()->size(), 16);
    EXPECT_EQ(HighlightStyle::mariana().color, m);

    HighlightStyle plainHits(std::nullopt, std::nullopt, d, std::nullopt, Font::system(13), 20,
                             false);
    EXPECT_FALSE(plainHits.boldOfJSONFont());
    EXPECT_EQ(plainHits.jsonFont.size(), 13);
    EXPECT_EQ(plainHits.lineFont.size(), 16);
}

}  // namespace
}  // namespace kestro
