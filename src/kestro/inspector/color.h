#pragma once

namespace kestro {

/// An sRGB colour with opacity, components from 0 to 1. The drawing layer converts it.
struct Color {
    float r = 0, g = 0, b = 0, a = 1;

    constexpr Color opacity(float alpha) const { return {r, g, b, a * alpha}; }
    friend constexpr bool operator==(const Color&, const Color&) = default;
};

/// The named colours the screens use.
namespace colors {
inline constexpr Color clear{0, 0, 0, 0};
inline constexpr Color white{1, 1, 1, 1};
inline constexpr Color black{0, 0, 0, 1};
inline constexpr Color blue{0.0f, 0.478431f, 1.0f};              // #007AFF
inline constexpr Color green{0.203922f, 0.780392f, 0.349020f};   // #34C759
inline constexpr Color orange{1.0f, 0.584314f, 0.0f};            // #FF9500
inline constexpr Color red{1.0f, 0.231373f, 0.188235f};          // #FF3B30
inline constexpr Color purple{0.686275f, 0.321569f, 0.870588f};  // #AF52DE
inline constexpr Color gray{0.556863f, 0.556863f, 0.576471f};    // #8E8E93
/// Secondary text and the tint of tags and section backgrounds.
inline constexpr Color secondary{0.921569f, 0.921569f, 0.960784f, 0.6f};  // on a dark theme
}  // namespace colors

}  // namespace kestro
