#pragma once

// Attributed text on ImGui fonts: one layout that measuring, drawing and hit-testing share, so
// that what the models measure (row heights, wrapped heights) is what is drawn and what a
// click lands on.
//
// Layout: runs are set in the ImGui font their Font description resolves to (see Fonts), each
// character advancing by its glyph's advance (a tab by four spaces, an emoji modifier by
// nothing); an attachment advances by its bounds' width. Lines break at line feeds and, given a
// wrap width, before the character that would overflow it (a line holds at least one
// character). A line is as tall as the tallest of its runs: a run's paragraph line height when
// it has one, else its font's size. Text sits vertically centred in its line.
//
// Drawing paints, per run: the background colour behind the run's extent on each line, the
// text in its foreground colour, an underline, and attachments as the system image they name.
//
// Threads: the thread that draws. A TextLayout keeps scratch buffers: one per view.

#include <imgui.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "kestro/core/export.h"
#include "kestro/imgui/fonts.h"
#include "kestro/jsonview/attributed_text.h"
#include "kestro/jsonview/json_viewer_model.h"

namespace kestro::imgui {

class KESTRO_API TextLayout {
  public:
    /// Colours for runs that set none.
    struct Defaults {
        ImU32 foreground = IM_COL32_WHITE;
        ImU32 attachment = IM_COL32_WHITE;  // the colour system images are drawn in
        ImU32 attachmentBackground = IM_COL32_BLACK;
    };

    explicit TextLayout(std::shared_ptr<const Fonts> fonts);

    /// The used width and the height of text laid out at width (none: no wrapping); height,
    /// when given, caps the result.
    Size measure(const AttributedText& text, std::optional<double> width,
                 std::optional<double> height = std::nullopt) const;

    /// Draws text with its first line's top-left corner at origin, wrapped at wrapWidth (none:
    /// no wrapping). Runs wholly outside clip are skipped. Returns the width of the widest line
    /// walked (lines below the clip are not).
    float draw(ImDrawList* drawList, const AttributedText& text, ImVec2 origin,
               std::optional<float> wrapWidth, const ImVec4& clip, const Defaults& defaults);

    /// The byte position of the character under point (relative to the text's origin), or
    /// nothing when the point lies before the text, below it, or past the end of its line.
    std::optional<std::size_t> hitTest(const AttributedText& text, ImVec2 point,
                                       std::optional<float> wrapWidth) const;

    /// Where the character at bytePosition starts: its x and its line's top, relative to the
    /// text's origin; nothing for a line feed or a position past the text.
    std::optional<ImVec2> positionOf(const AttributedText& text, std::size_t bytePosition,
                                     std::optional<float> wrapWidth) const;

    const Fonts& fonts() const { return *fonts_; }

  private:
    struct Piece;
    template <typename Visitor>
    void layout(const AttributedText& text, std::optional<float> wrapWidth, Visitor&& visit) const;

    std::shared_ptr<const Fonts> fonts_;
    std::string scratch_;
};

/// A text measure for the models (JSONViewer::setTextMeasure) backed by these fonts.
KESTRO_API TextMeasure makeTextMeasure(std::shared_ptr<const Fonts> fonts);

}  // namespace kestro::imgui
