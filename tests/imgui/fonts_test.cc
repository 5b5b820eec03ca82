#include "kestro/imgui/fonts.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <fstream>

#include "kestro/imgui/colors.h"
#include "kestro/imgui/internal/utf8_scan.h"
#include "support/imgui/imgui_harness.h"

namespace kestro::imgui {
namespace {

using testing::ImGuiHarness;

// The machines that build Kestro install DejaVu and Noto Color Emoji (scripts/setup.sh).
TEST(FontsTest, SystemFontsGiveEveryStyleItsOwnFaceAndSize) {
    ImGuiHarness ui;
    const Fonts& fonts = Fonts::current();
    ASSERT_TRUE(fonts.hasSystemFonts());
    EXPECT_TRUE(fonts.hasEmoji());
    EXPECT_NE(fonts.font(TextStyle::headline), fonts.font(TextStyle::body));  // bold
    EXPECT_NE(fonts.font(TextStyle::monospacedBody), fonts.font(TextStyle::body));
    EXPECT_GT(fonts.size(TextStyle::body), fonts.size(TextStyle::caption2));
    EXPECT_GT(fonts.size(TextStyle::subheadline), fonts.size(TextStyle::footnote));

    // A model's font maps to the loaded face of its family and weight, drawn at its own size.
    const Fonts::Resolved mono = fonts.resolve(Font::monospacedSystem(16));
    EXPECT_EQ(mono.size, 16.0f);
    EXPECT_NE(mono.font->FindGlyphNoFallback('i'), nullptr);
    EXPECT_EQ(mono.font->FindGlyphNoFallback('i')->AdvanceX,
              mono.font->FindGlyphNoFallback('W')->AdvanceX);
    const Fonts::Resolved bold = fonts.resolve(*Font::system(16).boldVariant());
    EXPECT_NE(bold.font, fonts.resolve(Font::system(16)).font);
    EXPECT_EQ(fonts.resolve(Font::system(40)).size, 40.0f);  // scaled from the nearest
}

TEST(FontsTest, DisplayTextMapsEmojiToGlyphsAndDropsWhatCannotBeDrawn) {
    ImGuiHarness ui;
    const Fonts& fonts = Fonts::current();
    ASSERT_TRUE(fonts.hasEmoji());
    std::string scratch;
    // Plain ASCII is passed through untouched.
    const std::string_view ascii = "GET /v1/requests";
    EXPECT_EQ(fonts.displayText(ascii, scratch).data(), ascii.data());

    // Table emoji (in and beyond the BMP) become one glyph each; the variation selector of
    // "⚠️" and "🏷️" goes.
    const std::string shown = fonts.displayText("📂 a 🏷️ b ⚠️ c ❌");
    std::size_t i = 0;
    std::vector<char32_t> scalars;
    while (i < shown.size()) scalars.push_back(internal::decodeScalar(shown, i));
    ASSERT_EQ(scalars.size(), 13u);
    for (std::size_t k : {0u, 4u, 8u, 12u}) {
        EXPECT_GE(scalars[k], 0xE000u);
        EXPECT_NE(
            fonts.font(TextStyle::body)->FindGlyphNoFallback(static_cast<ImWchar>(scalars[k])),
            nullptr);
    }
    // Other emoji beyond the BMP are left out, other characters beyond it become U+FFFD, and
    // ill-formed bytes become U+FFFD one byte at a time.
    EXPECT_EQ(fonts.displayText("a🦀b"), "ab");
    EXPECT_EQ(fonts.displayText("a𝔸b"),
              "a\xEF\xBF\xBD"
              "b");
    EXPECT_EQ(fonts.displayText("a\xC3(b\xFF"), "a\xEF\xBF\xBD(b\xEF\xBF\xBD");
    // Characters that stand in our glyphs' place elsewhere are not taken for emoji.
    EXPECT_EQ(fonts.displayText("\xEE\x80\x80"), "\xEF\xBF\xBD");
}

TEST(FontsTest, StyledTextIsDrawnInItsFontWithColourEmoji) {
    ImGuiHarness ui;
    ui.setScene([] {
        ImGui::Begin("w");
        Text(TextStyle::headline, "📂 Requests", Color::rgb24(0x336699));
        Text(TextStyle::caption, "✅ done");
        ImGui::End();
    });
    ui.step(2);
    const Fonts& fonts = Fonts::current();
    auto letters = ui.findText("Requests");
    ASSERT_TRUE(letters);
    EXPECT_EQ(letters->font, fonts.font(TextStyle::headline));
    EXPECT_EQ(letters->color, toImU32(Color::rgb24(0x336699)));
    // The emoji keeps its own colours: its glyph is drawn untinted, before the letters on the
    // same line.
    const testing::Box line{ImVec2(0, letters->box.min.y), ImVec2(1024, letters->box.max.y)};
    EXPECT_EQ(ui.lineTextIn(line), "📂 Requests");
    auto folder = ui.findText("📂");
    ASSERT_TRUE(folder);
    EXPECT_EQ(folder->color, IM_COL32_WHITE);
    EXPECT_LT(folder->box.max.x, letters->box.min.x);
    auto caption = ui.findText("done");
    ASSERT_TRUE(caption);
    EXPECT_EQ(caption->font, fonts.font(TextStyle::caption));
    EXPECT_LT(caption->size, letters->size);
}

class MissingFontsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        dir_ =
            std::filesystem::temp_directory_path() / ("kestro-fonts-" + std::to_string(::getpid()));
        std::filesystem::create_directories(dir_);
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }
    std::filesystem::path dir_;
};

TEST_F(MissingFontsTest, NoFontsOrBrokenFilesFallBackToTheDefaultFont) {
    // Broken files under the right names, and nothing from the system's folders.
    for (const char* name : {"DejaVuSans.ttf", "DejaVuSans-Bold.ttf", "DejaVuSansMono.ttf",
                             "DejaVuSansMono-Bold.ttf", "NotoColorEmoji.ttf"}) {
        std::ofstream(dir_ / name) << "not a font";
    }
    for (bool broken : {false, true}) {
        ImFontAtlas atlas;
        FontOptions options;
        options.searchSystemFolders = false;
        if (broken) options.fontDirectories = {dir_.string()};
        auto fonts = Fonts::install(atlas, options);
        ASSERT_TRUE(fonts);
        EXPECT_FALSE(fonts->hasSystemFonts());
        EXPECT_FALSE(fonts->hasEmoji());
        EXPECT_TRUE(atlas.IsBuilt());
        for (std::size_t s = 0; s < kTextStyleCount; ++s)
            EXPECT_EQ(fonts->font(static_cast<TextStyle>(s)), atlas.Fonts[0]);
        // Emoji are drawn without their glyph; the text around them stays.
        EXPECT_EQ(fonts->displayText("📂 Requests ✅"), " Requests ");
    }
}

TEST(ColorsTest, ComponentsRoundToEightBitsAndOpacityScalesAlpha) {
    EXPECT_EQ(toImU32(Color::rgb24(0x5264FF)), IM_COL32(0x52, 0x64, 0xFF, 0xFF));
    EXPECT_EQ(toImU32(Color::gray(), 0.1f), IM_COL32(128, 128, 128, 26));
    EXPECT_EQ(toImU32(Color{2.0, -1.0, std::nan(""), 0.5}), IM_COL32(255, 0, 0, 128));
    const ImVec4 v = toImVec4(Color::white(), 0.5f);
    EXPECT_FLOAT_EQ(v.x, 1.0f);
    EXPECT_NEAR(v.w, 0.5f, 1.0 / 255);
}

}  // namespace
}  // namespace kestro::imgui
