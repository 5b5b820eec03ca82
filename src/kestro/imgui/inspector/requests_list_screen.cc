// The requests list: the search bar, then one row per item through a list clipper over the
// model's rows, so that a long list costs what its visible rows cost. A row opens its details
// on a click; it is deleted from its context menu ("Delete"), with the trash button shown on
// the hovered row, or with the Delete key on the focused row (the last row opened or moved to
// with the arrow keys).

#include <imgui.h>
#include <imgui_stdlib.h>

#include "kestro/imgui/inspector/screens.h"
#include "kestro/imgui/inspector/widgets.h"
#include "kestro/imgui/item_probe.h"
#include "kestro/inspector/request_row.h"

namespace kestro::imgui::inspector {
namespace {

// A tag: caption-2 text padded 6 by 2 on a rounded rectangle of radius 4. Returns its width.
float drawTag(ImDrawList* list, const Fonts& fonts, const RowTag& tag, ImVec2 at) {
    std::string scratch;
    const std::string_view shown = fonts.displayText(tag.text, scratch);
    ImFont* font = fonts.font(TextStyle::caption2);
    const float size = fonts.size(TextStyle::caption2);
    const ImVec2 textSize =
        font->CalcTextSizeA(size, FLT_MAX, 0, shown.data(), shown.data() + shown.size());
    const ImVec2 max(at.x + textSize.x + 12, at.y + textSize.y + 4);
    list->AddRectFilled(at, max, toImU32(tag.background), 4);
    const Color color = tag.style == RowTag::Style::method ? colors::white : colors::secondary;
    list->AddText(font, size, ImVec2(at.x + 6, at.y + 2), toImU32(color), shown.data(),
                  shown.data() + shown.size());
    return max.x - at.x;
}

void searchBar(RequestsListModel& list, ListState& state) {
    const float icon = ImGui::GetFrameHeight();
    const ImVec2 at = ImGui::GetCursorScreenPos();
    ImGui::Dummy(ImVec2(icon, icon));
    drawSystemImage(ImGui::GetWindowDrawList(), "magnifyingglass",
                    ImVec2(at.x + icon * 0.15f, at.y + icon * 0.15f),
                    ImVec2(at.x + icon * 0.85f, at.y + icon * 0.85f), toImU32(colors::gray),
                    ImGui::GetColorU32(ImGuiCol_WindowBg));
    ImGui::SameLine();
    const bool clearable = !state.searchField.empty();
    const float exportWidth =
        ImGui::CalcTextSize("Export HAR").x + ImGui::GetStyle().FramePadding.x * 2 + 8;
    ImGui::SetNextItemWidth(ImGui::GetContentRegionAvail().x - (clearable ? icon + 8 : 0) -
                            exportWidth);
    state.searchField = list.searchText();
    if (ImGui::InputTextWithHint("##search", "Search", &state.searchField)) {
        list.setSearchText(state.searchField);
    }
    const ImVec2 fieldMin = ImGui::GetItemRectMin(), fieldMax = ImGui::GetItemRectMax();
    probeItem("list.search", fieldMin, fieldMax);
    if (clearable) {
        ImGui::SameLine();
        if (iconButton("clear", "xmark.circle.fill", icon, toImU32(colors::gray), "list.clear")) {
            list.setSearchText("");
        }
    }
    // The exchanges in view, to a file in the data directory; the toast gives its path.
    ImGui::SameLine();
    ImGui::BeginDisabled(list.isExporting());
    if (ImGui::Button("Export HAR")) list.exportHAR();
    ImGui::EndDisabled();
    probeItem("list.exportHAR", ImGui::GetItemRectMin(), ImGui::GetItemRectMax());
}

}  // namespace

void drawRequestsList(RequestsListModel& list, ListState& state) {
    searchBar(list, state);
    ImGui::Spacing();

    const Fonts& fonts = Fonts::current();
    const float titleHeight = fonts.size(TextStyle::body);
    const float tagHeight = fonts.size(TextStyle::caption2) + 4;
    const ImVec2 pad(10, 6);
    const float rowHeight = pad.y * 2 + titleHeight + 4 + tagHeight;

    ImGui::BeginChild("rows", ImVec2(0, 0), false);
    const std::size_t count = list.rowCount();
    if (count == 0) {
        ImGui::TextDisabled(list.searchText().empty() ? "Nothing has been captured yet."
                                                      : "No item matches the search.");
    }
    const bool listFocused = ImGui::IsWindowFocused(ImGuiFocusedFlags_RootAndChildWindows);
    std::string toDelete;
    std::optional<std::size_t> toOpen;
    std::optional<std::size_t> focusedRow;

    // Contents made for other rows, or before the rows changed, are not reused.
    if (state.rowsRevision != list.revision()) {
        state.rows.clear();
        state.rowsRevision = list.revision();
    }
    state.nextRows.clear();
    ImGuiListClipper clipper;
    clipper.Begin(static_cast<int>(count), rowHeight + ImGui::GetStyle().ItemSpacing.y);
    ImDrawList* draw = ImGui::GetWindowDrawList();
    while (clipper.Step()) {
        for (int row = clipper.DisplayStart; row < clipper.DisplayEnd; ++row) {
            const RequestEventType& item = list.item(static_cast<std::size_t>(row));
            const std::string& id = item.id();
            const bool focused = id == state.focusedId;
            if (focused) focusedRow = static_cast<std::size_t>(row);
            ImGui::PushID(id.c_str());
            const ImVec2 min = ImGui::GetCursorScreenPos();
            if (ImGui::Selectable("##row", focused, ImGuiSelectableFlags_AllowItemOverlap,
                                  ImVec2(0, rowHeight))) {
                toOpen = static_cast<std::size_t>(row);
                state.focusedId = id;
            }
            // The row's rectangle, not its item: the trash button over it takes the item's hover.
            const bool hovered = ImGui::IsWindowHovered() &&
                                 ImGui::IsMouseHoveringRect(min, ImGui::GetItemRectMax());
            if (ImGui::IsItemFocused()) state.focusedId = id;
            if (ImGui::BeginPopupContextItem("row-menu")) {
                if (ImGui::MenuItem("Delete")) toDelete = id;
                ImGui::EndPopup();
            }
            const ImVec2 max = ImGui::GetItemRectMax();
            probeItem("row:" + id, min, max);

            auto cached = state.rows.find(&item);
            RequestRowContent& content =
                state.nextRows
                    .emplace(&item, cached != state.rows.end() ? std::move(cached->second)
                                                               : rowContent(item))
                    .first->second;
            draw->AddRectFilled(min, max, toImU32(content.background));
            // First line: the title, cut to the row's width.
            ImGui::SetCursorScreenPos(ImVec2(min.x + pad.x, min.y + pad.y));
            truncatedText(TextStyle::body, content.title, max.x - min.x - 2 * pad.x - 30);
            // Second line: time, tags (clipped to the room left), kind at the end.
            const float y = min.y + pad.y + titleHeight + 4;
            ImFont* caption = fonts.font(TextStyle::caption2);
            const float captionSize = fonts.size(TextStyle::caption2);
            draw->AddText(caption, captionSize, ImVec2(min.x + pad.x, y + 2),
                          toImU32(colors::secondary), content.time.c_str());
            const float timeWidth =
                caption->CalcTextSizeA(captionSize, FLT_MAX, 0, content.time.c_str()).x;
            const RowTag kind{content.kind, RowTag::Style::text,
                              withOpacity(colors::secondary, 0.1)};
            const float kindWidth =
                caption->CalcTextSizeA(captionSize, FLT_MAX, 0, content.kind.c_str()).x + 12;
            const float kindX = max.x - pad.x - kindWidth - (hovered ? rowHeight * 0.6f : 0);
            float x = min.x + pad.x + timeWidth + 8;
            draw->PushClipRect(ImVec2(x, y), ImVec2(kindX - 8, y + tagHeight), true);
            for (const RowTag& tag : content.tags) x += drawTag(draw, fonts, tag, ImVec2(x, y)) + 6;
            draw->PopClipRect();
            drawTag(draw, fonts, kind, ImVec2(kindX, y));
            // The trash button of the hovered row.
            if (hovered || ImGui::IsPopupOpen("row-menu")) {
                const float size = rowHeight * 0.5f;
                ImGui::SetCursorScreenPos(ImVec2(max.x - size - 6, min.y + (rowHeight - size) / 2));
                // Acts on the press: the row under it takes the release back as its own.
                if (iconButton("trash", "trash", size, toImU32(colors::red), "trash:" + id,
                               /*onPress=*/true)) {
                    toDelete = id;
                }
            }
            ImGui::SetCursorScreenPos(ImVec2(min.x, max.y + ImGui::GetStyle().ItemSpacing.y));
            ImGui::Dummy(ImVec2(0, 0));
            ImGui::PopID();
        }
    }
    clipper.End();
    std::swap(state.rows, state.nextRows);

    // Keys act on the focused row while the list (not the search field) has the keyboard.
    const ImGuiIO& io = ImGui::GetIO();
    if (listFocused && !io.WantTextInput && count > 0) {
        auto rowOfFocus = [&]() -> std::optional<std::size_t> {
            if (focusedRow) return focusedRow;
            if (state.focusedId.empty()) return std::nullopt;
            for (std::size_t r = 0; r < count; ++r) {  // off screen: look it up
                if (list.item(r).id() == state.focusedId) return r;
            }
            return std::nullopt;
        };
        if (ImGui::IsKeyPressed(ImGui::GetKeyIndex(ImGuiKey_Delete)) && !state.focusedId.empty()) {
            toDelete = state.focusedId;
        } else if (ImGui::IsKeyPressed(ImGui::GetKeyIndex(ImGuiKey_DownArrow))) {
            const auto r = rowOfFocus();
            state.focusedId = list.item(r ? std::min(*r + 1, count - 1) : 0).id();
        } else if (ImGui::IsKeyPressed(ImGui::GetKeyIndex(ImGuiKey_UpArrow))) {
            const auto r = rowOfFocus();
            state.focusedId = list.item(r && *r > 0 ? *r - 1 : 0).id();
        } else if (ImGui::IsKeyPressed(ImGui::GetKeyIndex(ImGuiKey_Enter))) {
            if (const auto r = rowOfFocus()) toOpen = *r;
        }
    }
    ImGui::EndChild();

    if (!toDelete.empty()) list.deleteItem(toDelete);
    if (toOpen && toDelete.empty()) list.select(*toOpen);
}

}  // namespace kestro::imgui::inspector
