#pragma once

// JSONViewerView: a JSON text shown with Dear ImGui over the JSON viewer's model (JSONViewer) —
// a line-number column beside the highlighted text, fold and expand icons that fold on click,
// a search field whose hits are highlighted, wrapping on or off, and links that open through
// the host.
//
//   kestro::JSONViewerView view;
//   view.setJSON(body);                        // decorated off the UI thread, shown when ready
//   view.settings.openURL = [](const std::string& url) { SDL_OpenURL(url.c_str()); };
//   ...each frame:
//   view.DrawWindow("Response body");          // or view.DrawContents() inside a window
//
// Settings are plain fields read every frame (as imgui_club's editors keep theirs). Only the
// rows in view are laid out and drawn: the model keeps the line index, JSONScrollView the rows'
// geometry, JSONTextView draws the text run by run. The view installs a text measure backed by
// the ImGui fonts into the model, so row heights are what is drawn; a change of the text width
// empties the model's height cache. A text that cannot be shown, or a document too large to lay
// out, is said so in the view.
//
// Threads: the host's UI thread, which must also drive Kestro's main queue
// (MainQueue::shared().useHostThread() once, drain() every frame): the model's work arrives
// there. Until then the view only says so. Fonts: Fonts::install() on the context's atlas
// (else ImGui's default font is used).

#include <imgui.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "kestro/core/export.h"
#include "kestro/imgui/json_scroll_view.h"
#include "kestro/imgui/json_text_view.h"
#include "kestro/jsonview/json_viewer_model.h"

namespace kestro {

struct KESTRO_API JSONViewerSettings {
    /// The line-number column.
    bool showLineNumbers = true;
    /// The search field and the wrap switch above the text.
    bool showToolbar = true;
    /// Wrap long lines to the view's width (else scroll sideways).
    bool automaticWrapEnabled = true;
    /// The theme of the next document set with setJSON().
    HighlightStyle highlightStyle = defaultStyle();
    /// Opens a tapped link (with its scheme) when the model's delegate lets the platform open
    /// it. Default: a console line naming the link.
    std::function<void(const std::string& url)> openURL;

    /// The viewer's own look: grey key words, blue keys and links, orange strings, numbers and
    /// booleans, pink null, on near-black; bold search hits; 24-point lines.
    static HighlightStyle defaultStyle();
};

class KESTRO_API JSONViewerView {
  public:
    JSONViewerView();
    explicit JSONViewerView(std::string json);
    ~JSONViewerView();
    JSONViewerView(const JSONViewerView&) = delete;
    JSONViewerView& operator=(const JSONViewerView&) = delete;

    JSONViewerSettings settings;

    /// Shows json (decorated on the executor, expanded); replaces what was shown when ready.
    void setJSON(std::string json);

    /// Puts text in the search field and searches at once (empty: removes the highlighting).
    void search(std::string text);

    /// A window of its own; returns false when it is collapsed or closed. open, if given, is
    /// the window's close button.
    bool DrawWindow(const char* title, bool* open = nullptr, ImGuiWindowFlags flags = 0);
    /// The viewer inside the current window, filling size (0: the rest of the window).
    void DrawContents(ImVec2 size = ImVec2(0, 0));

    /// The model, for hosts that set a delegate or search from elsewhere.
    const std::shared_ptr<JSONViewer>& model() const { return model_; }
    /// Whether the last document set is shown (decorated, laid out and on screen).
    bool isShowing() const;
    /// What the view says instead of a document, empty while it shows one.
    std::string message() const;
    /// Slice indexes of the last search's hits.
    const std::vector<int>& searchResults() const { return model_->searchResultIndex(); }

  private:
    struct Shared;
    struct Frame;

    void installFontsIfNeeded();
    void drawToolbar();
    void drawRows(const Frame& frame);
    void drawLineNumbers(const Frame& frame, std::size_t first, std::size_t last);
    void handleClick(const Frame& frame);
    void openContextMenu(const Frame& frame);
    void rebuildGeometry(float wrapWidth);
    void runSearch();
    void scrollToNextHit();
    std::string plainLine(int row) const;

    std::shared_ptr<JSONViewer> model_;
    std::shared_ptr<Shared> shared_;  // what the model's callbacks reach, held weakly
    std::shared_ptr<const imgui::Fonts> fonts_;
    std::unique_ptr<JSONTextView> textView_;
    JSONScrollView scrollView_;

    std::string search_;
    std::string searched_;        // the text the shown highlighting is for
    double searchEditedAt_ = -1;  // ImGui time of the last edit not yet searched
    std::size_t nextHit_ = 0;
    std::optional<double> scrollTo_;  // a scroll position to apply in the next frame
    int contextRow_ = -1;
    float geometryWrap_ = -1;  // the wrap width the row geometry was built for
};

}  // namespace kestro
