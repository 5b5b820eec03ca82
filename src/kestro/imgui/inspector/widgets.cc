#include "kestro/imgui/inspector/widgets.h"

#include <imgui_internal.h>  // ImTextCharFromUtf8

#include <cmath>

#include "kestro/imgui/item_probe.h"

namespace kestro::imgui::inspector {
namespace {
// The right inset of the innermost framed group, so that wrapped text stays inside its frame.
float gWrapInset = 0;
}  // namespace

void drawSystemImage(ImDrawList* list, std::string_view name, ImVec2 min, float s, ImU32 color) {
    const float t = std::max(1.0f, s * 0.1f);  // stroke
    auto at = [&](float fx, float fy) { return ImVec2(min.x + fx * s, min.y + fy * s); };
    if (name == "chevron.right") {
        list->AddLine(at(0.35f, 0.15f), at(0.7f, 0.5f), color, t * 1.4f);
        list->AddLine(at(0.7f, 0.5f), at(0.35f, 0.85f), color, t * 1.4f);
    } else if (name == "magnifyingglass") {
        list->AddCircle(at(0.42f, 0.42f), s * 0.28f, color, 16, t * 1.3f);
        list->AddLine(at(0.62f, 0.62f), at(0.9f, 0.9f), color, t * 1.6f);
    } else if (name == "xmark.circle.fill") {
        list->AddCircleFilled(at(0.5f, 0.5f), s * 0.45f, color, 20);
        const ImU32 mark = IM_COL32(30, 30, 30, 255);
        list->AddLine(at(0.33f, 0.33f), at(0.67f, 0.67f), mark, t * 1.3f);
        list->AddLine(at(0.67f, 0.33f), at(0.33f, 0.67f), mark, t * 1.3f);
    } else if (name == "trash") {
        list->AddLine(at(0.15f, 0.25f), at(0.85f, 0.25f), color, t);           // lid
        list->AddRect(at(0.38f, 0.1f), at(0.62f, 0.25f), color, 1.0f, 0, t);   // handle
        list->AddRect(at(0.24f, 0.25f), at(0.76f, 0.92f), color, 2.0f, 0, t);  // can
        for (float x : {0.4f, 0.6f}) list->AddLine(at(x, 0.38f), at(x, 0.8f), color, t);
    } else if (name == "doc.on.doc") {
        list->AddRect(at(0.32f, 0.1f), at(0.88f, 0.72f), color, 2.0f, 0, t);
        list->AddRectFilled(at(0.12f, 0.3f), at(0.68f, 0.92f), IM_COL32(0, 0, 0, 140), 2.0f);
        list->AddRect(at(0.12f, 0.3f), at(0.68f, 0.92f), color, 2.0f, 0, t);
    }
}

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
                    size - 2 * inset, color);
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
