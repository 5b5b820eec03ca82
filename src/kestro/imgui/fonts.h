#pragma once

// The drawing layer's fonts: a small table of named text styles (body, headline, subheadline,
// footnote, caption, caption 2, monospaced body) as ImGui fonts, the fonts the models' Font
// descriptions map to, and the emoji of Kestro's own texts as colour glyphs.
//
// Fonts::install() adds the fonts to an atlas and builds it: DejaVu Sans and DejaVu Sans Mono
// from the system's font folders where present, else ImGui's default font for every style.
// Emoji come from a colour emoji font (Noto Color Emoji) where present, rasterised with
// FreeType into glyphs of the atlas, else texts are drawn without them. Nothing here fails
// because a font is missing or broken.
//
// ImGui 1.86 as Debian builds it keys glyphs by 16-bit code points, so emoji beyond U+FFFF
// cannot be atlas glyphs of their own code points. Each emoji of the table is therefore given a
// glyph in the Private Use Area, and displayText() rewrites a text for drawing: table emoji to
// their glyphs, other emoji and emoji modifiers left out, other characters the fonts lack drawn
// as ImGui's fallback glyph, ill-formed UTF-8 as U+FFFD. Every text the layer draws goes through
// it; a screen that passes a model's text to an ImGui widget does the same.
//
// Threads: install() and everything else run on the thread that draws (the host's UI thread),
// outside NewFrame()/Render(). The fonts belong to the atlas and live as long as it does.

#include <imgui.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kestro/core/export.h"
#include "kestro/jsonview/attributed_text.h"

namespace kestro::imgui {

/// The named text styles of the inspector's screens.
enum class TextStyle : std::uint8_t {
    body,
    headline,
    subheadline,
    footnote,
    caption,
    caption2,
    monospacedBody,
};
inline constexpr std::size_t kTextStyleCount = 7;

struct KESTRO_API FontOptions {
    /// Pixels per point, for high-density displays.
    float scale = 1.0f;
    /// Folders searched for the font files before the usual system ones.
    std::vector<std::string> fontDirectories;
    /// Whether the usual system font folders are searched after those.
    bool searchSystemFolders = true;
    /// Whether to look for a colour emoji font at all.
    bool loadEmoji = true;
    /// Rasterise text with ImGui's FreeType builder (hinted, crisper at small sizes) rather
    /// than its built-in stb_truetype one.
    bool useFreeType = true;
};

class KESTRO_API Fonts {
  public:
    /// An ImGui font and the pixel size to draw it at.
    struct Resolved {
        ImFont* font = nullptr;
        float size = 0;
    };

    /// Adds the fonts to atlas and builds it (RGBA, ready for a backend to upload). The first
    /// font added is the body style, so on an empty atlas it becomes ImGui's default font.
    /// Call once per atlas, before the backend creates its font texture (or re-create that
    /// texture after), and build the atlas again only through this call: the emoji pixels are
    /// written into the built texture. Never fails: see the file comment.
    static std::shared_ptr<const Fonts> install(ImFontAtlas& atlas,
                                                const FontOptions& options = {});
    /// The fonts installed on the current ImGui context's atlas; when none were installed, a
    /// set that draws every style in the atlas's default font. Needs a current context.
    static const Fonts& current();
    /// The same, shared, for holders that may outlive a frame (a text measure).
    static std::shared_ptr<const Fonts> currentShared();

    /// The font of a text style; draw it at size(style) (its own size).
    ImFont* font(TextStyle style) const { return styles_[static_cast<std::size_t>(style)].font; }
    float size(TextStyle style) const { return styles_[static_cast<std::size_t>(style)].size; }
    /// The ImGui font for a model's font description: its family (monospaced or not), weight
    /// and size, drawn from the nearest loaded size.
    Resolved resolve(const Font& font) const;

    /// Pixels per point.
    float scale() const { return scale_; }
    /// Whether the system's text fonts were found (else everything is ImGui's default font).
    bool hasSystemFonts() const { return systemFonts_; }
    /// Whether emoji are drawn (a colour emoji font was found and rasterised).
    bool hasEmoji() const { return !emojiGlyphs_.empty(); }
    /// Whether the text's emoji scalar (e.g. U+1F4C2) is drawn as a glyph.
    bool drawsEmoji(char32_t scalar) const;

    /// How one scalar is drawn: the code point ImGui draws, or 0 when it is drawn as nothing.
    ImWchar displayScalar(char32_t scalar) const;
    /// The text as ImGui should draw it (see the file comment). Returns text itself when it
    /// needs no change (plain ASCII), else a view of scratch.
    std::string_view displayText(std::string_view text, std::string& scratch) const;
    std::string displayText(std::string_view text) const;

    /// The scalars given an emoji glyph, in Kestro's own texts' order of use.
    static const std::vector<char32_t>& emojiTable();

    Fonts() = default;  // use install() or current()

  private:
    struct Loaded {
        ImFont* font = nullptr;
        float size = 0;  // pixels
        bool monospaced = false;
        bool bold = false;
    };

    static std::shared_ptr<Fonts> fallback(ImFontAtlas& atlas);

    std::vector<Loaded> loaded_;
    Resolved styles_[kTextStyleCount];
    float scale_ = 1.0f;
    bool systemFonts_ = false;
    std::vector<char32_t> emojiGlyphs_;  // table scalars with a glyph, sorted
};

/// Pushes a text style's font for the current scope.
class KESTRO_API ScopedTextStyle {
  public:
    explicit ScopedTextStyle(TextStyle style);
    ~ScopedTextStyle();
    ScopedTextStyle(const ScopedTextStyle&) = delete;
    ScopedTextStyle& operator=(const ScopedTextStyle&) = delete;
};

/// Text as one ImGui item in a style, optionally coloured, emoji and all.
KESTRO_API void Text(TextStyle style, std::string_view text,
                     std::optional<Color> color = std::nullopt);

}  // namespace kestro::imgui
