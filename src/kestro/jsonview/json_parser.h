#pragma once

// The tolerant JSON parser: reads bytes into a JSONValue tree and never fails. Where the text
// stops being JSON, what was already built is kept and the rest of the document is attached as
// raw text (the `wrong` text of a scalar, an `unknown` value under a key, or a whole `unknown`
// document). Errors that cannot be recovered give `unknown` holding the error's description.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "kestro/core/export.h"
#include "kestro/jsonview/json_value.h"

namespace kestro {

/// Why reading stopped. Thrown inside the parser (and by DocumentReader's reading operations),
/// never out of JSONParser::parse(). description() gives the text that `unknown` carries for
/// errors that cannot be recovered, e.g. "numberWithLeadingZero(index: 1)".
class KESTRO_API JSONError {
  public:
    enum class Case : std::uint8_t {
        unexpectedCharacter,                                 // jsonValue, ascii, characterIndex
        tooManyNestedArraysOrDictionaries,                   // characterIndex
        invalidHexDigitSequence,                             // text, index
        unexpectedEscapedCharacter,                          // ascii, in, index
        unescapedControlCharacterInString,                   // ascii, in, index
        expectedLowSurrogateUTF8SequenceAfterHighSurrogate,  // in, index
        couldNotCreateUnicodeScalarFromUInt32,               // in, index, unicodeScalarValue
        numberWithLeadingZero,                               // index
        numberIsNotRepresentable,                            // parsed (never raised)
        cannotConvertInputDataToUTF8,                        // (never raised)
        unexpectedEndOfFile,
        singleFragmentFoundButNotAllowed,  // (never raised)
    };

    static JSONError unexpectedCharacter(std::optional<JSONValue> jsonValue, std::uint8_t ascii,
                                         std::int64_t characterIndex);
    static JSONError tooManyNestedArraysOrDictionaries(std::int64_t characterIndex);
    static JSONError invalidHexDigitSequence(std::string text, std::int64_t index);
    static JSONError unexpectedEscapedCharacter(std::uint8_t ascii, std::string in,
                                                std::int64_t index);
    static JSONError unescapedControlCharacterInString(std::uint8_t ascii, std::string in,
                                                       std::int64_t index);
    static JSONError expectedLowSurrogateUTF8SequenceAfterHighSurrogate(std::string in,
                                                                        std::int64_t index);
    static JSONError couldNotCreateUnicodeScalarFromUInt32(std::string in, std::int64_t index,
                                                           std::uint32_t unicodeScalarValue);
    static JSONError numberWithLeadingZero(std::int64_t index);
    static JSONError numberIsNotRepresentable(std::string parsed);
    static JSONError cannotConvertInputDataToUTF8();
    static JSONError unexpectedEndOfFile();
    static JSONError singleFragmentFoundButNotAllowed();

    Case kind() const { return case_; }
    /// unexpectedCharacter: the partial container or scalar read so far, if any.
    const std::optional<JSONValue>& jsonValue() const { return jsonValue_; }
    std::uint8_t ascii() const { return ascii_; }
    /// characterIndex or index, whichever the case carries.
    std::int64_t index() const { return index_; }
    /// The case's text value: the hex digits, `in`, or `parsed`.
    const std::string& text() const { return text_; }
    std::uint32_t unicodeScalarValue() const { return scalar_; }

    /// Case name, then the associated values in parentheses, separated by ", ", each labelled
    /// one as "label: value"; texts in double quotes with escapes, bytes and integers in decimal.
    /// For example: tooManyNestedArraysOrDictionaries(characterIndex: 600).
    std::string description() const;

    static std::string_view caseName(Case c);

    /// Moves the partial value out (used when the error is turned into a result).
    std::optional<JSONValue> takeJSONValue() { return std::move(jsonValue_); }

  private:
    explicit JSONError(Case c) : case_(c) {}

    Case case_;
    std::uint8_t ascii_ = 0;
    std::uint32_t scalar_ = 0;
    std::int64_t index_ = 0;
    std::string text_;
    std::optional<JSONValue> jsonValue_;
};

/// One parse of one document. The parser does not own the bytes: they must stay alive and
/// unchanged until parse() returns. Not thread-safe; any thread may use its own parser.
class KESTRO_API JSONParser {
  public:
    /// The cursor over the document's bytes. Its reading operations throw JSONError (they are the
    /// parser's building blocks); only JSONParser::parse() is meant for callers outside the
    /// parser.
    class KESTRO_API DocumentReader {
      public:
        explicit DocumentReader(std::span<const std::uint8_t> array) : array_(array) {}

        std::span<const std::uint8_t> array() const { return array_; }
        std::int64_t readerIndex() const { return index_; }
        std::int64_t count() const { return static_cast<std::int64_t>(array_.size()); }

        /// The byte at readerIndex, advancing by one; at the end nothing, and readerIndex
        /// becomes the byte count.
        std::optional<std::uint8_t> read();
        /// The byte at readerIndex + offset without moving; nothing outside the document.
        std::optional<std::uint8_t> peek(std::int64_t offset = 0) const;
        bool isEOF() const { return index_ >= count(); }
        void moveReaderIndex(std::int64_t forwardBy) { index_ += forwardBy; }
        /// Bytes [from, to), clamped to the document.
        std::span<const std::uint8_t> operator()(std::int64_t from, std::int64_t to) const;

        /// Skips whitespace (space, tab, line feed, carriage return) and returns the next byte
        /// without consuming it. Throws unexpectedEndOfFile, leaving readerIndex unchanged, when
        /// only whitespace remains.
        std::uint8_t consumeWhitespace();

        /// Reads a string starting at its opening quote; escapes decoded, invalid UTF-8 repaired.
        std::string readString();
        /// Reads a number starting at `-` or a digit; returns its exact source text and leaves
        /// readerIndex on the byte after it.
        std::string_view readNumber();
        /// At `t` or `f`: reads `true` or `false`.
        bool readBool();
        /// At `n`: reads `null`.
        void readNull();
        /// The bytes from start (clamped to the last byte; 0 for an empty document) to the end,
        /// as UTF-8 with invalid sequences replaced by U+FFFD.
        std::string readUnknown(std::int64_t start) const;

      private:
        friend class JSONParser;
        std::string readUTF8StringTillNextUnescapedQuote();
        // The string's text: a view of the document when it holds no escape and no ill-formed
        // UTF-8, else of scratch. ascii tells whether the text is plain ASCII.
        std::string_view readStringView(std::string& scratch, bool& ascii);
        void readUTF8StringTillNextUnescapedQuote(std::string& out);
        void parseEscapeSequence(std::string& out);
        std::uint32_t parseUnicodeSequence();
        std::uint32_t parseUnicodeHexSequence();
        std::string_view parseNumber();
        void readGenericValue(std::string_view expected, std::int64_t start);

        std::span<const std::uint8_t> array_;
        std::int64_t index_ = 0;
    };

    /// Open arrays and objects beyond which a document is rejected.
    static constexpr std::int64_t maxDepth = 512;

    explicit JSONParser(std::span<const std::uint8_t> bytes) : reader_(bytes) {}
    explicit JSONParser(std::string_view bytes)
        : reader_(std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(bytes.data()),
                                                bytes.size())) {}

    /// Parses the document. Never throws and never fails: broken input is carried in the tree
    /// as wrong/unknown text. Call once per parser. Work and stack are linear in the input
    /// (nesting is bounded by maxDepth).
    JSONValue parse() noexcept;

    const DocumentReader& reader() const { return reader_; }
    std::int64_t depth() const { return depth_; }

  private:
    JSONValue parseValue();
    JSONValue parseArray();
    JSONValue parseObject();

    DocumentReader reader_;
    std::int64_t depth_ = 0;
    // Elements and members of the containers being read, innermost last; each container
    // moves its own into an exact-size allocation when it closes.
    std::vector<JSONValue> values_;
    std::vector<JSONObjectEntry> members_;
    std::vector<std::uint8_t> asciiKeys_;
    std::string scratch_;
};

using DocumentReader = JSONParser::DocumentReader;

/// Convenience: JSONParser(bytes).parse().
KESTRO_API JSONValue parseJSON(std::string_view bytes) noexcept;

}  // namespace kestro
