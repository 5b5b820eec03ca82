#pragma once

// Runs real Dear ImGui frames without a window or a GPU, feeds them simulated input, and reads
// back what they drew, so that tests of the drawing layer assert what a person would see.
//
//   ImGuiHarness ui;                         // a context with Kestro's fonts built
//   ui.setScene([&] { view.DrawWindow("JSON"); });
//   ui.step();                               // one frame: input, NewFrame, scene, Render
//   auto hit = ui.findText("\"name\"");      // where that text was drawn
//   ui.click(hit->center());                 // press and release over it, frame by frame
//   ui.typeText("abc"); ui.pressKey(ImGuiKey_Enter);
//   EXPECT_EQ(ui.clipboard(), "...");
//
// What was drawn is read from ImDrawData after each frame: glyph quads are matched to the
// atlas's glyphs (by texture coordinates) and joined into runs of one font, size and colour on
// one line; other triangles are kept as shapes with their colour and bounds. Glyphs that ImGui
// cut at a clip edge on the CPU (text clipped inside a widget) no longer match and are not read. Items that carry
// no text (icons, custom-drawn rows) are found by the names the drawing layer reports to its
// ItemProbe. Each step also drains MainQueue (the harness stands for the host's UI thread),
// which the harness puts in host mode.
//
// One harness per test; it owns its ImGui context and makes it current (set io flags such as
// keyboard navigation on ImGui::GetIO() after constructing it). The font atlas is built once
// per process and shared by every harness.

#include <imgui.h>

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kestro/imgui/item_probe.h"

namespace kestro::testing {

/// A rectangle in screen coordinates.
struct Box {
    ImVec2 min;
    ImVec2 max;
    ImVec2 center() const { return {(min.x + max.x) * 0.5f, (min.y + max.y) * 0.5f}; }
    float width() const { return max.x - min.x; }
    float height() const { return max.y - min.y; }
    bool contains(ImVec2 p) const {
        return p.x >= min.x && p.x <= max.x && p.y >= min.y && p.y <= max.y;
    }
    bool inside(const Box& outer) const {
        return min.x >= outer.min.x - 0.5f && max.x <= outer.max.x + 0.5f &&
               min.y >= outer.min.y - 0.5f && max.y <= outer.max.y + 0.5f;
    }
};

/// Text drawn in one font, size and colour on one line. Blanks between glyphs are restored
/// from the gaps (a tab reads as spaces).
struct DrawnText {
    std::string text;
    Box box;  // the line's box: from the pen position and line top to the last advance
    ImU32 color = 0;
    const ImFont* font = nullptr;
    float size = 0;
    std::vector<float> charX;      // left edge of each byte's character (one per byte)
    std::vector<float> charRight;  // right edge of each byte's character
    /// The box of text.substr(offset, length).
    Box boxOf(std::size_t offset, std::size_t length) const;
};

/// A triangle that is not part of a glyph: a filled rectangle, an icon's stroke, a background.
struct DrawnShape {
    Box box;
    ImU32 color = 0;
};

class ImGuiHarness : public imgui::ItemProbe {
  public:
    explicit ImGuiHarness(ImVec2 displaySize = ImVec2(1024, 768));
    ~ImGuiHarness() override;
    ImGuiHarness(const ImGuiHarness&) = delete;
    ImGuiHarness& operator=(const ImGuiHarness&) = delete;

    /// The process-wide atlas, with Kestro's fonts installed.
    static ImFontAtlas& sharedAtlas();

    // ---- frames ----
    /// What every frame draws (between NewFrame and Render).
    void setScene(std::function<void()> scene) { scene_ = std::move(scene); }
    /// Runs count frames with the current input; each drains MainQueue first.
    void step(int count = 1);
    /// Runs frames until done() holds after one (at most maxFrames); whether it did. For
    /// conditions that frames bring about.
    bool stepUntil(const std::function<bool()>& done, int maxFrames = 600);
    /// Runs MainQueue's tasks as they arrive (work finished on other threads lands there) until
    /// done() holds or timeout passes, then one frame; whether done() held.
    bool waitUntil(const std::function<bool()>& done,
                   std::chrono::milliseconds timeout = std::chrono::seconds(60));
    /// Seconds each frame advances ImGui's clock (default 1/60).
    void setDeltaTime(float seconds) { deltaTime_ = seconds; }
    void setDisplaySize(ImVec2 size) { displaySize_ = size; }
    ImGuiContext* context() const { return context_; }
    int frameCount() const { return frames_; }

    // ---- input (each call runs the frames it needs) ----
    void moveMouse(ImVec2 position);
    /// Moves there, presses and releases the button over three frames.
    void click(ImVec2 position, ImGuiMouseButton button = ImGuiMouseButton_Left);
    /// Scrolls the wheel over position by lines (positive: up / towards the start).
    void wheel(ImVec2 position, float lines);
    /// Presses and releases a key (io.KeyMap maps each ImGuiKey_ to its own index), with the
    /// modifiers held.
    void pressKey(ImGuiKey key, bool ctrl = false, bool shift = false);
    /// Types text as character input in one frame.
    void typeText(std::string_view utf8);
    /// Holds or releases modifiers for the following frames.
    void setModifiers(bool ctrl, bool shift, bool alt = false);

    // ---- clipboard ----
    const std::string& clipboard() const { return clipboard_; }
    void setClipboard(std::string text) { clipboard_ = std::move(text); }
    /// Every text an item wrote to the clipboard, in order.
    const std::vector<std::string>& clipboardWrites() const { return clipboardWrites_; }

    // ---- what the last frame drew ----
    const std::vector<DrawnText>& texts() const { return texts_; }
    const std::vector<DrawnShape>& shapes() const { return shapes_; }
    /// The first run containing needle (draw order), narrowed to the needle's own box.
    std::optional<DrawnText> findText(std::string_view needle) const;
    /// The centre of the first drawn needle (to click on it); a test failure and a point off
    /// screen when none was drawn.
    ImVec2 centerOf(std::string_view needle) const;
    /// The centre of the item reported under name; a test failure and a point off screen when
    /// none was.
    ImVec2 centerOfItem(std::string_view name) const;
    /// Every run containing needle.
    std::vector<DrawnText> findAllText(std::string_view needle) const;
    /// Runs wholly inside box, top to bottom, then left to right.
    std::vector<DrawnText> textsIn(const Box& box) const;
    /// The text of the runs inside box on one line, left to right, joined by a blank where a
    /// gap separates them.
    std::string lineTextIn(const Box& box) const;
    /// Shapes wholly inside box, optionally of one colour.
    std::vector<DrawnShape> shapesIn(const Box& box, std::optional<ImU32> color = {}) const;
    /// The box of an item the drawing layer reported by name in the last frame.
    std::optional<Box> item(std::string_view name) const;
    /// Names of the reported items that start with prefix.
    std::vector<std::string> itemNames(std::string_view prefix = {}) const;

    // ItemProbe
    void item(std::string_view name, ImVec2 min, ImVec2 max) override;

  private:
    void frame();
    void readDrawData();

    ImGuiContext* context_ = nullptr;
    ImGuiContext* previous_ = nullptr;
    std::function<void()> scene_;
    ImVec2 displaySize_;
    float deltaTime_ = 1.0f / 60.0f;
    int frames_ = 0;

    ImVec2 mouse_{-1, -1};
    bool mouseDown_[5] = {};
    float pendingWheel_ = 0;
    std::string pendingChars_;
    bool ctrl_ = false, shift_ = false, alt_ = false;
    int keyDown_ = -1;

    std::string clipboard_;
    std::vector<std::string> clipboardWrites_;

    std::vector<DrawnText> texts_;
    std::vector<DrawnShape> shapes_;
    std::map<std::string, Box, std::less<>> items_;
    std::map<std::string, Box, std::less<>> nextItems_;
};

}  // namespace kestro::testing
