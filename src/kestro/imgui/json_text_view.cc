#include "kestro/imgui/json_text_view.h"

#include "kestro/imgui/colors.h"

namespace kestro {

double JSONTextView::drawRow(ImDrawList* drawList, const AttributedText& line, ImVec2 origin,
                             std::optional<float> wrapWidth, const ImVec4& clip,
                             const HighlightStyle& style) {
    imgui::TextLayout::Defaults defaults;
    defaults.foreground = imgui::toImU32(style.color.keyWord);
    defaults.attachment = imgui::toImU32(style.color.keyWord);
    defaults.attachmentBackground = imgui::toImU32(style.color.jsonBackground);
    return layout_.draw(drawList, line, origin, wrapWidth, clip, defaults);
}

}  // namespace kestro
