// An item's details: its sections top to bottom, each value copied by a click (or its copy
// button) with a toast to confirm, JSON bodies in the JSON view with a "Copy" button, image
// previews, and a note when the item has been deleted meanwhile.

#include <algorithm>

#include "kestro/imgui/inspector/screens.h"
#include "kestro/imgui/inspector/timing_waterfall_view.h"
#include "kestro/imgui/inspector/widgets.h"
#include "kestro/imgui/item_probe.h"
#include "kestro/imgui/system_images.h"

namespace kestro::imgui::inspector {
namespace {

using Kind = DetailElement::Kind;

// A value under its label: drawn in part when long, copied whole by a click.
void copyableValue(ItemDetailsModel& details, const DetailElement& e) {
    const ShownText shown = shownText(e.text());
    // What is not shown is said first, where it is seen.
    if (!shown.note.empty()) wrappedText(TextStyle::caption, shown.note, colors::orange);
    ImGui::BeginGroup();
    wrappedText(TextStyle::body, shown.text.empty() ? std::string_view(" ") : shown.text);
    ImGui::EndGroup();
    const ImVec2 min = ImGui::GetItemRectMin(), max = ImGui::GetItemRectMax();
    if (ImGui::IsItemHovered()) {
        ImGui::GetWindowDrawList()->AddRect(ImVec2(min.x - 2, min.y - 1),
                                            ImVec2(max.x + 2, max.y + 1),
                                            ImGui::GetColorU32(ImGuiCol_ButtonHovered), 3);
        ImGui::SetTooltip("Click to copy");
        if (ImGui::IsMouseClicked(ImGuiMouseButton_Left)) details.copyValue(e);
    }
    probeItem("value:" + e.label, min, max);
}

void jsonHeader(ItemDetailsModel& details, const DetailElement& e) {
    Text(TextStyle::caption, e.label, colors::secondary);
    ImGui::SameLine();
    // "Copy" with the doc.on.doc image, at the end of the row.
    ScopedTextStyle caption(TextStyle::caption);
    const float icon = ImGui::GetFontSize();
    const float width = icon + 6 + ImGui::CalcTextSize("Copy").x + 16;
    ImGui::SetCursorPosX(std::max(ImGui::GetCursorPosX(), ImGui::GetContentRegionMax().x - width));
    const ImVec2 min = ImGui::GetCursorScreenPos();
    const float height = ImGui::GetFontSize() + 8;
    if (ImGui::InvisibleButton("copy-json", ImVec2(width, height))) details.copyJSON(e);
    ImDrawList* list = ImGui::GetWindowDrawList();
    const float alpha = ImGui::IsItemHovered() ? 0.35f : 0.2f;
    list->AddRectFilled(min, ImVec2(min.x + width, min.y + height),
                        toImU32(colors::secondary, alpha), 4);
    drawSystemImage(list, "doc.on.doc", ImVec2(min.x + 8, min.y + 4),
                    ImVec2(min.x + 8 + icon, min.y + 4 + icon), toImU32(colors::white),
                    toImU32(colors::secondary, alpha));
    list->AddText(ImVec2(min.x + 8 + icon + 6, min.y + 4), toImU32(colors::white), "Copy");
    probeItem("copy:" + e.label, min, ImVec2(min.x + width, min.y + height));
}

void element(ItemDetailsModel& details, const DetailElement& e, std::size_t number,
             DetailsState& state) {
    ImGui::PushID(static_cast<int>(number));
    if (e.indented) ImGui::Indent();
    switch (e.kind) {
        case Kind::headline:
            Text(TextStyle::headline, e.label);
            if (e.statusCode) {
                const std::string code = std::to_string(*e.statusCode);
                ScopedTextStyle mono(TextStyle::monospacedBody);
                ImGui::SameLine(ImGui::GetContentRegionMax().x -
                                ImGui::CalcTextSize(code.c_str()).x - 16);
                ImGui::TextColored(toImVec4(e.statusColor), "%s", code.c_str());
            }
            break;
        case Kind::subheadline:
            Text(TextStyle::subheadline, e.label);
            break;
        case Kind::row:
            Text(TextStyle::subheadline, e.label, colors::gray);
            copyableValue(details, e);
            break;
        case Kind::copyable:
            Text(TextStyle::caption, e.label, colors::secondary);
            copyableValue(details, e);
            break;
        case Kind::json: {
            jsonHeader(details, e);
            auto& view = state.json[number];
            if (!view) {
                view = std::make_unique<JSONViewerView>(e.text());
                if (openURLHook()) view->settings.openURL = openURLHook();
            }
            // As tall as the document (with the viewer's toolbar), within limits.
            const double rows = static_cast<double>(view->model()->lineDataSource().size());
            const double lineHeight = view->model()->highlightStyle().lineHeight;
            const float height =
                static_cast<float>(std::clamp(rows * lineHeight + 60, 140.0, 440.0));
            // In a child of the frame's width, which the viewer's toolbar lays itself out in.
            ImGui::BeginChild("json", ImVec2(framedWidthAvail(), height), false,
                              ImGuiWindowFlags_NoScrollbar | ImGuiWindowFlags_NoScrollWithMouse |
                                  ImGuiWindowFlags_NoBackground);
            view->DrawContents();
            ImGui::EndChild();
            break;
        }
        case Kind::notice:
            wrappedText(TextStyle::footnote, e.text(), colors::orange);
            break;
        case Kind::timings:
            Text(TextStyle::subheadline, e.label);
            if (e.waterfall) {
                drawTimingWaterfall(*e.waterfall, framedWidthAvail());
            } else {
                ImGui::SameLine();
                Text(TextStyle::caption, e.text(), colors::secondary);
            }
            break;
        case Kind::image: {
            auto& preview = state.images[number];
            if (!preview) preview = std::make_unique<ImagePreview>(e.value);
            preview->draw(300);
            break;
        }
    }
    if (e.indented) ImGui::Unindent();
    ImGui::PopID();
}

}  // namespace

bool drawItemDetails(ItemDetailsModel& details, bool stillListed, DetailsState& state) {
    if (state.shown != &details) {
        state.json.clear();
        state.images.clear();
        state.shown = &details;
    }
    bool done = false;
    // The toolbar: "Copy as cURL" for an exchange, "Done" at the trailing end.
    if (details.canCopyCurl()) {
        if (ImGui::Button("Copy as cURL")) details.copyCurl();
        probeItem("details.copyCurl", ImGui::GetItemRectMin(), ImGui::GetItemRectMax());
        ImGui::SameLine();
    }
    ImGui::SetCursorPosX(ImGui::GetContentRegionMax().x - 70);
    if (ImGui::Button("Done", ImVec2(64, 0)) ||
        (ImGui::IsWindowFocused(ImGuiFocusedFlags_RootAndChildWindows) &&
         !ImGui::GetIO().WantTextInput &&
         ImGui::IsKeyPressed(ImGui::GetKeyIndex(ImGuiKey_Escape)))) {
        done = true;
    }
    if (!stillListed) {
        wrappedText(TextStyle::footnote,
                    "This item has been deleted; what was recorded is still shown.",
                    colors::orange);
    }
    ImGui::BeginChild("details-scroll", ImVec2(0, 0), false);
    std::size_t number = 0;
    if (details.sections().empty()) {
        ImGui::TextDisabled("Nothing was recorded for this item.");
    }
    for (const DetailSection& section : details.sections()) {
        if (section.framed) {
            FramedGroup frame(withOpacity(colors::secondary, 0.1), 8, ImVec2(12, 12));
            for (const DetailElement& e : section.elements) {
                element(details, e, number++, state);
                ImGui::Dummy(ImVec2(0, 4));
            }
        } else {
            for (const DetailElement& e : section.elements) {
                element(details, e, number++, state);
                ImGui::Dummy(ImVec2(0, 2));
            }
        }
        ImGui::Dummy(ImVec2(0, 8));
    }
    ImGui::EndChild();
    return done;
}

void drawToast(const ToastManager& toasts, ImVec2 min, ImVec2 max) {
    if (!toasts.currentToast()) return;
    const Fonts& fonts = Fonts::current();
    std::string scratch;
    const std::string_view shown = fonts.displayText(*toasts.currentToast(), scratch);
    ImFont* font = fonts.font(TextStyle::body);
    const float size = fonts.size(TextStyle::body);
    const ImVec2 text =
        font->CalcTextSizeA(size, FLT_MAX, 0, shown.data(), shown.data() + shown.size());
    const ImVec2 box(text.x + 24, text.y + 16);
    const ImVec2 at((min.x + max.x - box.x) / 2, min.y + 44);
    ImDrawList* list = ImGui::GetForegroundDrawList();
    for (int i = 4; i >= 1; --i) {  // the shadow: black at 0.33, spread over 4 points
        const float g = static_cast<float>(i);
        list->AddRectFilled(ImVec2(at.x - g, at.y - g), ImVec2(at.x + box.x + g, at.y + box.y + g),
                            IM_COL32(0, 0, 0, static_cast<int>(84 / (i + 1))), 8 + g);
    }
    list->AddRectFilled(at, ImVec2(at.x + box.x, at.y + box.y), IM_COL32(0, 0, 0, 204), 8);
    list->AddText(font, size, ImVec2(at.x + 12, at.y + 8), IM_COL32_WHITE, shown.data(),
                  shown.data() + shown.size());
    probeItem("toast", at, ImVec2(at.x + box.x, at.y + box.y));
}

}  // namespace kestro::imgui::inspector
