#include "kestro/imgui/colors.h"

#include <algorithm>
#include <cmath>

namespace kestro::imgui {

namespace {

ImU32 channel(double value) {
    // NaN and out-of-range components are clamped rather than wrapped.
    const double v = std::isnan(value) ? 0.0 : std::clamp(value, 0.0, 1.0);
    return static_cast<ImU32>(std::lround(v * 255.0));
}

}  // namespace

ImU32 toImU32(const Color& color, float opacity) {
    return IM_COL32(channel(color.red), channel(color.green), channel(color.blue),
                    channel(color.alpha * static_cast<double>(opacity)));
}

ImVec4 toImVec4(const Color& color, float opacity) {
    return ImGui::ColorConvertU32ToFloat4(toImU32(color, opacity));
}

}  // namespace kestro::imgui
