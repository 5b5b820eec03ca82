#include "kestro/imgui/system_images.h"

#include <gtest/gtest.h>

#include "support/imgui/imgui_harness.h"

namespace kestro::imgui {
namespace {

using testing::Box;
using testing::ImGuiHarness;

TEST(SystemImagesTest, EachNamedImageIsDrawnInsideItsBoxAndUnknownNamesAreNot) {
    ImGuiHarness ui;
    const char* names[] = {
        "chevron.right", "trash", "magnifyingglass", "xmark.circle.fill", "doc.on.doc",
        "expand",        "fold"};
    const ImU32 color = IM_COL32(200, 40, 40, 255);
    bool unknownDrew = true;
    ui.setScene([&] {
        ImDrawList* list = ImGui::GetForegroundDrawList();
        for (int i = 0; i < 7; ++i) {
            const float x = 10.0f + 40.0f * static_cast<float>(i);
            EXPECT_TRUE(drawSystemImage(list, names[i], ImVec2(x, 10), ImVec2(x + 24, 34), color,
                                        IM_COL32_BLACK));
        }
        unknownDrew = drawSystemImage(list, "star.fill", ImVec2(400, 10), ImVec2(424, 34), color,
                                      IM_COL32_BLACK);
    });
    ui.step();
    EXPECT_FALSE(unknownDrew);
    EXPECT_FALSE(isSystemImage("star.fill"));
    for (int i = 0; i < 7; ++i) {
        const float x = 10.0f + 40.0f * static_cast<float>(i);
        EXPECT_TRUE(isSystemImage(names[i]));
        EXPECT_FALSE(ui.shapesIn(Box{ImVec2(x, 10), ImVec2(x + 24, 34)}, color).empty())
            << names[i];
    }
    EXPECT_TRUE(ui.shapesIn(Box{ImVec2(390, 0), ImVec2(440, 50)}).empty());
}

TEST(SystemImagesTest, AnImageButtonReportsItsPlaceAndItsClick) {
    ImGuiHarness ui;
    int clicks = 0;
    ui.setScene([&] {
        ImGui::Begin("w");
        ImGui::TextUnformatted("Body");
        ImGui::SameLine();
        if (SystemImageButton("copy", "doc.on.doc")) ++clicks;
        ImGui::End();
    });
    ui.step(2);  // a new window is sized in its first frame and drawn from the second
    const auto button = ui.item("copy");
    ASSERT_TRUE(button);
    EXPECT_GT(button->min.x, ui.findText("Body").value().box.max.x);
    ui.click(button->center());
    EXPECT_EQ(clicks, 1);
    ui.click(ui.centerOf("Body"));
    EXPECT_EQ(clicks, 1);
}

}  // namespace
}  // namespace kestro::imgui
