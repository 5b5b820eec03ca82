#pragma once

// The named colours of the inspector's screens, as the JSON viewer's Color (sRGB, 0 to 1).

#include "kestro/jsonview/attributed_text.h"

namespace kestro {

/// The colour with its opacity multiplied by alpha.
constexpr Color withOpacity(Color color, double alpha) {
    color.alpha *= alpha;
    return color;
}

namespace colors {
inline constexpr Color clear{0, 0, 0, 0};
inline constexpr Color white{1, 1, 1, 1};
inline constexpr Color black{0, 0, 0, 1};
inline constexpr Color blue{0.0, 0.478431, 1.0};              // #007AFF
inline constexpr Color green{0.203922, 0.780392, 0.349020};   // #34C759
inline constexpr Color orange{1.0, 0.584314, 0.0};            // #FF9500
inline constexpr Color red{1.0, 0.231373, 0.188235};          // #FF3B30
inline constexpr Color purple{0.686275, 0.321569, 0.870588};  // #AF52DE
inline constexpr Color gray{0.556863, 0.556863, 0.576471};    // #8E8E93
/// Secondary text, and the tint of tags and section backgrounds, on a dark theme.
inline constexpr Color secondary{0.921569, 0.921569, 0.960784, 0.6};
}  // namespace colors

}  // namespace kestro
