#pragma once

// Per-thread stocks of references to pooled tables of attribute sets (internal to the JSON
// viewer's attributed text).
//
// A pooled table is made for many texts: the decorator's styles, shared by every line of a
// document. Counting each line's reference on the table's atomic count would cost two atomic
// operations per line made and dropped; instead each thread takes references from the count
// Stock::kBatch at a time and takes back the ones its texts give up. The count always covers every
// text and every stock that holds a reference, so other threads see a count that is, if anything,
// too high: a table is freed only when the last stock returns its references (when its thread
// turns to another pooled table, or ends). Tables that are not pooled are counted one by one.

#include <cstdint>
#include <utility>

#include "kestro/jsonview/attribute_table.h"

namespace kestro {

// References to one pooled table kept by a thread.
struct AttributedText::AttributeTable::Stock {
    enum State : std::uint8_t { unused, active, ended };
    // References taken from a table's count at a time.
    static constexpr std::uint32_t kBatch = 4096;

    AttributeTable* table;
    std::uint32_t count;
    State state;
};

// Defined here, inline, so that every use reaches the thread's stock directly.
inline thread_local AttributedText::AttributeTable::Stock
    AttributedText::AttributeTable::tlsStock{};

// The calling thread's stock, or nullptr once the thread is ending.
inline AttributedText::AttributeTable::Stock* AttributedText::AttributeTable::stock() noexcept {
    Stock& s = tlsStock;
    if (s.state == Stock::active) return &s;
    if (s.state == Stock::ended) return nullptr;
    struct ReturnAtExit {
        ~ReturnAtExit() {
            returnStock(tlsStock);
            tlsStock.state = Stock::ended;
        }
    };
    thread_local ReturnAtExit returnAtExit;
    (void)returnAtExit;
    s.state = Stock::active;
    return &s;
}

inline void AttributedText::AttributeTable::returnStock(Stock& s) noexcept {
    AttributeTable* table = std::exchange(s.table, nullptr);
    const std::uint32_t n = std::exchange(s.count, 0);
    if (table && n && table->refs.fetch_sub(n, std::memory_order_acq_rel) == n) destroy(table);
}

// The calling thread's stock, holding table.
inline AttributedText::AttributeTable::Stock* AttributedText::AttributeTable::stockFor(
    AttributeTable* table) noexcept {
    Stock* s = stock();
    if (s && s->table != table) {
        returnStock(*s);
        s->table = table;
    }
    return s;
}

inline void AttributedText::AttributeTable::retain(AttributeTable* table) noexcept {
    if (!table) return;
    Stock& s = tlsStock;  // holds only pooled tables, and none once the thread is ending
    if (s.table == table && s.count != 0) {
        --s.count;
        return;
    }
    retainSlowly(table);
}

inline void AttributedText::AttributeTable::retainSlowly(AttributeTable* table) noexcept {
    if (table->pooled) {
        if (Stock* s = stockFor(table)) {
            if (s->count == 0) {
                table->refs.fetch_add(Stock::kBatch, std::memory_order_relaxed);
                s->count = Stock::kBatch;
            }
            --s->count;
            return;
        }
    }
    table->refs.fetch_add(1, std::memory_order_relaxed);
}

inline void AttributedText::AttributeTable::release(AttributeTable* table) noexcept {
    if (!table) return;
    Stock& s = tlsStock;
    if (s.table == table && s.count < 2 * Stock::kBatch) {
        ++s.count;
        return;
    }
    releaseSlowly(table);
}

inline void AttributedText::AttributeTable::releaseSlowly(AttributeTable* table) noexcept {
    if (table->pooled) {
        if (Stock* s = stockFor(table)) {
            // Keep at most two batches; the stock's own batch keeps the count above zero.
            if (++s->count > 2 * Stock::kBatch) {
                table->refs.fetch_sub(Stock::kBatch, std::memory_order_release);
                s->count -= Stock::kBatch;
            }
            return;
        }
    }
    // The only holder needs no atomic update: no other text can reach the table to take a
    // reference meanwhile.
    if (table->refs.load(std::memory_order_acquire) != 1 &&
        table->refs.fetch_sub(1, std::memory_order_acq_rel) != 1)
        return;
    destroy(table);
}

}  // namespace kestro
