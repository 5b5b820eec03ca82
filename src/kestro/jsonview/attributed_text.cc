#include "kestro/jsonview/attributed_text.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

#include "kestro/jsonview/attribute_table.h"
#include "kestro/jsonview/block_cache.h"
#include "kestro/jsonview/reference_stock.h"
#include "kestro/jsonview/table_writer.h"

namespace kestro {

namespace {

using jsonview::internal::copyBytes;
using jsonview::internal::utf16Count;

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

// Constant-initialised, so usable at any time.
constinit const AttributesRef kNoAttributesRef;

const AttributesRef& noAttributesRef() { return kNoAttributesRef; }

}  // namespace

// ---- storage --------------------------------------------------------------------------------

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

}  // namespace kestro
