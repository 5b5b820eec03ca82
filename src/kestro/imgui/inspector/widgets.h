#pragma once

// Small drawing pieces the inspector's screens share: icon buttons over the system images,
// styled and wrapped texts through the fonts' display form, and the tinted frame behind a
// group. UI thread, inside a frame.

#include <imgui.h>

#include <optional>
#include <string>
#include <string_view>

#include "kestro/imgui/colors.h"
#include "kestro/imgui/fonts.h"
#include "kestro/imgui/system_images.h"
#include "kestro/inspector/color.h"

namespace kestro::imgui::inspector {

/// A borderless button showing a system image; reports itself to the item probe as
/// "<probeName>". True when clicked (released over it), or with onPress when pressed.
bool iconButton(const char* id, std::string_view image, float size, ImU32 color,
                std::string_view probeName, bool onPress = false);

/// Text in a style, wrapped to the window's width, through the fonts' display form.
void wrappedText(TextStyle style, std::string_view text, std::optional<Color> color = {});

/// Text in a style on one line, cut with "…" to maxWidth.
void truncatedText(TextStyle style, std::string_view text, float maxWidth,
                   std::optional<Color> color = {});

/// The width left for an item inside the innermost framed group (its right padding taken off).
float framedWidthAvail();

/// Draws a group's content on a tinted rounded rectangle: call begin, draw, then end.
class FramedGroup {
  public:
    FramedGroup(Color tint, float rounding, ImVec2 padding);
    ~FramedGroup();
    FramedGroup(const FramedGroup&) = delete;
    FramedGroup& operator=(const FramedGroup&) = delete;

  private:
    ImDrawListSplitter splitter_;
    ImVec2 start_;
    ImU32 tint_;
    float rounding_;
    ImVec2 padding_;
    float savedInset_ = 0;
};

}  // namespace kestro::imgui::inspector
