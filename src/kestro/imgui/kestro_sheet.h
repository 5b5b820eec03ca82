#pragma once

// Kestro's inspector for hosts that draw Dear ImGui: one include, one call per frame.
//
//   #include "kestro/imgui/kestro_sheet.h"
//   ...each frame, after the host's own windows:
//   ImGui::NewFrame();
//   drawMyApplication();
//   kestro::kestroSheet();          // the inspector, when it is open, and its toasts
//   ImGui::Render();
//
// The inspector opens when the dashboard asks for it ("openKestroSheet") and on a shake where
// shaking is allowed: the mouse shaken from side to side, and with the SDL event hook
// (kestro/imgui/sdl/sdl_integration.h) Ctrl+Shift+K and the accelerometer. Its screens — the
// control sheet, the requests list and an item's details — are ImGui windows over the host's
// content; confirmations are modal popups; toasts are drawn on the foreground.
//
// Threads: the host's UI thread. kestroSheet() runs Kestro's main queue there: its first call
// switches the queue to host mode and every call drains it, since the screens' data and
// notifications arrive on it. A host that calls MainQueue::shared().useHostThread() before
// Kestro().initialize() has the deferred half of initialisation run on its UI thread too.

#include <functional>
#include <memory>
#include <string>

#include "kestro/core/export.h"
#include "kestro/inspector/clipboard.h"
#include "kestro/inspector/sheet_presenter.h"

namespace kestro {

/// Draws the inspector over the host's UI; call once per frame between ImGui::NewFrame() and
/// ImGui::Render(), after the host's own windows. Runs the main queue's waiting work first.
KESTRO_API void kestroSheet();

/// The process-wide presenter kestroSheet() draws: its shake detector is where shake sources
/// report, present() opens the inspector from the host's own UI. Made on first use (UI thread).
KESTRO_API KestroSheetModifier& kestroSheetModifier();

namespace imgui {

/// How a link tapped in one of the inspector's JSON bodies is opened (the JSON views' openURL);
/// none: the JSON viewer's default. The demo host opens links with SDL_OpenURL. UI thread.
KESTRO_API void setInspectorOpenURL(std::function<void(const std::string& url)> openURL);

/// The clipboard of the current ImGui context (SDL's in an SDL host).
class KESTRO_API ImGuiClipboard : public Clipboard {
  public:
    void setString(std::string_view text) override;
    std::string string() const override;
};

/// The inspector's screens over one presenter. kestroSheet() keeps one over the process-wide
/// presenter; tests and hosts with several contexts make their own. UI thread.
class KESTRO_API InspectorView {
  public:
    explicit InspectorView(KestroSheetModifier& modifier);
    ~InspectorView();
    InspectorView(const InspectorView&) = delete;
    InspectorView& operator=(const InspectorView&) = delete;

    /// One frame: the open screen, its dialogs, and the current toast.
    void draw();

    KestroSheetModifier& modifier() { return modifier_; }

    struct State;

  private:
    KestroSheetModifier& modifier_;
    std::unique_ptr<State> state_;
};

}  // namespace imgui
}  // namespace kestro
