#include "kestro/imgui/system_images.h"

#include <algorithm>
#include <cmath>

#include "kestro/imgui/item_probe.h"

namespace kestro::imgui {

namespace {

// Drawing in a unit square mapped onto the image's box.
struct Canvas {
    ImDrawList* list;
    ImVec2 origin;
    float side;
    ImU32 color;
    ImU32 background;

    ImVec2 at(float x, float y) const { return {origin.x + x * side, origin.y + y * side}; }
    float stroke() const { return std::max(1.0f, side / 11.0f); }

    void line(float x0, float y0, float x1, float y1, float widthScale = 1.0f) const {
        list->AddLine(at(x0, y0), at(x1, y1), color, stroke() * widthScale);
    }
};

void chevronRight(const Canvas& c) {
    const ImVec2 points[] = {c.at(0.36f, 0.18f), c.at(0.66f, 0.5f), c.at(0.36f, 0.82f)};
    c.list->AddPolyline(points, 3, c.color, ImDrawFlags_None, c.stroke() * 1.2f);
}

void trash(const Canvas& c) {
    c.line(0.16f, 0.24f, 0.84f, 0.24f);  // lid
    c.list->AddRect(c.at(0.39f, 0.1f), c.at(0.61f, 0.24f), c.color, 0, 0, c.stroke());
    const ImVec2 body[] = {c.at(0.25f, 0.3f), c.at(0.75f, 0.3f), c.at(0.69f, 0.9f),
                           c.at(0.31f, 0.9f)};
    c.list->AddPolyline(body, 4, c.color, ImDrawFlags_Closed, c.stroke());
    c.line(0.43f, 0.42f, 0.43f, 0.78f, 0.8f);
    c.line(0.57f, 0.42f, 0.57f, 0.78f, 0.8f);
}

void magnifyingGlass(const Canvas& c) {
    c.list->AddCircle(c.at(0.42f, 0.42f), 0.27f * c.side, c.color, 0, c.stroke() * 1.1f);
    c.line(0.62f, 0.62f, 0.88f, 0.88f, 1.6f);
}

void xmarkCircleFill(const Canvas& c) {
    c.list->AddCircleFilled(c.at(0.5f, 0.5f), 0.46f * c.side, c.color);
    const Canvas cut{c.list, c.origin, c.side, c.background, c.background};
    cut.line(0.34f, 0.34f, 0.66f, 0.66f, 1.1f);
    cut.line(0.66f, 0.34f, 0.34f, 0.66f, 1.1f);
}

void docOnDoc(const Canvas& c) {
    const float r = 0.08f * c.side;
    c.list->AddRect(c.at(0.34f, 0.08f), c.at(0.86f, 0.68f), c.color, r, 0, c.stroke());
    c.list->AddRectFilled(c.at(0.14f, 0.3f), c.at(0.66f, 0.92f), c.background, r);
    c.list->AddRect(c.at(0.14f, 0.3f), c.at(0.66f, 0.92f), c.color, r, 0, c.stroke());
}

// Disclosure triangles: "expand" (a folded container) points right, "fold" (an expanded one)
// points down.
void expand(const Canvas& c) {
    c.list->AddTriangleFilled(c.at(0.3f, 0.2f), c.at(0.78f, 0.5f), c.at(0.3f, 0.8f), c.color);
}

void fold(const Canvas& c) {
    c.list->AddTriangleFilled(c.at(0.2f, 0.3f), c.at(0.8f, 0.3f), c.at(0.5f, 0.78f), c.color);
}

using Painter = void (*)(const Canvas&);

Painter painterFor(std::string_view name) {
    if (name == "chevron.right") return chevronRight;
    if (name == "trash") return trash;
    if (name == "magnifyingglass") return magnifyingGlass;
    if (name == "xmark.circle.fill") return xmarkCircleFill;
    if (name == "doc.on.doc") return docOnDoc;
    if (name == "expand") return expand;
    if (name == "fold") return fold;
    return nullptr;
}

ImVec2 defaultSize(ImVec2 size) {
    const float side = ImGui::GetFontSize();
    return {size.x > 0 ? size.x : side, size.y > 0 ? size.y : side};
}

}  // namespace

bool isSystemImage(std::string_view name) { return painterFor(name) != nullptr; }

bool drawSystemImage(ImDrawList* drawList, std::string_view name, ImVec2 min, ImVec2 max,
                     ImU32 color, ImU32 background) {
    Painter painter = painterFor(name);
    if (!painter || !drawList) return false;
    const float side = std::min(max.x - min.x, max.y - min.y);
    if (!(side > 0)) return true;
    const ImVec2 origin{std::floor(min.x + (max.x - min.x - side) * 0.5f),
                        std::floor(min.y + (max.y - min.y - side) * 0.5f)};
    painter(Canvas{drawList, origin, side, color, background});
    return true;
}

void SystemImage(std::string_view name, ImVec2 size, std::optional<ImU32> color) {
    size = defaultSize(size);
    const ImVec2 min = ImGui::GetCursorScreenPos();
    ImGui::Dummy(size);
    if (!ImGui::IsItemVisible()) return;
    drawSystemImage(ImGui::GetWindowDrawList(), name, min, ImVec2(min.x + size.x, min.y + size.y),
                    color ? *color : ImGui::GetColorU32(ImGuiCol_Text),
                    ImGui::GetColorU32(ImGuiCol_WindowBg));
}

bool SystemImageButton(const char* id, std::string_view name, ImVec2 size,
                       std::optional<ImU32> color) {
    size = defaultSize(size);
    const ImVec2 min = ImGui::GetCursorScreenPos();
    const bool clicked = ImGui::InvisibleButton(id, size);
    const ImVec2 max{min.x + size.x, min.y + size.y};
    ImDrawList* list = ImGui::GetWindowDrawList();
    if (ImGui::IsItemHovered())
        list->AddRectFilled(min, max,
                            ImGui::GetColorU32(ImGui::IsItemActive() ? ImGuiCol_ButtonActive
                                                                     : ImGuiCol_ButtonHovered),
                            ImGui::GetStyle().FrameRounding);
    const float inset = std::floor(std::min(size.x, size.y) * 0.12f);
    drawSystemImage(
        list, name, ImVec2(min.x + inset, min.y + inset), ImVec2(max.x - inset, max.y - inset),
        color ? *color : ImGui::GetColorU32(ImGuiCol_Text), ImGui::GetColorU32(ImGuiCol_WindowBg));
    probeItem(id, min, max);
    return clicked;
}

}  // namespace kestro::imgui
