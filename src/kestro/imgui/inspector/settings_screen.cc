// The control sheet's settings form: "Open Logs", the "Info" and "Settings" sections, and the
// confirmations of the two deletions.

#include "kestro/imgui/inspector/screens.h"
#include "kestro/imgui/inspector/widgets.h"
#include "kestro/imgui/item_probe.h"

namespace kestro::imgui::inspector {
namespace {

namespace text = settings_text;

void sectionHeader(const char* title) {
    ImGui::Spacing();
    Text(TextStyle::footnote, title, colors::secondary);
    ImGui::Separator();
}

// An entry of "Info": its title in the subheadline style and secondary colour, the value below.
void infoEntry(const char* title) {
    ImGui::Spacing();
    Text(TextStyle::subheadline, title, colors::secondary);
}

bool destructiveButton(const char* label, const char* id) {
    const float size = ImGui::GetFrameHeight();
    ImGui::PushID(id);
    const ImVec2 min = ImGui::GetCursorScreenPos();
    ImGui::PushStyleColor(ImGuiCol_Text, toImU32(colors::red));
    ImGui::PushStyleColor(ImGuiCol_Button, IM_COL32(0, 0, 0, 0));
    const std::string caption = std::string("      ") + label;  // room for the icon
    const bool clicked = ImGui::Button(caption.c_str());
    ImGui::PopStyleColor(2);
    drawSystemImage(ImGui::GetWindowDrawList(), "trash", ImVec2(min.x + 4, min.y + size * 0.15f),
                    ImVec2(min.x + 4 + size * 0.7f, min.y + size * 0.85f), toImU32(colors::red),
                    ImGui::GetColorU32(ImGuiCol_WindowBg));
    ImGui::PopID();
    return clicked;
}

// A confirmation dialog: the title, the message, a destructive "Delete" and "Cancel".
void confirmation(const char* title, const char* message, bool shown, void (*confirm)(void*),
                  void (*cancel)(void*), void* form) {
    if (shown && !ImGui::IsPopupOpen(title)) ImGui::OpenPopup(title);
    ImGui::SetNextWindowSize(ImVec2(360, 0), ImGuiCond_Appearing);
    if (!ImGui::BeginPopupModal(title, nullptr, ImGuiWindowFlags_NoResize)) return;
    wrappedText(TextStyle::body, message);
    ImGui::Spacing();
    ImGui::PushStyleColor(ImGuiCol_Button, toImU32(withOpacity(colors::red, 0.8)));
    const bool remove = ImGui::Button(text::kDelete, ImVec2(120, 0));
    ImGui::PopStyleColor();
    ImGui::SameLine();
    const bool keep = ImGui::Button(text::kCancel, ImVec2(120, 0)) ||
                      ImGui::IsKeyPressed(ImGui::GetKeyIndex(ImGuiKey_Escape));
    if (remove) confirm(form);
    if (keep) cancel(form);
    if (remove || keep || !shown) ImGui::CloseCurrentPopup();
    ImGui::EndPopup();
}

}  // namespace

void drawSettingsForm(KestroSettingsForm& form) {
    // 1. "Open Logs": the whole row opens the list.
    {
        const ImVec2 min = ImGui::GetCursorScreenPos();
        const float height = ImGui::GetFrameHeight() * 1.4f;
        if (ImGui::Selectable("##open-logs", false, 0, ImVec2(0, height))) form.tapOpenLogs();
        const ImVec2 max = ImGui::GetItemRectMax();
        ImDrawList* list = ImGui::GetWindowDrawList();
        ScopedTextStyle body(TextStyle::body);
        list->AddText(ImVec2(min.x + 6, min.y + (height - ImGui::GetFontSize()) / 2),
                      ImGui::GetColorU32(ImGuiCol_Text), text::kOpenLogs);
        const float icon = ImGui::GetFontSize() * 0.8f;
        drawSystemImage(list, "chevron.right",
                        ImVec2(max.x - icon - 6, min.y + (height - icon) / 2),
                        ImVec2(max.x - 6, min.y + (height + icon) / 2), toImU32(colors::gray),
                        ImGui::GetColorU32(ImGuiCol_WindowBg));
        probeItem("settings.openLogs", min, max);
    }

    // 2. "Info".
    sectionHeader(text::kInfo);
    infoEntry(text::kWebSocketStatus);
    {
        const bool up = form.isWebSocketConnected();
        const ImVec2 at = ImGui::GetCursorScreenPos();
        const float line = ImGui::GetTextLineHeight();
        ImGui::GetWindowDrawList()->AddCircleFilled(ImVec2(at.x + 5, at.y + line / 2), 5,
                                                    toImU32(up ? colors::green : colors::red));
        ImGui::Dummy(ImVec2(10, line));
        ImGui::SameLine();
        if (up) {
            Text(TextStyle::body, text::kConnected);
        } else {
            Text(TextStyle::body, text::kDisconnected, colors::red);
        }
    }
    infoEntry(text::kAPIKey);
    wrappedText(TextStyle::monospacedBody, form.apiKey());
    infoEntry(text::kEndpoint);
    wrappedText(TextStyle::monospacedBody, form.endpoint());
    infoEntry(text::kTotalLogs);
    Text(TextStyle::body, form.totalLogs());

    // 3. "Settings".
    ImGui::Spacing();
    sectionHeader(text::kSettings);
    auto toggle = [](const char* label, bool value, auto set) {
        bool v = value;
        if (ImGui::Checkbox(label, &v)) set(v);
    };
    toggle(text::kEnableSDK, form.isSDKEnabled(), [&](bool v) { form.setSDKEnabled(v); });
    toggle(text::kLogs, form.isLoggingEnabled(), [&](bool v) { form.setLoggingEnabled(v); });
    toggle(text::kNetworkRequests, form.isNetworkRequestsEnabled(),
           [&](bool v) { form.setNetworkRequestsEnabled(v); });
    toggle(text::kCustomEvents, form.isCustomEventsEnabled(),
           [&](bool v) { form.setCustomEventsEnabled(v); });
    if (destructiveButton(text::kDeleteAPIKey, "delete-key")) form.tapDeleteAPIKey();
    if (destructiveButton(text::kDeleteLogs, "delete-logs")) form.tapDeleteLogs();
    Text(TextStyle::footnote, form.sdkVersionText());

    // 4. "Redaction".
    ImGui::Spacing();
    sectionHeader(text::kRedaction);
    drawRedactionSettings(form.redaction());

    confirmation(
        text::kDeleteAPIKeyTitle, text::kDeleteAPIKeyMessage, form.showDeleteConfirmation(),
        [](void* f) { static_cast<KestroSettingsForm*>(f)->confirmDeleteAPIKey(); },
        [](void* f) { static_cast<KestroSettingsForm*>(f)->cancelDeleteAPIKey(); }, &form);
    confirmation(
        text::kDeleteLogsTitle, text::kDeleteLogsMessage, form.showDeleteConfirmationForLogs(),
        [](void* f) { static_cast<KestroSettingsForm*>(f)->confirmDeleteLogs(); },
        [](void* f) { static_cast<KestroSettingsForm*>(f)->cancelDeleteLogs(); }, &form);
}

}  // namespace kestro::imgui::inspector
