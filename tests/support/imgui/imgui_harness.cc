#include "support/imgui/imgui_harness.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <tuple>

#include "kestro/core/main_queue.h"
#include "kestro/imgui/fonts.h"
#include "kestro/imgui/internal/utf8_scan.h"

namespace kestro::testing {

namespace {

struct GlyphRef {
    const ImFont* font;
    const ImFontGlyph* glyph;
};

using UVKey = std::tuple<float, float, float, float>;

// Glyphs by their texture coordinates, over every font of the shared atlas.
const std::map<UVKey, GlyphRef>& glyphsByUV() {
    static const std::map<UVKey, GlyphRef> map = [] {
        std::map<UVKey, GlyphRef> m;
        for (const ImFont* font : ImGuiHarness::sharedAtlas().Fonts)
            for (const ImFontGlyph& g : font->Glyphs)
                if (g.Visible) m.emplace(UVKey{g.U0, g.V0, g.U1, g.V1}, GlyphRef{font, &g});
        return m;
    }();
    return map;
}

// The character a glyph stands for, emoji glyphs read back as their emoji.
void appendGlyphText(std::string& out, unsigned codepoint) {
    const auto& table = imgui::Fonts::emojiTable();
    if (codepoint >= imgui::internal::kEmojiGlyphBase &&
        codepoint < imgui::internal::kEmojiGlyphBase + table.size())
        codepoint = table[codepoint - imgui::internal::kEmojiGlyphBase];
    imgui::internal::appendUTF8(out, codepoint);
}

const char* getClipboard(void* user) {
    return static_cast<ImGuiHarness*>(user)->clipboard().c_str();
}

}  // namespace

Box DrawnText::boxOf(std::size_t offset, std::size_t length) const {
    if (offset >= text.size() || length == 0) return {box.min, ImVec2(box.min.x, box.max.y)};
    const std::size_t last = std::min(offset + length, text.size()) - 1;
    return {ImVec2(charX[offset], box.min.y), ImVec2(charRight[last], box.max.y)};
}

ImFontAtlas& ImGuiHarness::sharedAtlas() {
    static ImFontAtlas* atlas = [] {
        auto* a = new ImFontAtlas;
        imgui::Fonts::install(*a);
        return a;
    }();
    return *atlas;
}

ImGuiHarness::ImGuiHarness(ImVec2 displaySize) : displaySize_(displaySize) {
    MainQueue::shared().useHostThread();
    previous_ = ImGui::GetCurrentContext();
    context_ = ImGui::CreateContext(&sharedAtlas());
    ImGui::SetCurrentContext(context_);
    ImGuiIO& io = ImGui::GetIO();
    io.IniFilename = nullptr;
    io.LogFilename = nullptr;
    io.DisplaySize = displaySize_;
    // Large documents need more than 64K vertices per draw list, as real backends allow.
    io.BackendFlags |= ImGuiBackendFlags_RendererHasVtxOffset;
    for (int k = 0; k < ImGuiKey_COUNT; ++k) io.KeyMap[k] = k;
    io.SetClipboardTextFn = [](void* user, const char* text) {
        auto* self = static_cast<ImGuiHarness*>(user);
        self->clipboard_ = text ? text : "";
        self->clipboardWrites_.push_back(self->clipboard_);
    };
    io.GetClipboardTextFn = getClipboard;
    io.ClipboardUserData = this;
    imgui::setItemProbe(this);
}

ImGuiHarness::~ImGuiHarness() {
    imgui::setItemProbe(nullptr);
    ImGui::DestroyContext(context_);
    ImGui::SetCurrentContext(previous_ == context_ ? nullptr : previous_);
}

void ImGuiHarness::item(std::string_view name, ImVec2 min, ImVec2 max) {
    nextItems_.insert_or_assign(std::string(name), Box{min, max});
}

void ImGuiHarness::frame() {
    ImGui::SetCurrentContext(context_);
    imgui::setItemProbe(this);
    MainQueue::shared().drain();

    ImGuiIO& io = ImGui::GetIO();
    io.DisplaySize = displaySize_;
    io.DeltaTime = deltaTime_;
    io.MousePos = mouse_;
    for (int b = 0; b < 5; ++b) io.MouseDown[b] = mouseDown_[b];
    io.MouseWheel = pendingWheel_;
    pendingWheel_ = 0;
    io.KeyCtrl = ctrl_;
    io.KeyShift = shift_;
    io.KeyAlt = alt_;
    for (int k = 0; k < ImGuiKey_COUNT; ++k) io.KeysDown[k] = k == keyDown_;
    if (!pendingChars_.empty()) {
        io.AddInputCharactersUTF8(pendingChars_.c_str());
        pendingChars_.clear();
    }

    nextItems_.clear();
    ImGui::NewFrame();
    if (scene_) scene_();
    ImGui::Render();
    items_ = std::move(nextItems_);
    nextItems_.clear();
    readDrawData();
    ++frames_;
}

void ImGuiHarness::step(int count) {
    for (int i = 0; i < count; ++i) frame();
}

bool ImGuiHarness::stepUntil(const std::function<bool()>& done, int maxFrames) {
    for (int i = 0; i < maxFrames; ++i) {
        frame();
        if (done()) return true;
    }
    return false;
}

bool ImGuiHarness::waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    const bool held = MainQueue::shared().runUntil(done, timeout);
    frame();
    return held;
}

void ImGuiHarness::moveMouse(ImVec2 position) {
    mouse_ = position;
    frame();
}

void ImGuiHarness::click(ImVec2 position, ImGuiMouseButton button) {
    moveMouse(position);
    mouseDown_[button] = true;
    frame();
    mouseDown_[button] = false;
    frame();
}

void ImGuiHarness::wheel(ImVec2 position, float lines) {
    mouse_ = position;
    pendingWheel_ = lines;
    frame();
}

void ImGuiHarness::pressKey(ImGuiKey key, bool ctrl, bool shift) {
    const bool wasCtrl = ctrl_, wasShift = shift_;
    ctrl_ = ctrl;
    shift_ = shift;
    keyDown_ = key;
    frame();
    keyDown_ = -1;
    frame();
    ctrl_ = wasCtrl;
    shift_ = wasShift;
}

void ImGuiHarness::typeText(std::string_view utf8) {
    pendingChars_ += utf8;
    frame();
}

void ImGuiHarness::setModifiers(bool ctrl, bool shift, bool alt) {
    ctrl_ = ctrl;
    shift_ = shift;
    alt_ = alt;
}

void ImGuiHarness::readDrawData() {
    texts_.clear();
    shapes_.clear();
    const ImDrawData* data = ImGui::GetDrawData();
    if (!data || !data->Valid) return;
    const auto& glyphs = glyphsByUV();

    for (int l = 0; l < data->CmdListsCount; ++l) {
        const ImDrawList* list = data->CmdLists[l];
        DrawnText* run = nullptr;
        float runPenEnd = 0;
        float runTop = 0;
        for (const ImDrawCmd& cmd : list->CmdBuffer) {
            if (cmd.UserCallback) continue;
            const ImDrawIdx* idx = list->IdxBuffer.Data + cmd.IdxOffset;
            const ImDrawVert* vtx = list->VtxBuffer.Data + cmd.VtxOffset;
            const unsigned count = cmd.ElemCount;
            unsigned i = 0;
            while (i + 3 <= count) {
                // Glyphs and filled rectangles are quads: vertices a, b, c, d as triangles
                // (a, b, c) and (a, c, d).
                const bool quad = i + 6 <= count && idx[i + 1] == idx[i] + 1 &&
                                  idx[i + 2] == idx[i] + 2 && idx[i + 3] == idx[i] &&
                                  idx[i + 4] == idx[i] + 2 && idx[i + 5] == idx[i] + 3;
                if (quad) {
                    const ImDrawVert& a = vtx[idx[i]];
                    const ImDrawVert& c = vtx[idx[i] + 2];
                    auto found = glyphs.find(UVKey{a.uv.x, a.uv.y, c.uv.x, c.uv.y});
                    if (found != glyphs.end()) {
                        const ImFontGlyph& g = *found->second.glyph;
                        const ImFont* font = found->second.font;
                        const float gw = g.X1 - g.X0, gh = g.Y1 - g.Y0;
                        const float scale = gw > 0   ? (c.pos.x - a.pos.x) / gw
                                            : gh > 0 ? (c.pos.y - a.pos.y) / gh
                                                     : 1;
                        const float pen = a.pos.x - g.X0 * scale;
                        const float top = a.pos.y - g.Y0 * scale;
                        const float size = font->FontSize * scale;
                        const ImFontGlyph* space = font->FindGlyphNoFallback(' ');
                        const float spaceAdvance =
                            (space ? space->AdvanceX : font->FontSize * 0.3f) * scale;
                        const float gap = pen - runPenEnd;
                        const bool joins = run && run->font == font &&
                                           std::abs(run->size - size) < 0.01f &&
                                           run->color == a.col && std::abs(runTop - top) < 0.5f &&
                                           gap > -0.5f && gap < spaceAdvance * 3.5f;
                        if (!joins) {
                            texts_.push_back(DrawnText{});
                            run = &texts_.back();
                            run->font = font;
                            run->size = size;
                            run->color = a.col;
                            run->box = {ImVec2(pen, top), ImVec2(pen, top + size)};
                            runTop = top;
                        } else if (gap > spaceAdvance * 0.5f) {
                            const int blanks =
                                std::max(1, static_cast<int>(std::lround(gap / spaceAdvance)));
                            for (int s = 0; s < blanks; ++s) {
                                run->charX.push_back(runPenEnd +
                                                     spaceAdvance * static_cast<float>(s));
                                run->charRight.push_back(runPenEnd +
                                                         spaceAdvance * static_cast<float>(s + 1));
                                run->text.push_back(' ');
                            }
                        }
                        const std::size_t before = run->text.size();
                        appendGlyphText(run->text, g.Codepoint);
                        runPenEnd = pen + g.AdvanceX * scale;
                        for (std::size_t k = before; k < run->text.size(); ++k) {
                            run->charX.push_back(pen);
                            run->charRight.push_back(runPenEnd);
                        }
                        run->box.max.x = runPenEnd;
                        i += 6;
                        continue;
                    }
                    // A filled rectangle: one shape for both triangles.
                    run = nullptr;
                    shapes_.push_back(
                        {{ImVec2(std::min(a.pos.x, c.pos.x), std::min(a.pos.y, c.pos.y)),
                          ImVec2(std::max(a.pos.x, c.pos.x), std::max(a.pos.y, c.pos.y))},
                         a.col});
                    i += 6;
                    continue;
                }
                run = nullptr;
                const ImDrawVert& p = vtx[idx[i]];
                const ImDrawVert& q = vtx[idx[i + 1]];
                const ImDrawVert& r = vtx[idx[i + 2]];
                // Anti-aliasing fringes fade to transparent: keep the opaque core's colour.
                ImU32 color = p.col;
                for (ImU32 col : {q.col, r.col})
                    if ((col >> IM_COL32_A_SHIFT) > (color >> IM_COL32_A_SHIFT)) color = col;
                shapes_.push_back({{ImVec2(std::min({p.pos.x, q.pos.x, r.pos.x}),
                                           std::min({p.pos.y, q.pos.y, r.pos.y})),
                                    ImVec2(std::max({p.pos.x, q.pos.x, r.pos.x}),
                                           std::max({p.pos.y, q.pos.y, r.pos.y}))},
                                   color});
                i += 3;
            }
        }
    }
}

std::optional<DrawnText> ImGuiHarness::findText(std::string_view needle) const {
    for (const DrawnText& t : texts_) {
        const auto at = t.text.find(needle);
        if (at == std::string::npos) continue;
        DrawnText narrowed = t;
        narrowed.box = t.boxOf(at, needle.size());
        return narrowed;
    }
    return std::nullopt;
}

ImVec2 ImGuiHarness::centerOf(std::string_view needle) const {
    if (auto found = findText(needle)) return found->box.center();
    ADD_FAILURE() << "no text \"" << needle << "\" was drawn";
    return {-1000, -1000};
}

ImVec2 ImGuiHarness::centerOfItem(std::string_view name) const {
    if (auto found = item(name)) return found->center();
    ADD_FAILURE() << "no item \"" << name << "\" was drawn";
    return {-1000, -1000};
}

std::vector<DrawnText> ImGuiHarness::findAllText(std::string_view needle) const {
    std::vector<DrawnText> out;
    for (const DrawnText& t : texts_)
        if (t.text.find(needle) != std::string::npos) out.push_back(t);
    return out;
}

std::vector<DrawnText> ImGuiHarness::textsIn(const Box& box) const {
    std::vector<DrawnText> out;
    for (const DrawnText& t : texts_)
        if (t.box.inside(box)) out.push_back(t);
    std::stable_sort(out.begin(), out.end(), [](const DrawnText& a, const DrawnText& b) {
        if (std::abs(a.box.min.y - b.box.min.y) > 0.5f) return a.box.min.y < b.box.min.y;
        return a.box.min.x < b.box.min.x;
    });
    return out;
}

std::string ImGuiHarness::lineTextIn(const Box& box) const {
    std::string line;
    float end = 0;
    for (const DrawnText& t : textsIn(box)) {
        if (!line.empty() && t.box.min.x - end > 1.0f) line += ' ';
        line += t.text;
        end = t.box.max.x;
    }
    return line;
}

std::vector<DrawnShape> ImGuiHarness::shapesIn(const Box& box, std::optional<ImU32> color) const {
    std::vector<DrawnShape> out;
    for (const DrawnShape& s : shapes_)
        if (s.box.inside(box) && (!color || s.color == *color)) out.push_back(s);
    return out;
}

std::optional<Box> ImGuiHarness::item(std::string_view name) const {
    auto it = items_.find(name);
    if (it == items_.end()) return std::nullopt;
    return it->second;
}

std::vector<std::string> ImGuiHarness::itemNames(std::string_view prefix) const {
    std::vector<std::string> out;
    for (const auto& [name, box] : items_)
        if (name.starts_with(prefix)) out.push_back(name);
    return out;
}

}  // namespace kestro::testing
