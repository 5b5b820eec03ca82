#include "kestro/jsonview/attributed_text.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <stdexcept>
#include <utility>

namespace kestro {

namespace jsonview::internal {

std::size_t utf16Count(std::string_view utf8) {
    // Every byte that is not a continuation byte starts a scalar (one unit); a four-byte lead
    // adds the second unit of a surrogate pair. Malformed bytes count one unit each, as the
    // replacement character they decode to would.
    const char* p = utf8.data();
    const std::size_t n = utf8.size();
    std::size_t units = 0;
    std::size_t i = 0;
    // A word at a time: per byte, bit 7 of x marks a lead or ASCII byte ("not 10xxxxxx"), bit 7
    // of y a four-byte lead ("1111xxxx"). The bits are summed in byte lanes (at most 2 a byte per
    // word, so 127 words fit) and the lanes added up every batch.
    constexpr std::uint64_t kHigh = 0x8080808080808080u;
    while (n - i >= 8) {
        const std::size_t words = std::min<std::size_t>((n - i) / 8, 127);
        std::uint64_t lanes = 0;
        for (std::size_t w = 0; w < words; ++w, i += 8) {
            std::uint64_t v;
            std::memcpy(&v, p + i, 8);
            const std::uint64_t x = ~(v & ~(v << 1)) & kHigh;
            const std::uint64_t y = v & (v << 1) & (v << 2) & (v << 3) & kHigh;
            lanes += (x >> 7) + (y >> 7);
        }
        lanes = (lanes & 0x00FF00FF00FF00FFu) + ((lanes >> 8) & 0x00FF00FF00FF00FFu);
        units += static_cast<std::size_t>((lanes * 0x0001000100010001u) >> 48);
    }
    for (; i < n; ++i) {
        const auto b = static_cast<unsigned char>(p[i]);
        units += ((b & 0xC0) != 0x80) + (b >= 0xF0);
    }
    return units;
}

std::size_t advanceUTF16(std::string_view utf8, std::size_t utf16Units) {
    std::size_t units = 0;
    std::size_t i = 0;
    const std::size_t n = utf8.size();
    while (i < n) {
        const auto b = static_cast<unsigned char>(utf8[i]);
        const std::size_t width = b >= 0xF0 ? 2 : 1;
        if (units + width > utf16Units) break;
        units += width;
        ++i;
        while (i < n && (static_cast<unsigned char>(utf8[i]) & 0xC0) == 0x80) ++i;
    }
    return i;
}

std::size_t scalarCount(std::string_view utf8) {
    std::size_t count = 0;
    for (unsigned char b : utf8) count += (b & 0xC0) != 0x80;
    return count;
}

}  // namespace jsonview::internal

namespace {

using jsonview::internal::utf16Count;

// ---- registries of fonts and images -------------------------------------------------------

struct Registry {
    std::mutex mutex;
    std::map<std::string, std::shared_ptr<const Font::Family>, std::less<>> families;
    std::map<std::string, Image, std::less<>> images;

    Registry() {
        families["sans"] = std::make_shared<const Font::Family>(
            Font::Family{"sans", 0.952, -0.213, 0.028, 0.55, true, false});
        families["monospace"] = std::make_shared<const Font::Family>(
            Font::Family{"monospace", 0.8, -0.2, 0.0, 0.6, true, true});
        images["expand"] = Image{"expand", 16, 16};
        images["fold"] = Image{"fold", 16, 16};
    }
};

Registry& registry() {
    static Registry* r = new Registry();  // never destroyed: usable from static destructors
    return *r;
}

bool isWide(char32_t c) {
    return (c >= 0x1100 && c <= 0x115F) || (c >= 0x2E80 && c <= 0xA4CF) ||
           (c >= 0xAC00 && c <= 0xD7A3) || (c >= 0xF900 && c <= 0xFAFF) ||
           (c >= 0xFE30 && c <= 0xFE4F) || (c >= 0xFF00 && c <= 0xFF60) ||
           (c >= 0xFFE0 && c <= 0xFFE6) || (c >= 0x1F300 && c <= 0x1F64F) ||
           (c >= 0x1F900 && c <= 0x1F9FF) || (c >= 0x20000 && c <= 0x3FFFD);
}

const TextAttributes& emptyAttributes() {
    static const TextAttributes* empty = new TextAttributes();
    return *empty;
}

const TextAttributes& deref(const AttributesRef& ref) { return ref ? *ref : emptyAttributes(); }

bool sameAttributes(const AttributesRef& a, const AttributesRef& b) {
    if (a == b) return true;
    if (!a) return b->empty();
    if (!b) return a->empty();
    return *a == *b;
}

}  // namespace

// ---- Color, Font, Image, ParagraphStyle, TextAttributes ------------------------------------

Color Color::rgb24(std::uint32_t rgb) {
    return {((rgb >> 16) & 255) / 255.0, ((rgb >> 8) & 255) / 255.0, (rgb & 255) / 255.0, 1.0};
}

std::uint32_t Color::argb32() const {
    auto c = [](double v) {
        return static_cast<std::uint32_t>(std::lround(std::clamp(v, 0.0, 1.0) * 255.0));
    };
    return (c(alpha) << 24) | (c(red) << 16) | (c(green) << 8) | c(blue);
}

std::optional<Font> Font::named(std::string_view family, double size) {
    auto& r = registry();
    std::lock_guard lock(r.mutex);
    auto it = r.families.find(family);
    if (it == r.families.end()) return std::nullopt;
    return Font(it->second, size, false);
}

Font Font::system(double size) { return *named("sans", size); }
Font Font::monospacedSystem(double size) { return *named("monospace", size); }

void Font::registerFamily(Family family) {
    auto& r = registry();
    std::lock_guard lock(r.mutex);
    auto name = family.name;
    r.families[name] = std::make_shared<const Family>(std::move(family));
}

double Font::lineHeight() const {
    return (family_->ascender - family_->descender + family_->lineGap) * size_;
}

double Font::advance(char32_t scalar) const {
    if (scalar >= 0x300 && scalar <= 0x36F) return 0;  // combining marks
    const double base = family_->averageAdvance * size_ * (bold_ ? 1.05 : 1.0);
    if (scalar == U'\t') return base * 4;
    return isWide(scalar) ? base * 2 : base;
}

std::optional<Font> Font::boldVariant() const {
    if (!family_->hasBold) return std::nullopt;
    return Font(family_, size_, true);
}

bool operator==(const Font& a, const Font& b) {
    return a.size_ == b.size_ && a.bold_ == b.bold_ &&
           (a.family_ == b.family_ || a.family_->name == b.family_->name);
}

std::optional<Image> Image::named(std::string_view name) {
    auto& r = registry();
    std::lock_guard lock(r.mutex);
    auto it = r.images.find(name);
    if (it == r.images.end()) return std::nullopt;
    return it->second;
}

void Image::registerNamed(Image image) {
    auto& r = registry();
    std::lock_guard lock(r.mutex);
    auto name = image.name;
    r.images[name] = std::move(image);
}

double ParagraphStyle::lineHeight(const Font& font) const {
    double h = font.lineHeight();
    if (lineHeightMultiple > 0) h *= lineHeightMultiple;
    if (minimumLineHeight > 0) h = std::max(h, minimumLineHeight);
    if (maximumLineHeight > 0) h = std::min(h, maximumLineHeight);
    return h;
}

bool TextAttributes::empty() const {
    return !font && !foregroundColor && !backgroundColor && !paragraphStyle && !baselineOffset &&
           !link && !underlineStyle && !attachment;
}

void TextAttributes::merge(const TextAttributes& o) {
    if (o.font) font = o.font;
    if (o.foregroundColor) foregroundColor = o.foregroundColor;
    if (o.backgroundColor) backgroundColor = o.backgroundColor;
    if (o.paragraphStyle) paragraphStyle = o.paragraphStyle;
    if (o.baselineOffset) baselineOffset = o.baselineOffset;
    if (o.link) link = o.link;
    if (o.underlineStyle) underlineStyle = o.underlineStyle;
    if (o.attachment) attachment = o.attachment;
}

void TextAttributes::remove(AttributeKey key) {
    switch (key) {
        case AttributeKey::font:
            font.reset();
            break;
        case AttributeKey::foregroundColor:
            foregroundColor.reset();
            break;
        case AttributeKey::backgroundColor:
            backgroundColor.reset();
            break;
        case AttributeKey::paragraphStyle:
            paragraphStyle.reset();
            break;
        case AttributeKey::baselineOffset:
            baselineOffset.reset();
            break;
        case AttributeKey::link:
            link.reset();
            break;
        case AttributeKey::underlineStyle:
            underlineStyle.reset();
            break;
        case AttributeKey::attachment:
            attachment.reset();
            break;
    }
}

bool operator==(const TextAttributes& a, const TextAttributes& b) {
    return a.font == b.font && a.foregroundColor == b.foregroundColor &&
           a.backgroundColor == b.backgroundColor && a.paragraphStyle == b.paragraphStyle &&
           a.baselineOffset == b.baselineOffset && a.link == b.link &&
           a.underlineStyle == b.underlineStyle && a.attachment == b.attachment;
}

AttributesRef makeAttributes(TextAttributes attributes) {
    if (attributes.empty()) return nullptr;
    return std::make_shared<const TextAttributes>(std::move(attributes));
}

// ---- the table of attribute sets ------------------------------------------------------------

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

    // References to one pooled table kept by a thread. The thread takes them from the table's
    // count kStockBatch at a time and takes back the ones its texts give up, so that making and
    // destroying the lines of a document costs no atomic operation per line. The count always
    // covers every text and every stock that holds a reference, so other threads see a count
    // that is, if anything, too high: a table is freed only when the last stock returns its
    // references (when its thread turns to another pooled table, or ends).
    struct Stock {
        enum State : std::uint8_t { unused, active, ended };
        AttributeTable* table;
        std::uint32_t count;
        State state;
    };
    static constexpr std::uint32_t kStockBatch = 4096;
    static thread_local Stock tlsStock;

    // The calling thread's stock, or nullptr once the thread is ending.
    static Stock* stock() noexcept {
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

    static void returnStock(Stock& s) noexcept {
        AttributeTable* table = std::exchange(s.table, nullptr);
        const std::uint32_t n = std::exchange(s.count, 0);
        if (table && n && table->refs.fetch_sub(n, std::memory_order_acq_rel) == n) destroy(table);
    }

    // The calling thread's stock, holding table.
    static Stock* stockFor(AttributeTable* table) noexcept {
        Stock* s = stock();
        if (s && s->table != table) {
            returnStock(*s);
            s->table = table;
        }
        return s;
    }

    static void retain(AttributeTable* table) noexcept {
        if (!table) return;
        Stock& s = tlsStock;  // holds only pooled tables, and none once the thread is ending
        if (s.table == table && s.count != 0) {
            --s.count;
            return;
        }
        retainSlowly(table);
    }

    static void retainSlowly(AttributeTable* table) noexcept {
        if (table->pooled) {
            if (Stock* s = stockFor(table)) {
                if (s->count == 0) {
                    table->refs.fetch_add(kStockBatch, std::memory_order_relaxed);
                    s->count = kStockBatch;
                }
                --s->count;
                return;
            }
        }
        table->refs.fetch_add(1, std::memory_order_relaxed);
    }

    static void release(AttributeTable* table) noexcept {
        if (!table) return;
        Stock& s = tlsStock;
        if (s.table == table && s.count < 2 * kStockBatch) {
            ++s.count;
            return;
        }
        releaseSlowly(table);
    }

    static void releaseSlowly(AttributeTable* table) noexcept {
        if (table->pooled) {
            if (Stock* s = stockFor(table)) {
                // Keep at most two batches; the stock's own batch keeps the count above zero.
                if (++s->count > 2 * kStockBatch) {
                    table->refs.fetch_sub(kStockBatch, std::memory_order_release);
                    s->count -= kStockBatch;
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

    // Appends a set to an unshared table; returns the table, moved when it had to grow.
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
            release(table);
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

thread_local AttributedText::AttributeTable::Stock AttributedText::AttributeTable::tlsStock{};

namespace {

// Leading entries two tables have in common: for indexes below it, an index means the same set
// in both. Tables copied from one another start alike.
std::uint32_t commonPrefix(const AttributesRef* a, std::uint32_t sizeA, const AttributesRef* b,
                           std::uint32_t sizeB) {
    const std::uint32_t n = std::min<std::uint32_t>({sizeA, sizeB, 32});
    std::uint32_t i = 0;
    while (i < n && a[i].get() == b[i].get()) ++i;
    return i;
}

}  // namespace

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
        return commonPrefix(to_.table_->entries(), to_.table_->size, from_.table_->entries(),
                            from_.table_->size);
    }

    AttributedText& to_;
    const AttributedText& from_;
    bool same_ = false;
    std::uint32_t shared_ = 0;
    unsigned memoCount_ = 0;
    std::uint32_t memoFrom_[kMemo];
    std::uint32_t memoTo_[kMemo];
};

// ---- AttributedText -------------------------------------------------------------------------

namespace {

using jsonview::internal::copyBytes;

// Constant-initialised, so usable at any time.
constinit const AttributesRef kNoAttributesRef;

const AttributesRef& noAttributesRef() { return kNoAttributesRef; }
}  // namespace

AttributedText::AttributedText(std::string_view text, AttributesRef attributes) {
    if (text.empty()) return;
    reserve(text.size(), 1);
    runs()[0] = {0, indexOf(attributes)};
    runCount_ = 1;
    std::memcpy(chars(), text.data(), text.size());
    size_ = static_cast<std::uint32_t>(text.size());
}

AttributedText::AttributedText(std::string_view text, const TextAttributes& attributes)
    : AttributedText(text, makeAttributes(attributes)) {}

AttributedText AttributedText::attachment(TextAttachment attachment) {
    TextAttributes attributes;
    attributes.attachment = std::move(attachment);
    return AttributedText(kAttachmentCharacter, makeAttributes(std::move(attributes)));
}

AttributedText::AttributedText(const AttributedText& other) : table_(other.table_) {
    AttributeTable::retain(table_);
    if (other.size_ == 0) return;
    if (!other.onHeap()) {
        storage_ = other.storage_;
        runCapacity_ = other.runCapacity_;
        capacity_ = other.capacity_;
    } else {
        reserve(other.size_, other.runCount_);
        std::memcpy(runs(), other.runs(), other.runCount_ * sizeof(RunEntry));
        std::memcpy(chars(), other.chars(), other.size_);
    }
    size_ = other.size_;
    runCount_ = other.runCount_;
}

AttributedText::AttributedText(AttributedText&& other) noexcept { steal(other); }

AttributedText& AttributedText::operator=(const AttributedText& other) {
    if (this != &other) {
        AttributedText copy(other);
        *this = std::move(copy);
    }
    return *this;
}

AttributedText& AttributedText::operator=(AttributedText&& other) noexcept {
    if (this != &other) {
        releaseStorage();
        AttributeTable::release(table_);
        steal(other);
    }
    return *this;
}

AttributedText::~AttributedText() {
    if (onHeap())
        jsonview::internal::freeBlock(storage_.heap, runCapacity_ * sizeof(RunEntry) + capacity_);
    AttributeTable::release(table_);
}

void AttributedText::releaseStorage() noexcept {
    if (onHeap())
        jsonview::internal::freeBlock(storage_.heap, runCapacity_ * sizeof(RunEntry) + capacity_);
    runCapacity_ = kInlineRuns;
    capacity_ = kInlineBytes - kInlineRuns * sizeof(RunEntry);
    size_ = 0;
    runCount_ = 0;
}

void AttributedText::steal(AttributedText& other) noexcept {
    table_ = std::exchange(other.table_, nullptr);
    size_ = std::exchange(other.size_, 0);
    runCount_ = std::exchange(other.runCount_, 0);
    runCapacity_ = std::exchange(other.runCapacity_, kInlineRuns);
    capacity_ = std::exchange(other.capacity_, kInlineBytes - kInlineRuns * sizeof(RunEntry));
    // The heap block's address, or the inline bytes (none to copy for an empty text).
    if (onHeap() || size_ != 0) storage_ = other.storage_;
}

void AttributedText::grow(std::size_t bytes, std::size_t runCount, bool exact) {
    bytes = std::max<std::size_t>(bytes, size_);
    runCount = std::max<std::size_t>(runCount, runCount_);
    if (bytes > maxLength || runCount > maxLength)
        throw std::length_error("AttributedText: longer than maxLength");
    const bool wasOnHeap = onHeap();
    const std::size_t oldRuns = runCapacity_;
    const std::size_t oldBytes = capacity_;
    // Appending doubles what runs short, so that appending n times costs O(n); reserving asks
    // for exactly what it names.
    std::size_t newRuns = runCount <= oldRuns ? oldRuns
                          : exact             ? runCount
                                              : std::max(runCount, 2 * oldRuns);
    std::size_t newBytes = bytes <= oldBytes ? oldBytes
                           : exact           ? bytes
                                             : std::max(bytes, 2 * oldBytes);
    if (!wasOnHeap && runCount * sizeof(RunEntry) + bytes <= kInlineBytes) {
        // Still fits inside: move the boundary between runs and text.
        newRuns =
            std::clamp<std::size_t>(newRuns, runCount, (kInlineBytes - bytes) / sizeof(RunEntry));
        char* base = reinterpret_cast<char*>(storage_.runs);
        std::memmove(base + newRuns * sizeof(RunEntry), base + oldRuns * sizeof(RunEntry), size_);
        runCapacity_ = static_cast<std::uint32_t>(newRuns);
        capacity_ = static_cast<std::uint32_t>(kInlineBytes - newRuns * sizeof(RunEntry));
        return;
    }
    newRuns = std::min(newRuns, maxLength);
    newBytes = std::min(newBytes, maxLength);
    // The block's rounding goes to the text (it stays below 1 MiB, so capacity_ holds it).
    const std::size_t block =
        jsonview::internal::blockSizeFor(newRuns * sizeof(RunEntry) + newBytes);
    char* fresh = static_cast<char*>(jsonview::internal::allocateBlock(block));
    std::memcpy(fresh, runs(), runCount_ * sizeof(RunEntry));
    std::memcpy(fresh + newRuns * sizeof(RunEntry), chars(), size_);
    if (wasOnHeap)
        jsonview::internal::freeBlock(storage_.heap, oldRuns * sizeof(RunEntry) + oldBytes);
    storage_.heap = fresh;
    runCapacity_ = static_cast<std::uint32_t>(newRuns);
    capacity_ = static_cast<std::uint32_t>(block - newRuns * sizeof(RunEntry));
}

// ---- attribute indexes ----------------------------------------------------------------------

inline const AttributesRef& AttributedText::refAt(std::uint32_t index) const {
    return index == kNoAttributes ? noAttributesRef() : table_->entries()[index];
}

inline bool AttributedText::sameEntry(std::uint32_t a, std::uint32_t b) const {
    // Two indexes other than "none" mean a table; a distinct one has no empty entry either.
    return a == b || (!table_->distinct && sameSets(a, b));
}

bool AttributedText::sameSets(std::uint32_t a, std::uint32_t b) const {
    const std::uint32_t ca =
        a == kNoAttributes ? AttributeTable::kEmptyClass : table_->classes()[a];
    const std::uint32_t cb =
        b == kNoAttributes ? AttributeTable::kEmptyClass : table_->classes()[b];
    if (ca != AttributeTable::kNoClass && cb != AttributeTable::kNoClass) return ca == cb;
    return sameAttributes(refAt(a), refAt(b));
}

std::uint32_t AttributedText::indexOf(const AttributesRef& attributes) {
    if (!attributes) return kNoAttributes;
    if (table_) {
        const std::uint32_t found = table_->find(attributes.get());
        if (found != AttributeTable::kNotFound) return found;
    }
    ownTable();
    std::uint32_t index;
    table_ = AttributeTable::add(table_, attributes, index);
    return index;
}

void AttributedText::adoptTable(AttributeTable* table) noexcept {
    AttributeTable::retain(table);
    AttributeTable::release(table_);
    table_ = table;
}

void AttributedText::ownTable() {
    if (!table_) {
        table_ = AttributeTable::create(8);
        return;
    }
    if (!table_->shared()) return;
    // A small table is copied whole, so that it keeps its indexes and stays alike with the
    // tables it came from (appending texts of either then maps indexes one to one). A large
    // one (a whole document's) keeps only what this text uses.
    constexpr std::uint32_t kCopyWhole = 32;
    AttributeTable* copy;
    if (table_->size <= kCopyWhole) {
        copy = table_->copy([](std::uint32_t) { return true; }, nullptr);
    } else {
        std::vector<bool> used(table_->size);
        RunEntry* r = runs();
        for (std::uint32_t i = 0; i < runCount_; ++i)
            if (r[i].attributes != kNoAttributes) used[r[i].attributes] = true;
        std::vector<std::uint32_t> remap;
        copy = table_->copy([&](std::uint32_t i) { return used[i]; }, &remap);
        for (std::uint32_t i = 0; i < runCount_; ++i)
            if (r[i].attributes != kNoAttributes) r[i].attributes = remap[r[i].attributes];
    }
    AttributeTable::release(table_);
    table_ = copy;
}

void AttributedText::trimTable() {
    if (!table_ || table_->size <= 2 * runCount_ + 16 || table_->shared()) return;
    std::vector<bool> used(table_->size);
    RunEntry* r = runs();
    for (std::uint32_t i = 0; i < runCount_; ++i)
        if (r[i].attributes != kNoAttributes) used[r[i].attributes] = true;
    std::vector<std::uint32_t> remap;
    AttributeTable* copy = table_->copy([&](std::uint32_t i) { return used[i]; }, &remap);
    for (std::uint32_t i = 0; i < runCount_; ++i)
        if (r[i].attributes != kNoAttributes) r[i].attributes = remap[r[i].attributes];
    AttributeTable::release(table_);
    table_ = copy;
}

AttributedText jsonview::internal::textWithAttributeTable(
    std::initializer_list<AttributesRef> sets) {
    AttributedText text;
    for (const AttributesRef& set : sets) {
        if (!set) continue;
        text.ownTable();
        if (text.table_->find(set.get()) != AttributedText::AttributeTable::kNotFound) continue;
        std::uint32_t index;
        text.table_ = AttributedText::AttributeTable::add(text.table_, set, index);
    }
    if (text.table_) text.table_->pooled = true;
    return text;
}

// ---- editing --------------------------------------------------------------------------------

std::size_t AttributedText::utf16Length() const { return utf16Count(string()); }

std::size_t AttributedText::runIndexAt(std::size_t position) const {
    const RunEntry* r = runs();
    const RunEntry* it = std::upper_bound(
        r, r + runCount_, position, [](std::size_t p, const RunEntry& e) { return p < e.start; });
    return static_cast<std::size_t>(it - r) - 1;
}

std::size_t AttributedText::splitAt(std::size_t position) {
    if (position >= size_) return runCount_;
    const std::size_t i = runIndexAt(position);
    if (runs()[i].start == position) return i;
    ensure(size_, std::size_t{runCount_} + 1);
    RunEntry* r = runs();
    std::memmove(r + i + 2, r + i + 1, (runCount_ - i - 1) * sizeof(RunEntry));
    r[i + 1] = {static_cast<std::uint32_t>(position), r[i].attributes};
    ++runCount_;
    return i + 1;
}

void AttributedText::coalesce(std::size_t from, std::size_t to) {
    if (runCount_ < 2) return;
    from = std::max<std::size_t>(from, 1);
    to = std::min<std::size_t>(to, runCount_ - 1);
    if (from > to) return;
    RunEntry* r = runs();
    std::size_t write = from;
    for (std::size_t read = from; read <= to; ++read) {
        if (sameEntry(r[write - 1].attributes, r[read].attributes))
            continue;  // the previous run absorbs this one
        r[write++] = r[read];
    }
    if (write == to + 1) return;
    std::memmove(r + write, r + to + 1, (runCount_ - to - 1) * sizeof(RunEntry));
    runCount_ -= static_cast<std::uint32_t>(to + 1 - write);
}

void AttributedText::append(std::string_view text, const AttributesRef& attributes) {
    if (text.empty()) return;
    // Locals throughout: run entries and the sizes are both 32-bit integers, so a store to a run
    // would otherwise make the compiler read the sizes again.
    const std::uint32_t size = size_;
    const std::uint32_t count = runCount_;
    const std::size_t newSize = std::size_t{size} + text.size();
    if (newSize > capacity_ || count == runCapacity_) {
        // Growing moves the buffer: a piece of this very text is copied out first.
        const char* base = buffer();
        if (std::less_equal<const char*>()(base, text.data()) &&
            std::less<const char*>()(text.data(),
                                     base + runCapacity_ * sizeof(RunEntry) + capacity_)) {
            const std::string own(text);
            append(own, attributes);
            return;
        }
    }
    bool extend = false;
    std::uint32_t index = AttributeTable::kNotFound;
    if (count > 0) {
        const std::uint32_t last = runs()[count - 1].attributes;
        // Pieces of a line mostly continue the last run's set.
        if (refAt(last).get() == attributes.get()) {
            extend = true;
        } else {
            if (!attributes)
                index = kNoAttributes;
            else if (table_)
                index = table_->find(attributes.get());
            extend = index != AttributeTable::kNotFound ? sameEntry(last, index)
                                                        : sameAttributes(refAt(last), attributes);
        }
    }
    if (extend) {
        ensure(newSize, count);
    } else {
        if (index == AttributeTable::kNotFound) index = indexOf(attributes);
        ensure(newSize, std::size_t{count} + 1);
        runs()[count] = {size, index};
        runCount_ = count + 1;
    }
    copyBytes(chars() + size, text.data(), text.size());
    size_ = static_cast<std::uint32_t>(newSize);
}

jsonview::internal::WritableTable jsonview::internal::writableTable(const AttributedText& model,
                                                                    const AttributesRef* sets,
                                                                    std::size_t count) {
    static const char kNoTable = 0;
    const AttributedText::AttributeTable* table = model.table_;
    bool usable = table && table->distinct && table->size == count;
    for (std::size_t i = 0; usable && i < count; ++i)
        usable = table->entries()[i].get() == sets[i].get();
    return {usable ? static_cast<const void*>(table) : &kNoTable, sets};
}

void AttributedText::append(const AttributedText& other) {
    const std::uint32_t added = other.size_;
    if (added == 0) return;
    if (&other == this) {
        const AttributedText copy(other);
        append(copy);
        return;
    }
    // An empty text takes the other's table, so that the texts appended after it, built from
    // the same styles, map one to one.
    if (runCount_ == 0 && table_ != other.table_) adoptTable(other.table_);
    if (table_ != other.table_ && other.table_) {
        appendTranslated(other);
        return;
    }
    const std::uint32_t size = size_;
    const std::uint32_t count = runCount_;
    const std::uint32_t adding = other.runCount_;
    ensure(std::size_t{size} + added, std::size_t{count} + adding);
    RunEntry* const dst = runs();
    const RunEntry* const src = other.runs();
    std::uint32_t i = count > 0 && sameEntry(dst[count - 1].attributes, src[0].attributes);
    RunEntry* out = dst + count;
    for (; i < adding; ++i) *out++ = {src[i].start + size, src[i].attributes};
    runCount_ = static_cast<std::uint32_t>(out - dst);
    copyBytes(chars() + size, other.chars(), added);
    size_ = size + added;
}

void AttributedText::appendTranslated(const AttributedText& other) {
    TableMapping map(*this, other);
    const std::uint32_t size = size_;
    const std::uint32_t count = runCount_;
    const std::uint32_t adding = other.runCount_;
    ensure(std::size_t{size} + other.size_, std::size_t{count} + adding);
    RunEntry* const dst = runs();
    const RunEntry* const src = other.runs();
    std::uint32_t i = 0;
    const std::uint32_t first = map(src[0].attributes);
    if (count > 0 && sameEntry(dst[count - 1].attributes, first)) i = 1;
    RunEntry* out = dst + count;
    for (; i < adding; ++i) *out++ = {src[i].start + size, map(src[i].attributes)};
    runCount_ = static_cast<std::uint32_t>(out - dst);
    copyBytes(chars() + size, other.chars(), other.size_);
    size_ = size + other.size_;
}

void AttributedText::insert(std::size_t position, const AttributedText& other) {
    replace({position, 0}, other);
}

void AttributedText::erase(TextRange range) { replace(range, AttributedText()); }

void AttributedText::clear() {
    size_ = 0;
    runCount_ = 0;
}

void AttributedText::replace(TextRange range, const AttributedText& replacement) {
    if (&replacement == this) {
        const AttributedText copy(replacement);
        replace(range, copy);
        return;
    }
    const std::size_t loc = std::min<std::size_t>(range.location, size_);
    const std::size_t end = std::min<std::size_t>(range.end(), size_);
    if (loc == size_) {
        append(replacement);
        return;
    }
    TableMapping map(*this, replacement);
    const std::size_t s = splitAt(loc);
    const std::size_t e = splitAt(end);
    const std::size_t removed = end - loc;
    const std::size_t added = replacement.size_;
    const std::size_t addedRuns = replacement.runCount_;
    const std::size_t newSize = size_ - removed + added;
    const std::size_t newRuns = runCount_ - (e - s) + addedRuns;
    ensure(newSize, newRuns);
    RunEntry* r = runs();
    std::memmove(r + s + addedRuns, r + e, (runCount_ - e) * sizeof(RunEntry));
    for (std::size_t i = s + addedRuns; i < newRuns; ++i)
        r[i].start = static_cast<std::uint32_t>(r[i].start - removed + added);
    const RunEntry* src = replacement.runs();
    for (std::size_t i = 0; i < addedRuns; ++i)
        r[s + i] = {static_cast<std::uint32_t>(src[i].start + loc), map(src[i].attributes)};
    char* c = chars();
    std::memmove(c + loc + added, c + end, size_ - end);
    std::memcpy(c + loc, replacement.chars(), added);
    size_ = static_cast<std::uint32_t>(newSize);
    runCount_ = static_cast<std::uint32_t>(newRuns);
    coalesce(s, s + addedRuns);
    if (size_ == 0) runCount_ = 0;
    trimTable();
}

AttributedText AttributedText::substring(TextRange range) const {
    AttributedText out;
    const std::size_t loc = std::min<std::size_t>(range.location, size_);
    const std::size_t end = std::min<std::size_t>(range.end(), size_);
    if (loc >= end) return out;
    out.table_ = table_;
    AttributeTable::retain(table_);
    const std::size_t first = runIndexAt(loc);
    const std::size_t last = runIndexAt(end - 1);
    out.reserve(end - loc, last - first + 1);
    const RunEntry* r = runs();
    RunEntry* o = out.runs();
    for (std::size_t i = first; i <= last; ++i)
        o[i - first] = {static_cast<std::uint32_t>(std::max<std::size_t>(r[i].start, loc) - loc),
                        r[i].attributes};
    std::memcpy(out.chars(), chars() + loc, end - loc);
    out.size_ = static_cast<std::uint32_t>(end - loc);
    out.runCount_ = static_cast<std::uint32_t>(last - first + 1);
    return out;
}

template <typename Edit>
void AttributedText::editAttributes(TextRange range, Edit&& edit) {
    const std::size_t loc = std::min<std::size_t>(range.location, size_);
    const std::size_t end = std::min<std::size_t>(range.end(), size_);
    if (loc >= end) return;
    const std::size_t s = splitAt(loc);
    const std::size_t e = splitAt(end);
    // Own the table before reading indexes: copying a large one renumbers them.
    ownTable();
    // Runs that shared an attribute set before the edit share the edited one after it.
    std::vector<std::pair<const TextAttributes*, std::uint32_t>> memo;
    for (std::size_t i = s; i < e; ++i) {
        const AttributesRef& old = refAt(runs()[i].attributes);
        auto hit =
            std::find_if(memo.begin(), memo.end(), [&](auto& m) { return m.first == old.get(); });
        if (hit != memo.end()) {
            runs()[i].attributes = hit->second;
            continue;
        }
        TextAttributes updated = deref(old);
        edit(updated);
        const TextAttributes* key = old.get();
        const std::uint32_t index = indexOf(makeAttributes(std::move(updated)));
        memo.emplace_back(key, index);
        runs()[i].attributes = index;
    }
    coalesce(s, e);
    trimTable();
}

void AttributedText::setAttributes(TextRange range, const AttributesRef& attributes) {
    const std::size_t loc = std::min<std::size_t>(range.location, size_);
    const std::size_t end = std::min<std::size_t>(range.end(), size_);
    if (loc >= end) return;
    const std::size_t s = splitAt(loc);
    const std::size_t e = splitAt(end);
    const std::uint32_t index = indexOf(attributes);
    RunEntry* r = runs();
    std::memmove(r + s + 1, r + e, (runCount_ - e) * sizeof(RunEntry));
    runCount_ -= static_cast<std::uint32_t>(e - s - 1);
    r[s].attributes = index;
    coalesce(s, s + 1);
    trimTable();
}

void AttributedText::addAttributes(TextRange range, const TextAttributes& attributes) {
    editAttributes(range, [&](TextAttributes& a) { a.merge(attributes); });
}

void AttributedText::removeAttribute(TextRange range, AttributeKey key) {
    editAttributes(range, [&](TextAttributes& a) { a.remove(key); });
}

// ---- reading --------------------------------------------------------------------------------

const AttributesRef& AttributedText::attributesRef(std::size_t position) const {
    if (position >= size_) return noAttributesRef();
    return refAt(runs()[runIndexAt(position)].attributes);
}

const TextAttributes& AttributedText::attributes(std::size_t position, TextRange* effective) const {
    if (position >= size_) {
        if (effective) *effective = {size_, 0};
        return emptyAttributes();
    }
    const std::size_t i = runIndexAt(position);
    const RunEntry* r = runs();
    if (effective) {
        const std::size_t end = i + 1 < runCount_ ? r[i + 1].start : size_;
        *effective = {r[i].start, end - r[i].start};
    }
    return deref(refAt(r[i].attributes));
}

void AttributedText::enumerateRuns(TextRange range,
                                   const std::function<void(const Run&)>& f) const {
    const std::size_t loc = std::min<std::size_t>(range.location, size_);
    const std::size_t end = std::min<std::size_t>(range.end(), size_);
    if (loc >= end) return;
    const RunEntry* r = runs();
    for (std::size_t i = runIndexAt(loc); i < runCount_ && r[i].start < end; ++i) {
        const std::size_t runEnd = i + 1 < runCount_ ? r[i + 1].start : size_;
        const std::size_t a = std::max<std::size_t>(r[i].start, loc);
        const std::size_t b = std::min(runEnd, end);
        const AttributesRef& ref = refAt(r[i].attributes);
        f(Run{{a, b - a}, deref(ref), ref});
    }
}

std::size_t AttributedText::utf16Offset(std::size_t bytePosition) const {
    return utf16Count(string().substr(0, std::min<std::size_t>(bytePosition, size_)));
}

std::size_t AttributedText::byteOffset(std::size_t utf16Position) const {
    return jsonview::internal::advanceUTF16(string(), utf16Position);
}

TextRange AttributedText::utf16Range(TextRange r) const {
    const std::size_t a = utf16Offset(r.location);
    const std::size_t end = std::min<std::size_t>(r.end(), size_);
    const std::size_t loc = std::min<std::size_t>(r.location, size_);
    return {a, utf16Count(string().substr(loc, end - loc))};
}

TextRange AttributedText::byteRange(TextRange r) const {
    const std::size_t a = byteOffset(r.location);
    const std::size_t b = a + jsonview::internal::advanceUTF16(string().substr(a), r.length);
    return {a, b - a};
}

std::vector<TextRange> AttributedText::findRanges(std::string_view needle) const {
    std::vector<TextRange> hits;
    if (needle.empty()) return hits;
    const std::string_view hay = string();
    for (std::size_t at = hay.find(needle); at != std::string_view::npos;
         at = hay.find(needle, at + needle.size()))
        hits.push_back({at, needle.size()});
    return hits;
}

std::vector<TextRange> AttributedText::findNSRanges(std::string_view needle) const {
    std::vector<TextRange> hits = findRanges(needle);
    if (hits.empty()) return hits;
    // Hits ascend, so one forward walk converts them all.
    const std::string_view hay = string();
    const std::size_t needleUnits = utf16Count(needle);
    std::size_t byte = 0;
    std::size_t units = 0;
    for (auto& h : hits) {
        units += utf16Count(hay.substr(byte, h.location - byte));
        byte = h.location;
        h = {units, needleUnits};
    }
    return hits;
}

bool operator==(const AttributedText& a, const AttributedText& b) {
    if (a.string() != b.string()) return false;
    // Walk both run lists segment by segment, so that equal attributes compare equal whatever
    // their run boundaries.
    std::size_t i = 0, j = 0, pos = 0;
    const std::size_t n = a.size_;
    const AttributedText::RunEntry* ra = a.runs();
    const AttributedText::RunEntry* rb = b.runs();
    while (pos < n) {
        if (!sameAttributes(a.refAt(ra[i].attributes), b.refAt(rb[j].attributes))) return false;
        const std::size_t endA = i + 1 < a.runCount_ ? ra[i + 1].start : n;
        const std::size_t endB = j + 1 < b.runCount_ ? rb[j + 1].start : n;
        pos = std::min(endA, endB);
        if (endA == pos) ++i;
        if (endB == pos) ++j;
    }
    return true;
}

// ---- TextStorage ----------------------------------------------------------------------------

namespace {
constexpr std::size_t kChunkTarget = 4096;
constexpr std::size_t kChunkMax = 2 * kChunkTarget;
}  // namespace

TextStorage::TextStorage(const AttributedText& text) { setText(text); }

void TextStorage::setText(const AttributedText& text) {
    chunks_.clear();
    appendChunks(text, chunks_);
    length_ = text.length();
}

void TextStorage::appendChunks(const AttributedText& text, std::vector<Chunk>& out) const {
    const std::string_view s = text.string();
    std::size_t p = 0;
    while (p < s.size()) {
        std::size_t cut = s.size();
        if (s.size() - p > kChunkMax) {
            // Prefer to end a chunk after a line feed; otherwise at a scalar boundary.
            const std::size_t lo = p + kChunkTarget / 2;
            const std::size_t nl = s.rfind('\n', p + kChunkTarget);
            if (nl != std::string::npos && nl >= lo) {
                cut = nl + 1;
            } else {
                cut = p + kChunkTarget;
                while (cut > p + 1 && (static_cast<unsigned char>(s[cut]) & 0xC0) == 0x80) --cut;
            }
        }
        Chunk c{text.substring({p, cut - p}), 0};
        c.utf16 = c.text.utf16Length();
        out.push_back(std::move(c));
        p = cut;
    }
}

std::pair<std::size_t, std::size_t> TextStorage::locate(std::size_t position) const {
    std::size_t start = 0;
    for (std::size_t i = 0; i < chunks_.size(); ++i) {
        const std::size_t len = chunks_[i].text.length();
        if (position < start + len || i + 1 == chunks_.size()) return {i, start};
        start += len;
    }
    return {0, 0};
}

void TextStorage::replace(TextRange range, const AttributedText& replacement) {
    const std::size_t loc = std::min(range.location, length_);
    const std::size_t end = std::min(range.end(), length_);
    if (chunks_.empty()) {
        setText(replacement);
        return;
    }
    auto [c0, s0] = locate(loc);
    auto [c1, s1] = locate(end);
    if (c0 == c1) {
        Chunk& c = chunks_[c0];
        const std::size_t newSize = c.text.length() - (end - loc) + replacement.length();
        if (newSize <= kChunkMax && newSize > 0) {
            // The chunk's UTF-16 length changes by what goes and what comes.
            const std::size_t removed = utf16Count(c.text.string().substr(loc - s0, end - loc));
            c.text.replace({loc - s0, end - loc}, replacement);
            c.utf16 = c.utf16 - removed + replacement.utf16Length();
            length_ = length_ - (end - loc) + replacement.length();
            return;
        }
    }
    AttributedText merged = chunks_[c0].text.substring({0, loc - s0});
    merged.append(replacement);
    const AttributedText& last = chunks_[c1].text;
    merged.append(last.substring({end - s1, last.length() - (end - s1)}));
    std::vector<Chunk> fresh;
    appendChunks(merged, fresh);
    chunks_.erase(chunks_.begin() + static_cast<std::ptrdiff_t>(c0),
                  chunks_.begin() + static_cast<std::ptrdiff_t>(c1) + 1);
    chunks_.insert(chunks_.begin() + static_cast<std::ptrdiff_t>(c0),
                   std::make_move_iterator(fresh.begin()), std::make_move_iterator(fresh.end()));
    length_ = length_ - (end - loc) + replacement.length();
}

std::size_t TextStorage::utf16Length() const {
    std::size_t n = 0;
    for (const auto& c : chunks_) n += c.utf16;
    return n;
}

AttributedText TextStorage::attributedSubstring(TextRange range) const {
    AttributedText out;
    const std::size_t loc = std::min(range.location, length_);
    const std::size_t end = std::min(range.end(), length_);
    std::size_t start = 0;
    for (const auto& c : chunks_) {
        const std::size_t len = c.text.length();
        if (start + len > loc && start < end) {
            const std::size_t a = std::max(loc, start) - start;
            const std::size_t b = std::min(end, start + len) - start;
            out.append(c.text.substring({a, b - a}));
        }
        start += len;
        if (start >= end) break;
    }
    return out;
}

AttributedText TextStorage::flattened() const {
    AttributedText out;
    for (const auto& c : chunks_) out.append(c.text);
    return out;
}

std::string TextStorage::string() const {
    std::string out;
    out.reserve(length_);
    for (const auto& c : chunks_) out += c.text.string();
    return out;
}

void TextStorage::enumerateRuns(TextRange range,
                                const std::function<void(const AttributedText::Run&)>& f) const {
    const std::size_t loc = std::min(range.location, length_);
    const std::size_t end = std::min(range.end(), length_);
    std::size_t start = 0;
    for (const auto& c : chunks_) {
        const std::size_t len = c.text.length();
        if (start + len > loc && start < end) {
            const std::size_t a = std::max(loc, start) - start;
            const std::size_t b = std::min(end, start + len) - start;
            c.text.enumerateRuns({a, b - a}, [&](const AttributedText::Run& r) {
                f(AttributedText::Run{
                    {r.range.location + start, r.range.length}, r.attributes, r.ref});
            });
        }
        start += len;
        if (start >= end) break;
    }
}

std::size_t TextStorage::utf16Offset(std::size_t bytePosition) const {
    std::size_t start = 0, units = 0;
    for (const auto& c : chunks_) {
        const std::size_t len = c.text.length();
        if (bytePosition < start + len) return units + c.text.utf16Offset(bytePosition - start);
        start += len;
        units += c.utf16;
    }
    return units;
}

std::size_t TextStorage::byteOffset(std::size_t utf16Position) const {
    std::size_t start = 0, units = 0;
    for (const auto& c : chunks_) {
        if (utf16Position < units + c.utf16)
            return start + c.text.byteOffset(utf16Position - units);
        start += c.text.length();
        units += c.utf16;
    }
    return start;
}

}  // namespace kestro
