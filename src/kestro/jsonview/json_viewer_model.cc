#include "kestro/jsonview/json_viewer_model.h"

#include <algorithm>
#include <exception>

#include "kestro/core/console.h"
#include "kestro/core/main_queue.h"
#include "kestro/jsonview/valid_url.h"

namespace kestro {

namespace {

using State = JSONSlice::State;

std::size_t stateIndex(State s) { return s == State::expand ? 0 : 1; }

char32_t decodeAt(std::string_view s, std::size_t& i) {
    const auto b = static_cast<unsigned char>(s[i]);
    std::size_t len = b < 0x80 ? 1 : b >= 0xF0 ? 4 : b >= 0xE0 ? 3 : b >= 0xC0 ? 2 : 1;
    char32_t c = len == 1 ? b : len == 2 ? (b & 0x1F) : len == 3 ? (b & 0x0F) : (b & 0x07);
    if (len == 1 && b >= 0x80) {
        ++i;
        return 0xFFFD;
    }
    for (std::size_t k = 1; k < len; ++k) {
        if (i + k >= s.size()) {
            i = s.size();
            return 0xFFFD;
        }
        c = (c << 6) | (static_cast<unsigned char>(s[i + k]) & 0x3F);
    }
    i += len;
    return c;
}

std::size_t scalarStartBefore(std::string_view s, std::size_t pos) {
    while (pos > 0 && (static_cast<unsigned char>(s[pos]) & 0xC0) == 0x80) --pos;
    return pos;
}

}  // namespace

// ---- measuring ------------------------------------------------------------------------------

Size measureText(const AttributedText& text, std::optional<double> width,
                 std::optional<double> height) {
    const std::string_view s = text.string();
    const Font fallbackFont = Font::system(16);
    double usedWidth = 0;
    double totalHeight = 0;
    double x = 0;
    double lineHeight = 0;
    bool lineOpen = false;
    auto endLine = [&] {
        usedWidth = std::max(usedWidth, x);
        totalHeight += lineHeight > 0 ? lineHeight : fallbackFont.lineHeight();
        x = 0;
        lineHeight = 0;
        lineOpen = false;
    };
    const double limit = width ? std::max(*width, 1.0) : 0;
    text.enumerateRuns([&](const AttributedText::Run& run) {
        const Font& font = run.attributes.font ? *run.attributes.font : fallbackFont;
        const double runLineHeight = run.attributes.paragraphStyle
                                         ? run.attributes.paragraphStyle->lineHeight(font)
                                         : font.lineHeight();
        std::size_t i = run.range.location;
        const std::size_t end = run.range.end();
        while (i < end) {
            const char32_t c = decodeAt(s, i);
            if (c == U'\n') {
                lineHeight = std::max(lineHeight, runLineHeight);
                endLine();
                continue;
            }
            const double advance = run.attributes.attachment
                                       ? run.attributes.attachment->bounds.width
                                       : font.advance(c);
            if (width && lineOpen && x + advance > limit) endLine();
            x += advance;
            lineHeight = std::max(lineHeight, runLineHeight);
            lineOpen = true;
        }
    });
    if (lineOpen || totalHeight == 0) endLine();
    if (height) totalHeight = std::min(totalHeight, *height);
    return {usedWidth, totalHeight};
}

// ---- AttributedStringSizeCalculator ---------------------------------------------------------

std::optional<double> AttributedStringSizeCalculator::height(int row, Orientation orientation,
                                                             State state) const {
    const auto& rows = cachedHeight_[static_cast<std::size_t>(orientation)];
    auto it = rows.find(row);
    if (it == rows.end()) return std::nullopt;
    return it->second[stateIndex(state)];
}

void AttributedStringSizeCalculator::cache(double height, int row, Orientation orientation,
                                           State state) {
    cachedHeight_[static_cast<std::size_t>(orientation)][row][stateIndex(state)] = height;
}

double AttributedStringSizeCalculator::calculateHeight(const JSONSlice& slice,
                                                       std::optional<double> width) const {
    const AttributedText& shown =
        slice.state == State::folded && slice.folded ? *slice.folded : slice.expand;
    return calculate(shown, width, std::nullopt).height;
}

Size AttributedStringSizeCalculator::calculate(const AttributedText& text,
                                               std::optional<double> width,
                                               std::optional<double> height) const {
    return measure_ ? measure_(text, width, height) : measureText(text, width, height);
}

void AttributedStringSizeCalculator::clearCachedHeight() {
    for (auto& rows : cachedHeight_) rows.clear();
}

void AttributedStringSizeCalculator::clearCachedHeights(int fromRow) {
    for (auto& rows : cachedHeight_)
        std::erase_if(rows, [&](const auto& e) { return e.first >= fromRow; });
}

std::size_t AttributedStringSizeCalculator::cachedCount() const {
    std::size_t n = 0;
    for (const auto& rows : cachedHeight_)
        for (const auto& [row, states] : rows) n += states[0].has_value() + states[1].has_value();
    return n;
}

// ---- delegate -------------------------------------------------------------------------------

bool JSONViewerDelegate::jsonViewerDidClickURL(JSONViewer&, const std::string&) { return true; }
void JSONViewerDelegate::jsonViewerDidChangeSliceState(JSONViewer&, const JSONSlice&,
                                                       const std::shared_ptr<JSONDecorator>&) {}

// ---- Fenwick --------------------------------------------------------------------------------

void JSONViewer::Fenwick::build(const std::vector<std::int64_t>& values) {
    values_ = values;
    tree_.assign(values.size() + 1, 0);
    for (std::size_t i = 1; i <= values.size(); ++i) {
        tree_[i] += values[i - 1];
        const std::size_t parent = i + (i & (~i + 1));
        if (parent <= values.size()) tree_[parent] += tree_[i];
    }
}

void JSONViewer::Fenwick::add(std::size_t index, std::int64_t delta) {
    if (delta == 0) return;
    values_[index] += delta;
    for (std::size_t i = index + 1; i < tree_.size(); i += i & (~i + 1)) tree_[i] += delta;
}

std::int64_t JSONViewer::Fenwick::prefix(std::size_t count) const {
    std::int64_t sum = 0;
    for (std::size_t i = std::min(count, values_.size()); i > 0; i -= i & (~i + 1)) sum += tree_[i];
    return sum;
}

// ---- JSONViewer -----------------------------------------------------------------------------

std::shared_ptr<JSONViewer> JSONViewer::create(bool automaticWrapEnabled) {
    return std::make_shared<JSONViewer>(automaticWrapEnabled);
}

JSONViewer::JSONViewer(bool automaticWrapEnabled)
    : highlightStyle_(HighlightStyle::default_()), automaticWrapEnabled_(automaticWrapEnabled) {}

void JSONViewer::preview(std::string json, State initialState, DecoratorCompletion completion) {
    std::weak_ptr<JSONViewer> weak = weak_from_this();
    postTask([weak, json = std::move(json), style = highlightStyle_, initialState,
              completion = std::move(completion)]() mutable {
        if (weak.expired()) return;
        std::shared_ptr<JSONDecorator> decorator;
        try {
            decorator = JSONDecorator::highlight(json, style, initialState, false);
        } catch (const std::exception& e) {
            printI(std::string("❌ JSON viewer: decorating failed: ") + e.what(), LogLevel::error);
        }
        MainQueue::shared().post(
            [weak, decorator = std::move(decorator), completion = std::move(completion)]() mutable {
                if (auto self = weak.lock())
                    self->setJSONDecorator(std::move(decorator), std::move(completion));
            });
    });
}

void JSONViewer::update(std::shared_ptr<JSONDecorator> decorator, DecoratorCompletion completion) {
    std::weak_ptr<JSONViewer> weak = weak_from_this();
    MainQueue::shared().post(
        [weak, decorator = std::move(decorator), completion = std::move(completion)]() mutable {
            if (auto self = weak.lock())
                self->setJSONDecorator(std::move(decorator), std::move(completion));
        });
}

void JSONViewer::setJSONDecorator(std::shared_ptr<JSONDecorator> decorator,
                                  DecoratorCompletion completion) {
    decorator_ = std::move(decorator);
    searchResultIndex_.clear();
    if (!decorator_) {
        if (completion) completion(nullptr);
        return;
    }
    assembleAndShow([decorator = decorator_, completion = std::move(completion)] {
        if (completion) completion(decorator);
    });
}

void JSONViewer::assembleAndShow(std::function<void()> afterShow) {
    // Assemble now (on the main queue, where slice states change) and show on the next turn of
    // the queue. A newer decorator set in between wins: the stale text is not shown.
    auto decorator = decorator_;
    std::shared_ptr<JSONDecorator::Assembly> assembly;
    try {
        assembly = std::make_shared<JSONDecorator::Assembly>(decorator->assemble());
    } catch (const std::exception& e) {
        // A document too large to lay out (beyond memory or AttributedText::maxLength): the
        // shown text stays as it was.
        printI(std::string("❌ JSON viewer: the document could not be laid out: ") + e.what(),
               LogLevel::error);
        if (afterShow) MainQueue::shared().post(std::move(afterShow));
        return;
    }
    std::weak_ptr<JSONViewer> weak = weak_from_this();
    MainQueue::shared().post([weak, decorator, assembly, afterShow = std::move(afterShow)] {
        auto self = weak.lock();
        if (!self) return;
        if (self->decorator_ == decorator) {
            self->shownText_.setText(assembly->attributedText);
            self->lineDataSource_ = std::move(assembly->lines);
            self->shownDecorator_ = decorator;
            self->rebuildIndexes();
            self->reloadTable();
        }
        if (afterShow) afterShow();
    });
}

void JSONViewer::rebuildIndexes() {
    const auto& slices = shownDecorator_->slices;
    std::vector<std::int64_t> bytes(slices.size());
    std::vector<std::int64_t> hidden(slices.size());
    for (std::size_t i = 0; i < slices.size(); ++i) {
        const bool visible = slices[i].foldedTimes == 0;
        bytes[i] = visible ? static_cast<std::int64_t>(slices[i].showContentLength()) + 1 : 0;
        hidden[i] = visible ? 0 : 1;
    }
    shownBytes_.build(bytes);
    hiddenLines_.build(hidden);
}

void JSONViewer::updateIndexes(std::size_t i) {
    const JSONSlice& s = shownDecorator_->slices[i];
    const bool visible = s.foldedTimes == 0;
    shownBytes_.set(i, visible ? static_cast<std::int64_t>(s.showContentLength()) + 1 : 0);
    hiddenLines_.set(i, visible ? 0 : 1);
}

void JSONViewer::reloadTable() {
    ++reloadCount_;
    if (events_.reloadTable) events_.reloadTable();
}

std::optional<std::size_t> JSONViewer::sliceIndex(int row) const {
    if (!decorator_ || decorator_ != shownDecorator_ || row < 0 ||
        static_cast<std::size_t>(row) >= lineDataSource_.size())
        return std::nullopt;
    const int n = lineDataSource_[static_cast<std::size_t>(row)];
    // Lines are numbered from 1 in slice order, so the hidden slices with a smaller line number
    // are the hidden slices before index n − 1.
    const auto hiddenBefore = hiddenLines_.prefix(static_cast<std::size_t>(std::max(n - 1, 0)));
    const std::size_t index =
        static_cast<std::size_t>(row) + static_cast<std::size_t>(hiddenBefore);
    if (index >= decorator_->slices.size()) return std::nullopt;
    return index;
}

void JSONViewer::textViewDidClickZoom(std::optional<int> row) {
    if (!decorator_) return;
    if (row) {
        if (auto index = sliceIndex(*row)) handleZoomClick(*index);
    }
    std::weak_ptr<JSONViewer> weak = weak_from_this();
    scrollSync_ = runOnMainAfter(std::chrono::milliseconds(10), [weak] {
        if (auto self = weak.lock())
            if (self->events_.syncScrollOffsets) self->events_.syncScrollOffsets();
    });
}

void JSONViewer::handleZoomClick(std::size_t sliceIndex) {
    // Folding edits the shown text in place, so it needs the text of the current decorator.
    if (!decorator_ || decorator_ != shownDecorator_ || sliceIndex >= decorator_->slices.size())
        return;
    if (decorator_->slices[sliceIndex].state == State::expand)
        handleExpandSliceDidClick(sliceIndex);
    else
        handleFoldedSliceDidClick(sliceIndex);
}

void JSONViewer::handleExpandSliceDidClick(std::size_t i) {
    auto& slices = decorator_->slices;
    JSONSlice& slice = slices[i];
    if (!slice.folded) return;
    const auto location = static_cast<std::size_t>(shownBytes_.prefix(i));
    slice.state = State::folded;
    std::size_t replaced = slice.expand.length();
    std::vector<int> noted;
    for (std::size_t j = i + 1; j < slices.size(); ++j) {
        JSONSlice& next = slices[j];
        if (next.level < slice.level) continue;
        if (next.foldedTimes++ == 0) {
            noted.push_back(next.lineNumber);
            replaced += 1 + next.showContentLength();
            updateIndexes(j);
        }
        if (next.level == slice.level) break;
    }
    updateIndexes(i);

    if (!noted.empty()) {
        // The noted numbers ascend. They are the rows right after the folded line, one block:
        // removed in one move. Otherwise, one compaction pass from the first.
        auto first =
            std::lower_bound(lineDataSource_.begin(), lineDataSource_.end(), noted.front());
        const auto count = static_cast<std::ptrdiff_t>(noted.size());
        if (lineDataSource_.end() - first >= count &&
            std::equal(noted.begin(), noted.end(), first)) {
            lineDataSource_.erase(first, first + count);
        } else {
            std::size_t k = 0;
            auto out = first;
            for (auto it = first; it != lineDataSource_.end(); ++it) {
                if (k < noted.size() && *it == noted[k]) {
                    ++k;
                    continue;
                }
                *out++ = *it;
            }
            lineDataSource_.erase(out, lineDataSource_.end());
        }
    }
    // The rows below the clicked one now show other lines: their cached heights go.
    calculator_.clearCachedHeights(static_cast<int>(i - hiddenLines_.prefix(i)) + 1);
    reloadTable();
    shownText_.replace({location, replaced}, *slice.folded);
    notifySliceChange(i);
}

void JSONViewer::handleFoldedSliceDidClick(std::size_t i) {
    auto& slices = decorator_->slices;
    JSONSlice& slice = slices[i];
    const auto location = static_cast<std::size_t>(shownBytes_.prefix(i));
    const std::size_t foldedLength = slice.folded ? slice.folded->length() : 0;
    slice.state = State::expand;
    const AttributedText& wrap = decorator_->wrapString();
    AttributedText buffer = slice.expand;
    buffer.append(wrap);
    std::vector<int> noted;
    for (std::size_t j = i + 1; j < slices.size(); ++j) {
        JSONSlice& next = slices[j];
        if (next.level < slice.level) continue;
        if (--next.foldedTimes == 0) {
            noted.push_back(next.lineNumber);
            if (const AttributedText* shown = next.showContent()) buffer.append(*shown);
            buffer.append(wrap);
            updateIndexes(j);
        }
        if (next.level == slice.level) break;
    }
    updateIndexes(i);

    if (!noted.empty()) {
        auto pos = std::upper_bound(lineDataSource_.begin(), lineDataSource_.end(), noted.front());
        if (pos == lineDataSource_.end() || noted.back() < *pos) {
            lineDataSource_.insert(pos, noted.begin(), noted.end());
        } else {
            std::vector<int> merged;
            merged.reserve(lineDataSource_.size() + noted.size());
            std::merge(lineDataSource_.begin(), lineDataSource_.end(), noted.begin(), noted.end(),
                       std::back_inserter(merged));
            lineDataSource_ = std::move(merged);
        }
    }
    calculator_.clearCachedHeights(static_cast<int>(i - hiddenLines_.prefix(i)) + 1);
    reloadTable();
    buffer.erase({buffer.length() - 1, 1});  // the last line feed stays in the text already
    shownText_.replace({location, foldedLength}, buffer);
    notifySliceChange(i);
}

void JSONViewer::notifySliceChange(std::size_t i) {
    if (auto delegate = delegate_.lock())
        delegate->jsonViewerDidChangeSliceState(*this, decorator_->slices[i], decorator_);
}

bool JSONViewer::isZoomControl(std::size_t bytePosition) const {
    if (bytePosition >= shownText_.length()) return false;
    // Look at a few characters around the tap in a small window of the shown text.
    const std::size_t from = bytePosition >= 16 ? bytePosition - 16 : 0;
    const AttributedText window = shownText_.attributedSubstring({from, 48});
    const std::string_view s = window.string();
    std::size_t at = scalarStartBefore(s, bytePosition - from);
    if (s[at] == '\n') return false;
    if (window.attributes(at).attachment) return true;
    std::vector<std::size_t> positions;
    if (at > 0) positions.push_back(scalarStartBefore(s, at - 1));
    positions.push_back(at);
    std::size_t next = at;
    for (int k = 0; k < 2 && next < s.size(); ++k) {
        decodeAt(s, next);
        if (next < s.size() && from + next < shownText_.length()) positions.push_back(next);
    }
    for (std::size_t p : positions)
        if (s[p] == '[' || s[p] == '{') return true;
    return false;
}

double JSONViewer::getLineHeight(int row) {
    if (!decorator_ || decorator_ != shownDecorator_ || row < 0 ||
        static_cast<std::size_t>(row) >= lineDataSource_.size())
        return 0;
    const std::size_t index =
        static_cast<std::size_t>(lineDataSource_[static_cast<std::size_t>(row)] - 1);
    if (index >= decorator_->slices.size()) return 0;
    const JSONSlice& slice = decorator_->slices[index];
    if (auto cached = calculator_.height(row, lastOrientation_, slice.state)) return *cached;
    std::optional<double> width;
    if (automaticWrapEnabled_ && contentWidth_) width = *contentWidth_ - 2 * textInset;
    const double h = calculator_.calculateHeight(slice, width);
    calculator_.cache(h, row, lastOrientation_, slice.state);
    return h;
}

std::optional<TextRange> JSONViewer::rangeOfRow(int row) const {
    auto index = sliceIndex(row);
    if (!index) return std::nullopt;
    const auto location = static_cast<std::size_t>(shownBytes_.prefix(*index));
    return TextRange{location, decorator_->slices[*index].showContentLength()};
}

bool JSONViewer::shouldInteractWith(std::string_view url) {
    auto delegate = delegate_.lock();
    if (!delegate) return true;
    auto link = validURL(url);
    if (!link) return true;
    auto opening = link->openingURL();
    if (!opening) return true;
    return delegate->jsonViewerDidClickURL(*this, *opening);
}

void JSONViewer::handleDeviceOrientationChange(DeviceOrientation orientation) {
    switch (orientation) {
        case DeviceOrientation::landscapeLeft:
        case DeviceOrientation::landscapeRight:
            lastOrientation_ = Orientation::landscape;
            break;
        case DeviceOrientation::portrait:
            lastOrientation_ = Orientation::portrait;
            break;
        default:
            return;
    }
    reloadTable();
}

void JSONViewer::setAutomaticWrapEnabled(bool enabled) {
    automaticWrapEnabled_ = enabled;
    if (lineDataSource_.empty()) return;
    calculator_.clearCachedHeight();
    if (events_.scrollToTop) events_.scrollToTop(shouldAnimateScrollToTopOnWrapModeChange);
    reloadTable();
}

void JSONViewer::setContentWidth(std::optional<double> width) {
    if (width == contentWidth_) return;
    contentWidth_ = width;
    if (!automaticWrapEnabled_ || lineDataSource_.empty()) return;
    calculator_.clearCachedHeight();
    reloadTable();
}

void JSONViewer::setHighlightStyle(HighlightStyle style) {
    highlightStyle_ = std::move(style);
    if (events_.styleChanged) events_.styleChanged(highlightStyle_);
}

void JSONViewer::setTextMeasure(TextMeasure measure) { calculator_.setMeasure(std::move(measure)); }

// ---- search ---------------------------------------------------------------------------------

bool JSONViewer::clearSearchAttributes() {
    if (searchResultIndex_.empty()) return false;
    const HighlightStyle& style = decorator_->style();
    auto clean = [&](AttributedText& text) {
        const TextRange whole{0, text.length()};
        text.removeAttribute(whole, AttributeKey::backgroundColor);
        if (style.isBoldedSearchResult) {
            TextAttributes font;
            font.font = style.jsonFont;
            text.addAttributes(whole, font);
        }
    };
    for (int index : searchResultIndex_) {
        if (index < 0 || static_cast<std::size_t>(index) >= decorator_->slices.size()) continue;
        JSONSlice& slice = decorator_->slices[static_cast<std::size_t>(index)];
        clean(slice.expand);
        if (slice.folded) clean(*slice.folded);
    }
    searchResultIndex_.clear();
    return true;
}

void JSONViewer::search(std::string_view text, SearchCompletion completion) {
    if (!decorator_) {
        if (completion) completion({}, nullptr);
        return;
    }
    const bool cleared = clearSearchAttributes();
    const HighlightStyle& style = decorator_->style();
    TextAttributes hit;
    hit.backgroundColor = style.color.searchHitBackground;
    hit.font = style.boldOfJSONFont();
    std::vector<int> results;
    auto& slices = decorator_->slices;
    for (std::size_t i = 0; i < slices.size(); ++i) {
        bool found = false;
        auto mark = [&](AttributedText& t) {
            for (const TextRange& r : t.findRanges(text)) {
                t.addAttributes(r, hit);
                found = true;
            }
        };
        mark(slices[i].expand);
        if (slices[i].folded) mark(*slices[i].folded);
        if (found) results.push_back(static_cast<int>(i));
    }
    if (results.empty()) {
        // Earlier highlighting was removed from the slices; show that.
        if (cleared) assembleAndShow({});
        if (completion) completion({}, decorator_);
        return;
    }
    searchResultIndex_ = results;
    assembleAndShow([results = std::move(results), decorator = decorator_,
                     completion = std::move(completion)]() mutable {
        if (completion) completion(std::move(results), decorator);
    });
}

void JSONViewer::removeSearchStyle(DecoratorCompletion completion) {
    if (!decorator_) {
        if (completion) completion(nullptr);
        return;
    }
    clearSearchAttributes();
    assembleAndShow([decorator = decorator_, completion = std::move(completion)] {
        if (completion) completion(decorator);
    });
}

}  // namespace kestro
