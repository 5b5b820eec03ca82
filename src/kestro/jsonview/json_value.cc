#include "kestro/jsonview/json_value.h"

#include <unicode/normalizer2.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <cassert>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>

namespace kestro {

namespace jsonview::internal {
namespace {

bool isASCII(std::string_view text) {
    const char* p = text.data();
    const std::size_t n = text.size();
    std::uint64_t acc = 0;
    std::size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        std::uint64_t word;
        std::memcpy(&word, p + i, 8);
        acc |= word;
    }
    for (; i < n; ++i) acc |= static_cast<unsigned char>(p[i]);
    return (acc & 0x8080808080808080ULL) == 0;
}

// NFC form of a text; texts ICU cannot normalise compare as they are.
std::string canonical(std::string_view text) {
    UErrorCode status = U_ZERO_ERROR;
    const icu::Normalizer2* nfc = icu::Normalizer2::getNFCInstance(status);
    if (U_FAILURE(status)) return std::string(text);
    icu::UnicodeString source = icu::UnicodeString::fromUTF8(
        icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
    icu::UnicodeString normalised = nfc->normalize(source, status);
    if (U_FAILURE(status)) return std::string(text);
    std::string out;
    normalised.toUTF8String(out);
    return out;
}

}  // namespace
}  // namespace jsonview::internal

using jsonview::internal::canonical;
using jsonview::internal::isASCII;

// ---------------------------------------------------------------------------------------------
// JSONObjectKey

bool operator==(const JSONObjectKey& a, const JSONObjectKey& b) {
    if (a.isWrong != b.isWrong) return false;
    if (a.key == b.key) return true;
    // Canonically equivalent texts that differ byte-wise hold at least one non-ASCII byte.
    // Only non-ASCII texts can be canonically equivalent without being byte-equal.
    if (isASCII(a.key) && isASCII(b.key)) return false;
    return canonical(a.key) == canonical(b.key);
}

bool operator<(const JSONObjectKey& a, const JSONObjectKey& b) {
    if (a.isWrong) return false;
    if (b.isWrong) return true;
    // UTF-8 byte order is Unicode scalar order.
    if (isASCII(a.key) && isASCII(b.key)) return a.key < b.key;
    return canonical(a.key) < canonical(b.key);
}

std::size_t JSONObjectKey::hash() const {
    std::size_t h = isASCII(key) ? std::hash<std::string_view>{}(key)
                                 : std::hash<std::string>{}(canonical(key));
    return isWrong ? ~h : h;
}

// ---------------------------------------------------------------------------------------------
// JSONObject

namespace {
// Up to this many members a linear scan beats hashing every key.
constexpr std::uint32_t kLinearLimit = 16;
}  // namespace

JSONObject::JSONObject() = default;

JSONObject::JSONObject(std::initializer_list<JSONObjectEntry> entries) {
    reserve(entries.size());
    for (const auto& e : entries) insertOrAssign(e.key, e.value);
}

JSONObject::JSONObject(const JSONObject& other) {
    reserve(other.size_);
    for (std::uint32_t i = 0; i < other.size_; ++i) {
        new (entries_ + i) JSONObjectEntry(other.entries_[i]);
        ++size_;
    }
    rebuildIndex();
}

JSONObject::JSONObject(JSONObject&& other) noexcept
    : entries_(std::exchange(other.entries_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      capacity_(std::exchange(other.capacity_, 0)),
      index_(std::exchange(other.index_, nullptr)),
      indexSize_(std::exchange(other.indexSize_, 0)) {}

JSONObject& JSONObject::operator=(const JSONObject& other) {
    if (this != &other) {
        JSONObject copy(other);
        *this = std::move(copy);
    }
    return *this;
}

JSONObject& JSONObject::operator=(JSONObject&& other) noexcept {
    if (this != &other) {
        release();
        entries_ = std::exchange(other.entries_, nullptr);
        size_ = std::exchange(other.size_, 0);
        capacity_ = std::exchange(other.capacity_, 0);
        index_ = std::exchange(other.index_, nullptr);
        indexSize_ = std::exchange(other.indexSize_, 0);
    }
    return *this;
}

JSONObject::~JSONObject() { release(); }

void JSONObject::release() noexcept {
    for (std::uint32_t i = 0; i < size_; ++i) entries_[i].~JSONObjectEntry();
    jsonview::internal::freeBlock(entries_, capacity_ * sizeof(JSONObjectEntry));
    delete[] index_;
    entries_ = nullptr;
    index_ = nullptr;
    size_ = capacity_ = indexSize_ = 0;
}

void JSONObject::reserve(std::size_t capacity) {
    if (capacity <= capacity_) return;
    auto* fresh = static_cast<JSONObjectEntry*>(
        jsonview::internal::allocateBlock(capacity * sizeof(JSONObjectEntry)));
    for (std::uint32_t i = 0; i < size_; ++i) {
        new (fresh + i) JSONObjectEntry(std::move(entries_[i]));
        entries_[i].~JSONObjectEntry();
    }
    jsonview::internal::freeBlock(entries_, capacity_ * sizeof(JSONObjectEntry));
    entries_ = fresh;
    capacity_ = static_cast<std::uint32_t>(capacity);
}

void JSONObject::adopt(JSONObjectEntry* first, std::size_t n, const std::uint8_t* asciiKeys) {
    release();
    reserve(n);
    if (n > kLinearLimit) {
        for (std::size_t i = 0; i < n; ++i)
            insertOrAssign(std::move(first[i].key), std::move(first[i].value));
        return;
    }
    // Small objects: a duplicate check by scan. Two ASCII keys are canonically equivalent only
    // when byte-equal, so those compare without normalisation.
    std::uint8_t placedASCII[kLinearLimit];
    for (std::size_t i = 0; i < n; ++i) {
        const JSONObjectKey& key = first[i].key;
        std::ptrdiff_t duplicate = -1;
        for (std::uint32_t j = 0; j < size_; ++j) {
            const JSONObjectKey& placed = entries_[j].key;
            const bool same = asciiKeys[i] && placedASCII[j]
                                  ? placed.isWrong == key.isWrong && placed.key == key.key
                                  : placed == key;
            if (same) {
                duplicate = j;
                break;
            }
        }
        if (duplicate >= 0) {
            entries_[duplicate].value = std::move(first[i].value);
            continue;
        }
        new (entries_ + size_) JSONObjectEntry(std::move(first[i]));
        placedASCII[size_] = asciiKeys[i];
        ++size_;
    }
}

void JSONObject::rebuildIndex() {
    delete[] index_;
    index_ = nullptr;
    indexSize_ = 0;
    if (size_ <= kLinearLimit) return;
    std::uint32_t slots = 32;
    while (slots < size_ * 2) slots *= 2;
    index_ = new std::uint32_t[slots]();
    indexSize_ = slots;
    for (std::uint32_t i = 0; i < size_; ++i) {
        std::size_t slot = entries_[i].key.hash() & (slots - 1);
        while (index_[slot] != 0) slot = (slot + 1) & (slots - 1);
        index_[slot] = i + 1;
    }
}

std::ptrdiff_t JSONObject::indexOf(const JSONObjectKey& key, std::size_t hash) const {
    if (index_ == nullptr) {
        for (std::uint32_t i = 0; i < size_; ++i)
            if (entries_[i].key == key) return i;
        return -1;
    }
    std::size_t slot = hash & (indexSize_ - 1);
    while (index_[slot] != 0) {
        std::uint32_t pos = index_[slot] - 1;
        if (entries_[pos].key == key) return pos;
        slot = (slot + 1) & (indexSize_ - 1);
    }
    return -1;
}

const JSONValue* JSONObject::find(const JSONObjectKey& key) const {
    std::ptrdiff_t pos = indexOf(key, index_ ? key.hash() : 0);
    return pos < 0 ? nullptr : &entries_[pos].value;
}

void JSONObject::insertOrAssign(JSONObjectKey key, JSONValue value) {
    std::size_t hash = index_ || size_ + 1 > kLinearLimit ? key.hash() : 0;
    std::ptrdiff_t pos = indexOf(key, hash);
    if (pos >= 0) {
        entries_[pos].value = std::move(value);
        return;
    }
    if (size_ == capacity_) reserve(capacity_ == 0 ? 4 : capacity_ * 2);
    new (entries_ + size_) JSONObjectEntry{std::move(key), std::move(value)};
    ++size_;
    if (size_ > kLinearLimit) {
        if (index_ == nullptr || size_ * 2 > indexSize_) {
            rebuildIndex();
        } else {
            std::size_t slot = hash & (indexSize_ - 1);
            while (index_[slot] != 0) slot = (slot + 1) & (indexSize_ - 1);
            index_[slot] = size_;
        }
    }
}

bool operator==(const JSONObject& a, const JSONObject& b) {
    if (a.size() != b.size()) return false;
    for (const auto& entry : a) {
        const JSONValue* other = b.find(entry.key);
        if (other == nullptr || !(*other == entry.value)) return false;
    }
    return true;
}

// ---------------------------------------------------------------------------------------------
// JSONValue

JSONValue JSONValue::string(std::string_view text, std::optional<std::string_view> wrong) {
    JSONValue v(Case::string);
    new (&v.text_) jsonview::internal::Text(text);
    if (wrong) v.setWrong(*wrong);
    return v;
}

JSONValue JSONValue::string(std::string&& text) {
    JSONValue v(Case::string);
    new (&v.text_) jsonview::internal::Text(text);
    return v;
}

JSONValue JSONValue::number(std::string_view sourceText, std::optional<std::string_view> wrong) {
    JSONValue v(Case::number);
    new (&v.text_) jsonview::internal::Text(sourceText);
    if (wrong) v.setWrong(*wrong);
    return v;
}

JSONValue JSONValue::boolean(bool value, std::optional<std::string_view> wrong) {
    JSONValue v(Case::boolean);
    v.bool_ = value;
    if (wrong) v.setWrong(*wrong);
    return v;
}

JSONValue JSONValue::null(std::optional<std::string_view> wrong) {
    JSONValue v(Case::null);
    if (wrong) v.setWrong(*wrong);
    return v;
}

JSONValue JSONValue::array(JSONArray elements) {
    JSONValue v(Case::array);
    new (&v.array_) JSONArray(std::move(elements));
    return v;
}

JSONValue JSONValue::object(JSONObject members) {
    JSONValue v(Case::object);
    new (&v.object_) JSONObject(std::move(members));
    return v;
}

JSONValue JSONValue::unknown(std::string_view rawText) {
    JSONValue v(Case::unknown);
    new (&v.text_) jsonview::internal::Text(rawText);
    return v;
}

JSONValue JSONValue::unknown(std::string&& rawText) {
    JSONValue v(Case::unknown);
    new (&v.text_) jsonview::internal::Text(rawText);
    return v;
}

JSONValue::JSONValue(const JSONValue& other) : case_(Case::null) { copyFrom(other); }

JSONValue::JSONValue(JSONValue&& other) noexcept : case_(Case::null) { moveFrom(std::move(other)); }

JSONValue& JSONValue::operator=(const JSONValue& other) {
    if (this != &other) {
        JSONValue copy(other);
        destroy();
        moveFrom(std::move(copy));
    }
    return *this;
}

JSONValue& JSONValue::operator=(JSONValue&& other) noexcept {
    if (this != &other) {
        // other may live inside this value's subtree: detach it before tearing this one down.
        JSONValue taken(Case::null);
        taken.moveFrom(std::move(other));
        destroy();
        moveFrom(std::move(taken));
    }
    return *this;
}

JSONValue::~JSONValue() { destroy(); }

void JSONValue::destroy() noexcept {
    switch (case_) {
        case Case::string:
        case Case::number:
        case Case::unknown:
            text_.~Text();
            break;
        case Case::array:
            array_.~JSONArray();
            break;
        case Case::object:
            object_.~JSONObject();
            break;
        default:
            break;
    }
    delete wrong_;
    wrong_ = nullptr;
    case_ = Case::null;
}

void JSONValue::copyFrom(const JSONValue& other) {
    // Precondition: this holds nothing (null without wrong text).
    switch (other.case_) {
        case Case::string:
        case Case::number:
        case Case::unknown:
            new (&text_) jsonview::internal::Text(other.text_);
            break;
        case Case::array:
            new (&array_) JSONArray(other.array_);
            break;
        case Case::object:
            new (&object_) JSONObject(other.object_);
            break;
        default:
            break;
    }
    case_ = other.case_;
    bool_ = other.bool_;
    if (other.wrong_) wrong_ = new std::string(*other.wrong_);
}

void JSONValue::moveFrom(JSONValue&& other) noexcept {
    // Precondition: this holds nothing (null without wrong text).
    switch (other.case_) {
        case Case::string:
        case Case::number:
        case Case::unknown:
            new (&text_) jsonview::internal::Text(std::move(other.text_));
            break;
        case Case::array:
            new (&array_) JSONArray(std::move(other.array_));
            break;
        case Case::object:
            new (&object_) JSONObject(std::move(other.object_));
            break;
        default:
            break;
    }
    case_ = other.case_;
    bool_ = other.bool_;
    wrong_ = std::exchange(other.wrong_, nullptr);
    other.destroy();
}

void JSONValue::setWrong(std::string_view text) {
    if (!isScalar()) return;
    if (wrong_)
        wrong_->assign(text);
    else
        wrong_ = new std::string(text);
}

std::string_view JSONValue::text() const {
    switch (case_) {
        case Case::string:
        case Case::number:
        case Case::unknown:
            return text_.view();
        default:
            return {};
    }
}

std::optional<std::string_view> JSONValue::wrong() const {
    if (wrong_ == nullptr) return std::nullopt;
    return std::string_view(*wrong_);
}

namespace {
const JSONArray& emptyArray() {
    static const JSONArray empty;
    return empty;
}
const JSONObject& emptyObject() {
    static const JSONObject empty;
    return empty;
}
}  // namespace

const JSONArray& JSONValue::asArray() const {
    assert(case_ == Case::array);
    return case_ == Case::array ? array_ : emptyArray();
}

JSONArray& JSONValue::asArray() {
    assert(case_ == Case::array);
    if (case_ != Case::array) {
        destroy();
        new (&array_) JSONArray();
        case_ = Case::array;
    }
    return array_;
}

const JSONObject& JSONValue::asObject() const {
    assert(case_ == Case::object);
    return case_ == Case::object ? object_ : emptyObject();
}

JSONObject& JSONValue::asObject() {
    assert(case_ == Case::object);
    if (case_ != Case::object) {
        destroy();
        new (&object_) JSONObject();
        case_ = Case::object;
    }
    return object_;
}

JSONValue JSONValue::appendWrong(std::string_view text) const& {
    JSONValue copy(*this);
    copy.setWrong(text);
    return copy;
}

JSONValue JSONValue::appendWrong(std::string_view text) && {
    setWrong(text);
    return std::move(*this);
}

JSONValue::ValueType JSONValue::isRight() const {
    switch (case_) {
        case Case::string:
        case Case::number:
        case Case::boolean:
        case Case::null:
            return wrong_ ? ValueType::makeWrong() : ValueType::makeRight(false);
        case Case::array:
            if (array_.empty() || !array_.back().isRight().isWrong())
                return ValueType::makeRight(true);
            return ValueType::makeWrong();
        case Case::object:
            for (const auto& entry : object_)
                if (entry.value.isRight().isWrong()) return ValueType::makeWrong();
            return ValueType::makeRight(true);
        case Case::unknown:
            return ValueType::makeWrong();
    }
    return ValueType::makeWrong();
}

bool operator==(const JSONValue& a, const JSONValue& b) {
    if (a.case_ != b.case_) return false;
    if (a.isScalar()) {
        if ((a.wrong_ == nullptr) != (b.wrong_ == nullptr)) return false;
        if (a.wrong_ && *a.wrong_ != *b.wrong_) return false;
    }
    switch (a.case_) {
        case JSONValue::Case::string:
        case JSONValue::Case::number:
        case JSONValue::Case::unknown:
            return a.text_.view() == b.text_.view();
        case JSONValue::Case::boolean:
            return a.bool_ == b.bool_;
        case JSONValue::Case::null:
            return true;
        case JSONValue::Case::array:
            return a.array_ == b.array_;
        case JSONValue::Case::object:
            return a.object_ == b.object_;
    }
    return false;
}

std::string_view JSONValue::caseName(Case c) {
    switch (c) {
        case Case::string:
            return "string";
        case Case::number:
            return "number";
        case Case::boolean:
            return "bool";
        case Case::null:
            return "null";
        case Case::array:
            return "array";
        case Case::object:
            return "object";
        case Case::unknown:
            return "unknown";
    }
    return "unknown";
}

// ---------------------------------------------------------------------------------------------
// Display order

std::vector<const JSONObjectEntry*> rankedEntries(const JSONObject& object) {
    std::vector<const JSONObjectEntry*> order;
    order.reserve(object.size());
    const JSONObjectEntry* unknownEntry = nullptr;
    for (const auto& entry : object) {
        if (entry.value.isUnknown() && unknownEntry == nullptr)
            unknownEntry = &entry;
        else
            order.push_back(&entry);
    }
    // Plain ASCII keys (nearly all) compare byte by byte: decide that once, not per comparison.
    const bool plain = std::all_of(order.begin(), order.end(), [](const JSONObjectEntry* e) {
        return !e->key.isWrong && isASCII(e->key.key);
    });
    if (plain)
        std::sort(order.begin(), order.end(),
                  [](const JSONObjectEntry* a, const JSONObjectEntry* b) {
                      return std::string_view(a->key.key) < std::string_view(b->key.key);
                  });
    else
        std::sort(
            order.begin(), order.end(),
            [](const JSONObjectEntry* a, const JSONObjectEntry* b) { return a->key < b->key; });
    if (unknownEntry) order.push_back(unknownEntry);
    return order;
}

std::vector<JSONObjectKey> rankingUnknownKeyLast(const JSONObject& object) {
    std::vector<JSONObjectKey> keys;
    auto order = rankedEntries(object);
    keys.reserve(order.size());
    for (const auto* entry : order) keys.push_back(entry->key);
    return keys;
}

}  // namespace kestro
