#pragma once

// Writing the many short lines of a document from one table of styles (internal to the JSON
// viewer). A model text's table holds the styles in a fixed order; each line starts as a copy of
// the model, and TableWriter appends pieces to it by a style's position in that table, straight
// into the line's buffer while the line still uses the model's table and has room.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string_view>

#include "kestro/jsonview/attributed_text.h"

namespace kestro::jsonview::internal {

/// An empty text whose table of attribute sets already holds sets, in order (nullptr skipped).
/// Copies of it, and texts built from those copies with these sets, share one table, so that
/// appending one such text to another copies plain offsets. The table is pooled: made for many
/// texts, its references are counted per thread.
AttributedText textWithAttributeTable(std::initializer_list<AttributesRef> sets);

/// The sets of a model text's table by position (see textWithAttributeTable), for TableWriter.
struct WritableTable {
    const void* table = nullptr;          // the model's table when its sets all differ, else
                                          // an address no text's table has
    const AttributesRef* sets = nullptr;  // the set at each position
};

/// The count sets, in order, are to be the entries of model's table; the writer only takes the
/// short way when they are.
WritableTable writableTable(const AttributedText& model, const AttributesRef* sets,
                            std::size_t count);

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

}  // namespace kestro::jsonview::internal
