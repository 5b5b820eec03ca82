#include "kestro/jsonview/json_parser.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <new>

#include "kestro/core/console.h"
#include "kestro/jsonview/utf8_repair.h"

namespace kestro {

using jsonview::internal::appendRepaired;
using jsonview::internal::utf8SequenceLength;

namespace {

constexpr std::uint8_t kQuote = '"';
constexpr std::uint8_t kBackslash = '\\';

constexpr bool isWhitespace(std::uint8_t c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// Bytes that may be copied into a string run without a closer look: printable ASCII other
// than the quote and the backslash.
struct PlainTable {
    bool plain[256];
    constexpr PlainTable() : plain() {
        for (int c = 0x20; c < 0x80; ++c) plain[c] = c != '"' && c != '\\';
    }
};
constexpr PlainTable kPlain;

// Appends a UTF-32 scalar as UTF-8. Callers pass values below 0x110000 that are not
// surrogates.
void appendScalar(std::string& out, std::uint32_t u) {
    if (u < 0x80) {
        out.push_back(static_cast<char>(u));
    } else if (u < 0x800) {
        char b[2] = {static_cast<char>(0xC0 | (u >> 6)), static_cast<char>(0x80 | (u & 0x3F))};
        out.append(b, 2);
    } else if (u < 0x10000) {
        char b[3] = {static_cast<char>(0xE0 | (u >> 12)),
                     static_cast<char>(0x80 | ((u >> 6) & 0x3F)),
                     static_cast<char>(0x80 | (u & 0x3F))};
        out.append(b, 3);
    } else {
        char b[4] = {
            static_cast<char>(0xF0 | (u >> 18)), static_cast<char>(0x80 | ((u >> 12) & 0x3F)),
            static_cast<char>(0x80 | ((u >> 6) & 0x3F)), static_cast<char>(0x80 | (u & 0x3F))};
        out.append(b, 4);
    }
}

int hexAsciiTo4Bits(std::uint8_t c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Raised inside escape decoding; the string reader turns it into the JSONError of the same
// name, adding the text read so far.
struct EscapedSequenceError {
    enum class Case {
        expectedLowSurrogateUTF8SequenceAfterHighSurrogate,
        unexpectedEscapedCharacter,
        couldNotCreateUnicodeScalarFromUInt32,
    };
    Case kind;
    std::int64_t index = 0;
    std::uint8_t ascii = 0;
    std::uint32_t unicodeScalarValue = 0;
};

std::string_view asChars(std::span<const std::uint8_t> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

void appendQuoted(std::string& out, std::string_view text) {
    static const char* const hex = "0123456789ABCDEF";
    out.push_back('"');
    for (unsigned char c : text) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            case '\0':
                out += "\\0";
                break;
            default:
                if (c < 0x20 || c == 0x7F) {
                    out += "\\u{";
                    if (c >= 0x10) out.push_back(hex[c >> 4]);
                    out.push_back(hex[c & 0xF]);
                    out.push_back('}');
                } else {
                    out.push_back(static_cast<char>(c));
                }
        }
    }
    out.push_back('"');
}

std::string describeValue(const JSONValue& v) {
    std::string out(JSONValue::caseName(v.kind()));
    switch (v.kind()) {
        case JSONValue::Case::string:
        case JSONValue::Case::number:
        case JSONValue::Case::unknown:
            out += '(';
            appendQuoted(out, v.text());
            out += ')';
            break;
        case JSONValue::Case::boolean:
            out += v.asBool() ? "(true)" : "(false)";
            break;
        case JSONValue::Case::array:
            out += "(" + std::to_string(v.asArray().size()) + " elements)";
            break;
        case JSONValue::Case::object:
            out += "(" + std::to_string(v.asObject().size()) + " members)";
            break;
        case JSONValue::Case::null:
            break;
    }
    return out;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// JSONError

JSONError JSONError::unexpectedCharacter(std::optional<JSONValue> jsonValue, std::uint8_t ascii,
                                         std::int64_t characterIndex) {
    JSONError e(Case::unexpectedCharacter);
    e.jsonValue_ = std::move(jsonValue);
    e.ascii_ = ascii;
    e.index_ = characterIndex;
    return e;
}

JSONError JSONError::tooManyNestedArraysOrDictionaries(std::int64_t characterIndex) {
    JSONError e(Case::tooManyNestedArraysOrDictionaries);
    e.index_ = characterIndex;
    return e;
}

JSONError JSONError::invalidHexDigitSequence(std::string text, std::int64_t index) {
    JSONError e(Case::invalidHexDigitSequence);
    e.text_ = std::move(text);
    e.index_ = index;
    return e;
}

JSONError JSONError::unexpectedEscapedCharacter(std::uint8_t ascii, std::string in,
                                                std::int64_t index) {
    JSONError e(Case::unexpectedEscapedCharacter);
    e.ascii_ = ascii;
    e.text_ = std::move(in);
    e.index_ = index;
    return e;
}

JSONError JSONError::unescapedControlCharacterInString(std::uint8_t ascii, std::string in,
                                                       std::int64_t index) {
    JSONError e(Case::unescapedControlCharacterInString);
    e.ascii_ = ascii;
    e.text_ = std::move(in);
    e.index_ = index;
    return e;
}

JSONError JSONError::expectedLowSurrogateUTF8SequenceAfterHighSurrogate(std::string in,
                                                                        std::int64_t index) {
    JSONError e(Case::expectedLowSurrogateUTF8SequenceAfterHighSurrogate);
    e.text_ = std::move(in);
    e.index_ = index;
    return e;
}

JSONError JSONError::couldNotCreateUnicodeScalarFromUInt32(std::string in, std::int64_t index,
                                                           std::uint32_t unicodeScalarValue) {
    JSONError e(Case::couldNotCreateUnicodeScalarFromUInt32);
    e.text_ = std::move(in);
    e.index_ = index;
    e.scalar_ = unicodeScalarValue;
    return e;
}

JSONError JSONError::numberWithLeadingZero(std::int64_t index) {
    JSONError e(Case::numberWithLeadingZero);
    e.index_ = index;
    return e;
}

JSONError JSONError::numberIsNotRepresentable(std::string parsed) {
    JSONError e(Case::numberIsNotRepresentable);
    e.text_ = std::move(parsed);
    return e;
}

JSONError JSONError::cannotConvertInputDataToUTF8() {
    return JSONError(Case::cannotConvertInputDataToUTF8);
}
JSONError JSONError::unexpectedEndOfFile() { return JSONError(Case::unexpectedEndOfFile); }
JSONError JSONError::singleFragmentFoundButNotAllowed() {
    return JSONError(Case::singleFragmentFoundButNotAllowed);
}

std::string_view JSONError::caseName(Case c) {
    switch (c) {
        case Case::unexpectedCharacter:
            return "unexpectedCharacter";
        case Case::tooManyNestedArraysOrDictionaries:
            return "tooManyNestedArraysOrDictionaries";
        case Case::invalidHexDigitSequence:
            return "invalidHexDigitSequence";
        case Case::unexpectedEscapedCharacter:
            return "unexpectedEscapedCharacter";
        case Case::unescapedControlCharacterInString:
            return "unescapedControlCharacterInString";
        case Case::expectedLowSurrogateUTF8SequenceAfterHighSurrogate:
            return "expectedLowSurrogateUTF8SequenceAfterHighSurrogate";
        case Case::couldNotCreateUnicodeScalarFromUInt32:
            return "couldNotCreateUnicodeScalarFromUInt32";
        case Case::numberWithLeadingZero:
            return "numberWithLeadingZero";
        case Case::numberIsNotRepresentable:
            return "numberIsNotRepresentable";
        case Case::cannotConvertInputDataToUTF8:
            return "cannotConvertInputDataToUTF8";
        case Case::unexpectedEndOfFile:
            return "unexpectedEndOfFile";
        case Case::singleFragmentFoundButNotAllowed:
            return "singleFragmentFoundButNotAllowed";
    }
    return "unexpectedEndOfFile";
}

std::string JSONError::description() const {
    std::string out(caseName(case_));
    auto integer = [&](std::string_view label, std::int64_t value) {
        out += label;
        out += ": ";
        out += std::to_string(value);
    };
    auto text = [&](std::string_view label, std::string_view value) {
        out += label;
        out += ": ";
        appendQuoted(out, value);
    };
    switch (case_) {
        case Case::unexpectedCharacter:
            out += "(jsonValue: ";
            out += jsonValue_ ? describeValue(*jsonValue_) : std::string("none");
            out += ", ";
            integer("ascii", ascii_);
            out += ", ";
            integer("characterIndex", index_);
            out += ')';
            break;
        case Case::tooManyNestedArraysOrDictionaries:
            out += '(';
            integer("characterIndex", index_);
            out += ')';
            break;
        case Case::invalidHexDigitSequence:
            out += '(';
            appendQuoted(out, text_);
            out += ", ";
            integer("index", index_);
            out += ')';
            break;
        case Case::unexpectedEscapedCharacter:
        case Case::unescapedControlCharacterInString:
            out += '(';
            integer("ascii", ascii_);
            out += ", ";
            text("in", text_);
            out += ", ";
            integer("index", index_);
            out += ')';
            break;
        case Case::expectedLowSurrogateUTF8SequenceAfterHighSurrogate:
            out += '(';
            text("in", text_);
            out += ", ";
            integer("index", index_);
            out += ')';
            break;
        case Case::couldNotCreateUnicodeScalarFromUInt32:
            out += '(';
            text("in", text_);
            out += ", ";
            integer("index", index_);
            out += ", ";
            integer("unicodeScalarValue", scalar_);
            out += ')';
            break;
        case Case::numberWithLeadingZero:
            out += '(';
            integer("index", index_);
            out += ')';
            break;
        case Case::numberIsNotRepresentable:
            out += '(';
            text("parsed", text_);
            out += ')';
            break;
        case Case::cannotConvertInputDataToUTF8:
        case Case::unexpectedEndOfFile:
        case Case::singleFragmentFoundButNotAllowed:
            break;
    }
    return out;
}

// ---------------------------------------------------------------------------------------------
// DocumentReader

std::optional<std::uint8_t> JSONParser::DocumentReader::read() {
    if (index_ < 0 || index_ >= count()) {
        index_ = count();
        return std::nullopt;
    }
    return array_[static_cast<std::size_t>(index_++)];
}

std::optional<std::uint8_t> JSONParser::DocumentReader::peek(std::int64_t offset) const {
    std::int64_t at = index_ + offset;
    if (at < 0 || at >= count()) return std::nullopt;
    return array_[static_cast<std::size_t>(at)];
}

std::span<const std::uint8_t> JSONParser::DocumentReader::operator()(std::int64_t from,
                                                                     std::int64_t to) const {
    from = std::clamp<std::int64_t>(from, 0, count());
    to = std::clamp<std::int64_t>(to, from, count());
    return array_.subspan(static_cast<std::size_t>(from), static_cast<std::size_t>(to - from));
}

std::uint8_t JSONParser::DocumentReader::consumeWhitespace() {
    const std::int64_t n = count();
    std::int64_t i = index_;
    while (i < n) {
        std::uint8_t c = array_[static_cast<std::size_t>(i)];
        if (!isWhitespace(c)) {
            index_ = i;
            return c;
        }
        ++i;
    }
    throw JSONError::unexpectedEndOfFile();
}

std::string JSONParser::DocumentReader::readUnknown(std::int64_t start) const {
    std::int64_t from = std::clamp<std::int64_t>(start, 0, std::max<std::int64_t>(count() - 1, 0));
    std::string out;
    appendRepaired(out, asChars((*this)(from, count())));
    return out;
}

std::string JSONParser::DocumentReader::readString() {
    return readUTF8StringTillNextUnescapedQuote();
}

std::string_view JSONParser::DocumentReader::readStringView(std::string& scratch, bool& ascii) {
    const std::int64_t n = count();
    if (index_ < n && array_[static_cast<std::size_t>(index_)] == kQuote) {
        // Fast path: plain bytes and well-formed UTF-8 up to the closing quote need no copy.
        const std::uint8_t* const data = array_.data();
        const std::uint8_t* const end = data + n;
        const std::uint8_t* const first = data + index_ + 1;
        const std::uint8_t* p = first;
        bool plainASCII = true;
        for (;;) {
            // Eight bytes at a time while none of them needs a closer look.
            while (end - p >= 8) {
                std::uint64_t w;
                std::memcpy(&w, p, 8);
                const std::uint64_t quote = w ^ 0x2222222222222222ULL;
                const std::uint64_t backslash = w ^ 0x5C5C5C5C5C5C5C5CULL;
                const std::uint64_t ones = 0x0101010101010101ULL;
                const std::uint64_t high = 0x8080808080808080ULL;
                const std::uint64_t special = ((quote - ones) & ~quote) |
                                              ((backslash - ones) & ~backslash) |
                                              ((w - 0x2020202020202020ULL) & ~w) | w;
                if (special & high) break;
                p += 8;
            }
            if (p >= end) break;
            const std::uint8_t c = *p;
            if (kPlain.plain[c]) {
                ++p;
                continue;
            }
            if (c == kQuote) {
                index_ = p + 1 - data;
                ascii = plainASCII;
                return {reinterpret_cast<const char*>(first), static_cast<std::size_t>(p - first)};
            }
            if (c < 0x80) break;  // escape or control byte: the full reader handles it
            const int length = utf8SequenceLength(p, end);
            if (length <= 0) break;
            plainASCII = false;
            p += length;
        }
    }
    scratch.clear();
    readUTF8StringTillNextUnescapedQuote(scratch);
    ascii = true;
    for (unsigned char c : scratch) {
        if (c >= 0x80) {
            ascii = false;
            break;
        }
    }
    return scratch;
}

std::string JSONParser::DocumentReader::readUTF8StringTillNextUnescapedQuote() {
    std::string out;
    readUTF8StringTillNextUnescapedQuote(out);
    return out;
}

void JSONParser::DocumentReader::readUTF8StringTillNextUnescapedQuote(std::string& out) {
    const std::int64_t n = count();
    if (index_ >= n) {
        index_ = n;
        std::uint8_t last = n > 0 ? array_[static_cast<std::size_t>(n - 1)] : 0;
        throw JSONError::unexpectedCharacter(std::nullopt, last, std::max<std::int64_t>(n - 1, 0));
    }
    const std::uint8_t* const data = array_.data();
    const std::uint8_t* const end = data + n;
    if (data[index_] != kQuote) {
        std::uint8_t c = data[index_];
        ++index_;
        throw JSONError::unexpectedCharacter(std::nullopt, c, index_ - 1);
    }
    ++index_;
    const std::uint8_t* p = data + index_;
    const std::uint8_t* run = p;
    auto appendRun = [&](const std::uint8_t* to) {
        out.append(reinterpret_cast<const char*>(run), static_cast<std::size_t>(to - run));
    };
    while (p < end) {
        const std::uint8_t c = *p;
        if (kPlain.plain[c]) {
            ++p;
            continue;
        }
        if (c == kQuote) {
            appendRun(p);
            index_ = p + 1 - data;
            return;
        }
        if (c < 0x20) {
            appendRun(p + 1);
            throw JSONError::unescapedControlCharacterInString(c, std::move(out), p - data);
        }
        if (c == kBackslash) {
            appendRun(p);
            index_ = p - data;
            const std::size_t before = out.size();
            try {
                parseEscapeSequence(out);
            } catch (const EscapedSequenceError& e) {
                out.resize(before);
                appendRepaired(out, asChars((*this)(p - data, index_)));
                switch (e.kind) {
                    case EscapedSequenceError::Case::
                        expectedLowSurrogateUTF8SequenceAfterHighSurrogate:
                        throw JSONError::expectedLowSurrogateUTF8SequenceAfterHighSurrogate(
                            std::move(out), e.index);
                    case EscapedSequenceError::Case::unexpectedEscapedCharacter:
                        throw JSONError::unexpectedEscapedCharacter(e.ascii, std::move(out),
                                                                    e.index);
                    case EscapedSequenceError::Case::couldNotCreateUnicodeScalarFromUInt32:
                        throw JSONError::couldNotCreateUnicodeScalarFromUInt32(
                            std::move(out), e.index, e.unicodeScalarValue);
                }
                throw;
            }
            p = data + index_;
            run = p;
            continue;
        }
        // A byte of a multi-byte sequence: well-formed sequences stay in the run; an ill-formed
        // one ends it and its maximal valid prefix becomes one U+FFFD.
        const int length = utf8SequenceLength(p, end);
        if (length > 0) {
            p += length;
            continue;
        }
        appendRun(p);
        out += "\xEF\xBF\xBD";
        p += -length;
        run = p;
    }
    index_ = n;
    throw JSONError::unexpectedEndOfFile();
}

void JSONParser::DocumentReader::parseEscapeSequence(std::string& out) {
    const std::int64_t n = count();
    if (index_ + 1 >= n) {
        index_ = n;
        throw JSONError::unexpectedEndOfFile();
    }
    const std::uint8_t c = array_[static_cast<std::size_t>(index_ + 1)];
    index_ += 2;
    switch (c) {
        case '"':
        case '\\':
        case '/':
            out.push_back(static_cast<char>(c));
            return;
        case 'b':
            out.push_back('\b');
            return;
        case 'f':
            out.push_back('\f');
            return;
        case 'n':
            out.push_back('\n');
            return;
        case 'r':
            out.push_back('\r');
            return;
        case 't':
            out.push_back('\t');
            return;
        case 'u':
            appendScalar(out, parseUnicodeSequence());
            return;
        default:
            throw EscapedSequenceError{EscapedSequenceError::Case::unexpectedEscapedCharacter,
                                       index_ - 1, c, 0};
    }
}

std::uint32_t JSONParser::DocumentReader::parseUnicodeSequence() {
    const std::uint32_t u = parseUnicodeHexSequence();
    if (u >= 0xD800 && u <= 0xDBFF) {
        if (count() - index_ < 2) {
            index_ = count();
            throw JSONError::unexpectedEndOfFile();
        }
        const std::uint8_t b0 = array_[static_cast<std::size_t>(index_)];
        const std::uint8_t b1 = array_[static_cast<std::size_t>(index_ + 1)];
        index_ += 2;
        if (b0 != kBackslash || b1 != 'u') {
            throw EscapedSequenceError{
                EscapedSequenceError::Case::expectedLowSurrogateUTF8SequenceAfterHighSurrogate,
                index_ - 1};
        }
        const std::uint32_t v = parseUnicodeHexSequence();
        if (v >= 0xDC00 && v <= 0xDFFF) return 0x10000 + (u - 0xD800) * 0x400 + (v - 0xDC00);
        throw EscapedSequenceError{
            EscapedSequenceError::Case::expectedLowSurrogateUTF8SequenceAfterHighSurrogate,
            index_ - 1};
    }
    if (u >= 0xDC00 && u <= 0xDFFF) {
        throw EscapedSequenceError{
            EscapedSequenceError::Case::couldNotCreateUnicodeScalarFromUInt32, index_, 0, u};
    }
    return u;
}

std::uint32_t JSONParser::DocumentReader::parseUnicodeHexSequence() {
    if (count() - index_ < 4) {
        index_ = count();
        throw JSONError::unexpectedEndOfFile();
    }
    const std::uint8_t* digits = array_.data() + index_;
    const std::int64_t first = index_;
    index_ += 4;
    std::uint32_t value = 0;
    for (int i = 0; i < 4; ++i) {
        const int bits = hexAsciiTo4Bits(digits[i]);
        if (bits < 0) {
            std::string text;
            appendRepaired(text, std::string_view(reinterpret_cast<const char*>(digits), 4));
            throw JSONError::invalidHexDigitSequence(std::move(text), first);
        }
        value = (value << 4) | static_cast<std::uint32_t>(bits);
    }
    return value;
}

std::string_view JSONParser::DocumentReader::readNumber() { return parseNumber(); }

std::string_view JSONParser::DocumentReader::parseNumber() {
    enum class Part { integer, fraction, exponent, exponentAfterSign };
    const std::uint8_t* const data = array_.data();
    const std::int64_t n = count();
    const std::int64_t start = index_;
    std::int64_t i = index_;
    Part part = Part::integer;
    int digits = 0;  // in the current part (saturates; only "any" matters)
    bool leadingZero = false;
    bool justStarted = true;  // the previous byte opened the current part (-, ., e, sign)
    auto fail = [&](std::int64_t at) -> std::string_view {
        index_ = at + 1;
        throw JSONError::unexpectedCharacter(std::nullopt, data[at], at);
    };

    if (i < n && data[i] == '-') ++i;
    for (; i < n; ++i) {
        const std::uint8_t c = data[i];
        if (c >= '0' && c <= '9') {
            if (leadingZero) {
                index_ = i + 1;
                throw JSONError::numberWithLeadingZero(i);
            }
            if (part == Part::integer && digits == 0 && c == '0') leadingZero = true;
            digits = 1;
            justStarted = false;
            continue;
        }
        switch (c) {
            case '.':
                if (part != Part::integer || digits == 0) return fail(i);
                part = Part::fraction;
                leadingZero = false;
                digits = 0;
                justStarted = true;
                continue;
            case 'e':
            case 'E':
                if ((part != Part::integer && part != Part::fraction) || digits == 0)
                    return fail(i);
                part = Part::exponent;
                leadingZero = false;
                digits = 0;
                justStarted = true;
                continue;
            case '+':
            case '-':
                if (part != Part::exponent || !justStarted) return fail(i);
                part = Part::exponentAfterSign;
                continue;
            case ' ':
            case '\t':
            case '\n':
            case '\r':
            case ',':
            case ']':
            case '}':
                if (digits == 0) return fail(i);
                index_ = i;
                return {reinterpret_cast<const char*>(data + start),
                        static_cast<std::size_t>(i - start)};
            default:
                return fail(i);
        }
    }
    if (digits == 0) {
        index_ = n;
        throw JSONError::unexpectedEndOfFile();
    }
    index_ = n;
    return {reinterpret_cast<const char*>(data + start), static_cast<std::size_t>(n - start)};
}

void JSONParser::DocumentReader::readGenericValue(std::string_view expected, std::int64_t start) {
    const std::int64_t n = count();
    index_ = start;
    std::int64_t matched = 0;
    for (char want : expected) {
        if (index_ >= n) {
            index_ = n;
            const std::int64_t m = n - start;
            const std::int64_t e = index_ - std::min(index_, m + 2);
            throw JSONError::unexpectedCharacter(std::nullopt, array_[static_cast<std::size_t>(e)],
                                                 e);
        }
        const std::uint8_t got = array_[static_cast<std::size_t>(index_++)];
        if (got != static_cast<std::uint8_t>(want)) {
            const std::int64_t e = index_ - std::min(index_, matched + 2);
            throw JSONError::unexpectedCharacter(std::nullopt, array_[static_cast<std::size_t>(e)],
                                                 e);
        }
        ++matched;
    }
}

bool JSONParser::DocumentReader::readBool() {
    const std::uint8_t first = *read();
    const std::int64_t s = index_;
    if (first == 't') {
        // Fast path for the common, well-formed case.
        if (count() - s >= 3 && std::memcmp(array_.data() + s, "rue", 3) == 0) {
            index_ = s + 3;
            return true;
        }
        readGenericValue("rue", s);
        return true;
    }
    if (count() - s >= 4 && std::memcmp(array_.data() + s, "alse", 4) == 0) {
        index_ = s + 4;
        return false;
    }
    readGenericValue("alse", s);
    return false;
}

void JSONParser::DocumentReader::readNull() {
    const std::int64_t s = index_;
    if (count() - s >= 4 && std::memcmp(array_.data() + s, "null", 4) == 0) {
        index_ = s + 4;
        return;
    }
    readGenericValue("null", s);
}

// ---------------------------------------------------------------------------------------------
// JSONParser

namespace {

// Counts an open container for as long as it is being read, on every way out.
class DepthGuard {
  public:
    explicit DepthGuard(std::int64_t& depth) : depth_(depth) { ++depth_; }
    ~DepthGuard() { --depth_; }
    DepthGuard(const DepthGuard&) = delete;
    DepthGuard& operator=(const DepthGuard&) = delete;

  private:
    std::int64_t& depth_;
};

}  // namespace

JSONValue JSONParser::parseValue() {
    for (;;) {
        if (reader_.isEOF()) throw JSONError::unexpectedEndOfFile();
        const std::uint8_t c = reader_.array_[static_cast<std::size_t>(reader_.index_)];
        switch (c) {
            case '[':
                return parseArray();
            case '{':
                return parseObject();
            case '"': {
                bool ascii;
                return JSONValue::string(reader_.readStringView(scratch_, ascii));
            }
            case '-':
            case '0':
            case '1':
            case '2':
            case '3':
            case '4':
            case '5':
            case '6':
            case '7':
            case '8':
            case '9':
                return JSONValue::number(reader_.parseNumber());
            case 't':
            case 'f':
                return JSONValue::boolean(reader_.readBool());
            case 'n':
                reader_.readNull();
                return JSONValue::null();
            case ' ':
            case '\t':
            case '\n':
            case '\r':
                ++reader_.index_;
                continue;
            default:
                throw JSONError::unexpectedCharacter(std::nullopt, c, reader_.index_);
        }
    }
}

namespace {

// Drops what a container left on a scratch stack, on every way out.
template <typename Stack>
class StackMark {
  public:
    explicit StackMark(Stack& stack) : stack_(stack), base_(stack.size()) {}
    ~StackMark() { stack_.resize(base_); }
    StackMark(const StackMark&) = delete;
    StackMark& operator=(const StackMark&) = delete;
    std::size_t base() const { return base_; }

  private:
    Stack& stack_;
    std::size_t base_;
};

}  // namespace

JSONValue JSONParser::parseArray() {
    if (depth_ >= maxDepth) throw JSONError::tooManyNestedArraysOrDictionaries(reader_.index_);
    DepthGuard guard(depth_);
    ++reader_.index_;  // [

    StackMark mark(values_);
    auto finish = [&] {
        JSONValue result(JSONValue::Case::array);
        new (&result.array_) JSONArray();
        result.array_.reserve(values_.size() - mark.base());
        for (std::size_t i = mark.base(); i < values_.size(); ++i)
            result.array_.push_back(std::move(values_[i]));
        return result;
    };

    if (reader_.consumeWhitespace() == ']') {
        ++reader_.index_;
        return finish();
    }
    for (;;) {
        values_.push_back(parseValue());
        std::uint8_t c = reader_.consumeWhitespace();
        if (c == ',') {
            ++reader_.index_;
            if (reader_.consumeWhitespace() == ']') {
                ++reader_.index_;
                return finish();
            }
            continue;
        }
        if (c == ']') {
            ++reader_.index_;
            return finish();
        }
        throw JSONError::unexpectedCharacter(finish(), c, reader_.index_);
    }
}

JSONValue JSONParser::parseObject() {
    if (depth_ >= maxDepth) throw JSONError::tooManyNestedArraysOrDictionaries(reader_.index_);
    DepthGuard guard(depth_);
    ++reader_.index_;  // {

    StackMark mark(members_);
    StackMark asciiMark(asciiKeys_);
    auto add = [&](JSONObjectKey key, bool ascii, JSONValue value) {
        members_.push_back(JSONObjectEntry{std::move(key), std::move(value)});
        asciiKeys_.push_back(ascii ? 1 : 0);
    };
    auto finish = [&] {
        JSONValue result(JSONValue::Case::object);
        new (&result.object_) JSONObject();
        result.object_.adopt(members_.data() + mark.base(), members_.size() - mark.base(),
                             asciiKeys_.data() + asciiMark.base());
        return result;
    };

    if (reader_.consumeWhitespace() == '}') {
        ++reader_.index_;
        return finish();
    }
    for (;;) {
        bool ascii = true;
        std::string_view keyText;
        try {
            keyText = reader_.readStringView(scratch_, ascii);
        } catch (JSONError& e) {
            if (e.kind() != JSONError::Case::unexpectedCharacter) throw;
            // A key that does not start with a quote: keep the rest of the document as text
            // and end this object here; the enclosing context goes on after the offending byte.
            add(JSONObjectKey::wrong(), true, JSONValue::unknown(reader_.readUnknown(e.index())));
            return finish();
        }
        // The key leaves the scratch buffer before the value (which may use it) is read.
        JSONObjectKey key{std::string(keyText)};

        std::uint8_t c = reader_.consumeWhitespace();
        if (c != ':') {
            const std::int64_t at = reader_.index_;
            add(std::move(key), ascii, JSONValue::unknown(reader_.readUnknown(at)));
            throw JSONError::unexpectedCharacter(finish(), c, at);
        }
        ++reader_.index_;
        reader_.consumeWhitespace();

        try {
            JSONValue value = parseValue();
            add(std::move(key), ascii, std::move(value));
        } catch (JSONError& e) {
            if (e.kind() != JSONError::Case::unexpectedCharacter || e.jsonValue()) throw;
            // The value did not start like JSON, or a number or literal was malformed: keep the
            // rest, from two bytes before the fault, under the key, and make this object the
            // result.
            add(std::move(key), ascii,
                JSONValue::unknown(reader_.readUnknown(std::max<std::int64_t>(e.index() - 2, 0))));
            throw JSONError::unexpectedCharacter(finish(), e.ascii(), e.index());
        }
        c = reader_.consumeWhitespace();
        if (c == ',') {
            ++reader_.index_;
            if (reader_.consumeWhitespace() == '}') {
                ++reader_.index_;
                return finish();
            }
            continue;
        }
        if (c == '}') {
            ++reader_.index_;
            return finish();
        }
        const std::int64_t at = reader_.index_;
        add(JSONObjectKey::wrong(), true, JSONValue::unknown(reader_.readUnknown(at)));
        throw JSONError::unexpectedCharacter(finish(), c, at);
    }
}

namespace {

// The scratch stacks of the last parse on this thread. Reusing their capacity spares every
// parse of a large document the growth of its stacks (for big documents, fresh mappings and
// page faults each time). Stacks that grew beyond kKeptCapacity are not kept.
struct ScratchStacks {
    std::vector<JSONValue> values;
    std::vector<JSONObjectEntry> members;
    std::vector<std::uint8_t> asciiKeys;
    std::string scratch;
};
constexpr std::size_t kKeptCapacity = 1 << 16;
thread_local ScratchStacks tlsScratch;

}  // namespace

JSONValue JSONParser::parse() noexcept {
    struct Lease {
        JSONParser& parser;
        explicit Lease(JSONParser& p) : parser(p) {
            parser.values_.swap(tlsScratch.values);
            parser.members_.swap(tlsScratch.members);
            parser.asciiKeys_.swap(tlsScratch.asciiKeys);
            parser.scratch_.swap(tlsScratch.scratch);
        }
        ~Lease() {
            parser.values_.clear();
            parser.members_.clear();
            parser.asciiKeys_.clear();
            if (parser.values_.capacity() <= kKeptCapacity &&
                parser.members_.capacity() <= kKeptCapacity) {
                parser.values_.swap(tlsScratch.values);
                parser.members_.swap(tlsScratch.members);
                parser.asciiKeys_.swap(tlsScratch.asciiKeys);
                parser.scratch_.swap(tlsScratch.scratch);
            }
        }
    } lease(*this);
    try {
        try {
            reader_.consumeWhitespace();
            JSONValue value = parseValue();
            const std::int64_t n = reader_.count();
            for (std::int64_t i = reader_.index_; i < n; ++i) {
                const std::uint8_t c = reader_.array_[static_cast<std::size_t>(i)];
                if (!isWhitespace(c)) throw JSONError::unexpectedCharacter(std::move(value), c, i);
            }
            return value;
        } catch (JSONError& e) {
            if (e.kind() != JSONError::Case::unexpectedCharacter) {
                return JSONValue::unknown(e.description());
            }
            std::string rest = reader_.readUnknown(e.index());
            std::optional<JSONValue> partial = e.takeJSONValue();
            if (!partial) return JSONValue::unknown(std::move(rest));
            JSONValue value = std::move(*partial);
            if (value.isScalar()) {
                value.setWrong(rest);
            } else if (value.isArray() && !value.array_.empty()) {
                value.array_.back().setWrong(rest);
            }
            return value;
        }
    } catch (const std::exception& e) {
        printI(std::string("❌ The JSON parser ran out of resources: ") + e.what(), LogLevel::error);
        return JSONValue::unknown(std::string(e.what()));
    } catch (...) {
        printI("❌ The JSON parser stopped on an unexpected error", LogLevel::error);
        return JSONValue::unknown(std::string_view("unknown error"));
    }
}

JSONValue parseJSON(std::string_view bytes) noexcept { return JSONParser(bytes).parse(); }

}  // namespace kestro
