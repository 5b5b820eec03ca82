#include "kestro/imgui/json_viewer_view.h"

#include <imgui_internal.h>
#include <imgui_stdlib.h>

#include <algorithm>
#include <cmath>

#include "kestro/core/console.h"
#include "kestro/core/main_queue.h"
#include "kestro/core/utf8.h"
#include "kestro/imgui/colors.h"
#include "kestro/imgui/fonts.h"
#include "kestro/imgui/item_probe.h"
#include "kestro/imgui/system_images.h"
#include "kestro/jsonview/valid_url.h"

namespace kestro {

namespace {

// Seconds a search waits for typing to pause (Enter searches at once).
constexpr double kSearchPause = 0.25;

std::string failureReason(const std::string& text) {
    if (text.empty()) return "There is no text to show.";
    if (!isValidUTF8(text)) return "This text is not valid UTF-8, so it cannot be shown as JSON.";
    return "This text could not be shown as JSON.";
}

// Text without the fold and expand icons (and the blank that follows each), for copying.
std::string withoutIcons(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    std::size_t i = 0;
    while (i < text.size()) {
        const std::size_t icon = text.find(kAttachmentCharacter, i);
        const std::size_t end = icon == std::string_view::npos ? text.size() : icon;
        out.append(text.substr(i, end - i));
        if (icon == std::string_view::npos) break;
        i = icon + kAttachmentCharacter.size();
        if (i < text.size() && text[i] == ' ') ++i;
    }
    return out;
}

}  // namespace

HighlightStyle JSONViewerSettings::defaultStyle() {
    const char* background = "#1C1B1D";
    HighlightColor colors(Color::gray(), "#5264FF", "#4075a6", Color::orange(), Color::orange(),
                          Color::orange(), Color::systemPink(), Color::gray(), background,
                          std::nullopt, background, background, Color::white());
    return HighlightStyle(std::nullopt, std::nullopt, colors, std::nullopt, std::nullopt, 24, true);
}

// What the model's callbacks reach; the view holds it, the callbacks hold it weakly.
struct JSONViewerView::Shared {
    bool geometryDirty = true;
    bool scrollToTop = false;
    bool scrollToFirstHit = false;
    bool pending = false;
    std::uint64_t generation = 0;             // of the last setJSON
    std::shared_ptr<const std::string> text;  // kept until shown, to tell why it was not
    std::string failure;
};

// The geometry of one frame, in screen coordinates.
struct JSONViewerView::Frame {
    ImVec2 viewMin;  // the visible content region (scroll bars excluded)
    ImVec2 viewMax;
    double scrollX = 0;
    double scrollY = 0;
    float columnWidth = 0;
    float textLeft = 0;    // where the text area begins
    float textOrigin = 0;  // x of the text's left edge (inset, less the horizontal scroll)
    float contentTop = 0;  // y of the content's top (less the vertical scroll)
    std::optional<float> wrap;
    const HighlightStyle* style = nullptr;
    std::size_t firstRow = 0;
    std::size_t lastRow = 0;  // one past
};

JSONViewerView::JSONViewerView()
    : model_(JSONViewer::create(true)), shared_(std::make_shared<Shared>()) {
    std::weak_ptr<Shared> weak = shared_;
    JSONViewerEvents events;
    events.reloadTable = [weak] {
        if (auto s = weak.lock()) s->geometryDirty = true;
    };
    events.scrollToTop = [weak](bool) {
        if (auto s = weak.lock()) s->scrollToTop = true;
    };
    model_->setEvents(std::move(events));
}

JSONViewerView::JSONViewerView(std::string json) : JSONViewerView() { setJSON(std::move(json)); }

JSONViewerView::~JSONViewerView() { model_->setEvents({}); }

void JSONViewerView::setJSON(std::string json) {
    Shared& s = *shared_;
    const std::uint64_t generation = ++s.generation;
    s.pending = true;
    s.failure.clear();
    auto text = std::make_shared<const std::string>(std::move(json));
    s.text = text;
    model_->setAutomaticWrapEnabled(settings.automaticWrapEnabled);
    model_->setHighlightStyle(settings.highlightStyle);
    std::weak_ptr<Shared> weak = shared_;
    std::weak_ptr<JSONViewer> weakModel = model_;
    model_->preview(*text, JSONSlice::State::expand,
                    [weak, weakModel, generation](std::shared_ptr<JSONDecorator> decorator) {
                        auto s = weak.lock();
                        auto model = weakModel.lock();
                        if (!s || !model || s->generation != generation) return;
                        s->pending = false;
                        if (!decorator)
                            s->failure = failureReason(s->text ? *s->text : std::string());
                        else if (model->shownDecorator() != decorator)
                            s->failure = "This document is too large to be laid out.";
                        s->text.reset();
                        s->geometryDirty = true;
                    });
    search_.clear();
    searched_.clear();
    searchEditedAt_ = -1;
}

bool JSONViewerView::isShowing() const {
    return !shared_->pending && shared_->failure.empty() && model_->decorator() &&
           model_->shownDecorator() == model_->decorator();
}

std::string JSONViewerView::message() const {
    if (!MainQueue::shared().isHostDriven())
        return "Kestro's main queue is not driven by this thread: call "
               "MainQueue::shared().useHostThread() once and drain() every frame.";
    const Shared& s = *shared_;
    if (s.pending && !model_->shownDecorator()) return "Formatting…";
    if (!s.failure.empty()) return s.failure;
    if (!model_->shownDecorator()) return "Nothing to show.";
    return {};
}

bool JSONViewerView::DrawWindow(const char* title, bool* open, ImGuiWindowFlags flags) {
    ImGui::SetNextWindowSize(ImVec2(640, 480), ImGuiCond_FirstUseEver);
    const bool visible = ImGui::Begin(title, open, flags);
    if (visible) DrawContents();
    ImGui::End();
    return visible;
}

void JSONViewerView::installFontsIfNeeded() {
    auto fonts = imgui::Fonts::currentShared();
    if (fonts == fonts_) return;
    fonts_ = std::move(fonts);
    textView_ = std::make_unique<JSONTextView>(fonts_);
    model_->setTextMeasure(imgui::makeTextMeasure(fonts_));
    shared_->geometryDirty = true;
}

void JSONViewerView::DrawContents(ImVec2 size) {
    installFontsIfNeeded();
    ImGui::PushID(this);
    if (!MainQueue::shared().isHostDriven()) {
        // The model's work would arrive on another thread while this one draws.
        ImGui::TextWrapped("%s", message().c_str());
        ImGui::PopID();
        return;
    }
    if (model_->automaticWrapEnabled() != settings.automaticWrapEnabled)
        model_->setAutomaticWrapEnabled(settings.automaticWrapEnabled);
    if (settings.showToolbar) drawToolbar();

    const HighlightStyle& style =
        model_->shownDecorator() ? model_->shownDecorator()->style() : model_->highlightStyle();
    ImGui::PushStyleVar(ImGuiStyleVar_WindowPadding, ImVec2(0, 0));
    ImGui::PushStyleColor(ImGuiCol_ChildBg, imgui::toImU32(style.color.jsonBackground));
    ImGuiWindowFlags flags = ImGuiWindowFlags_AlwaysVerticalScrollbar | ImGuiWindowFlags_NoMove;
    if (!settings.automaticWrapEnabled) flags |= ImGuiWindowFlags_HorizontalScrollbar;
    const bool open = ImGui::BeginChild("##json", size, false, flags);
    ImGui::PopStyleColor();
    ImGui::PopStyleVar();
    if (open) {
        ImGuiWindow* window = ImGui::GetCurrentWindow();
        Frame frame;
        frame.viewMin = window->InnerClipRect.Min;
        frame.viewMax = window->InnerClipRect.Max;
        frame.scrollX = ImGui::GetScrollX();
        frame.scrollY = ImGui::GetScrollY();
        frame.style = &style;
        const std::string said = message();
        if (said.empty()) {
            drawRows(frame);
        } else {
            ImGui::SetCursorPos(ImVec2(JSONViewer::textInset, JSONViewer::textInset));
            ImGui::PushStyleColor(ImGuiCol_Text, imgui::toImU32(style.color.lineText));
            ImGui::PushTextWrapPos(frame.viewMax.x - frame.viewMin.x - JSONViewer::textInset);
            ImGui::TextUnformatted(imgui::Fonts::current().displayText(said).c_str());
            ImGui::PopTextWrapPos();
            ImGui::PopStyleColor();
        }
    }
    ImGui::EndChild();
    ImGui::PopID();
}

void JSONViewerView::drawToolbar() {
    // As tall as the field beside it, so the glyph sits level with the field's text.
    imgui::SystemImage("magnifyingglass", ImVec2(ImGui::GetFontSize(), ImGui::GetFrameHeight()),
                       ImGui::GetColorU32(ImGuiCol_TextDisabled));
    ImGui::SameLine();
    const float wrapWidth = ImGui::CalcTextSize("Wrap").x + ImGui::GetFrameHeight() +
                            ImGui::GetStyle().ItemInnerSpacing.x;
    const float countWidth = ImGui::CalcTextSize("0000000 lines").x;
    const float clearWidth = ImGui::GetFrameHeight();
    const ImGuiStyle& imStyle = ImGui::GetStyle();
    ImGui::SetNextItemWidth(std::max(80.0f, ImGui::GetContentRegionAvail().x - wrapWidth -
                                                countWidth - clearWidth -
                                                3 * imStyle.ItemSpacing.x));
    const std::string before = search_;
    ImGui::InputTextWithHint("##search", "Search", &search_);
    imgui::probeItem("json.search", ImGui::GetItemRectMin(), ImGui::GetItemRectMax());
    const bool enter = ImGui::IsItemFocused() && (ImGui::IsKeyPressed(ImGuiKey_Enter) ||
                                                  ImGui::IsKeyPressed(ImGuiKey_KeyPadEnter));
    if (search_ != before) searchEditedAt_ = ImGui::GetTime();
    if (enter) {
        if (search_ == searched_)
            scrollToNextHit();
        else
            runSearch();
    } else if (searchEditedAt_ >= 0 && ImGui::GetTime() - searchEditedAt_ >= kSearchPause) {
        runSearch();
    }
    ImGui::SameLine();
    if (!search_.empty()) {
        if (imgui::SystemImageButton("json.clearSearch", "xmark.circle.fill",
                                     ImVec2(clearWidth, clearWidth),
                                     ImGui::GetColorU32(ImGuiCol_TextDisabled))) {
            search_.clear();
            runSearch();
        }
    } else {
        ImGui::Dummy(ImVec2(clearWidth, clearWidth));
    }
    ImGui::SameLine();
    if (searched_.empty() || shared_->pending) {
        ImGui::Dummy(ImVec2(countWidth, ImGui::GetFrameHeight()));
    } else {
        const std::size_t hits = model_->searchResultIndex().size();
        const std::string count = hits == 0   ? "No match"
                                  : hits == 1 ? "1 line"
                                              : std::to_string(hits) + " lines";
        ImGui::AlignTextToFramePadding();
        ImGui::TextDisabled("%s", count.c_str());
    }
    ImGui::SameLine(
        std::max(ImGui::GetCursorPosX(), ImGui::GetWindowContentRegionMax().x - wrapWidth));
    ImGui::Checkbox("Wrap", &settings.automaticWrapEnabled);
}

void JSONViewerView::search(std::string text) {
    search_ = std::move(text);
    runSearch();
}

void JSONViewerView::runSearch() {
    searchEditedAt_ = -1;
    searched_ = search_;
    nextHit_ = 0;
    if (searched_.empty()) {
        model_->removeSearchStyle();
        return;
    }
    std::weak_ptr<Shared> weak = shared_;
    model_->search(searched_, [weak](std::vector<int> hits, std::shared_ptr<JSONDecorator>) {
        if (auto s = weak.lock()) s->scrollToFirstHit = !hits.empty();
    });
}

void JSONViewerView::scrollToNextHit() {
    const std::vector<int>& hits = model_->searchResultIndex();
    const std::vector<int>& lines = model_->lineDataSource();
    for (std::size_t k = 0; k < hits.size(); ++k) {
        const std::size_t index = (nextHit_ + k) % hits.size();
        // The hit's line, if it is shown (a hit in a folded container has no row).
        const int lineNumber = hits[index] + 1;
        auto it = std::lower_bound(lines.begin(), lines.end(), lineNumber);
        if (it == lines.end() || *it != lineNumber) continue;
        const auto row = static_cast<std::size_t>(it - lines.begin());
        if (row >= scrollView_.rowCount()) return;
        scrollTo_ = scrollView_.top(row);
        nextHit_ = index + 1;
        return;
    }
}

void JSONViewerView::rebuildGeometry(float wrapWidth) {
    shared_->geometryDirty = false;
    geometryWrap_ = wrapWidth;
    const auto& decorator = model_->shownDecorator();
    const std::vector<int>& lines = model_->lineDataSource();
    std::vector<double> heights(lines.size());
    if (!decorator) {
        scrollView_.reset({});
        return;
    }
    const HighlightStyle& style = decorator->style();
    const double lineHeight = style.lineHeight * static_cast<double>(fonts_->scale());
    // Estimates until a row is measured: one line, or as many as its length fills at an
    // average advance when wrapping.
    const imgui::Fonts::Resolved font = fonts_->resolve(style.jsonFont);
    const double average =
        font.font ? font.font->GetCharAdvance('x') * font.size / font.font->FontSize : 8.0;
    const auto& slices = decorator->slices;
    for (std::size_t r = 0; r < lines.size(); ++r) {
        double h = lineHeight;
        if (wrapWidth > 0) {
            const auto index = static_cast<std::size_t>(lines[r] - 1);
            const double length =
                index < slices.size() ? static_cast<double>(slices[index].showContentLength()) : 0;
            h = lineHeight * std::max(1.0, std::ceil(length * average / wrapWidth));
        }
        heights[r] = h;
    }
    scrollView_.reset(std::move(heights));
}

void JSONViewerView::drawRows(const Frame& in) {
    Frame frame = in;
    const HighlightStyle& style = *frame.style;
    const float scale = fonts_->scale();
    const std::vector<int>& lines = model_->lineDataSource();

    // The line-number column fits the largest number.
    const imgui::Fonts::Resolved lineFont = fonts_->resolve(style.lineFont);
    if (settings.showLineNumbers && lineFont.font) {
        const std::string widest = std::to_string(lines.empty() ? 0 : lines.back());
        const float digits =
            lineFont.font->CalcTextSizeA(lineFont.size, FLT_MAX, 0, widest.c_str()).x;
        frame.columnWidth =
            std::max(static_cast<float>(JSONViewer::lineNumberColumnWidth) * scale, digits + 15);
    }
    const float viewWidth = frame.viewMax.x - frame.viewMin.x;
    const float viewHeight = frame.viewMax.y - frame.viewMin.y;
    const float textWidth = std::max(1.0f, viewWidth - frame.columnWidth);
    model_->setContentWidth(textWidth);
    const float inset = static_cast<float>(JSONViewer::textInset);
    if (model_->automaticWrapEnabled()) frame.wrap = std::max(1.0f, textWidth - 2 * inset);
    const float wrapKey = frame.wrap ? *frame.wrap : 0.0f;
    if (shared_->geometryDirty || wrapKey != geometryWrap_ ||
        scrollView_.rowCount() != lines.size())
        rebuildGeometry(wrapKey);

    if (shared_->scrollToTop) {
        shared_->scrollToTop = false;
        scrollTo_ = 0;
    }
    if (shared_->scrollToFirstHit) {
        shared_->scrollToFirstHit = false;
        nextHit_ = 0;
        scrollToNextHit();
    }
    if (scrollTo_) {
        frame.scrollY = std::clamp(*scrollTo_ - viewHeight / 3, 0.0,
                                   std::max(0.0, scrollView_.contentHeight() - viewHeight));
        if (*scrollTo_ == 0) frame.scrollY = 0;
        ImGui::SetScrollY(static_cast<float>(frame.scrollY));
        scrollTo_.reset();
    }

    // Measure the rows in view (the model caches what it measured). A row above the one that
    // was at the top may change height as it comes into view: the scroll position follows, so
    // the rows already seen stay where they were.
    auto measureVisible = [&] {
        std::size_t row = scrollView_.rowAt(frame.scrollY);
        frame.firstRow = row;
        for (; row < scrollView_.rowCount() && scrollView_.top(row) < frame.scrollY + viewHeight;
             ++row)
            scrollView_.setHeight(row, model_->getLineHeight(static_cast<int>(row)));
        frame.lastRow = row;
    };
    const std::size_t anchor = scrollView_.rowAt(frame.scrollY);
    const double anchorTop = scrollView_.top(anchor);
    measureVisible();
    const double shift = scrollView_.top(anchor) - anchorTop;
    if (std::abs(shift) > 0.5 && frame.scrollY > 0) {
        frame.scrollY += shift;
        ImGui::SetScrollY(static_cast<float>(frame.scrollY));
        measureVisible();
    }

    frame.textLeft = frame.viewMin.x + frame.columnWidth;
    frame.textOrigin = frame.textLeft + inset - static_cast<float>(frame.scrollX);
    frame.contentTop = frame.viewMin.y - static_cast<float>(frame.scrollY);

    ImDrawList* drawList = ImGui::GetWindowDrawList();
    drawList->PushClipRect(ImVec2(frame.textLeft, frame.viewMin.y), frame.viewMax, true);
    const ImVec4 clip(frame.textLeft, frame.viewMin.y, frame.viewMax.x, frame.viewMax.y);
    const TextStorage& shown = model_->shownText();
    for (std::size_t row = frame.firstRow; row < frame.lastRow; ++row) {
        const auto range = model_->rangeOfRow(static_cast<int>(row));
        if (!range) continue;
        const AttributedText line = shown.attributedSubstring(*range);
        const ImVec2 origin(frame.textOrigin,
                            frame.contentTop + static_cast<float>(scrollView_.top(row)));
        scrollView_.noteRowWidth(
            textView_->drawRow(drawList, line, origin, frame.wrap, clip, style));
        if (imgui::itemProbe()) {
            const std::string n = std::to_string(lines[row]);
            const ImVec2 max(frame.viewMax.x,
                             origin.y + static_cast<float>(scrollView_.height(row)));
            imgui::probeItem("json.row." + n, ImVec2(frame.textLeft, origin.y), max);
            // The fold or expand icon of a container's line.
            line.enumerateRuns([&](const AttributedText::Run& run) {
                if (!run.attributes.attachment) return;
                const auto position =
                    textView_->layout().positionOf(line, run.range.location, frame.wrap);
                if (!position) return;
                const auto& bounds = run.attributes.attachment->bounds;
                const ImVec2 min(origin.x + position->x, origin.y + position->y);
                imgui::probeItem("json." + run.attributes.attachment->image.name + "." + n, min,
                                 ImVec2(min.x + static_cast<float>(bounds.width) * scale,
                                        min.y + static_cast<float>(style.lineHeight) * scale));
            });
        }
    }
    drawList->PopClipRect();

    // The content's extent, for ImGui's scroll bars.
    const double contentWidth =
        frame.wrap ? viewWidth : frame.columnWidth + 2 * inset + scrollView_.widestRow();
    ImGui::SetCursorPos(ImVec2(0, 0));
    ImGui::Dummy(ImVec2(static_cast<float>(contentWidth),
                        static_cast<float>(std::max(scrollView_.contentHeight(), 1.0))));

    if (frame.columnWidth > 0) drawLineNumbers(frame, frame.firstRow, frame.lastRow);
    handleClick(frame);
    openContextMenu(frame);
}

void JSONViewerView::drawLineNumbers(const Frame& frame, std::size_t first, std::size_t last) {
    const HighlightStyle& style = *frame.style;
    ImDrawList* drawList = ImGui::GetWindowDrawList();
    const ImVec2 min = frame.viewMin;
    const ImVec2 max(frame.viewMin.x + frame.columnWidth, frame.viewMax.y);
    drawList->PushClipRect(min, max, true);
    drawList->AddRectFilled(min, max, imgui::toImU32(style.color.lineBackground));
    const imgui::Fonts::Resolved font = fonts_->resolve(style.lineFont);
    const ImU32 color = imgui::toImU32(style.color.lineText);
    const float lineHeight = static_cast<float>(style.lineHeight) * fonts_->scale();
    const std::vector<int>& lines = model_->lineDataSource();
    char number[16];
    for (std::size_t row = first; row < last && row < lines.size(); ++row) {
        const int n = std::snprintf(number, sizeof number, "%d", lines[row]);
        const float width = font.font->CalcTextSizeA(font.size, FLT_MAX, 0, number, number + n).x;
        const float top = frame.contentTop + static_cast<float>(scrollView_.top(row));
        const float firstLine = std::min(lineHeight, static_cast<float>(scrollView_.height(row)));
        drawList->AddText(font.font, font.size,
                          ImVec2(max.x - 10 - width, top + std::floor((firstLine - font.size) / 2)),
                          color, number, number + n);
    }
    drawList->PopClipRect();
    imgui::probeItem("json.lineNumbers", min, max);
}

void JSONViewerView::handleClick(const Frame& frame) {
    const ImVec2 mouse = ImGui::GetMousePos();
    const bool inText = mouse.x >= frame.textLeft && mouse.x < frame.viewMax.x &&
                        mouse.y >= frame.viewMin.y && mouse.y < frame.viewMax.y;
    if (!inText || !ImGui::IsWindowHovered()) return;
    const double y = mouse.y - frame.contentTop;
    if (y < 0 || y >= scrollView_.contentHeight()) return;
    const std::size_t row = scrollView_.rowAt(y);
    const auto range = model_->rangeOfRow(static_cast<int>(row));
    if (!range) return;
    const AttributedText line = model_->shownText().attributedSubstring(*range);
    const ImVec2 local(mouse.x - frame.textOrigin, static_cast<float>(y - scrollView_.top(row)));
    const auto at = textView_->characterAt(line, local, frame.wrap);
    if (!at) return;
    const TextAttributes& attributes = line.attributes(*at);
    const bool zoom = model_->isZoomControl(range->location + *at);
    if (zoom || attributes.link) ImGui::SetMouseCursor(ImGuiMouseCursor_Hand);
    if (!ImGui::IsMouseClicked(ImGuiMouseButton_Left)) return;
    if (zoom) {
        model_->textViewDidClickZoom(static_cast<int>(row));
        return;
    }
    if (!attributes.link) return;
    const std::string& link = *attributes.link;
    if (!model_->shouldInteractWith(link)) return;  // the delegate took it
    std::string url = link;
    if (auto valid = validURL(link))
        if (auto opening = valid->openingURL()) url = *opening;
    if (settings.openURL)
        settings.openURL(url);
    else
        printI("JSON viewer: no link opener is set; not opening " + url, LogLevel::info);
}

void JSONViewerView::openContextMenu(const Frame& frame) {
    const ImVec2 mouse = ImGui::GetMousePos();
    if (ImGui::IsWindowHovered() && ImGui::IsMouseClicked(ImGuiMouseButton_Right) &&
        mouse.x >= frame.viewMin.x && mouse.y >= frame.viewMin.y && mouse.y < frame.viewMax.y) {
        const double y = mouse.y - frame.contentTop;
        contextRow_ =
            y >= 0 && y < scrollView_.contentHeight() ? static_cast<int>(scrollView_.rowAt(y)) : -1;
        ImGui::OpenPopup("##jsonMenu");
    }
    if (!ImGui::BeginPopup("##jsonMenu")) return;
    if (ImGui::MenuItem("Copy Line", nullptr, false, contextRow_ >= 0))
        ImGui::SetClipboardText(plainLine(contextRow_).c_str());
    if (ImGui::MenuItem("Copy All"))
        ImGui::SetClipboardText(withoutIcons(model_->shownText().string()).c_str());
    ImGui::EndPopup();
}

std::string JSONViewerView::plainLine(int row) const {
    const auto range = model_->rangeOfRow(row);
    if (!range) return {};
    return withoutIcons(model_->shownText().attributedSubstring(*range).string());
}

}  // namespace kestro
