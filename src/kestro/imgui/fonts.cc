#include "kestro/imgui/fonts.h"

#include <imgui_freetype.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>

#include "kestro/core/console.h"
#include "kestro/imgui/colors.h"
#include "kestro/imgui/internal/font_files.h"
#include "kestro/imgui/internal/utf8_scan.h"

namespace kestro::imgui {

namespace {

using internal::decodeScalar;

// Where the usual distributions put the fonts (Debian, Fedora, Arch).
const char* const kTextFontDirectories[] = {
    "/usr/share/fonts/truetype/dejavu",
    "/usr/share/fonts/dejavu",
    "/usr/share/fonts/dejavu-sans-fonts",
    "/usr/share/fonts/dejavu-sans-mono-fonts",
    "/usr/share/fonts/TTF",
    "/usr/local/share/fonts",
};
const char* const kEmojiFontDirectories[] = {
    "/usr/share/fonts/truetype/noto",
    "/usr/share/fonts/noto",
    "/usr/share/fonts/google-noto-color-emoji-fonts",
    "/usr/share/fonts/google-noto-emoji",
    "/usr/local/share/fonts",
};

// Latin, Greek, Cyrillic, punctuation, currency, letter-like symbols, arrows, mathematical
// operators, box drawing, geometric shapes and the replacement character: what JSON bodies and
// the screens' texts mostly hold, at an atlas size that stays small.
const ImWchar kTextRanges[] = {
    0x0020, 0x024F, 0x0370, 0x03FF, 0x0400, 0x04FF, 0x2000, 0x206F, 0x20A0, 0x20CF, 0x2100, 0x214F,
    0x2190, 0x21FF, 0x2200, 0x22FF, 0x2500, 0x257F, 0x25A0, 0x25FF, 0xFFFD, 0xFFFD, 0,
};

enum class Face : std::uint8_t { sans, sansBold, mono, monoBold };

struct FaceFile {
    Face face;
    const char* file;
};
const FaceFile kFaceFiles[] = {
    {Face::sans, "DejaVuSans.ttf"},
    {Face::sansBold, "DejaVuSans-Bold.ttf"},
    {Face::mono, "DejaVuSansMono.ttf"},
    {Face::monoBold, "DejaVuSansMono-Bold.ttf"},
};

// The loaded fonts, in points; the body style comes first so that it is the atlas's default.
struct FontSpec {
    Face face;
    float points;
};
const FontSpec kFontSpecs[] = {
    {Face::sans, 15}, {Face::sans, 11}, {Face::sans, 12},     {Face::sans, 13},
    {Face::sans, 14}, {Face::sans, 16}, {Face::sansBold, 15}, {Face::sansBold, 16},
    {Face::mono, 14}, {Face::mono, 16}, {Face::monoBold, 16},
};

// The text styles: face and size in points.
const FontSpec kStyleSpecs[kTextStyleCount] = {
    {Face::sans, 15},      // body
    {Face::sansBold, 15},  // headline
    {Face::sans, 14},      // subheadline
    {Face::sans, 13},      // footnote
    {Face::sans, 12},      // caption
    {Face::sans, 11},      // caption2
    {Face::mono, 14},      // monospacedBody
};

bool isMono(Face f) { return f == Face::mono || f == Face::monoBold; }
bool isBold(Face f) { return f == Face::sansBold || f == Face::monoBold; }

std::string findFile(const FontOptions& options, const char* const* defaults,
                     std::size_t defaultCount, const char* name) {
    auto exists = [](const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        return static_cast<bool>(in);
    };
    for (const std::string& dir : options.fontDirectories) {
        const std::string path = dir + "/" + name;
        if (exists(path)) return path;
    }
    for (std::size_t i = 0; options.searchSystemFolders && i < defaultCount; ++i) {
        const std::string path = std::string(defaults[i]) + "/" + name;
        if (exists(path)) return path;
    }
    return {};
}

// A font file read whole into memory allocated for ImGui, which frees it with the atlas.
struct FontData {
    void* bytes = nullptr;
    int size = 0;
};

// Reads a text font and checks that FreeType can use it as a scalable font (ImGui's builders
// assert on files they cannot size, so nothing unchecked reaches them).
FontData readTextFont(const std::string& path) {
    if (path.empty()) return {};
    std::vector<unsigned char> bytes = internal::readFile(path, 64u << 20);
    if (bytes.empty() || !internal::isUsableTextFont(bytes)) return {};
    FontData data;
    data.size = static_cast<int>(bytes.size());
    data.bytes = ImGui::MemAlloc(bytes.size());
    std::memcpy(data.bytes, bytes.data(), bytes.size());
    return data;
}

struct Registry {
    struct Entry {
        ImFontAtlas* atlas;
        ImFont* first;  // tells a reused atlas address from the atlas the fonts belong to
        std::shared_ptr<const Fonts> fonts;
    };
    std::mutex mutex;
    std::vector<Entry> entries;

    std::shared_ptr<const Fonts> find(ImFontAtlas* atlas) {
        for (const Entry& e : entries) {
            if (e.atlas != atlas) continue;
            for (ImFont* f : atlas->Fonts)
                if (f == e.first) return e.fonts;
        }
        return nullptr;
    }
    void put(ImFontAtlas* atlas, ImFont* first, std::shared_ptr<const Fonts> fonts) {
        std::erase_if(entries, [&](const Entry& e) { return e.atlas == atlas; });
        entries.push_back({atlas, first, std::move(fonts)});
    }
};

Registry& registry() {
    static Registry* r = new Registry;
    return *r;
}

}  // namespace

const std::vector<char32_t>& Fonts::emojiTable() { return internal::emojiScalars(); }

std::shared_ptr<const Fonts> Fonts::install(ImFontAtlas& atlas, const FontOptions& options) {
    auto fonts = std::make_shared<Fonts>();
    fonts->scale_ = options.scale > 0 ? options.scale : 1.0f;

    FontData data[4];
    bool all = true;
    for (const FaceFile& f : kFaceFiles) {
        data[static_cast<int>(f.face)] = readTextFont(
            findFile(options, kTextFontDirectories, std::size(kTextFontDirectories), f.file));
        all = all && data[static_cast<int>(f.face)].bytes;
    }
    if (!all) {
        for (FontData& d : data) ImGui::MemFree(d.bytes);
        printI("⚠️ Kestro: the DejaVu fonts were not found; texts use ImGui's default font",
               LogLevel::warning);
    }

    internal::EmojiRaster emoji;
    if (options.loadEmoji) {
        const std::string path = findFile(options, kEmojiFontDirectories,
                                          std::size(kEmojiFontDirectories), "NotoColorEmoji.ttf");
        if (!path.empty()) emoji = internal::rasterizeEmoji(path);
        if (emoji.glyphs.empty())
            printI("⚠️ Kestro: no colour emoji font was found; texts are drawn without emoji",
                   LogLevel::warning);
    }

    atlas.ClearTexData();
    if (all && options.useFreeType) atlas.FontBuilderIO = ImGuiFreeType::GetBuilderForFreeType();

    if (all) {
        bool owned[4] = {};
        for (const FontSpec& spec : kFontSpecs) {
            const int i = static_cast<int>(spec.face);
            ImFontConfig config;
            config.FontData = data[i].bytes;
            config.FontDataSize = data[i].size;
            // The first font of a file owns its bytes; the others of the file share them.
            config.FontDataOwnedByAtlas = !owned[i];
            owned[i] = true;
            config.SizePixels = spec.points * fonts->scale_;
            config.GlyphRanges = kTextRanges;
            config.OversampleH = 2;
            config.OversampleV = 1;
            std::snprintf(config.Name, sizeof config.Name, "%s %.0fpt", kFaceFiles[i].file,
                          static_cast<double>(spec.points));
            ImFont* font = atlas.AddFont(&config);
            fonts->loaded_.push_back(
                {font, config.SizePixels, isMono(spec.face), isBold(spec.face)});
        }
        fonts->systemFonts_ = true;
    } else {
        ImFontConfig config;
        config.SizePixels = 13.0f * fonts->scale_;
        ImFont* font = atlas.AddFontDefault(&config);
        fonts->loaded_.push_back({font, config.SizePixels, false, false});
    }

    // Emoji glyphs for every loaded font, at its size.
    std::vector<internal::PendingEmoji> pending;
    if (!emoji.glyphs.empty()) {
        for (const Loaded& l : fonts->loaded_)
            internal::addEmojiRects(atlas, l.font, l.size, emoji, pending);
    }

    bool built = atlas.Build();
    if (!built && atlas.FontBuilderIO != nullptr) {
        printI("⚠️ Kestro: the FreeType font builder failed; building with stb_truetype",
               LogLevel::warning);
        atlas.FontBuilderIO = nullptr;  // ImGui's default builder
        built = atlas.Build();
    }
    if (!built) {
        // Nothing of ours could be built; start the atlas over with the default font alone.
        printI("❌ Kestro: the font atlas could not be built; using ImGui's default font",
               LogLevel::error);
        atlas.Clear();
        atlas.AddFontDefault();
        atlas.Build();
        auto fallbackFonts = fallback(atlas);
        registry().put(&atlas, atlas.Fonts.empty() ? nullptr : atlas.Fonts[0], fallbackFonts);
        return fallbackFonts;
    }
    unsigned char* pixels = nullptr;
    int width = 0, height = 0;
    atlas.GetTexDataAsRGBA32(&pixels, &width, &height);
    if (!pending.empty()) {
        internal::blitEmoji(atlas, pending, emoji);
        for (const internal::PendingEmoji& p : pending)
            if (std::find(fonts->emojiGlyphs_.begin(), fonts->emojiGlyphs_.end(), p.scalar) ==
                fonts->emojiGlyphs_.end())
                fonts->emojiGlyphs_.push_back(p.scalar);
        std::sort(fonts->emojiGlyphs_.begin(), fonts->emojiGlyphs_.end());
    }

    for (std::size_t s = 0; s < kTextStyleCount; ++s) {
        Font description = isMono(kStyleSpecs[s].face)
                               ? Font::monospacedSystem(kStyleSpecs[s].points)
                               : Font::system(kStyleSpecs[s].points);
        if (isBold(kStyleSpecs[s].face))
            if (auto bold = description.boldVariant()) description = *bold;
        const Resolved r = fonts->resolve(description);
        // A style is drawn at its font's own size, so that ImGui widgets (which draw a font at
        // its size) and our drawing agree.
        fonts->styles_[s] = {r.font, r.font ? r.font->FontSize : r.size};
    }
    registry().put(&atlas, fonts->loaded_.front().font, fonts);
    return fonts;
}

std::shared_ptr<Fonts> Fonts::fallback(ImFontAtlas& atlas) {
    auto fonts = std::make_shared<Fonts>();
    ImFont* font = atlas.Fonts.empty() ? nullptr : atlas.Fonts[0];
    const float size = font ? font->FontSize : 13.0f;
    fonts->loaded_.push_back({font, size, false, false});
    for (Resolved& r : fonts->styles_) r = {font, size};
    return fonts;
}

const Fonts& Fonts::current() { return *currentShared(); }

std::shared_ptr<const Fonts> Fonts::currentShared() {
    ImGuiIO& io = ImGui::GetIO();
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    if (auto found = r.find(io.Fonts)) return found;
    // Nothing installed: every style in the atlas's default font, kept for the atlas.
    auto fonts = fallback(*io.Fonts);
    if (io.FontDefault) {
        fonts->loaded_.front() = {io.FontDefault, io.FontDefault->FontSize, false, false};
        for (Resolved& s : fonts->styles_) s = {io.FontDefault, io.FontDefault->FontSize};
    }
    r.put(io.Fonts, fonts->loaded_.front().font, fonts);
    return fonts;
}

Fonts::Resolved Fonts::resolve(const Font& font) const {
    const float wanted = static_cast<float>(font.size()) * scale_;
    const bool mono = font.isMonospaced();
    const bool bold = font.isBold();
    const Loaded* best = nullptr;
    float bestScore = 0;
    for (const Loaded& l : loaded_) {
        // Family and weight first, then the nearest size.
        float score = std::abs(l.size - wanted);
        if (l.monospaced != mono) score += 1000;
        if (l.bold != bold) score += 500;
        if (!best || score < bestScore) {
            best = &l;
            bestScore = score;
        }
    }
    if (!best || !best->font) return {nullptr, wanted};
    // The default font alone is drawn at its own size: scaled, its pixel design blurs.
    if (!systemFonts_) return {best->font, best->font->FontSize};
    return {best->font, wanted > 0 ? wanted : best->size};
}

bool Fonts::drawsEmoji(char32_t scalar) const {
    return std::binary_search(emojiGlyphs_.begin(), emojiGlyphs_.end(), scalar);
}

ImWchar Fonts::displayScalar(char32_t c) const {
    if (c < 0x80) return static_cast<ImWchar>(c);
    if (internal::isEmojiModifier(c)) return 0;  // selectors, joiners, skin tones
    const std::vector<char32_t>& table = internal::emojiScalars();
    const auto inTable = std::find(table.begin(), table.end(), c);
    if (inTable != table.end()) {
        if (!drawsEmoji(c)) return 0;  // no emoji font: drawn without the glyph
        return static_cast<ImWchar>(internal::kEmojiGlyphBase + (inTable - table.begin()));
    }
    // Beyond the atlas's 16-bit code points: emoji are left out, anything else shows as the
    // fallback glyph. Our glyphs' code points stand only for emoji.
    if (c > 0xFFFF) return internal::isEmoji(c) ? 0 : 0xFFFD;
    if (c >= internal::kEmojiGlyphBase && c < internal::kEmojiGlyphEnd) return 0xFFFD;
    return static_cast<ImWchar>(c);
}

std::string_view Fonts::displayText(std::string_view text, std::string& scratch) const {
    std::size_t i = 0;
    while (i < text.size() && static_cast<unsigned char>(text[i]) < 0x80) ++i;
    if (i == text.size()) return text;
    scratch.assign(text.data(), i);
    while (i < text.size()) {
        if (const ImWchar c = displayScalar(decodeScalar(text, i)))
            internal::appendUTF8(scratch, c);
    }
    return scratch;
}

std::string Fonts::displayText(std::string_view text) const {
    std::string scratch;
    std::string_view shown = displayText(text, scratch);
    return shown.data() == scratch.data() ? std::move(scratch) : std::string(shown);
}

ScopedTextStyle::ScopedTextStyle(TextStyle style) { ImGui::PushFont(Fonts::current().font(style)); }

ScopedTextStyle::~ScopedTextStyle() { ImGui::PopFont(); }

void Text(TextStyle style, std::string_view text, std::optional<Color> color) {
    const Fonts& fonts = Fonts::current();
    std::string scratch;
    const std::string_view shown = fonts.displayText(text, scratch);
    ScopedTextStyle scoped(style);
    if (color) ImGui::PushStyleColor(ImGuiCol_Text, toImU32(*color));
    ImGui::TextUnformatted(shown.data(), shown.data() + shown.size());
    if (color) ImGui::PopStyleColor();
}

}  // namespace kestro::imgui
