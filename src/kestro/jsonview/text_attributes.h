#pragma once

// The attributes a run of the JSON viewer's attributed text carries: font, colours, paragraph
// metrics, baseline offset, link, underline and an inline image, each optional. A set of them is
// immutable once made and shared (AttributesRef) between runs and between texts.
//
// Thread safety: these are plain values; a shared set is never changed, so it may be read from
// any thread.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "kestro/core/export.h"
#include "kestro/jsonview/font.h"
#include "kestro/jsonview/image.h"

namespace kestro {

/// An RGBA colour, each component in 0…1.
struct KESTRO_API Color {
    double red = 0;
    double green = 0;
    double blue = 0;
    double alpha = 1;

    /// The colour of a 24-bit 0xRRGGBB value, opaque.
    static Color rgb24(std::uint32_t rgb);
    static Color black() { return {0, 0, 0, 1}; }
    static Color white() { return {1, 1, 1, 1}; }
    static Color gray() { return {0.5, 0.5, 0.5, 1}; }
    static Color orange() { return {1, 0.5, 0, 1}; }
    static Color systemPink() { return rgb24(0xFF2D55); }
    static Color clear() { return {0, 0, 0, 0}; }

    /// The colour as 0xAARRGGBB with each component rounded to 8 bits.
    std::uint32_t argb32() const;

    friend bool operator==(const Color&, const Color&) = default;
};

enum class TextAlignment : std::uint8_t { natural, left, center, right, justified };

/// Paragraph metrics. A line height of 0 means "the font's own".
struct KESTRO_API ParagraphStyle {
    double lineHeightMultiple = 0;
    double minimumLineHeight = 0;
    double maximumLineHeight = 0;
    double lineSpacing = 0;
    double paragraphSpacing = 0;
    double paragraphSpacingBefore = 0;
    double firstLineHeadIndent = 0;
    double headIndent = 0;
    double tailIndent = 0;
    float hyphenationFactor = 0;  // 0: no hyphenation
    TextAlignment alignment = TextAlignment::natural;

    /// The height of one laid-out line of text set in font.
    double lineHeight(const Font& font) const;

    friend bool operator==(const ParagraphStyle&, const ParagraphStyle&) = default;
};

enum class UnderlineStyle : std::uint8_t { single = 1, thick = 2, double_ = 9 };

/// The attribute keys, for removing one attribute over a range.
enum class AttributeKey : std::uint8_t {
    font,
    foregroundColor,
    backgroundColor,
    paragraphStyle,
    baselineOffset,
    link,
    underlineStyle,
    attachment,
};

/// The attributes of a run; an absent field means "not set".
struct KESTRO_API TextAttributes {
    std::optional<Font> font;
    std::optional<Color> foregroundColor;
    std::optional<Color> backgroundColor;
    std::optional<ParagraphStyle> paragraphStyle;
    std::optional<double> baselineOffset;
    std::optional<std::string> link;
    std::optional<UnderlineStyle> underlineStyle;
    std::optional<TextAttachment> attachment;

    bool empty() const;
    /// Sets every field that other sets (other's value wins).
    void merge(const TextAttributes& other);
    void remove(AttributeKey key);

    friend KESTRO_API bool operator==(const TextAttributes& a, const TextAttributes& b);
};

/// An immutable, shared attribute set. nullptr stands for "no attributes".
using AttributesRef = std::shared_ptr<const TextAttributes>;

KESTRO_API AttributesRef makeAttributes(TextAttributes attributes);

}  // namespace kestro
