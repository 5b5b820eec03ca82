#pragma once

// The JSON viewer's theme: ConvertibleToColor (how integers and hex texts become colours),
// HighlightColor (the thirteen colours) and HighlightStyle (icons, fonts, colours, line height).
//
// Plain values; any thread.

#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "kestro/core/export.h"
#include "kestro/jsonview/attributed_text.h"

namespace kestro {

/// Something that gives a colour: a Color itself, a signed integer 0xRRGGBB (only the low 24 bits
/// count; alpha is 1), or a hexadecimal text read digit by digit without validation (so "#1C1B1D"
/// gives 0x1C1B1D: the "#" is shifted out of the low 24 bits). Texts of more than 15 characters
/// are not supported.
class KESTRO_API ConvertibleToColor {
  public:
    ConvertibleToColor(Color color) : color_(color) {}  // NOLINT: implicit
    template <std::integral Int>
    ConvertibleToColor(Int value)  // NOLINT: implicit
        : color_(fromInteger(static_cast<std::int64_t>(value))) {}
    ConvertibleToColor(std::string_view hex) : color_(fromText(hex)) {}    // NOLINT: implicit
    ConvertibleToColor(const char* hex) : color_(fromText(hex)) {}         // NOLINT: implicit
    ConvertibleToColor(const std::string& hex) : color_(fromText(hex)) {}  // NOLINT: implicit

    Color color() const { return color_; }

    static Color fromInteger(std::int64_t value);
    static Color fromText(std::string_view text);

  private:
    Color color_;
};

/// The thirteen colours of a theme; each is converted once, at construction.
struct KESTRO_API HighlightColor {
    Color keyWord;                             // brackets, commas, the key separator
    Color key;                                 // object keys
    Color link;                                // strings that are links
    Color string;                              // other strings
    Color number;                              // numbers
    Color boolean;                             // booleans
    Color null;                                // null
    Color unknownText;                         // unparsable text
    Color unknownBackground;                   // behind unparsable text
    std::optional<Color> searchHitBackground;  // behind search hits; none: no background
    Color jsonBackground;                      // behind the JSON text
    Color lineBackground;                      // line-number column and placeholder background
    Color lineText;                            // line numbers and placeholder text

    HighlightColor(ConvertibleToColor keyWord, ConvertibleToColor key, ConvertibleToColor link,
                   ConvertibleToColor string, ConvertibleToColor number, ConvertibleToColor boolean,
                   ConvertibleToColor null, ConvertibleToColor unknownText,
                   ConvertibleToColor unknownBackground,
                   std::optional<ConvertibleToColor> searchHitBackground,
                   ConvertibleToColor jsonBackground, ConvertibleToColor lineBackground,
                   ConvertibleToColor lineText);

    /// Black and coloured tokens on white.
    static const HighlightColor& default_();
    /// Pastel tokens on dark grey.
    static const HighlightColor& mariana();

    friend bool operator==(const HighlightColor&, const HighlightColor&) = default;
};

/// Icons, fonts, colours and metrics of a decorated document.
struct KESTRO_API HighlightStyle {
    Image expandIcon;  // shown on a folded container's line
    Image foldIcon;    // shown on an expanded container's line
    HighlightColor color;
    Font lineFont;      // line numbers
    Font jsonFont;      // the JSON text
    double lineHeight;  // points per line
    bool isBoldedSearchResult;

    /// Absent icons are the images named "expand" and "fold", absent fonts the default font at
    /// 16 points.
    HighlightStyle(std::optional<Image> expandIcon, std::optional<Image> foldIcon,
                   HighlightColor color, std::optional<Font> lineFont, std::optional<Font> jsonFont,
                   double lineHeight, bool boldedSearchResult);

    /// Default icons and fonts, HighlightColor::default_(), line height 24, bold search hits.
    static const HighlightStyle& default_();
    /// The same with HighlightColor::mariana().
    static const HighlightStyle& mariana();

    /// The bold variant of jsonFont at its size when search hits are bolded and the font has
    /// one; otherwise nothing.
    std::optional<Font> boldOfJSONFont() const;
};

}  // namespace kestro
