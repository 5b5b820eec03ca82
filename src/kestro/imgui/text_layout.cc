#include "kestro/imgui/text_layout.h"

#include <algorithm>
#include <vector>

#include "kestro/imgui/colors.h"
#include "kestro/imgui/internal/utf8_scan.h"
#include "kestro/imgui/system_images.h"

namespace kestro::imgui {

namespace {

// One character as laid out.
struct Laid {
    const TextAttributes* attributes;
    Fonts::Resolved font;
    std::size_t byte;  // position in the text
    ImWchar display;   // what ImGui draws; 0 for nothing
    float x;
    float advance;
    float lineHeight;  // of the character's run
    bool attachment;
};

// Runs without a font are set in the models' default font.
const Font& defaultFont() {
    static const Font* font = new Font(Font::system(16));
    return *font;
}

}  // namespace

struct TextLayout::Piece {
    const TextAttributes* attributes;
    Fonts::Resolved font;
    float x0;
    float x1;
    std::size_t displayStart;  // into scratch_
    std::size_t displayEnd;
    bool attachment;
};

TextLayout::TextLayout(std::shared_ptr<const Fonts> fonts) : fonts_(std::move(fonts)) {}

// Walks text character by character. visit.character(const Laid&, int line) sees every
// character but line feeds; visit.lineEnd(int line, float top, float height, float width)
// returns false to stop the walk.
template <typename Visitor>
void TextLayout::layout(const AttributedText& text, std::optional<float> wrapWidth,
                        Visitor&& visit) const {
    const std::string_view s = text.string();
    const Fonts& fonts = *fonts_;
    const float scale = fonts.scale();
    const float limit = wrapWidth ? std::max(*wrapWidth, 1.0f) : 0.0f;
    const Fonts::Resolved fallbackFont = fonts.resolve(defaultFont());
    int line = 0;
    float top = 0;
    bool stopped = false;
    // The open line's characters: a line that overflows is cut after its last blank, so the
    // word that overflowed moves to the next line whole (or, without a blank, before the
    // character that overflowed).
    thread_local std::vector<Laid> open;
    open.clear();
    std::size_t breakAt = 0;  // index in open of the first character after the last blank
    float x = 0;

    // Ends a line with the first count open characters; extraHeight is a line feed's height.
    auto endLine = [&](std::size_t count, float extraHeight) {
        float height = extraHeight;
        float width = 0;
        for (std::size_t k = 0; k < count; ++k) {
            visit.character(open[k], line);
            height = std::max(height, open[k].lineHeight);
            width = open[k].x + open[k].advance;
        }
        if (height <= 0) height = fallbackFont.size;
        if (!visit.lineEnd(line, top, height, width)) stopped = true;
        top += height;
        ++line;
        const float shift = count < open.size() ? open[count].x : x;
        open.erase(open.begin(), open.begin() + static_cast<std::ptrdiff_t>(count));
        for (Laid& c : open) c.x -= shift;
        x -= shift;
        breakAt = 0;
    };

    const Font* lastFont = nullptr;
    Fonts::Resolved lastResolved{};
    text.enumerateRuns([&](const AttributedText::Run& run) {
        if (stopped) return;
        const TextAttributes& a = run.attributes;
        Fonts::Resolved font = fallbackFont;
        if (a.font) {
            if (!lastFont || !(*lastFont == *a.font)) {
                lastResolved = fonts.resolve(*a.font);
                lastFont = &*a.font;
            }
            font = lastResolved;
        }
        if (!font.font) return;
        const Font& modelFont = a.font ? *a.font : defaultFont();
        const float runLineHeight =
            a.paragraphStyle ? static_cast<float>(a.paragraphStyle->lineHeight(modelFont)) * scale
                             : font.size;
        const float glyphScale = font.size / font.font->FontSize;
        std::size_t i = run.range.location;
        const std::size_t end = run.range.end();
        while (i < end && !stopped) {
            const std::size_t at = i;
            const char32_t c = internal::decodeScalar(s, i);
            if (c == U'\n') {
                endLine(open.size(), runLineHeight);
                continue;
            }
            Laid laid{&a, font, at, 0, 0, 0, runLineHeight, false};
            if (a.attachment) {
                laid.attachment = true;
                laid.advance = static_cast<float>(a.attachment->bounds.width) * scale;
            } else {
                // Control characters other than tab show as the fallback glyph.
                laid.display = c < 0x20 && c != U'\t' ? 0xFFFD : fonts.displayScalar(c);
                laid.advance =
                    laid.display ? font.font->GetCharAdvance(laid.display) * glyphScale : 0.0f;
            }
            if (wrapWidth && !open.empty() && x + laid.advance > limit) {
                endLine(breakAt > 0 ? breakAt : open.size(), 0);
                if (stopped) break;
            }
            laid.x = x;
            open.push_back(laid);
            x += laid.advance;
            if (c == U' ' || c == U'\t') breakAt = open.size();
        }
    });
    if (!stopped && (!open.empty() || line == 0)) endLine(open.size(), 0);
}

Size TextLayout::measure(const AttributedText& text, std::optional<double> width,
                         std::optional<double> height) const {
    struct {
        float usedWidth = 0;
        float total = 0;
        void character(const Laid&, int) {}
        bool lineEnd(int, float top, float h, float w) {
            usedWidth = std::max(usedWidth, w);
            total = top + h;
            return true;
        }
    } v;
    std::optional<float> wrap;
    if (width) wrap = static_cast<float>(*width);
    layout(text, wrap, v);
    double total = v.total;
    if (height) total = std::min(total, *height);
    return {v.usedWidth, total};
}

float TextLayout::draw(ImDrawList* drawList, const AttributedText& text, ImVec2 origin,
                       std::optional<float> wrapWidth, const ImVec4& clip,
                       const Defaults& defaults) {
    std::vector<Piece> pieces;
    scratch_.clear();
    struct Visitor {
        TextLayout& self;
        ImDrawList* list;
        ImVec2 origin;
        const ImVec4& clip;
        const Defaults& defaults;
        std::vector<Piece>& pieces;
        float widest = 0;

        void character(const Laid& c, int) {
            Piece* last = pieces.empty() ? nullptr : &pieces.back();
            if (!last || last->attributes != c.attributes || c.attachment || last->attachment ||
                last->x1 != c.x) {
                pieces.push_back({c.attributes, c.font, c.x, c.x, self.scratch_.size(),
                                  self.scratch_.size(), c.attachment});
                last = &pieces.back();
            }
            if (c.display) internal::appendUTF8(self.scratch_, c.display);
            last->displayEnd = self.scratch_.size();
            last->x1 = c.x + c.advance;
        }

        bool lineEnd(int, float top, float height, float width) {
            widest = std::max(widest, width);
            const float y0 = origin.y + top;
            const float y1 = y0 + height;
            if (y1 >= clip.y && y0 <= clip.w) paint(y0, height);
            pieces.clear();
            self.scratch_.clear();
            return y1 <= clip.w;  // lines below the clip are not walked
        }

        void paint(float y0, float height) {
            for (const Piece& p : pieces) {
                const float x0 = origin.x + p.x0, x1 = origin.x + p.x1;
                if (x1 < clip.x || x0 > clip.z) continue;
                if (p.attributes->backgroundColor)
                    list->AddRectFilled(ImVec2(x0, y0), ImVec2(x1, y0 + height),
                                        toImU32(*p.attributes->backgroundColor));
            }
            for (const Piece& p : pieces) {
                const float x0 = origin.x + p.x0, x1 = origin.x + p.x1;
                if (x1 < clip.x || x0 > clip.z) continue;
                if (p.attachment) {
                    const Rect& b = p.attributes->attachment->bounds;
                    const float scale = self.fonts_->scale();
                    const float h = std::min(static_cast<float>(b.height) * scale, height);
                    const float top = y0 + (height - h) * 0.5f;
                    drawSystemImage(list, p.attributes->attachment->image.name, ImVec2(x0, top),
                                    ImVec2(x1, top + h), defaults.attachment,
                                    defaults.attachmentBackground);
                    continue;
                }
                const ImU32 color = p.attributes->foregroundColor
                                        ? toImU32(*p.attributes->foregroundColor)
                                        : defaults.foreground;
                const float textTop = y0 + std::floor((height - p.font.size) * 0.5f);
                if (p.displayEnd > p.displayStart)
                    list->AddText(p.font.font, p.font.size, ImVec2(x0, textTop), color,
                                  self.scratch_.data() + p.displayStart,
                                  self.scratch_.data() + p.displayEnd);
                if (p.attributes->underlineStyle) {
                    const float baseline =
                        textTop + p.font.font->Ascent * (p.font.size / p.font.font->FontSize);
                    const float thickness =
                        *p.attributes->underlineStyle == UnderlineStyle::thick ? 2.0f : 1.0f;
                    list->AddLine(ImVec2(x0, baseline + 1.5f), ImVec2(x1, baseline + 1.5f), color,
                                  thickness);
                    if (*p.attributes->underlineStyle == UnderlineStyle::double_)
                        list->AddLine(ImVec2(x0, baseline + 3.5f), ImVec2(x1, baseline + 3.5f),
                                      color, 1.0f);
                }
            }
        }
    } v{*this, drawList, origin, clip, defaults, pieces};
    layout(text, wrapWidth, v);
    return v.widest;
}

std::optional<std::size_t> TextLayout::hitTest(const AttributedText& text, ImVec2 point,
                                               std::optional<float> wrapWidth) const {
    if (point.x < 0 || point.y < 0) return std::nullopt;
    struct {
        ImVec2 point;
        int candidateLine = -1;
        std::size_t candidate = 0;
        std::optional<std::size_t> found;
        void character(const Laid& c, int line) {
            if (point.x >= c.x && point.x < c.x + c.advance) {
                candidateLine = line;
                candidate = c.byte;
            }
        }
        bool lineEnd(int line, float top, float height, float) {
            if (point.y < top || point.y >= top + height) return true;
            if (candidateLine == line) found = candidate;
            return false;
        }
    } v{point};
    layout(text, wrapWidth, v);
    return v.found;
}

std::optional<ImVec2> TextLayout::positionOf(const AttributedText& text, std::size_t bytePosition,
                                             std::optional<float> wrapWidth) const {
    struct {
        std::size_t byte;
        int line = -1;
        float x = 0;
        std::optional<ImVec2> found;
        void character(const Laid& c, int l) {
            if (c.byte == byte) {
                line = l;
                x = c.x;
            }
        }
        bool lineEnd(int l, float top, float, float) {
            if (l != line) return true;
            found = ImVec2(x, top);
            return false;
        }
    } v{bytePosition};
    layout(text, wrapWidth, v);
    return v.found;
}

TextMeasure makeTextMeasure(std::shared_ptr<const Fonts> fonts) {
    auto layout = std::make_shared<TextLayout>(std::move(fonts));
    return [layout](const AttributedText& text, std::optional<double> width,
                    std::optional<double> height) { return layout->measure(text, width, height); };
}

}  // namespace kestro::imgui
