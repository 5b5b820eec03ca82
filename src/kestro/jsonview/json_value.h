#pragma once

// The tree the tolerant JSON parser builds: JSONValue (a tagged union of the seven cases),
// JSONObject (the map of an object, keyed by JSONObjectKey) and the helpers the decorator needs
// to lay a tree out (isRight, rankingUnknownKeyLast).
//
// Values are plain, self-contained C++ values: copying copies the whole subtree, moving is
// cheap. A value is not synchronised; distinct values may be used on distinct threads.

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kestro/core/export.h"
#include "kestro/jsonview/block_cache.h"
#include "kestro/jsonview/json_text.h"

namespace kestro {

class JSONValue;
struct JSONObjectEntry;

/// The key of an object member. `isWrong` marks the synthetic key under which the parser stores
/// text it could not read as a member; every such key equals `JSONObjectKey::wrong()`.
struct KESTRO_API JSONObjectKey {
    std::string key;
    bool isWrong = false;

    JSONObjectKey() = default;
    JSONObjectKey(std::string text) : key(std::move(text)) {}  // NOLINT: implicit
    JSONObjectKey(std::string_view text) : key(text) {}        // NOLINT: implicit
    JSONObjectKey(const char* text) : key(text) {}             // NOLINT: implicit
    JSONObjectKey(std::string text, bool wrong) : key(std::move(text)), isWrong(wrong) {}

    /// The synthetic key: empty text, `isWrong` true.
    static JSONObjectKey wrong() { return JSONObjectKey(std::string(), true); }

    /// Equal texts (canonically equivalent Unicode counts as equal) and equal flags.
    friend KESTRO_API bool operator==(const JSONObjectKey& a, const JSONObjectKey& b);

    /// A wrong key is never less than anything; every plain key is less than a wrong key;
    /// plain keys compare by Unicode scalar order after canonical (NFC) normalisation, which is
    /// byte order for ASCII keys.
    friend KESTRO_API bool operator<(const JSONObjectKey& a, const JSONObjectKey& b);

    /// A hash consistent with ==.
    std::size_t hash() const;
};

/// The elements of an array. Its storage comes from the per-thread block cache (see
/// block_cache.h), which spares a document's thousands of small arrays a trip through malloc.
using JSONArray = std::vector<JSONValue, jsonview::internal::BlockAllocator<JSONValue>>;

/// The map of a JSON object. Keys are unique: storing under a key that is already present
/// replaces its value. Iteration order is unspecified (it happens to be first-insertion order);
/// use rankingUnknownKeyLast() for the display order. Equality compares as maps.
class KESTRO_API JSONObject {
  public:
    using Entry = JSONObjectEntry;

    JSONObject();
    JSONObject(std::initializer_list<JSONObjectEntry> entries);
    JSONObject(const JSONObject& other);
    JSONObject(JSONObject&& other) noexcept;
    JSONObject& operator=(const JSONObject& other);
    JSONObject& operator=(JSONObject&& other) noexcept;
    ~JSONObject();

    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    const JSONObjectEntry* begin() const { return entries_; }
    const JSONObjectEntry* end() const;

    /// The value stored under the key, or nullptr.
    const JSONValue* find(const JSONObjectKey& key) const;
    bool contains(const JSONObjectKey& key) const { return find(key) != nullptr; }

    /// Stores value under key; a key already present keeps its place and takes the new value.
    void insertOrAssign(JSONObjectKey key, JSONValue value);

    void reserve(std::size_t capacity);

    friend KESTRO_API bool operator==(const JSONObject& a, const JSONObject& b);

  private:
    friend class JSONParser;
    // Takes n entries (moved from), keeping the first position and the last value of
    // duplicate keys. asciiKeys[i] tells whether entry i's key is plain ASCII, which allows a
    // byte comparison.
    void adopt(JSONObjectEntry* first, std::size_t n, const std::uint8_t* asciiKeys);
    std::ptrdiff_t indexOf(const JSONObjectKey& key, std::size_t hash) const;
    void rebuildIndex();
    void release() noexcept;

    JSONObjectEntry* entries_ = nullptr;
    std::uint32_t size_ = 0;
    std::uint32_t capacity_ = 0;
    // Open-addressed table of entry positions + 1 (0 = empty slot), present only for maps
    // large enough that a linear scan would cost more than hashing.
    std::uint32_t* index_ = nullptr;
    std::uint32_t indexSize_ = 0;
};

/// A JSON value as the tolerant parser reads it. Scalars may carry a `wrong` text: raw document
/// text that followed the scalar and could not be parsed, shown right after it.
class KESTRO_API JSONValue {
  public:
    /// The cases, in their declared order. `boolean` is the case of `true` and `false`.
    enum class Case : std::uint8_t { string, number, boolean, null, array, object, unknown };

    /// Whether a value (and what it contains) is well formed, as the decorator needs to know.
    struct ValueType {
        bool right = true;
        bool isContainer = false;

        static ValueType makeRight(bool isContainer) { return {true, isContainer}; }
        static ValueType makeWrong() { return {false, false}; }
        bool isWrong() const { return !right; }
        friend bool operator==(const ValueType& a, const ValueType& b) {
            return a.right == b.right && (!a.right || a.isContainer == b.isContainer);
        }
    };

    /// `null` without a wrong text.
    JSONValue() noexcept : case_(Case::null) {}

    // One factory per case.
    static JSONValue string(std::string_view text,
                            std::optional<std::string_view> wrong = std::nullopt);
    static JSONValue string(std::string&& text);
    static JSONValue string(const char* text) { return string(std::string_view(text)); }
    static JSONValue number(std::string_view sourceText,
                            std::optional<std::string_view> wrong = std::nullopt);
    static JSONValue boolean(bool value, std::optional<std::string_view> wrong = std::nullopt);
    static JSONValue null(std::optional<std::string_view> wrong = std::nullopt);
    static JSONValue array(JSONArray elements = {});
    static JSONValue object(JSONObject members = {});
    static JSONValue unknown(std::string_view rawText);
    static JSONValue unknown(std::string&& rawText);
    static JSONValue unknown(const char* rawText) { return unknown(std::string_view(rawText)); }

    JSONValue(const JSONValue& other);
    JSONValue(JSONValue&& other) noexcept;
    JSONValue& operator=(const JSONValue& other);
    JSONValue& operator=(JSONValue&& other) noexcept;
    ~JSONValue();

    Case kind() const { return case_; }
    bool isString() const { return case_ == Case::string; }
    bool isNumber() const { return case_ == Case::number; }
    bool isBool() const { return case_ == Case::boolean; }
    bool isNull() const { return case_ == Case::null; }
    bool isArray() const { return case_ == Case::array; }
    bool isObject() const { return case_ == Case::object; }
    bool isUnknown() const { return case_ == Case::unknown; }
    /// string, number, boolean or null.
    bool isScalar() const { return case_ <= Case::null; }

    /// string: the decoded text; number: its exact source text; unknown: the raw text;
    /// other cases: empty.
    std::string_view text() const;
    /// The boolean of a `boolean`; false for other cases.
    bool asBool() const { return case_ == Case::boolean && bool_; }
    /// The wrong text of a scalar, if it has one.
    std::optional<std::string_view> wrong() const;

    /// The elements of an array / the members of an object. Calling these on a value of another
    /// case is a programming error (checked with an assertion in debug builds; release builds
    /// return an empty container).
    const JSONArray& asArray() const;
    JSONArray& asArray();
    const JSONObject& asObject() const;
    JSONObject& asObject();

    /// For string, number, boolean and null: the same value with its wrong text set to text
    /// (replacing any previous one). Arrays, objects and unknown values come back unchanged.
    JSONValue appendWrong(std::string_view text) const&;
    JSONValue appendWrong(std::string_view text) &&;

    /// Scalars: wrong if they carry a wrong text. Arrays: right (container) if empty, else wrong
    /// if their last element is wrong. Objects: wrong if any member value is wrong. unknown:
    /// wrong.
    ValueType isRight() const;

    /// Same case and equal payloads; objects compare as maps.
    friend KESTRO_API bool operator==(const JSONValue& a, const JSONValue& b);

    /// The case's name: "string", "number", "bool", "null", "array", "object", "unknown".
    static std::string_view caseName(Case c);

  private:
    friend class JSONParser;
    explicit JSONValue(Case c) noexcept : case_(c) {}
    void destroy() noexcept;
    void copyFrom(const JSONValue& other);
    void moveFrom(JSONValue&& other) noexcept;
    void setWrong(std::string_view text);

    Case case_;
    bool bool_ = false;
    union {
        jsonview::internal::Text text_;  // string, number, unknown
        JSONArray array_;                // array
        JSONObject object_;              // object
    };
    std::string* wrong_ = nullptr;  // owned; only scalars
};

struct JSONObjectEntry {
    JSONObjectKey key;
    JSONValue value;
};

inline const JSONObjectEntry* JSONObject::end() const { return entries_ + size_; }

/// The keys of an object in display order: ascending by JSONObjectKey's <, except that the key
/// whose value is `unknown` goes last.
KESTRO_API std::vector<JSONObjectKey> rankingUnknownKeyLast(const JSONObject& object);

/// The same order as pointers to the entries (no key copies); valid while object is unchanged.
KESTRO_API std::vector<const JSONObjectEntry*> rankedEntries(const JSONObject& object);

}  // namespace kestro

template <>
struct std::hash<kestro::JSONObjectKey> {
    std::size_t operator()(const kestro::JSONObjectKey& key) const noexcept { return key.hash(); }
};
