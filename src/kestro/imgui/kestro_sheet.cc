#include "kestro/imgui/kestro_sheet.h"

#include <imgui.h>

#include "kestro/core/main_queue.h"
#include "kestro/imgui/fonts.h"
#include "kestro/imgui/inspector/screens.h"
#include "kestro/imgui/item_probe.h"

namespace kestro {
namespace imgui {

namespace inspector {
std::function<void(const std::string&)>& openURLHook() {
    static std::function<void(const std::string&)> hook;
    return hook;
}
}  // namespace inspector

void setInspectorOpenURL(std::function<void(const std::string& url)> openURL) {
    inspector::openURLHook() = std::move(openURL);
}

void ImGuiClipboard::setString(std::string_view text) {
    if (ImGui::GetCurrentContext()) ImGui::SetClipboardText(std::string(text).c_str());
}

std::string ImGuiClipboard::string() const {
    if (!ImGui::GetCurrentContext()) return {};
    const char* text = ImGui::GetClipboardText();
    return text ? text : "";
}

struct InspectorView::State {
    inspector::ListState list;
    inspector::DetailsState details;
    const void* listModel = nullptr;  // the list the state above belongs to
};

InspectorView::InspectorView(KestroSheetModifier& modifier)
    : modifier_(modifier), state_(std::make_unique<State>()) {}

InspectorView::~InspectorView() = default;

void InspectorView::draw() {
    KestroControlSheet* sheet = modifier_.sheet();
    const ImGuiViewport* viewport = ImGui::GetMainViewport();
    ImVec2 toastMin = viewport->WorkPos;
    ImVec2 toastMax(viewport->WorkPos.x + viewport->WorkSize.x,
                    viewport->WorkPos.y + viewport->WorkSize.y);
    if (sheet) {
        KestroSettingsForm& form = sheet->form();
        RequestsListModel* list = form.logsList();
        ItemDetailsModel* details = list ? list->details() : nullptr;
        if (list != state_->listModel) {
            state_->list = {};
            state_->listModel = list;
        }
        const char* title = details ? "Details###kestro.sheet"
                            : list  ? "Logs###kestro.sheet"
                                    : "Kestro Settings###kestro.sheet";
        // A sheet: most of the host's window, centred, over its content.
        const ImVec2 size(std::min(760.0f, viewport->WorkSize.x * 0.9f),
                          viewport->WorkSize.y * 0.88f);
        ImGui::SetNextWindowPos(ImVec2(viewport->WorkPos.x + viewport->WorkSize.x * 0.5f,
                                       viewport->WorkPos.y + viewport->WorkSize.y * 0.5f),
                                ImGuiCond_Appearing, ImVec2(0.5f, 0.5f));
        ImGui::SetNextWindowSize(size, ImGuiCond_Appearing);
        bool open = true;
        ImGui::PushFont(Fonts::current().font(TextStyle::body));
        // Opaque: the host's windows must not show through the sheet.
        ImVec4 background = ImGui::GetStyleColorVec4(ImGuiCol_WindowBg);
        background.w = 1.0f;
        ImGui::PushStyleColor(ImGuiCol_WindowBg, background);
        if (ImGui::Begin(title, &open,
                         ImGuiWindowFlags_NoCollapse | ImGuiWindowFlags_NoSavedSettings)) {
            probeItem("sheet", ImGui::GetWindowPos(),
                      ImVec2(ImGui::GetWindowPos().x + ImGui::GetWindowSize().x,
                             ImGui::GetWindowPos().y + ImGui::GetWindowSize().y));
            toastMin = ImGui::GetWindowPos();
            toastMax = ImVec2(toastMin.x + ImGui::GetWindowSize().x,
                              toastMin.y + ImGui::GetWindowSize().y);
            if (details) {
                if (inspector::drawItemDetails(*details, list->selectedItemIsListed(),
                                               state_->details)) {
                    list->dismissDetails();
                    state_->details = {};
                }
            } else if (list) {
                if (ImGui::SmallButton("Back to Settings")) {
                    form.dismissLogs();
                } else {
                    inspector::drawRequestsList(*list, state_->list);
                }
            } else {
                inspector::drawSettingsForm(form);
            }
        }
        ImGui::End();
        ImGui::PopStyleColor();
        ImGui::PopFont();
        if (!open) {
            state_->details = {};
            modifier_.dismiss();
        }
    }
    inspector::drawToast(modifier_.services().toasts, toastMin, toastMax);
}

}  // namespace imgui

KestroSheetModifier& kestroSheetModifier() {
    static KestroSheetModifier* modifier = [] {
        // Copies go to the clipboard of the host's ImGui context.
        static imgui::ImGuiClipboard clipboard;
        Clipboard::setGeneral(&clipboard);
        return new KestroSheetModifier();
    }();
    return *modifier;
}

void kestroSheet() {
    // Kestro's "main thread" work (the list's updates, notifications, toasts' timers) must run
    // on the UI thread that draws: the first call puts the main queue in host mode, and every
    // call runs what is waiting.
    MainQueue& queue = MainQueue::shared();
    if (!queue.isHostDriven()) queue.useHostThread();
    queue.drain();
    static imgui::InspectorView* view = new imgui::InspectorView(kestroSheetModifier());
    // The pointer is a shake source in every ImGui host, with or without SDL.
    const ImVec2 mouse = ImGui::GetIO().MousePos;
    if (ImGui::IsMousePosValid(&mouse)) {
        kestroSheetModifier().shakeDetector().mouseMoved(mouse.x, ShakeDetector::Clock::now());
    }
    view->draw();
}

}  // namespace kestro
