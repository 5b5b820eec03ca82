#include "kestro/imgui/inspector/json_body.h"

#include "kestro/imgui/colors.h"
#include "kestro/imgui/fonts.h"
#include "kestro/imgui/inspector/widgets.h"
#include "kestro/imgui/item_probe.h"

namespace kestro::imgui::inspector {
namespace {

// The row's line as plain text for drawing: tabs as four blanks, attachment characters (the
// decorator's icons, U+FFFC) left out, since the controls are drawn beside the text.
void plainLine(std::string_view text, std::string& out) {
    out.clear();
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\t') {
            out += "    ";
        } else if (text.compare(i, 3, "\xEF\xBF\xBC") == 0) {
            i += 2;
        } else if (text[i] != '\n') {
            out += text[i];
        }
    }
}

}  // namespace

JSONBodyView::JSONBodyView(std::string json)
    : model_(JSONViewer::create(false)), state_(std::make_shared<int>(0)) {
    // The dark theme, on the inspector's dark windows.
    model_->setHighlightStyle(HighlightStyle::mariana());
    model_->preview(std::move(json), JSONSlice::State::expand,
                    [state = std::weak_ptr<int>(state_)](std::shared_ptr<JSONDecorator> d) {
                        if (auto s = state.lock()) *s = d ? 1 : 2;
                    });
}

void JSONBodyView::draw(const char* id, float maxHeight) {
    showing_ = *state_ == 1;
    if (*state_ == 0) {
        ImGui::TextDisabled("Laying out the JSON…");
        return;
    }
    const auto& decorator = model_->decorator();
    if (*state_ == 2 || !decorator) {
        ImGui::TextDisabled("This JSON could not be laid out; use Copy to take its text.");
        return;
    }
    const std::vector<int>& rows = model_->lineDataSource();
    const Fonts& fonts = Fonts::current();
    ScopedTextStyle mono(TextStyle::monospacedBody);
    const float lineHeight = ImGui::GetTextLineHeightWithSpacing();
    const float height = std::min(maxHeight, lineHeight * static_cast<float>(rows.size()) +
                                                 ImGui::GetStyle().WindowPadding.y * 2 + 14);
    const HighlightColor& theme = model_->highlightStyle().color;
    ImGui::PushStyleColor(ImGuiCol_ChildBg, toImU32(theme.jsonBackground));
    ImGui::BeginChild(id, ImVec2(0, height), true, ImGuiWindowFlags_HorizontalScrollbar);
    const float numberWidth = ImGui::CalcTextSize("000000").x;
    const float controlSize = lineHeight * 0.8f;
    ImGuiListClipper clipper;
    clipper.Begin(static_cast<int>(rows.size()), lineHeight);
    std::string scratch;
    while (clipper.Step()) {
        for (int row = clipper.DisplayStart; row < clipper.DisplayEnd; ++row) {
            const auto slice = model_->sliceIndex(row);
            if (!slice || *slice >= decorator->slices.size()) continue;
            const JSONSlice& s = decorator->slices[*slice];
            ImGui::PushID(row);
            const ImVec2 start = ImGui::GetCursorScreenPos();
            // Line number, right-aligned in its column.
            const std::string number = std::to_string(s.lineNumber);
            const float w = ImGui::CalcTextSize(number.c_str()).x;
            ImGui::GetWindowDrawList()->AddText(ImVec2(start.x + numberWidth - w, start.y),
                                                toImU32(theme.lineText), number.c_str());
            probeItem("json.line:" + number, start,
                      ImVec2(start.x + numberWidth, start.y + lineHeight));
            ImGui::SetCursorScreenPos(ImVec2(start.x + numberWidth + 8, start.y));
            if (s.folded) {
                const bool folded = s.state == JSONSlice::State::folded;
                const ImVec2 c = ImGui::GetCursorScreenPos();
                if (ImGui::InvisibleButton("fold", ImVec2(controlSize, lineHeight))) {
                    model_->handleZoomClick(*slice);
                }
                const ImU32 color = toImU32(theme.lineText);
                const float m = controlSize * 0.25f, y = c.y + (lineHeight - controlSize) / 2;
                if (folded) {  // "expand": a right-pointing triangle
                    ImGui::GetWindowDrawList()->AddTriangleFilled(
                        ImVec2(c.x + m, y + m), ImVec2(c.x + controlSize - m, y + controlSize / 2),
                        ImVec2(c.x + m, y + controlSize - m), color);
                } else {  // "fold": a down-pointing triangle
                    ImGui::GetWindowDrawList()->AddTriangleFilled(
                        ImVec2(c.x + m, y + m), ImVec2(c.x + controlSize - m, y + m),
                        ImVec2(c.x + controlSize / 2, y + controlSize - m), color);
                }
                probeItem(std::string(folded ? "json.expand:" : "json.fold:") + number, c,
                          ImVec2(c.x + controlSize, c.y + lineHeight));
                ImGui::SameLine(0, 4);
            } else {
                ImGui::Dummy(ImVec2(controlSize, lineHeight));
                ImGui::SameLine(0, 4);
            }
            if (const AttributedText* text = s.showContent()) {
                // Run by run, in each run's colour.
                const std::string_view whole = text->string();
                bool first = true;
                text->enumerateRuns([&](const AttributedText::Run& run) {
                    plainLine(whole.substr(run.range.location, run.range.length), line_);
                    if (line_.empty()) return;
                    const std::string_view shown = fonts.displayText(line_, scratch);
                    if (!first) ImGui::SameLine(0, 0);
                    first = false;
                    const auto& color = run.attributes.foregroundColor;
                    ImGui::PushStyleColor(ImGuiCol_Text,
                                          color ? toImU32(*color) : toImU32(theme.keyWord));
                    ImGui::TextUnformatted(shown.data(), shown.data() + shown.size());
                    ImGui::PopStyleColor();
                });
                if (first) ImGui::NewLine();
            } else {
                ImGui::NewLine();
            }
            ImGui::PopID();
        }
    }
    ImGui::EndChild();
    ImGui::PopStyleColor();
}

}  // namespace kestro::imgui::inspector
