#pragma once

// Font files through FreeType: checking text fonts before ImGui's builders see them, and
// rasterising the emoji table from a colour emoji font into glyphs of an atlas.

#include <imgui.h>

#include <cstddef>
#include <string>
#include <vector>

namespace kestro::imgui::internal {

/// The scalars given emoji glyphs: the markers of Kestro's console lines and the inspector's
/// texts.
const std::vector<char32_t>& emojiScalars();

/// The file's bytes, or nothing when it cannot be read or is larger than limit.
std::vector<unsigned char> readFile(const std::string& path, std::size_t limit);

/// Whether FreeType opens the bytes as a scalable font that can be sized and has Latin letters.
bool isUsableTextFont(const std::vector<unsigned char>& bytes);

/// One emoji as the colour font draws it: premultiplied RGBA rows.
struct EmojiBitmap {
    char32_t scalar = 0;
    int width = 0;
    int height = 0;
    std::vector<unsigned char> rgba;
};

struct EmojiRaster {
    std::vector<EmojiBitmap> glyphs;
};

/// The emoji of the table that the font at path has, at its largest bitmap size (colour fonts
/// are usually bitmaps); nothing when the file is not a usable colour font.
EmojiRaster rasterizeEmoji(const std::string& path);

/// An emoji glyph reserved in an atlas and waiting for its pixels.
struct PendingEmoji {
    char32_t scalar = 0;
    int rect = -1;           // the atlas's custom rectangle
    std::size_t bitmap = 0;  // index into EmojiRaster::glyphs
    ImFont* font = nullptr;
};

/// Reserves a glyph for every rasterised emoji in font, sized for pixelSize, at the emoji's
/// Private Use Area code point. Before the atlas is built.
void addEmojiRects(ImFontAtlas& atlas, ImFont* font, float pixelSize, const EmojiRaster& emoji,
                   std::vector<PendingEmoji>& pending);

/// After the atlas is built (RGBA): scales each emoji into its rectangle and marks the glyphs
/// as coloured, so ImGui does not tint them with the text colour.
void blitEmoji(ImFontAtlas& atlas, const std::vector<PendingEmoji>& pending,
               const EmojiRaster& emoji);

}  // namespace kestro::imgui::internal
