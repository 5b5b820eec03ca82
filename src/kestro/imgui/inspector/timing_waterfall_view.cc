#include "kestro/imgui/inspector/timing_waterfall_view.h"

#include <imgui.h>

#include <algorithm>

#include "kestro/imgui/colors.h"
#include "kestro/imgui/fonts.h"
#include "kestro/imgui/item_probe.h"

namespace kestro::imgui::inspector {

void drawTimingWaterfall(const TimingWaterfall& waterfall, float width) {
    ScopedTextStyle caption(TextStyle::caption);
    const float labelWidth = ImGui::CalcTextSize("Name lookup").x + 12;
    const float valueWidth = ImGui::CalcTextSize("00000.00 ms").x + 8;
    const float track = std::max(40.0f, width - labelWidth - valueWidth);
    const float rowHeight = ImGui::GetTextLineHeight() + 4;
    ImDrawList* list = ImGui::GetWindowDrawList();
    const ImVec2 origin = ImGui::GetCursorScreenPos();
    for (std::size_t i = 0; i < waterfall.segments.size(); ++i) {
        const WaterfallSegment& s = waterfall.segments[i];
        const float y = origin.y + rowHeight * static_cast<float>(i);
        list->AddText(ImVec2(origin.x, y + 2), toImU32(colors::secondary), s.label.c_str());
        const float trackX = origin.x + labelWidth;
        // The track's faint line shows the whole exchange, the bar the phase's share of it.
        list->AddRectFilled(ImVec2(trackX, y + rowHeight / 2 - 0.5f),
                            ImVec2(trackX + track, y + rowHeight / 2 + 0.5f),
                            toImU32(colors::secondary, 0.25f));
        if (s.durationMs > 0) {
            const float x0 = trackX + track * static_cast<float>(s.offsetFraction);
            // A phase too short for a pixel still shows as a sliver.
            const float x1 = std::max(x0 + 2, x0 + track * static_cast<float>(s.widthFraction));
            const ImVec2 min(x0, y + 3), max(x1, y + rowHeight - 3);
            list->AddRectFilled(min, max, toImU32(s.color), 2);
            probeItem("timing:" + s.label, min, max);
        }
        list->AddText(ImVec2(trackX + track + 8, y + 2), toImU32(colors::white),
                      s.durationText.c_str());
    }
    const float totalY = origin.y + rowHeight * static_cast<float>(waterfall.segments.size());
    list->AddText(ImVec2(origin.x + labelWidth, totalY + 2), toImU32(colors::white),
                  waterfall.totalText.c_str());
    ImGui::Dummy(ImVec2(width, totalY + rowHeight - origin.y));
}

}  // namespace kestro::imgui::inspector
