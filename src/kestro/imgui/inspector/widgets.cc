#include "kestro/imgui/inspector/widgets.h"

#include <imgui_internal.h>  // ImTextCharFromUtf8

#include <cmath>

#include "kestro/imgui/item_probe.h"

namespace kestro::imgui::inspector {
namespace {
// The right inset of the innermost framed group, so that wrapped text stays inside its frame.
float gWrapInset = 0;
}  // namespace

bool iconButton(const char* id, std::string_view image, float size, ImU32 color,
                std::string_view probeName, bool onPress) {
    const ImVec2 min = ImGui::GetCursorScreenPos();
    const bool released = ImGui::InvisibleButton(id, ImVec2(size, size));
    const bool clicked = onPress ? ImGui::IsItemActivated() : released;
    if (ImGui::IsItemHovered()) {
        ImGui::GetWindowDrawList()->AddRectFilled(min, ImVec2(min.x + size, min.y + size),
                                                  ImGui::GetColorU32(ImGuiCol_ButtonHovered), 4);
    }
    const float inset = size * 0.15f;
    drawSystemImage(ImGui::GetWindowDrawList(), image, ImVec2(min.x + inset, min.y + inset),
                    ImVec2(min.x + size - inset, min.y + size - inset), color,
                    ImGui::GetColorU32(ImGuiCol_WindowBg));
    probeItem(probeName, min, ImVec2(min.x + size, min.y + size));
    return clicked;
}

void wrappedText(TextStyle style, std::string_view text, std::optional<Color> color) {
    std::string scratch;
    const std::string_view shown = Fonts::current().displayText(text, scratch);
    ScopedTextStyle scoped(style);
    if (color) ImGui::PushStyleColor(ImGuiCol_Text, toImU32(*color));
    ImGui::PushTextWrapPos(ImGui::GetContentRegionMax().x - gWrapInset);
    ImGui::TextUnformatted(shown.data(), shown.data() + shown.size());
    ImGui::PopTextWrapPos();
    if (color) ImGui::PopStyleColor();
}

void truncatedText(TextStyle style, std::string_view text, float maxWidth,
                   std::optional<Color> color) {
    std::string scratch;
    std::string_view shown = Fonts::current().displayText(text, scratch);
    ScopedTextStyle scoped(style);
    ImFont* font = ImGui::GetFont();
    const float size = ImGui::GetFontSize();
    std::string cut;
    if (ImGui::CalcTextSize(shown.data(), shown.data() + shown.size()).x > maxWidth) {
        const float ellipsis = ImGui::CalcTextSize("…").x;
        // Cut at any character, not only at word ends, so that long URLs keep their start.
        float width = 0;
        const char* p = shown.data();
        const char* stop = shown.data() + shown.size();
        while (p < stop) {
            unsigned int c = 0;
            const int n = ImTextCharFromUtf8(&c, p, stop);
            const float w = font->GetCharAdvance(static_cast<ImWchar>(c)) * size / font->FontSize;
            if (width + w > maxWidth - ellipsis) break;
            width += w;
            p += n > 0 ? n : 1;
        }
        cut.assign(shown.data(), p);
        cut += "…";
        shown = cut;
    }
    if (color) ImGui::PushStyleColor(ImGuiCol_Text, toImU32(*color));
    ImGui::TextUnformatted(shown.data(), shown.data() + shown.size());
    if (color) ImGui::PopStyleColor();
}

float framedWidthAvail() { return std::max(1.0f, ImGui::GetContentRegionAvail().x - gWrapInset); }

FramedGroup::FramedGroup(Color tint, float rounding, ImVec2 padding)
    : tint_(toImU32(tint)), rounding_(rounding), padding_(padding) {
    splitter_.Split(ImGui::GetWindowDrawList(), 2);
    splitter_.SetCurrentChannel(ImGui::GetWindowDrawList(), 1);
    start_ = ImGui::GetCursorScreenPos();
    savedInset_ = gWrapInset;
    gWrapInset += padding_.x;
    ImGui::SetCursorScreenPos(ImVec2(start_.x + padding_.x, start_.y + padding_.y));
    ImGui::BeginGroup();
}

FramedGroup::~FramedGroup() {
    ImGui::EndGroup();
    gWrapInset = savedInset_;
    ImDrawList* list = ImGui::GetWindowDrawList();
    const ImVec2 max(std::max(ImGui::GetItemRectMax().x + padding_.x,
                              start_.x + ImGui::GetContentRegionAvail().x),
                     ImGui::GetItemRectMax().y + padding_.y);
    splitter_.SetCurrentChannel(list, 0);
    list->AddRectFilled(start_, max, tint_, rounding_);
    splitter_.Merge(list);
    ImGui::SetCursorScreenPos(ImVec2(start_.x, max.y));
    ImGui::Dummy(ImVec2(max.x - start_.x, 0));
}

}  // namespace kestro::imgui::inspector
