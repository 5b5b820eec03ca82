#pragma once

// Colours of the models (Color, HighlightColor's fields) as Dear ImGui takes them.
//
// Plain functions; any thread.

#include <imgui.h>

#include "kestro/core/export.h"
#include "kestro/jsonview/attributed_text.h"

namespace kestro::imgui {

/// The colour as ImGui's packed ABGR value, components rounded to 8 bits; opacity multiplies
/// the alpha (for the models' "at opacity 0.1" colours).
KESTRO_API ImU32 toImU32(const Color& color, float opacity = 1.0f);

/// The colour as ImGui's float vector (for ImGui::PushStyleColor and TextColored).
KESTRO_API ImVec4 toImVec4(const Color& color, float opacity = 1.0f);

}  // namespace kestro::imgui
