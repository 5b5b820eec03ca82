#pragma once

// Kestro's attributed text: UTF-8 text with attribute runs (font, colours, paragraph metrics,
// baseline offset, link, underline) and inline image attachments, plus the descriptors those
// attributes refer to (Color, Font, Image, ParagraphStyle).
//
// AttributedText keeps its text contiguous and is meant for line-sized texts; TextStorage holds a
// long document in chunks so that replacing a range costs in proportion to the range, not to the
// document.
//
// Positions are byte offsets into the UTF-8 text unless a name says UTF-16. The UTF-16 helpers
// count as a UTF-16 string of the same text would (one unit per scalar below U+10000, two
// above), for callers that exchange positions with UTF-16 based code.
//
// Thread safety: these are plain values. A value may be read from several threads at once; a
// value that is being changed must not be used by any other thread. Attribute sets are immutable
// and shared between runs and between texts (copying a text never copies its attribute sets).

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kestro/core/export.h"
#include "kestro/jsonview/block_cache.h"

namespace kestro {

/// An RGBA colour, each component in 0…1.
struct KESTRO_API Color {
    double red = 0;
    double green = 0;
    double blue = 0;
    double alpha = 1;

    /// The colour of a 24-bit 0xRRGGBB value, opaque.
    static Color rgb24(std::uint32_t rgb);
    static Color black() { return {0, 0, 0, 1}; }
    static Color white() { return {1, 1, 1, 1}; }
    static Color gray() { return {0.5, 0.5, 0.5, 1}; }
    static Color orange() { return {1, 0.5, 0, 1}; }
    static Color systemPink() { return rgb24(0xFF2D55); }
    static Color clear() { return {0, 0, 0, 0}; }

    /// The colour as 0xAARRGGBB with each component rounded to 8 bits.
    std::uint32_t argb32() const;

    friend bool operator==(const Color&, const Color&) = default;
};

/// A font description with the metrics text layout needs. Metrics are in points and scale with
/// the size; the descender is negative (below the baseline). Fonts are looked up by family name
/// among the registered families ("sans" and "monospace" are always there); a drawing layer maps
/// a description to the fonts it actually renders with.
class KESTRO_API Font {
  public:
    /// The metrics of a family at size 1.
    struct Family {
        std::string name;
        double ascender = 0.95;
        double descender = -0.24;
        double lineGap = 0;
        double averageAdvance =
            0.55;  // mean advance of a character, for measuring without a renderer
        bool hasBold = true;
        bool monospaced = false;
    };

    /// A font of a registered family, or nothing if the family is unknown.
    static std::optional<Font> named(std::string_view family, double size);
    /// The default proportional font ("sans").
    static Font system(double size);
    /// The default fixed-pitch font ("monospace").
    static Font monospacedSystem(double size);
    /// Adds or replaces a family. Any thread.
    static void registerFamily(Family family);

    const std::string& family() const { return family_->name; }
    double size() const { return size_; }
    bool isBold() const { return bold_; }
    bool isMonospaced() const { return family_->monospaced; }
    double ascender() const { return family_->ascender * size_; }
    double descender() const { return family_->descender * size_; }
    /// Distance between two baselines: ascender − descender + line gap.
    double lineHeight() const;
    /// Advance of one character of the given scalar, as an estimate from the family's metrics
    /// (wide East Asian characters count twice, combining marks not at all).
    double advance(char32_t scalar) const;

    /// The bold variant at the same size, or nothing if the family has none.
    std::optional<Font> boldVariant() const;

    friend KESTRO_API bool operator==(const Font& a, const Font& b);

  private:
    Font(std::shared_ptr<const Family> family, double size, bool bold)
        : family_(std::move(family)), size_(size), bold_(bold) {}

    std::shared_ptr<const Family> family_;
    double size_ = 0;
    bool bold_ = false;
};

/// A named image with its natural size in points. Images are looked up by name among the
/// registered ones ("expand" and "fold", the viewer's icons, are always there); the drawing layer
/// decides how a name is painted.
struct KESTRO_API Image {
    std::string name;
    double width = 0;
    double height = 0;

    /// The registered image of that name, or nothing.
    static std::optional<Image> named(std::string_view name);
    /// Adds or replaces an image. Any thread.
    static void registerNamed(Image image);

    friend bool operator==(const Image&, const Image&) = default;
};

struct KESTRO_API Rect {
    double x = 0;
    double y = 0;
    double width = 0;
    double height = 0;
    friend bool operator==(const Rect&, const Rect&) = default;
};

/// An inline image: drawn in place of one character, its bounds relative to the baseline.
struct KESTRO_API TextAttachment {
    Image image;
    Rect bounds;
    friend bool operator==(const TextAttachment&, const TextAttachment&) = default;
};

enum class TextAlignment : std::uint8_t { natural, left, center, right, justified };

/// Paragraph metrics. A line height of 0 means "the font's own".
struct KESTRO_API ParagraphStyle {
    double lineHeightMultiple = 0;
    double minimumLineHeight = 0;
    double maximumLineHeight = 0;
    double lineSpacing = 0;
    double paragraphSpacing = 0;
    double paragraphSpacingBefore = 0;
    double firstLineHeadIndent = 0;
    double headIndent = 0;
    double tailIndent = 0;
    float hyphenationFactor = 0;  // 0: no hyphenation
    TextAlignment alignment = TextAlignment::natural;

    /// The height of one laid-out line of text set in font.
    double lineHeight(const Font& font) const;

    friend bool operator==(const ParagraphStyle&, const ParagraphStyle&) = default;
};

enum class UnderlineStyle : std::uint8_t { single = 1, thick = 2, double_ = 9 };

/// The attribute keys, for removing one attribute over a range.
enum class AttributeKey : std::uint8_t {
    font,
    foregroundColor,
    backgroundColor,
    paragraphStyle,
    baselineOffset,
    link,
    underlineStyle,
    attachment,
};

/// The attributes of a run; an absent field means "not set".
struct KESTRO_API TextAttributes {
    std::optional<Font> font;
    std::optional<Color> foregroundColor;
    std::optional<Color> backgroundColor;
    std::optional<ParagraphStyle> paragraphStyle;
    std::optional<double> baselineOffset;
    std::optional<std::string> link;
    std::optional<UnderlineStyle> underlineStyle;
    std::optional<TextAttachment> attachment;

    bool empty() const;
    /// Sets every field that other sets (other's value wins).
    void merge(const TextAttributes& other);
    void remove(AttributeKey key);

    friend KESTRO_API bool operator==(const TextAttributes& a, const TextAttributes& b);
};

/// An immutable, shared attribute set. nullptr stands for "no attributes".
using AttributesRef = std::shared_ptr<const TextAttributes>;

KESTRO_API AttributesRef makeAttributes(TextAttributes attributes);

/// A range of positions: [location, location + length).
struct KESTRO_API TextRange {
    std::size_t location = 0;
    std::size_t length = 0;
    std::size_t end() const { return location + length; }
    friend bool operator==(const TextRange&, const TextRange&) = default;
};

/// The character an attachment stands on: U+FFFC OBJECT REPLACEMENT CHARACTER.
inline constexpr std::string_view kAttachmentCharacter = "\xEF\xBF\xBC";

class AttributedText;

namespace jsonview::internal {
/// An empty text whose table of attribute sets already holds sets, in order (nullptr skipped).
/// Copies of it, and texts built from those copies with these sets, share one table, so that
/// appending one such text to another copies plain offsets.
AttributedText textWithAttributeTable(std::initializer_list<AttributesRef> sets);
class TableWriter;
struct WritableTable;
WritableTable writableTable(const AttributedText& model, const AttributesRef* sets,
                            std::size_t count);
}  // namespace jsonview::internal

/// Text with attribute runs. Runs cover the whole text; neighbouring runs always differ in
/// their attributes (equal neighbours are merged by every operation).
///
/// Storage: a text's runs and bytes share one buffer, kept inside the object while they fit
/// (about a short line's worth) and on the heap beyond that. Runs name their attribute sets
/// through a table of sets that copies of a text, and texts built from them, share; appending a
/// text that uses the same table copies plain offsets. A text is at most maxLength bytes long;
/// going past that throws std::length_error, as std::string does past its max_size().
class KESTRO_API AttributedText {
  public:
    /// One run as enumerated: its byte range and its attributes (an empty set where none).
    struct Run {
        TextRange range;
        const TextAttributes& attributes;
        const AttributesRef& ref;  // nullptr where none
    };

    /// The longest text, in bytes.
    static constexpr std::size_t maxLength = 0xFFFFFFFEu;

    AttributedText() noexcept = default;
    explicit AttributedText(std::string_view text, AttributesRef attributes = nullptr);
    AttributedText(std::string_view text, const TextAttributes& attributes);
    /// One attachment character carrying the attachment and nothing else.
    static AttributedText attachment(TextAttachment attachment);

    /// Copies share the table of attribute sets, even copies of an empty text.
    AttributedText(const AttributedText& other);
    AttributedText(AttributedText&& other) noexcept;
    AttributedText& operator=(const AttributedText& other);
    AttributedText& operator=(AttributedText&& other) noexcept;
    ~AttributedText();

    std::string_view string() const { return {chars(), size_}; }
    /// Length in bytes.
    std::size_t length() const { return size_; }
    bool empty() const { return size_ == 0; }
    /// Length in UTF-16 units.
    std::size_t utf16Length() const;

    void append(const AttributedText& other);
    /// Reserves room for bytes of text and runs runs.
    void reserve(std::size_t bytes, std::size_t runs = 0) {
        if (bytes <= capacity_ && runs <= runCapacity_) return;
        if (size_ == 0 && runs * sizeof(RunEntry) + bytes <= kInlineBytes && !onHeap()) {
            // An empty inline text: only the boundary between runs and text moves.
            runCapacity_ = static_cast<std::uint32_t>(runs);
            capacity_ = static_cast<std::uint32_t>(kInlineBytes - runs * sizeof(RunEntry));
            return;
        }
        grow(bytes, runs, true);
    }
    void append(std::string_view text, const AttributesRef& attributes);
    void insert(std::size_t position, const AttributedText& other);
    /// Replaces the bytes of range (clamped to the text) with replacement.
    void replace(TextRange range, const AttributedText& replacement);
    void erase(TextRange range);
    /// Empties the text. Its storage and its table of attribute sets stay, so that refilling it
    /// with the same attributes allocates nothing.
    void clear();
    AttributedText substring(TextRange range) const;

    /// Gives the range exactly these attributes.
    void setAttributes(TextRange range, const AttributesRef& attributes);
    /// Sets, over the range, every attribute that attributes sets; others stay.
    void addAttributes(TextRange range, const TextAttributes& attributes);
    void removeAttribute(TextRange range, AttributeKey key);

    /// The attributes at a byte position (an empty set past the end); effective, if given,
    /// receives the range of the run.
    const TextAttributes& attributes(std::size_t position, TextRange* effective = nullptr) const;
    const AttributesRef& attributesRef(std::size_t position) const;

    /// Calls f for every run that overlaps range, clipped to it, in order.
    void enumerateRuns(TextRange range, const std::function<void(const Run&)>& f) const;
    void enumerateRuns(const std::function<void(const Run&)>& f) const {
        enumerateRuns({0, size_}, f);
    }
    std::size_t runCount() const { return runCount_; }

    /// UTF-16 position of a byte position (clamped to the text).
    std::size_t utf16Offset(std::size_t bytePosition) const;
    /// Byte position of a UTF-16 position (clamped; a position inside a surrogate pair gives the
    /// start of its scalar).
    std::size_t byteOffset(std::size_t utf16Position) const;
    TextRange utf16Range(TextRange byteRange) const;
    TextRange byteRange(TextRange utf16Range) const;

    /// Every non-overlapping literal, case-sensitive occurrence of needle, searched left to
    /// right, in UTF-16 units. An empty needle finds nothing.
    std::vector<TextRange> findNSRanges(std::string_view needle) const;
    /// The same in bytes.
    std::vector<TextRange> findRanges(std::string_view needle) const;

    /// Same text and, position by position, equal attributes.
    friend KESTRO_API bool operator==(const AttributedText& a, const AttributedText& b);

  private:
    friend AttributedText jsonview::internal::textWithAttributeTable(
        std::initializer_list<AttributesRef> sets);
    friend class jsonview::internal::TableWriter;
    friend jsonview::internal::WritableTable jsonview::internal::writableTable(
        const AttributedText& model, const AttributesRef* sets, std::size_t count);

    // A run: its first byte and its attribute set as an index into the table.
    struct RunEntry {
        std::uint32_t start;
        std::uint32_t attributes;
    };
    // The table of attribute sets runs refer to. Shared between texts and never changed while
    // shared; a text that needs another set copies the table first (attributed_text.cc).
    struct AttributeTable;
    class TableMapping;

    // The index of "no attributes"; it needs no table entry.
    static constexpr std::uint32_t kNoAttributes = 0xFFFFFFFFu;
    // Bytes of runs and text kept inside the object: a typical line of a decorated document
    // (indentation, a value, a comma; two or three runs) fits.
    static constexpr std::size_t kInlineBytes = 56;
    static constexpr std::uint32_t kInlineRuns = 2;

    // Runs take the first runCapacity_ entries of the buffer, the text the capacity_ bytes after
    // them. The buffer is the inline one exactly while both fit in it.
    bool onHeap() const { return runCapacity_ * sizeof(RunEntry) + capacity_ > kInlineBytes; }
    const char* buffer() const {
        return onHeap() ? storage_.heap : reinterpret_cast<const char*>(storage_.runs);
    }
    char* buffer() { return onHeap() ? storage_.heap : reinterpret_cast<char*>(storage_.runs); }
    const RunEntry* runs() const { return reinterpret_cast<const RunEntry*>(buffer()); }
    RunEntry* runs() { return reinterpret_cast<RunEntry*>(buffer()); }
    const char* chars() const { return buffer() + runCapacity_ * sizeof(RunEntry); }
    char* chars() { return buffer() + runCapacity_ * sizeof(RunEntry); }

    // Makes room for bytes of text and runs runs, keeping the content.
    void ensure(std::size_t bytes, std::size_t runs) {
        if (bytes > capacity_ || runs > runCapacity_) grow(bytes, runs);
    }
    void grow(std::size_t bytes, std::size_t runs, bool exact = false);
    void releaseStorage() noexcept;
    // Takes other's content, leaving other empty; this must hold no storage.
    void steal(AttributedText& other) noexcept;

    const AttributesRef& refAt(std::uint32_t index) const;
    // Whether two indexes of this text's table name equal attributes.
    bool sameEntry(std::uint32_t a, std::uint32_t b) const;
    bool sameSets(std::uint32_t a, std::uint32_t b) const;
    // The index of attributes in the table, adding it (after copying a shared table) if absent.
    std::uint32_t indexOf(const AttributesRef& attributes);
    // Appends a text whose runs refer to another table.
    void appendTranslated(const AttributedText& other);
    // Uses table from now on; only while no run refers to the current one.
    void adoptTable(AttributeTable* table) noexcept;
    // Makes the table this text's own, so that entries can be added.
    void ownTable();
    // Drops unused entries of an own table once they outnumber the used ones.
    void trimTable();

    std::size_t runIndexAt(std::size_t position) const;
    // Makes position the start of a run and returns that run's index (runCount() at the end).
    std::size_t splitAt(std::size_t position);
    // Merges equal neighbours among runs [from, to].
    void coalesce(std::size_t from, std::size_t to);
    template <typename Edit>
    void editAttributes(TextRange range, Edit&& edit);

    AttributeTable* table_ = nullptr;
    std::uint32_t size_ = 0;
    std::uint32_t runCount_ = 0;
    std::uint32_t runCapacity_ = kInlineRuns;
    std::uint32_t capacity_ = kInlineBytes - kInlineRuns * sizeof(RunEntry);
    union Storage {
        RunEntry runs[kInlineBytes / sizeof(RunEntry)];  // inline: runs, then the text
        char* heap;                                      // a block from the block cache
    } storage_;
};

namespace jsonview::internal {

// The first and the last sizeof(Block) bytes of n (sizeof(Block) <= n <= 2 * sizeof(Block)),
// which may overlap, as two fixed-size loads and stores.
template <typename Block>
inline void copyEnds(char* to, const char* from, std::size_t n) {
    Block head, tail;
    std::memcpy(&head, from, sizeof head);
    std::memcpy(&tail, from + n - sizeof tail, sizeof tail);
    std::memcpy(to, &head, sizeof head);
    std::memcpy(to + n - sizeof tail, &tail, sizeof tail);
}

/// Copies n bytes; short pieces (a quote, a comma, a short number) in place rather than through
/// a call.
inline void copyBytes(char* to, const char* from, std::size_t n) {
    struct Block16 {
        char bytes[16];
    };
    if (n > 32) {
        std::memcpy(to, from, n);
    } else if (n > 16) {
        copyEnds<Block16>(to, from, n);
    } else if (n >= 8) {
        copyEnds<std::uint64_t>(to, from, n);
    } else if (n >= 4) {
        copyEnds<std::uint32_t>(to, from, n);
    } else if (n >= 2) {
        copyEnds<std::uint16_t>(to, from, n);
    } else if (n == 1) {
        *to = *from;
    }
}

/// The sets of a model text's table by position (see textWithAttributeTable), for TableWriter.
struct WritableTable {
    const void* table = nullptr;          // the model's table when its sets all differ, else
                                          // an address no text's table has
    const AttributesRef* sets = nullptr;  // the set at each position
};
// writableTable(model, sets, count), declared above: the count sets, in order, are to be the
// entries of model's table; the writer only takes the short way when they are.

/// Appends pieces to a text, each in the set at a position of a model's table: for building
/// the many short lines of a document from one table of styles. While the text uses that table
/// and has room, a piece goes straight into its buffer; otherwise append() takes it.
class TableWriter {
  public:
    TableWriter(AttributedText& text, const WritableTable& table) : text_(text), table_(table) {}

    void put(std::string_view piece, std::uint32_t position) {
        AttributedText& t = text_;
        const std::size_t n = piece.size();
        const std::uint32_t size = t.size_;
        const std::uint32_t count = t.runCount_;
        if (t.table_ != table_.table || n == 0 || size + n > t.capacity_) {
            t.append(piece, table_.sets[position]);
            return;
        }
        char* base = t.buffer();
        auto* runs = reinterpret_cast<AttributedText::RunEntry*>(base);
        // The sets all differ: a new position is a new run.
        if (count == 0 || runs[count - 1].attributes != position) {
            if (count == t.runCapacity_) {
                t.append(piece, table_.sets[position]);
                return;
            }
            runs[count] = {size, position};
            t.runCount_ = count + 1;
        }
        copyBytes(base + t.runCapacity_ * sizeof(AttributedText::RunEntry) + size, piece.data(), n);
        t.size_ = static_cast<std::uint32_t>(size + n);
    }

  private:
    AttributedText& text_;
    const WritableTable& table_;
};

}  // namespace jsonview::internal

/// A long attributed text kept in chunks of a few kilobytes: replacing a range touches only the
/// chunks it overlaps. The shown document of the JSON viewer lives here.
class KESTRO_API TextStorage {
  public:
    TextStorage() = default;
    explicit TextStorage(const AttributedText& text);

    std::size_t length() const { return length_; }
    std::size_t utf16Length() const;
    bool empty() const { return length_ == 0; }

    /// Replaces the bytes of range (clamped) with replacement.
    void replace(TextRange range, const AttributedText& replacement);
    void setText(const AttributedText& text);

    AttributedText attributedSubstring(TextRange range) const;
    /// The whole text as one AttributedText.
    AttributedText flattened() const;
    std::string string() const;

    /// Calls f for every run that overlaps range, clipped to it (a run that crosses a chunk
    /// boundary is reported once per chunk).
    void enumerateRuns(TextRange range,
                       const std::function<void(const AttributedText::Run&)>& f) const;

    std::size_t utf16Offset(std::size_t bytePosition) const;
    std::size_t byteOffset(std::size_t utf16Position) const;

    std::size_t chunkCount() const { return chunks_.size(); }

  private:
    struct Chunk {
        AttributedText text;
        std::size_t utf16 = 0;
    };
    // Index of the chunk holding byte position (the last chunk for the end) and its start.
    std::pair<std::size_t, std::size_t> locate(std::size_t position) const;
    // Cuts text into chunks and appends them.
    void appendChunks(const AttributedText& text, std::vector<Chunk>& out) const;

    std::vector<Chunk> chunks_;
    std::size_t length_ = 0;
};

namespace jsonview::internal {

/// UTF-16 units of UTF-8 bytes (a byte that is not a continuation byte counts one, a lead byte of
/// a four-byte sequence two).
std::size_t utf16Count(std::string_view utf8);
/// The byte position reached after advancing utf16Units from the start of utf8.
std::size_t advanceUTF16(std::string_view utf8, std::size_t utf16Units);
/// Number of Unicode scalars.
std::size_t scalarCount(std::string_view utf8);

}  // namespace jsonview::internal

}  // namespace kestro
