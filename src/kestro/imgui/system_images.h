#pragma once

// The system images the screens name ("chevron.right", "trash", "magnifyingglass",
// "xmark.circle.fill", "doc.on.doc", and the JSON viewer's "expand" and "fold"), drawn with
// ImGui primitives so that they scale with the text and need no image files.
//
// Threads: the thread that draws, inside a frame.

#include <imgui.h>

#include <optional>
#include <string_view>

#include "kestro/core/export.h"

namespace kestro::imgui {

/// Whether name is one of the images below.
KESTRO_API bool isSystemImage(std::string_view name);

/// Draws the named image centred in [min, max] (square, as large as fits) in color. Cut-outs
/// (the cross of "xmark.circle.fill", the gap between the two pages of "doc.on.doc") take
/// background. Returns false and draws nothing for an unknown name.
KESTRO_API bool drawSystemImage(ImDrawList* drawList, std::string_view name, ImVec2 min, ImVec2 max,
                                ImU32 color, ImU32 background);

/// The image as an ImGui item; size defaults to a square of the current font's size, colour to
/// the text colour.
KESTRO_API void SystemImage(std::string_view name, ImVec2 size = ImVec2(0, 0),
                            std::optional<ImU32> color = std::nullopt);

/// A frameless button showing the image, highlighted while hovered; returns true when clicked.
/// id is the ImGui id of the button, and the name it is reported under to the item probe.
KESTRO_API bool SystemImageButton(const char* id, std::string_view name, ImVec2 size = ImVec2(0, 0),
                                  std::optional<ImU32> color = std::nullopt);

}  // namespace kestro::imgui
