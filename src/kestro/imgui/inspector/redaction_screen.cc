// The redaction settings of the settings form: the switch, and for each list its entries (each
// with a button that removes it) and a field that adds one (Enter or "Add").

#include <imgui.h>
#include <imgui_stdlib.h>

#include <algorithm>
#include <optional>

#include "kestro/imgui/inspector/screens.h"
#include "kestro/imgui/inspector/widgets.h"
#include "kestro/imgui/item_probe.h"

namespace kestro::imgui::inspector {
namespace {

using List = RedactionSettings::List;

const char* listId(List list) {
    switch (list) {
        case List::headers:
            return "headers";
        case List::queryItems:
            return "queryItems";
        case List::jsonKeys:
            return "jsonKeys";
        case List::notCaptured:
            break;
    }
    return "notCaptured";
}

void editableList(RedactionSettings& settings, List list) {
    const std::string id = listId(list);
    ImGui::PushID(id.c_str());
    ImGui::Spacing();
    Text(TextStyle::subheadline, RedactionSettings::title(list), colors::secondary);
    const float icon = ImGui::GetFrameHeight();
    const auto& items = settings.items(list);
    std::optional<std::size_t> removed;
    for (std::size_t i = 0; i < items.size(); ++i) {
        ImGui::PushID(static_cast<int>(i));
        if (iconButton("remove", "trash", icon, toImU32(colors::red),
                       "redaction." + id + ".remove:" + items[i])) {
            removed = i;
        }
        ImGui::SameLine();
        ImGui::AlignTextToFramePadding();
        Text(TextStyle::monospacedBody, items[i]);
        ImGui::PopID();
    }
    if (items.empty()) Text(TextStyle::caption, "None", colors::secondary);
    if (removed) settings.remove(list, *removed);

    const float addWidth = ImGui::CalcTextSize("Add").x + ImGui::GetStyle().FramePadding.x * 2;
    ImGui::SetNextItemWidth(std::max(80.0f, ImGui::GetContentRegionAvail().x - addWidth - 8));
    const bool entered =
        ImGui::InputTextWithHint("##draft", RedactionSettings::placeholder(list),
                                 &settings.draft(list), ImGuiInputTextFlags_EnterReturnsTrue);
    probeItem("redaction." + id + ".field", ImGui::GetItemRectMin(), ImGui::GetItemRectMax());
    ImGui::SameLine();
    const bool pressed = ImGui::Button("Add");
    probeItem("redaction." + id + ".add", ImGui::GetItemRectMin(), ImGui::GetItemRectMax());
    if (entered || pressed) settings.add(list);
    if (!settings.message(list).empty()) {
        wrappedText(TextStyle::caption, settings.message(list), colors::orange);
    }
    ImGui::PopID();
}

}  // namespace

void drawRedactionSettings(RedactionSettings& settings) {
    bool on = settings.enabled();
    if (ImGui::Checkbox(settings_text::kRedactSecrets, &on)) settings.setEnabled(on);
    probeItem("redaction.enabled", ImGui::GetItemRectMin(), ImGui::GetItemRectMax());
    wrappedText(TextStyle::footnote, settings_text::kRedactionNote, colors::secondary);
    for (List list : RedactionSettings::kLists) editableList(settings, list);
}

}  // namespace kestro::imgui::inspector
