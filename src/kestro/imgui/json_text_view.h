#pragma once

// The JSON viewer's text: draws the lines of the shown document row by row, run by run (fonts,
// colours, underlines, backgrounds, the fold and expand icons), and finds the character under a
// click. The viewer view decides what a click does.
//
// Threads: the thread that draws.

#include <imgui.h>

#include <memory>
#include <optional>

#include "kestro/core/export.h"
#include "kestro/imgui/text_layout.h"
#include "kestro/jsonview/highlight_style.h"

namespace kestro {

class KESTRO_API JSONTextView {
  public:
    explicit JSONTextView(std::shared_ptr<const imgui::Fonts> fonts) : layout_(std::move(fonts)) {}

    /// Draws one row's line with its top-left corner at origin; returns the width of its widest
    /// line. Icons take the style's key-word colour (the brackets beside them).
    double drawRow(ImDrawList* drawList, const AttributedText& line, ImVec2 origin,
                   std::optional<float> wrapWidth, const ImVec4& clip, const HighlightStyle& style);

    /// The byte position, within the row's line, of the character under point (relative to the
    /// row's origin).
    std::optional<std::size_t> characterAt(const AttributedText& line, ImVec2 point,
                                           std::optional<float> wrapWidth) const {
        return layout_.hitTest(line, point, wrapWidth);
    }

    imgui::TextLayout& layout() { return layout_; }

  private:
    imgui::TextLayout layout_;
};

}  // namespace kestro
