#pragma once

// The JSON viewer's logic, without any drawing: the shown document and its line list, folding
// and expanding in place, search highlighting, row heights with their cache, orientation and
// wrap mode, link-tap decisions and the delegate calls. A drawing layer shows shownText() and one
// line-number row per entry of lineDataSource(), forwards taps and size changes here, and
// repaints when told to reload.
//
// Threads: decoration (parsing and layout) runs on the global executor; everything else — every
// member function below, the delegate calls, the completions and the view events — runs on the
// main queue (MainQueue::shared()). Work in flight holds the viewer weakly: a viewer destroyed
// mid-decoration does nothing more.

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "kestro/core/executor.h"
#include "kestro/core/export.h"
#include "kestro/jsonview/attributed_text.h"
#include "kestro/jsonview/json_decorator.h"

namespace kestro {

class JSONViewer;

/// The orientation row heights are cached under.
enum class Orientation : std::uint8_t { landscape, portrait, unknow };

/// What the device reports; only landscape (either side) and portrait are taken.
enum class DeviceOrientation : std::uint8_t {
    unknown,
    portrait,
    portraitUpsideDown,
    landscapeLeft,
    landscapeRight,
    faceUp,
    faceDown,
};

struct KESTRO_API Size {
    double width = 0;
    double height = 0;
    friend bool operator==(const Size&, const Size&) = default;
};

/// Measures laid-out text. The drawing layer installs one backed by its fonts; the built-in one
/// uses the fonts' metrics: lines break at line feeds and, given a width, between characters
/// that would overflow it; each line is as tall as the tallest paragraph line height on it.
using TextMeasure = std::function<Size(const AttributedText& text, std::optional<double> width,
                                       std::optional<double> height)>;

/// The built-in measure.
KESTRO_API Size measureText(const AttributedText& text, std::optional<double> width,
                            std::optional<double> height);

/// Row heights, cached per orientation, row and slice state. Main queue.
class KESTRO_API AttributedStringSizeCalculator {
  public:
    AttributedStringSizeCalculator() = default;
    explicit AttributedStringSizeCalculator(TextMeasure measure) : measure_(std::move(measure)) {}

    std::optional<double> height(int row, Orientation orientation, JSONSlice::State state) const;
    void cache(double height, int row, Orientation orientation, JSONSlice::State state);
    /// The height of the slice's shown text (folded text when folded and present, else the
    /// expanded text) laid out at width (none: unlimited).
    double calculateHeight(const JSONSlice& slice, std::optional<double> width) const;
    Size calculate(const AttributedText& text, std::optional<double> width,
                   std::optional<double> height) const;
    void clearCachedHeight();
    /// Forgets the heights of rows from row on (every orientation and state).
    void clearCachedHeights(int fromRow);
    void setMeasure(TextMeasure measure) { measure_ = std::move(measure); }
    std::size_t cachedCount() const;

  private:
    using PerState = std::array<std::optional<double>, 2>;
    std::array<std::unordered_map<int, PerState>, 3> cachedHeight_;
    TextMeasure measure_;
};

/// Told about link taps and fold changes. Held weakly by the viewer. Main queue.
class KESTRO_API JSONViewerDelegate {
  public:
    virtual ~JSONViewerDelegate() = default;
    /// A link was tapped; return whether the platform should go on to open it itself.
    virtual bool jsonViewerDidClickURL(JSONViewer& viewer, const std::string& url);
    /// A container line was folded or expanded; slice is the line after the change.
    virtual void jsonViewerDidChangeSliceState(JSONViewer& viewer, const JSONSlice& slice,
                                               const std::shared_ptr<JSONDecorator>& decorator);
};

/// What the drawing layer must do when the model changes. Each is optional. Main queue.
struct KESTRO_API JSONViewerEvents {
    std::function<void()> reloadTable;                        // rows, texts or heights changed
    std::function<void(bool animated)> scrollToTop;           // after a wrap-mode change
    std::function<void(const HighlightStyle&)> styleChanged;  // re-colour the views
    std::function<void()> syncScrollOffsets;                  // shortly after a fold/expand tap
};

class KESTRO_API JSONViewer : public std::enable_shared_from_this<JSONViewer> {
  public:
    using DecoratorCompletion = std::function<void(std::shared_ptr<JSONDecorator>)>;
    using SearchCompletion =
        std::function<void(std::vector<int> sliceIndexes, std::shared_ptr<JSONDecorator>)>;

    /// Width of the line-number column, in points.
    static constexpr double lineNumberColumnWidth = 55;
    /// Left and right insets of the text inside its view, in points.
    static constexpr double textInset = 10;

    /// Any thread. The viewer is shared so that work in flight can hold it weakly.
    static std::shared_ptr<JSONViewer> create(bool automaticWrapEnabled = true);

    /// Decorates json on the global executor with the current style and shows it; completion
    /// gets the decorator (nothing if the text could not be decorated).
    void preview(std::string json, JSONSlice::State initialState = JSONSlice::State::expand,
                 DecoratorCompletion completion = {});
    /// Shows a decorator built elsewhere.
    void update(std::shared_ptr<JSONDecorator> decorator, DecoratorCompletion completion = {});
    /// Highlights every literal, case-sensitive occurrence of text in every line, shown or
    /// hidden; completion gets the indexes of the slices with hits.
    void search(std::string_view text, SearchCompletion completion = {});
    /// Removes the highlighting of the last search.
    void removeSearchStyle(DecoratorCompletion completion = {});

    /// A tap on a fold/expand control at a table row (none when the tap hit no row).
    void textViewDidClickZoom(std::optional<int> row);
    /// The slice index of a table row, counting the hidden lines before it.
    std::optional<std::size_t> sliceIndex(int row) const;
    /// Folds an expanded container line or expands a folded one, editing only the affected part
    /// of the shown text and of the line list.
    void handleZoomClick(std::size_t sliceIndex);
    /// Whether a tap on the character at bytePosition of the shown text hits a fold control:
    /// an icon, or a "[" or "{" among the previous, this and the next two characters.
    bool isZoomControl(std::size_t bytePosition) const;

    /// Height of a table row.
    double getLineHeight(int row);
    /// The byte range of a row's line in shownText() (without its line feed).
    std::optional<TextRange> rangeOfRow(int row) const;

    /// Whether the platform should open a tapped link itself; asks the delegate for links that
    /// pass the link test.
    bool shouldInteractWith(std::string_view url);

    void handleDeviceOrientationChange(DeviceOrientation orientation);
    Orientation lastOrientation() const { return lastOrientation_; }

    bool automaticWrapEnabled() const { return automaticWrapEnabled_; }
    void setAutomaticWrapEnabled(bool enabled);
    bool shouldAnimateScrollToTopOnWrapModeChange = true;
    /// Width of the scroll view's content; wrapped lines are measured at this width less the
    /// insets. Unset: unlimited. While wrapping, a change of width empties the height cache
    /// and reloads the table: wrapped heights depend on it.
    void setContentWidth(std::optional<double> width);
    std::optional<double> contentWidth() const { return contentWidth_; }

    const HighlightStyle& highlightStyle() const { return highlightStyle_; }
    /// Applies to the next preview; the views are re-coloured now.
    void setHighlightStyle(HighlightStyle style);

    void setDelegate(std::weak_ptr<JSONViewerDelegate> delegate) {
        delegate_ = std::move(delegate);
    }
    void setEvents(JSONViewerEvents events) { events_ = std::move(events); }
    void setTextMeasure(TextMeasure measure);

    const std::shared_ptr<JSONDecorator>& decorator() const { return decorator_; }
    /// The decorator whose document shownText() holds: decorator() once it is laid out and
    /// shown; another (or none) while it is pending or when it could not be laid out.
    const std::shared_ptr<JSONDecorator>& shownDecorator() const { return shownDecorator_; }
    const TextStorage& shownText() const { return shownText_; }
    const std::vector<int>& lineDataSource() const { return lineDataSource_; }
    const std::vector<int>& searchResultIndex() const { return searchResultIndex_; }
    const AttributedStringSizeCalculator& stringSizeCalculator() const { return calculator_; }
    /// How often the table was told to reload.
    std::uint64_t reloadCount() const { return reloadCount_; }

    explicit JSONViewer(bool automaticWrapEnabled);  // use create()

  private:
    // Prefix sums over slices with point updates.
    class Fenwick {
      public:
        void build(const std::vector<std::int64_t>& values);
        void add(std::size_t index, std::int64_t delta);
        std::int64_t prefix(std::size_t count) const;  // sum of [0, count)
        std::int64_t value(std::size_t index) const { return values_[index]; }
        void set(std::size_t index, std::int64_t v) { add(index, v - values_[index]); }

      private:
        std::vector<std::int64_t> tree_;
        std::vector<std::int64_t> values_;
    };

    void setJSONDecorator(std::shared_ptr<JSONDecorator> decorator, DecoratorCompletion completion);
    void assembleAndShow(std::function<void()> afterShow);
    void rebuildIndexes();
    void updateIndexes(std::size_t sliceIndex);
    void handleExpandSliceDidClick(std::size_t sliceIndex);
    void handleFoldedSliceDidClick(std::size_t sliceIndex);
    bool clearSearchAttributes();
    void reloadTable();
    void notifySliceChange(std::size_t sliceIndex);

    std::shared_ptr<JSONDecorator> decorator_;
    std::shared_ptr<JSONDecorator> shownDecorator_;  // the decorator shownText_ belongs to
    TextStorage shownText_;
    std::vector<int> lineDataSource_;
    std::vector<int> searchResultIndex_;
    Fenwick shownBytes_;   // per slice: shown length + 1 when visible, else 0
    Fenwick hiddenLines_;  // per slice: 1 when hidden
    AttributedStringSizeCalculator calculator_;
    HighlightStyle highlightStyle_;
    bool automaticWrapEnabled_;
    std::optional<double> contentWidth_;
    Orientation lastOrientation_ = Orientation::unknow;
    std::weak_ptr<JSONViewerDelegate> delegate_;
    JSONViewerEvents events_;
    std::uint64_t reloadCount_ = 0;
    DelayedTask scrollSync_;
};

}  // namespace kestro
