#pragma once

// The table of attribute sets behind an AttributedText's runs (internal to the JSON viewer's
// attributed text). A run names its set by an index into its text's table; copies of a text, and
// texts built from them, share the table, so appending one such text to another copies plain
// offsets. A table is never changed while shared: a text that needs a set its table lacks copies
// the table first.
//
// How references to a table are counted (per thread, for tables shared by many texts) is in
// reference_stock.h.

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <new>
#include <stdexcept>
#include <vector>

#include "kestro/jsonview/attributed_text.h"
#include "kestro/jsonview/block_cache.h"

namespace kestro {

// A block with the header, capacity entries, then one class number per entry.
//
// Classes let neighbouring runs be compared without comparing their sets field by field: two
// entries with the same non-zero class are equal sets, two with different non-zero classes are
// not. Class 1 is "no attributes" (nullptr or an empty set), 0 "not classified: compare the sets".
// Only the first kClassified entries get a class, so that adding an entry compares it with a
// bounded number of others; a decorated document uses a dozen sets.
struct AttributedText::AttributeTable {
    std::atomic<std::uint32_t> refs;
    std::uint32_t size;
    std::uint32_t capacity;
    std::uint16_t nextClass;
    // Made for many texts (a document's lines): references are handed out from per-thread
    // stocks, see Stock.
    bool pooled;
    // Every entry has a class of its own (no two entries are equal sets, none is empty), so
    // that different indexes always name different sets.
    bool distinct;

    static constexpr std::uint32_t kClassified = 32;
    static constexpr std::uint32_t kNoClass = 0;
    static constexpr std::uint32_t kEmptyClass = 1;
    static constexpr std::uint32_t kNotFound = kNoAttributes - 1;

    AttributesRef* entries() { return reinterpret_cast<AttributesRef*>(this + 1); }
    const AttributesRef* entries() const {
        return reinterpret_cast<const AttributesRef*>(this + 1);
    }
    std::uint32_t* classes() { return reinterpret_cast<std::uint32_t*>(entries() + capacity); }
    const std::uint32_t* classes() const {
        return reinterpret_cast<const std::uint32_t*>(entries() + capacity);
    }

    static std::size_t bytesFor(std::uint32_t capacity) {
        return sizeof(AttributeTable) + capacity * (sizeof(AttributesRef) + sizeof(std::uint32_t));
    }

    static AttributeTable* create(std::uint32_t capacity, std::uint16_t nextClass = 2) {
        void* block = jsonview::internal::allocateBlock(bytesFor(capacity));
        return new (block) AttributeTable{{1}, 0, capacity, nextClass, false, true};
    }

    static void destroy(AttributeTable* table) noexcept {
        for (std::uint32_t i = 0; i < table->size; ++i) table->entries()[i].~AttributesRef();
        const std::size_t bytes = bytesFor(table->capacity);
        table->~AttributeTable();
        jsonview::internal::freeBlock(table, bytes);
    }

    // Counting references, through the calling thread's stock for pooled tables
    // (reference_stock.h). A null table is ignored.
    struct Stock;
    static thread_local Stock tlsStock;
    static Stock* stock() noexcept;
    static void returnStock(Stock& s) noexcept;
    static Stock* stockFor(AttributeTable* table) noexcept;
    static void retain(AttributeTable* table) noexcept;
    static void retainSlowly(AttributeTable* table) noexcept;
    static void release(AttributeTable* table) noexcept;
    static void releaseSlowly(AttributeTable* table) noexcept;

    // Pooled tables count as shared: stocks may hold references to them.
    bool shared() const { return pooled || refs.load(std::memory_order_acquire) != 1; }

    // The index of the entry holding exactly this set, or kNotFound. Large tables (documents
    // full of links) are searched at both ends only: the styles sit at the front, the sets
    // added last at the back. A set found nowhere is added again, which costs an entry, never
    // correctness.
    std::uint32_t find(const TextAttributes* set) const {
        constexpr std::uint32_t kHead = 32, kTail = 16;
        const AttributesRef* e = entries();
        const std::uint32_t head = std::min(size, kHead);
        for (std::uint32_t i = 0; i < head; ++i)
            if (e[i].get() == set) return i;
        for (std::uint32_t i = std::max(head, size > kTail ? size - kTail : 0); i < size; ++i)
            if (e[i].get() == set) return i;
        return kNotFound;
    }

    // Gives entry index its class; an entry that shares one, or has none, ends distinctness.
    void classify(std::uint32_t index) {
        const AttributesRef& set = entries()[index];
        std::uint32_t c = kNoClass;
        if (!set || set->empty()) {
            c = kEmptyClass;
        } else if (index < kClassified) {
            for (std::uint32_t i = 0; i < index && c == kNoClass; ++i)
                if (classes()[i] > kEmptyClass && *entries()[i] == *set) c = classes()[i];
            if (c == kNoClass) {
                classes()[index] = nextClass++;
                return;
            }
        }
        classes()[index] = c;
        distinct = false;
    }

    // Appends a set to an unshared table; returns the table, moved when it had to grow. An
    // unshared table's one reference is the caller's, so a table that is outgrown is freed here.
    static AttributeTable* add(AttributeTable* table, const AttributesRef& set,
                               std::uint32_t& index) {
        if (table->size == table->capacity) {
            if (table->capacity >= kNotFound / 2)
                throw std::length_error("AttributedText: too many attribute sets");
            AttributeTable* bigger = create(table->capacity * 2, table->nextClass);
            bigger->distinct = table->distinct;
            for (std::uint32_t i = 0; i < table->size; ++i) {
                new (&bigger->entries()[i]) AttributesRef(std::move(table->entries()[i]));
                bigger->classes()[i] = table->classes()[i];
            }
            bigger->size = table->size;
            destroy(table);
            table = bigger;
        }
        index = table->size;
        new (&table->entries()[index]) AttributesRef(set);
        ++table->size;
        table->classify(index);
        return table;
    }

    // A table with the entries of this one for which keep(index) holds, in order; their new
    // indexes go to remap.
    template <typename Keep>
    AttributeTable* copy(Keep&& keep, std::vector<std::uint32_t>* remap) const {
        std::uint32_t kept = 0;
        for (std::uint32_t i = 0; i < size; ++i) kept += keep(i);
        AttributeTable* out = create(std::max<std::uint32_t>(kept, 8), nextClass);
        out->distinct = distinct;  // fewer entries stay distinct
        if (remap) remap->assign(size, kNoAttributes);
        for (std::uint32_t i = 0; i < size; ++i) {
            if (!keep(i)) continue;
            new (&out->entries()[out->size]) AttributesRef(entries()[i]);
            out->classes()[out->size] = classes()[i];
            if (remap) (*remap)[i] = out->size;
            ++out->size;
        }
        return out;
    }
};

namespace jsonview::internal {

// Leading entries two tables have in common: for indexes below it, an index means the same set
// in both. Tables copied from one another start alike.
inline std::uint32_t commonPrefix(const AttributesRef* a, std::uint32_t sizeA,
                                  const AttributesRef* b, std::uint32_t sizeB) {
    const std::uint32_t n = std::min<std::uint32_t>({sizeA, sizeB, 32});
    std::uint32_t i = 0;
    while (i < n && a[i].get() == b[i].get()) ++i;
    return i;
}

}  // namespace jsonview::internal

// Translates the attribute indexes of one text's runs into another's table, adding the sets
// that table lacks. Set up before the runs are copied: it may replace the target's table.
class AttributedText::TableMapping {
  public:
    TableMapping(AttributedText& to, const AttributedText& from) : to_(to), from_(from) {
        if (to.table_ == from.table_ || !from.table_) {
            same_ = true;
            return;
        }
        shared_ = prefix();
        // A shared table must be copied before entries are added, and copying a large table
        // renumbers it; do that now, before any index is translated.
        if (!to.table_ || !to.table_->shared()) return;
        const RunEntry* runs = from.runs();
        for (std::uint32_t i = 0; i < from.runCount_; ++i) {
            const std::uint32_t index = runs[i].attributes;
            if (index == kNoAttributes || index < shared_) continue;
            if (to.table_->find(from.table_->entries()[index].get()) == AttributeTable::kNotFound) {
                to.ownTable();
                shared_ = prefix();
                break;
            }
        }
    }

    std::uint32_t operator()(std::uint32_t index) {
        if (same_ || index == kNoAttributes || index < shared_) return index;
        for (unsigned i = 0; i < memoCount_; ++i)
            if (memoFrom_[i] == index) return memoTo_[i];
        const AttributesRef& set = from_.table_->entries()[index];
        std::uint32_t mapped = to_.table_ ? to_.table_->find(set.get()) : AttributeTable::kNotFound;
        if (mapped == AttributeTable::kNotFound) {
            to_.ownTable();
            to_.table_ = AttributeTable::add(to_.table_, set, mapped);
        }
        const unsigned slot = memoCount_ < kMemo ? memoCount_++ : index % kMemo;
        memoFrom_[slot] = index;
        memoTo_[slot] = mapped;
        return mapped;
    }

  private:
    static constexpr unsigned kMemo = 8;

    std::uint32_t prefix() const {
        if (!to_.table_) return 0;
        return jsonview::internal::commonPrefix(to_.table_->entries(), to_.table_->size,
                                                from_.table_->entries(), from_.table_->size);
    }

    AttributedText& to_;
    const AttributedText& from_;
    bool same_ = false;
    std::uint32_t shared_ = 0;
    unsigned memoCount_ = 0;
    std::uint32_t memoFrom_[kMemo];
    std::uint32_t memoTo_[kMemo];
};

}  // namespace kestro
