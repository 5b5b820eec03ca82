#include "kestro/jsonview/highlight_style.h"

#include <unicode/uchar.h>

#include "kestro/jsonview/attributed_text.h"

namespace kestro {

Color ConvertibleToColor::fromInteger(std::int64_t v) {
    return {static_cast<double>((v >> 16) & 255) / 255.0,
            static_cast<double>((v >> 8) & 255) / 255.0, static_cast<double>(v & 255) / 255.0, 1.0};
}

Color ConvertibleToColor::fromText(std::string_view text) {
    // Read as hexadecimal one upper-cased scalar at a time, without rejecting anything: each
    // scalar adds (code − 48), less a further 7 from "A" on. Unsigned arithmetic wraps, which
    // keeps the low 24 bits exact for texts of up to 15 characters.
    std::uint64_t value = 0;
    std::size_t i = 0;
    while (i < text.size()) {
        const auto b = static_cast<unsigned char>(text[i]);
        char32_t c;
        std::size_t len;
        if (b < 0x80) {
            c = b;
            len = 1;
        } else if (b >= 0xF0) {
            c = b & 0x07;
            len = 4;
        } else if (b >= 0xE0) {
            c = b & 0x0F;
            len = 3;
        } else if (b >= 0xC0) {
            c = b & 0x1F;
            len = 2;
        } else {
            c = 0xFFFD;
            len = 1;
        }
        for (std::size_t k = 1; k < len; ++k) {
            if (i + k >= text.size()) {
                c = 0xFFFD;
                break;
            }
            c = (c << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
        }
        i += len;
        const auto upper = static_cast<std::uint64_t>(u_toupper(static_cast<UChar32>(c)));
        value = value * 16 + upper - 48;
        if (upper >= 65) value -= 7;
    }
    return fromInteger(static_cast<std::int64_t>(value & 0xFFFFFF));
}

HighlightColor::HighlightColor(ConvertibleToColor keyWord, ConvertibleToColor key,
                               ConvertibleToColor link, ConvertibleToColor string,
                               ConvertibleToColor number, ConvertibleToColor boolean,
                               ConvertibleToColor null, ConvertibleToColor unknownText,
                               ConvertibleToColor unknownBackground,
                               std::optional<ConvertibleToColor> searchHitBackground,
                               ConvertibleToColor jsonBackground, ConvertibleToColor lineBackground,
                               ConvertibleToColor lineText)
    : keyWord(keyWord.color()),
      key(key.color()),
      link(link.color()),
      string(string.color()),
      number(number.color()),
      boolean(boolean.color()),
      null(null.color()),
      unknownText(unknownText.color()),
      unknownBackground(unknownBackground.color()),
      searchHitBackground(searchHitBackground ? std::optional<Color>(searchHitBackground->color())
                                              : std::nullopt),
      jsonBackground(jsonBackground.color()),
      lineBackground(lineBackground.color()),
      lineText(lineText.color()) {}

const HighlightColor& HighlightColor::default_() {
    static const HighlightColor* c = new HighlightColor(
        Color::black(), 0xB72E22, 0x1E4A9C, 0x2D694C, 0xCC9115, 0x72AAD3, 0xEA2E22, 0xD5412E,
        0xFBE3E4, ConvertibleToColor(0xFFFB00), Color::white(), 0xEDEDED, 0xA3A3A3);
    return *c;
}

const HighlightColor& HighlightColor::mariana() {
    static const HighlightColor* c = new HighlightColor(
        0x767677, 0xF2777B, 0x73AAD4, 0xA3D0A5, 0xF9BC6B, 0x88B0BF, 0xD16D71, 0xD5412E, 0xFBE3E4,
        ConvertibleToColor(0xFFFB00), 0x3D444C, 0x363D42, 0x767677);
    return *c;
}

HighlightStyle::HighlightStyle(std::optional<Image> expandIcon, std::optional<Image> foldIcon,
                               HighlightColor color, std::optional<Font> lineFont,
                               std::optional<Font> jsonFont, double lineHeight,
                               bool boldedSearchResult)
    : expandIcon(expandIcon ? std::move(*expandIcon) : *Image::named("expand")),
      foldIcon(foldIcon ? std::move(*foldIcon) : *Image::named("fold")),
      color(std::move(color)),
      lineFont(lineFont ? std::move(*lineFont) : Font::system(16)),
      jsonFont(jsonFont ? std::move(*jsonFont) : Font::system(16)),
      lineHeight(lineHeight),
      isBoldedSearchResult(boldedSearchResult) {}

const HighlightStyle& HighlightStyle::default_() {
    static const HighlightStyle* s =
        new HighlightStyle(std::nullopt, std::nullopt, HighlightColor::default_(), std::nullopt,
                           std::nullopt, 24, true);
    return *s;
}

const HighlightStyle& HighlightStyle::mariana() {
    static const HighlightStyle* s =
        new HighlightStyle(std::nullopt, std::nullopt, HighlightColor::mariana(), std::nullopt,
                           std::nullopt, 24, true);
    return *s;
}

std::optional<Font> HighlightStyle::boldOfJSONFont() const {
    if (!isBoldedSearchResult) return std::nullopt;
    return jsonFont.boldVariant();
}

}  // namespace kestro
