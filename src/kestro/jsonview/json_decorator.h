#pragma once

// The JSON decorator: lays a JSON text out as highlighted, foldable lines.
//
// The text is read with the tolerant parser (broken input becomes "wrong" and "unknown" text,
// painted in the unknown style), pretty-printed with one tab per nesting level, coloured by
// token kind, and cut into one JSONSlice per displayed line. Every line that opens an array or
// object carries a fold icon and has a one-line placeholder form. assemble() builds the visible
// document from the slices and their fold states.
//
// Ownership and threads: a decorator is made once per document (highlight() may run on any
// thread), then handed to one owner (the viewer), which changes slice states on its own thread.
// The lazily built styles and icon strings may be read from any thread; layout (highlight,
// createSlices) uses the decorator's running indentation, so one decorator lays out one text at
// a time.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kestro/core/export.h"
#include "kestro/jsonview/attributed_text.h"
#include "kestro/jsonview/block_cache.h"
#include "kestro/jsonview/highlight_style.h"
#include "kestro/jsonview/valid_url.h"

namespace kestro {

class JSONValue;
struct JSONObjectKey;

/// An optional attributed text kept out of line. Only lines that open a container have a
/// folded form, so the other lines (most of a document) pay one pointer for it instead of a
/// whole empty text. Reads like std::optional<AttributedText>.
class KESTRO_API OptionalAttributedText {
  public:
    OptionalAttributedText() noexcept = default;
    OptionalAttributedText(std::nullopt_t) noexcept {}  // NOLINT: implicit, as optional's
    OptionalAttributedText(AttributedText text) { emplace(std::move(text)); }  // NOLINT
    OptionalAttributedText(const OptionalAttributedText& other) {
        if (other) emplace(*other);
    }
    OptionalAttributedText(OptionalAttributedText&& other) noexcept
        : text_(std::exchange(other.text_, nullptr)) {}
    OptionalAttributedText& operator=(const OptionalAttributedText& other) {
        if (this != &other) {
            if (other)
                *this = *other;
            else
                reset();
        }
        return *this;
    }
    OptionalAttributedText& operator=(OptionalAttributedText&& other) noexcept {
        if (this != &other) {
            reset();
            text_ = std::exchange(other.text_, nullptr);
        }
        return *this;
    }
    OptionalAttributedText& operator=(AttributedText text) {
        if (text_)
            *text_ = std::move(text);
        else
            emplace(std::move(text));
        return *this;
    }
    OptionalAttributedText& operator=(std::nullopt_t) noexcept {
        reset();
        return *this;
    }
    ~OptionalAttributedText() { reset(); }

    bool has_value() const noexcept { return text_ != nullptr; }
    explicit operator bool() const noexcept { return text_ != nullptr; }
    const AttributedText& operator*() const { return *text_; }
    AttributedText& operator*() { return *text_; }
    const AttributedText* operator->() const { return text_; }
    AttributedText* operator->() { return text_; }

    /// Makes the text from args in place.
    template <typename... Args>
    AttributedText& emplace(Args&&... args) {
        reset();
        void* block = jsonview::internal::allocateBlock(sizeof(AttributedText));
        try {
            text_ = new (block) AttributedText(std::forward<Args>(args)...);
        } catch (...) {
            jsonview::internal::freeBlock(block, sizeof(AttributedText));
            throw;
        }
        return *text_;
    }
    void reset() noexcept {
        if (!text_) return;
        text_->~AttributedText();
        jsonview::internal::freeBlock(text_, sizeof(AttributedText));
        text_ = nullptr;
    }

  private:
    AttributedText* text_ = nullptr;
};

/// One displayed line.
struct KESTRO_API JSONSlice {
    enum class State : std::uint8_t { expand, folded };

    int lineNumber = 0;  // 1-based position in the decorator's slices; the shown line number
    State state = State::expand;
    int level = 0;                  // nesting level; an opening line and its closing line share it
    AttributedText expand;          // the line when expanded
    OptionalAttributedText folded;  // the placeholder; only on lines opening a container
    int foldedTimes = 0;            // folded containers enclosing the line; visible exactly when 0

    JSONSlice(int lineNumber, State state, int level, AttributedText expand,
              OptionalAttributedText folded = std::nullopt, int foldedTimes = 0);
    /// From plain texts, each paired with its attributes.
    JSONSlice(int lineNumber, State state, int level, std::string expand,
              AttributesRef expandAttributes,
              std::optional<std::pair<std::string, AttributesRef>> folded, int foldedTimes = 0);

    /// The text shown for the current state: the folded text when folded (nullptr when the
    /// line has none), else the expanded text.
    const AttributedText* showContent() const;
    /// Byte length of showContent() (0 when there is none).
    std::size_t showContentLength() const;
};

class KESTRO_API JSONDecorator {
  public:
    using State = JSONSlice::State;

    /// The visible document: its text (every line ends with a line feed) and the line numbers
    /// of its lines, in order.
    struct Assembly {
        AttributedText attributedText;
        std::vector<int> lines;
    };

    JSONDecorator(HighlightStyle style, State initialState);
    ~JSONDecorator();
    JSONDecorator(const JSONDecorator&) = delete;
    JSONDecorator& operator=(const JSONDecorator&) = delete;

    /// Decorates json. Ill-formed UTF-8 is repaired first (each ill-formed sequence becomes one
    /// U+FFFD), so any text is shown, broken parts as unknown text. Returns nothing only when
    /// judgmentValid is set and a strict JSON reader rejects the repaired text (it must be an
    /// array or object). Any thread.
    static std::shared_ptr<JSONDecorator> highlight(
        std::string_view json, const HighlightStyle& style = HighlightStyle::default_(),
        State initialState = State::expand, bool judgmentValid = false);

    /// Lays out another text (repaired as highlight() does) with this decorator's style and
    /// initial state, without storing the slices.
    std::vector<JSONSlice> createSlices(std::string_view json);
    /// The slices of an already parsed value.
    std::vector<JSONSlice> createSlices(const JSONValue& value);

    /// The visible document for the current slice states.
    Assembly assemble() const;

    const HighlightStyle& style() const { return style_; }
    State initialState() const { return initialState_; }
    /// The nesting level while slices are being built; 0 otherwise.
    int indent() const { return indent_; }

    /// The laid-out document. Its owner changes states and foldedTimes in place.
    std::vector<JSONSlice> slices;

    // Styles and icon strings, built on first use and shared by every line.
    const AttributesRef& startStyle() const;
    const AttributesRef& keyWordStyle() const;
    const AttributesRef& keyStyle() const;
    const AttributesRef& linkStyle() const;
    const AttributesRef& stringStyle() const;
    const AttributesRef& numberStyle() const;
    const AttributesRef& boolStyle() const;
    const AttributesRef& nullStyle() const;
    const AttributesRef& placeholderStyle() const;
    const AttributesRef& unknownStyle() const;
    const AttributedText& expandIconString() const;
    const AttributedText& foldIconString() const;
    const AttributedText& wrapString() const;

    /// The JSON font, the line-height paragraph metrics and baseline offset, the given
    /// foreground (if any), then every attribute of other.
    TextAttributes createStyle(std::optional<Color> foregroundColor,
                               const TextAttributes& other = {}) const;
    /// One tab per level of indent().
    std::string writeIndent() const;

  private:
    struct IsNeed {
        bool indent = false;
        bool comma = false;
    };
    struct Styles;
    // A style's position in the table of attribute sets every line shares.
    enum class Slot : std::uint8_t;
    // Bytes and runs of laid-out lines, each with its line feed.
    struct Totals {
        std::size_t bytes = 0;
        std::size_t runs = 0;
        std::size_t lines = 0;
    };

    std::vector<JSONSlice> createSlices(const JSONValue& value, std::string_view json);

    // Once built, the styles are one load away: layout asks for them for every piece.
    const Styles& styles() const {
        if (const Styles* built = builtStyles_.load(std::memory_order_acquire)) return *built;
        return buildStyles();
    }
    const Styles& buildStyles() const;
    // A new, empty line at the end of out, at the current indentation, sharing the styles' table
    // of attribute sets; the caller fills it in place. Counts the line before it into laidOut_.
    JSONSlice& addLine(std::vector<JSONSlice>& out, int lineNumber, State state, int foldedTimes);
    void countLine(const JSONSlice& slice);
    void processJSONValueRecursively(const JSONValue& value, int currentSlicesCount, IsNeed isNeed,
                                     int foldedTimes, std::vector<JSONSlice>& out);
    // Containers that are an object's member value get the member's key on their opening line.
    void processArrayValue(const JSONValue& value, int currentSlicesCount, IsNeed isNeed,
                           int foldedTimes, std::vector<JSONSlice>& out,
                           const JSONObjectKey* key = nullptr);
    void processObjectValue(const JSONValue& value, int currentSlicesCount, IsNeed isNeed,
                            int foldedTimes, std::vector<JSONSlice>& out,
                            const JSONObjectKey* key = nullptr);
    void processScalarValue(const JSONValue& value, int currentSlicesCount, IsNeed isNeed,
                            int foldedTimes, std::vector<JSONSlice>& out);
    // Appends a scalar's text (after the indentation when isNeed.indent), its link, comma and
    // wrong text to line.
    void appendScalar(AttributedText& line, const JSONValue& value, IsNeed isNeed) const;
    // Appends text in a style.
    void put(AttributedText& line, std::string_view text, Slot style) const;
    void appendIndent(AttributedText& line, Slot style) const;
    // The indentation and the quoted key in the key style.
    void appendKey(AttributedText& line, std::string_view key) const;
    void processUnknownValue(const JSONValue& value, int currentSlicesCount, IsNeed isNeed,
                             int foldedTimes, std::vector<JSONSlice>& out);
    // Writes the opening line of a container into slice: expanded and folded, each after the
    // key and " : " when key is given, else after the indentation when isNeed.indent.
    void createStartAttribute(JSONSlice& slice, std::string_view expand, std::string_view fold,
                              IsNeed isNeed, const JSONObjectKey* key) const;
    // The closing line of a container.
    void createEndAttribute(AttributedText& line, std::string_view bracket, bool isNeedComma) const;
    AttributedText createIconAttributedString(const Image& image) const;
    int childFoldedTimes(int foldedTimes) const {
        return initialState_ == State::folded ? foldedTimes + 1 : 0;
    }

    HighlightStyle style_;
    State initialState_;
    int indent_ = 0;
    mutable std::once_flag stylesOnce_;
    mutable std::unique_ptr<Styles> styles_;
    mutable std::atomic<const Styles*> builtStyles_{nullptr};  // styles_ once built
    Totals laidOut_;  // of the layout in progress or the last one
    Totals hint_;     // of slices as highlight() laid them out: what assemble() reserves
};

}  // namespace kestro
