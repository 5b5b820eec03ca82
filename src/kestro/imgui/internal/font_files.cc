#include "kestro/imgui/internal/font_files.h"

#include <ft2build.h>
#include FT_FREETYPE_H

#include <algorithm>
#include <cmath>
#include <fstream>

#include "kestro/imgui/internal/utf8_scan.h"

namespace kestro::imgui::internal {

namespace {

// One FreeType library and face over bytes that outlive it.
class Face {
  public:
    explicit Face(const std::vector<unsigned char>& bytes) {
        if (FT_Init_FreeType(&library_) != 0) {
            library_ = nullptr;
            return;
        }
        if (FT_New_Memory_Face(library_, bytes.data(), static_cast<FT_Long>(bytes.size()), 0,
                               &face_) != 0)
            face_ = nullptr;
    }
    ~Face() {
        if (face_) FT_Done_Face(face_);
        if (library_) FT_Done_FreeType(library_);
    }
    Face(const Face&) = delete;
    Face& operator=(const Face&) = delete;

    FT_Face get() const { return face_; }

  private:
    FT_Library library_ = nullptr;
    FT_Face face_ = nullptr;
};

// Premultiplied RGBA of a rendered glyph slot (colour bitmaps come premultiplied BGRA, grey
// ones as coverage).
bool copyBitmap(const FT_Bitmap& bitmap, EmojiBitmap& out) {
    const int w = static_cast<int>(bitmap.width);
    const int h = static_cast<int>(bitmap.rows);
    if (w <= 0 || h <= 0 || w > 1024 || h > 1024 || !bitmap.buffer) return false;
    if (bitmap.pixel_mode != FT_PIXEL_MODE_BGRA && bitmap.pixel_mode != FT_PIXEL_MODE_GRAY)
        return false;
    out.width = w;
    out.height = h;
    out.rgba.assign(static_cast<std::size_t>(w) * static_cast<std::size_t>(h) * 4, 0);
    for (int y = 0; y < h; ++y) {
        const unsigned char* row = bitmap.buffer + static_cast<std::ptrdiff_t>(y) * bitmap.pitch;
        unsigned char* dst = out.rgba.data() + static_cast<std::size_t>(y) * w * 4;
        for (int x = 0; x < w; ++x, dst += 4) {
            if (bitmap.pixel_mode == FT_PIXEL_MODE_BGRA) {
                dst[0] = row[x * 4 + 2];
                dst[1] = row[x * 4 + 1];
                dst[2] = row[x * 4 + 0];
                dst[3] = row[x * 4 + 3];
            } else {
                dst[0] = dst[1] = dst[2] = dst[3] = row[x];
            }
        }
    }
    return true;
}

// The glyph's box in an atlas font of pixelSize: a little smaller than the line, as wide as the
// emoji's proportions make it.
struct GlyphBox {
    int width;
    int height;
    float offsetY;
    float advance;
};

GlyphBox boxFor(const EmojiBitmap& bitmap, float pixelSize) {
    const int height = std::max(1, static_cast<int>(std::lround(pixelSize * 0.95f)));
    const int width = std::max(1, static_cast<int>(std::lround(static_cast<float>(height) *
                                                               static_cast<float>(bitmap.width) /
                                                               static_cast<float>(bitmap.height))));
    return {width, height, std::floor((pixelSize - static_cast<float>(height)) * 0.5f),
            static_cast<float>(width) + std::round(pixelSize * 0.15f)};
}

}  // namespace

const std::vector<char32_t>& emojiScalars() {
    // Console markers (failure, success, warning, set-up, request upload, log upload, captured
    // request, mock decision, connecting, inbound frame, reconnect, timing), then the
    // inspector's folder, tag and pointing hand.
    static const std::vector<char32_t> table = {
        0x274C, 0x2705,  0x26A0,  0x1F436, 0x2709,  0x1F4E1, 0x1F4DD, 0x26A1,
        0x23F0, 0x1F4E9, 0x1F504, 0x23F1,  0x1F4C2, 0x1F3F7, 0x1F449,
    };
    return table;
}

std::vector<unsigned char> readFile(const std::string& path, std::size_t limit) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in) return {};
    const std::streamoff size = in.tellg();
    if (size <= 0 || static_cast<std::size_t>(size) > limit) return {};
    std::vector<unsigned char> bytes(static_cast<std::size_t>(size));
    in.seekg(0);
    if (!in.read(reinterpret_cast<char*>(bytes.data()), size)) return {};
    return bytes;
}

bool isUsableTextFont(const std::vector<unsigned char>& bytes) {
    Face face(bytes);
    FT_Face f = face.get();
    if (!f || !FT_IS_SCALABLE(f)) return false;
    if (FT_Set_Pixel_Sizes(f, 0, 16) != 0) return false;
    return FT_Get_Char_Index(f, 'A') != 0 && FT_Get_Char_Index(f, '0') != 0;
}

EmojiRaster rasterizeEmoji(const std::string& path) {
    EmojiRaster raster;
    const std::vector<unsigned char> bytes = readFile(path, 64u << 20);
    if (bytes.empty()) return raster;
    Face face(bytes);
    FT_Face f = face.get();
    if (!f || !FT_HAS_COLOR(f)) return raster;
    if (f->num_fixed_sizes > 0) {
        // Bitmap colour fonts carry fixed strikes and cannot be scaled by FreeType: take the
        // largest and scale down when blitting.
        int best = 0;
        for (int i = 1; i < f->num_fixed_sizes; ++i)
            if (f->available_sizes[i].height > f->available_sizes[best].height) best = i;
        if (FT_Select_Size(f, best) != 0) return raster;
    } else if (FT_Set_Pixel_Sizes(f, 0, 64) != 0) {
        return raster;
    }
    for (char32_t scalar : emojiScalars()) {
        const FT_UInt index = FT_Get_Char_Index(f, scalar);
        if (index == 0) continue;
        if (FT_Load_Glyph(f, index, FT_LOAD_COLOR) != 0) continue;
        if (f->glyph->format != FT_GLYPH_FORMAT_BITMAP &&
            FT_Render_Glyph(f->glyph, FT_RENDER_MODE_NORMAL) != 0)
            continue;
        EmojiBitmap bitmap;
        bitmap.scalar = scalar;
        if (copyBitmap(f->glyph->bitmap, bitmap)) raster.glyphs.push_back(std::move(bitmap));
    }
    return raster;
}

void addEmojiRects(ImFontAtlas& atlas, ImFont* font, float pixelSize, const EmojiRaster& emoji,
                   std::vector<PendingEmoji>& pending) {
    const std::vector<char32_t>& table = emojiScalars();
    for (std::size_t i = 0; i < emoji.glyphs.size(); ++i) {
        const EmojiBitmap& bitmap = emoji.glyphs[i];
        const auto at = std::find(table.begin(), table.end(), bitmap.scalar) - table.begin();
        const auto codepoint = static_cast<ImWchar>(kEmojiGlyphBase + static_cast<char32_t>(at));
        const GlyphBox box = boxFor(bitmap, pixelSize);
        const int rect = atlas.AddCustomRectFontGlyph(font, codepoint, box.width, box.height,
                                                      box.advance, ImVec2(0, box.offsetY));
        pending.push_back({bitmap.scalar, rect, i, font});
    }
}

void blitEmoji(ImFontAtlas& atlas, const std::vector<PendingEmoji>& pending,
               const EmojiRaster& emoji) {
    unsigned char* pixels = nullptr;
    int texWidth = 0, texHeight = 0;
    atlas.GetTexDataAsRGBA32(&pixels, &texWidth, &texHeight);
    if (!pixels) return;
    const std::vector<char32_t>& table = emojiScalars();
    for (const PendingEmoji& p : pending) {
        const ImFontAtlasCustomRect* rect = atlas.GetCustomRectByIndex(p.rect);
        if (!rect->IsPacked()) continue;
        const EmojiBitmap& src = emoji.glyphs[p.bitmap];
        const int w = rect->Width;
        const int h = rect->Height;
        // Box filter: each target pixel averages the source pixels it covers (premultiplied,
        // so edges do not darken), then un-premultiplies for ImGui's straight-alpha blending.
        const float sx = static_cast<float>(src.width) / static_cast<float>(w);
        const float sy = static_cast<float>(src.height) / static_cast<float>(h);
        for (int y = 0; y < h; ++y) {
            const int y0 = static_cast<int>(static_cast<float>(y) * sy);
            const int y1 = std::max(y0 + 1, static_cast<int>(static_cast<float>(y + 1) * sy));
            for (int x = 0; x < w; ++x) {
                const int x0 = static_cast<int>(static_cast<float>(x) * sx);
                const int x1 = std::max(x0 + 1, static_cast<int>(static_cast<float>(x + 1) * sx));
                unsigned sum[4] = {0, 0, 0, 0};
                unsigned count = 0;
                for (int yy = y0; yy < std::min(y1, src.height); ++yy)
                    for (int xx = x0; xx < std::min(x1, src.width); ++xx) {
                        const unsigned char* s =
                            src.rgba.data() + (static_cast<std::size_t>(yy) * src.width + xx) * 4;
                        for (int k = 0; k < 4; ++k) sum[k] += s[k];
                        ++count;
                    }
                unsigned char* d =
                    pixels + (static_cast<std::size_t>(rect->Y + y) * texWidth + rect->X + x) * 4;
                const unsigned a = count ? sum[3] / count : 0;
                for (int k = 0; k < 3; ++k)
                    d[k] = a ? static_cast<unsigned char>(
                                   std::min(255u, (sum[k] / std::max(count, 1u)) * 255u / a))
                             : 0;
                d[3] = static_cast<unsigned char>(a);
            }
        }
        const auto at = std::find(table.begin(), table.end(), p.scalar) - table.begin();
        const auto codepoint = static_cast<unsigned>(kEmojiGlyphBase + static_cast<char32_t>(at));
        for (ImFontGlyph& glyph : p.font->Glyphs)
            if (glyph.Codepoint == codepoint) glyph.Colored = 1;
    }
    atlas.TexPixelsUseColors = true;
}

}  // namespace kestro::imgui::internal
