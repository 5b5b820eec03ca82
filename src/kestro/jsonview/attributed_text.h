#pragma once

// Kestro's attributed text: UTF-8 text with attribute runs (font, colours, paragraph metrics,
// baseline offset, link, underline) and inline image attachments. This is the header users
// include; it brings the descriptors the attributes refer to (text_attributes.h: Color,
// ParagraphStyle, TextAttributes; font.h; image.h) and TextStorage (text_storage.h).
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
//
// Inside (internal to this library): a text's runs name their attribute sets through a table of
// sets (attribute_table.h), whose references are counted per thread for tables that many texts
// share (reference_stock.h); the decorator writes lines by a style's position in such a table
// (table_writer.h).

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string_view>
#include <vector>

#include "kestro/core/export.h"
#include "kestro/jsonview/text_attributes.h"
#include "kestro/jsonview/utf16.h"

namespace kestro {

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
// Friends of AttributedText that build and write texts over a shared table (table_writer.h).
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
    // shared; a text that needs another set copies the table first (attribute_table.h).
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

}  // namespace kestro

// TextStorage, the chunked form of a long text, is part of this header's surface.
#include "kestro/jsonview/text_storage.h"
