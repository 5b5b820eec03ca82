#pragma once

// The phase waterfall of an exchange: one row per phase (label, bar, duration) on a shared
// time axis, and the total under them. UI thread, inside a frame.

#include "kestro/inspector/timing_waterfall.h"

namespace kestro::imgui::inspector {

/// Draws the waterfall across width pixels from the cursor. Each bar is reported to the item
/// probe as "timing:<label>".
void drawTimingWaterfall(const TimingWaterfall& waterfall, float width);

}  // namespace kestro::imgui::inspector
