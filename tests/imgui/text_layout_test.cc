#include "kestro/imgui/text_layout.h"

#include <gtest/gtest.h>

#include <random>

#include "kestro/imgui/colors.h"
#include "kestro/imgui/json_scroll_view.h"
#include "support/imgui/imgui_harness.h"

namespace kestro::imgui {
namespace {

using testing::DrawnText;
using testing::ImGuiHarness;

TextAttributes styled(Font font, Color color, double lineHeight = 0) {
    TextAttributes a;
    a.font = std::move(font);
    a.foregroundColor = color;
    if (lineHeight > 0) {
        ParagraphStyle p;
        p.minimumLineHeight = p.maximumLineHeight = lineHeight;
        a.paragraphStyle = p;
    }
    return a;
}

class TextLayoutTest : public ::testing::Test {
  protected:
    TextLayoutTest() : layout_(Fonts::currentShared()) {}

    // Draws text at (10, 10) in a bare window and returns the runs drawn.
    void draw(const AttributedText& text, std::optional<float> wrap) {
        ui_.setScene([&, wrap] {
            ImGui::Begin("w");
            layout_.draw(ImGui::GetForegroundDrawList(), text, ImVec2(10, 10), wrap,
                         ImVec4(0, 0, 1024, 768), TextLayout::Defaults{});
            ImGui::End();
        });
        ui_.step();
    }

    ImGuiHarness ui_;
    TextLayout layout_;
};

TEST_F(TextLayoutTest, WhatIsMeasuredIsWhatIsDrawnAndWhatAClickFinds) {
    const Color red = Color::rgb24(0xCC2200), blue = Color::rgb24(0x2244CC);
    AttributedText text("alpha beta ", styled(Font::system(16), red, 24));
    text.append(
        AttributedText("gamma delta epsilon", styled(Font::monospacedSystem(16), blue, 24)));

    // Unwrapped: one 24-point line, as wide as the runs drawn.
    const Size one = layout_.measure(text, std::nullopt);
    EXPECT_DOUBLE_EQ(one.height, 24);
    draw(text, std::nullopt);
    const auto alpha = ui_.findText("alpha beta");
    const auto gamma = ui_.findText("gamma delta epsilon");
    ASSERT_TRUE(alpha && gamma);
    EXPECT_EQ(alpha->color, toImU32(red));
    EXPECT_EQ(gamma->font, layout_.fonts().resolve(Font::monospacedSystem(16)).font);
    EXPECT_NEAR(gamma->box.max.x - 10, one.width, 0.5);
    EXPECT_NEAR(
        gamma->box.min.x,
        alpha->box.max.x + layout_.fonts().resolve(Font::system(16)).font->GetCharAdvance(' '),
        1.0);

    // Wrapped narrower than the text: broken after a blank, never inside a word, and the
    // drawn lines stack at the measured line height.
    const float wrap = static_cast<float>(one.width * 0.6);
    const Size wrapped = layout_.measure(text, wrap);
    EXPECT_DOUBLE_EQ(wrapped.height, 48);
    EXPECT_LE(wrapped.width, wrap + 1);
    draw(text, wrap);
    std::vector<std::string> words;
    for (const DrawnText& t : ui_.texts()) words.push_back(t.text);
    for (const char* word : {"alpha", "gamma", "delta", "epsilon"}) {
        bool whole = false;
        for (const std::string& w : words) whole |= w.find(word) != std::string::npos;
        EXPECT_TRUE(whole) << word;
    }
    const auto second = ui_.findText("epsilon");
    EXPECT_NEAR(second->box.min.y - ui_.findText("alpha").value().box.min.y, 24, 0.5);

    // A click on a drawn character finds its byte; clicks past a line or below find nothing.
    const std::size_t delta = text.string().find("delta");
    const auto hit = ui_.findText("delta");
    ASSERT_TRUE(hit);
    const ImVec2 local(hit->box.min.x + 2 - 10, hit->box.center().y - 10);
    EXPECT_EQ(layout_.hitTest(text, local, wrap), delta);
    EXPECT_EQ(layout_.positionOf(text, delta, wrap)->x, hit->box.min.x - 10);
    EXPECT_FALSE(layout_.hitTest(text, ImVec2(wrap + 50, 5), wrap));
    EXPECT_FALSE(layout_.hitTest(text, ImVec2(5, 100), wrap));
}

TEST_F(TextLayoutTest, LineFeedsTabsIconsAndBadBytes) {
    TextAttributes plain = styled(Font::system(16), Color::white());
    // A line feed inside a run starts a line; a tab advances as four blanks.
    EXPECT_DOUBLE_EQ(layout_.measure(AttributedText("a\nb", plain), std::nullopt).height, 32);
    const double tab = layout_.measure(AttributedText("\tx", plain), std::nullopt).width;
    const double blanks = layout_.measure(AttributedText("    x", plain), std::nullopt).width;
    EXPECT_NEAR(tab, blanks, 0.01);
    // An empty text is one line tall.
    EXPECT_GT(layout_.measure(AttributedText(), std::nullopt).height, 0);

    // An icon advances by its bounds and is drawn as the system image it names.
    TextAttachment icon{*Image::named("fold"), Rect{0, 0, 20, 16}};
    AttributedText line = AttributedText::attachment(icon);
    line.append(AttributedText(" {", plain));
    const double withIcon = layout_.measure(line, std::nullopt).width;
    EXPECT_NEAR(withIcon - layout_.measure(AttributedText(" {", plain), std::nullopt).width, 20,
                0.01);
    draw(line, std::nullopt);
    EXPECT_FALSE(ui_.shapesIn(testing::Box{ImVec2(10, 10), ImVec2(30, 30)}).empty());

    // Ill-formed bytes are drawn as U+FFFD, one per byte, and measure the same.
    const AttributedText bad("x\xFF\xC3(y", plain);
    draw(bad, std::nullopt);
    const auto runs = ui_.findAllText("x");
    ASSERT_EQ(runs.size(), 1u);
    const DrawnText* drawn = &runs[0];
    EXPECT_EQ(drawn->text, "x\xEF\xBF\xBD\xEF\xBF\xBD(y");
    EXPECT_NEAR(drawn->box.width(), layout_.measure(bad, std::nullopt).width, 0.5);
}

TEST(JSONScrollViewTest, TopsAndRowLookupAgreeAsHeightsChange) {
    std::mt19937 random(7);
    std::uniform_int_distribution<int> heights(0, 5);
    std::vector<double> h(1000);
    for (double& v : h) v = 24.0 * heights(random);
    JSONScrollView view;
    view.reset(h);
    for (int round = 0; round < 3; ++round) {
        double top = 0;
        for (std::size_t r = 0; r < h.size(); ++r) {
            ASSERT_DOUBLE_EQ(view.top(r), top);
            if (h[r] > 0) {
                EXPECT_EQ(view.rowAt(top), r);
                EXPECT_EQ(view.rowAt(top + h[r] - 0.5), r);
            }
            top += h[r];
        }
        EXPECT_DOUBLE_EQ(view.contentHeight(), top);
        EXPECT_EQ(view.rowAt(-10), 0u);
        EXPECT_EQ(view.rowAt(top + 100), h.size() - 1);
        // Measuring a few rows moves everything below them.
        for (int k = 0; k < 50; ++k) {
            const auto r = static_cast<std::size_t>(random() % h.size());
            const double next = 24.0 * heights(random);
            EXPECT_DOUBLE_EQ(view.setHeight(r, next), next - h[r]);
            h[r] = next;
        }
    }
    view.reset({});
    EXPECT_EQ(view.rowAt(10), 0u);
    EXPECT_DOUBLE_EQ(view.contentHeight(), 0);
}

}  // namespace
}  // namespace kestro::imgui
