// The tolerant parser's results for well-formed and broken documents, its error texts, the
// nesting limit, escapes and UTF-8 repair, and the value tree's own operations.

#include "kestro/jsonview/json_parser.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kestro {
namespace {

using V = JSONValue;

JSONValue num(std::string_view text) { return V::number(text); }
JSONValue str(std::string_view text) { return V::string(text); }
JSONValue arr(std::initializer_list<JSONValue> elements) { return V::array(JSONArray(elements)); }

struct Case {
    std::string input;
    JSONValue expected;
};

void expectAll(const std::vector<Case>& cases) {
    for (const auto& c : cases) {
        SCOPED_TRACE("input: " + c.input);
        EXPECT_EQ(parseJSON(c.input), c.expected);
    }
}

TEST(JSONParser, ReadsWellFormedDocuments) {
    expectAll({
        {"[1,2,]", arr({num("1"), num("2")})},
        {"{\"a\":1,}", V::object({{"a", num("1")}})},
        {"[ ]", arr({})},
        {"{ \n}", V::object()},
        {"-0", num("-0")},
        {"0.5e+3", num("0.5e+3")},
        {" \t\r\n12.25E-2 \n", num("12.25E-2")},
        {"0e1", num("0e1")},
        {"[true,false,null]", arr({V::boolean(true), V::boolean(false), V::null()})},
        {"\"\"", str("")},
        {"{\"a\":1,\"a\":2}", V::object({{"a", num("2")}})},
        {"{\"k\":[{\"x\":{}}],\"e\":\"\\\"\\\\\\/\\b\\f\\n\\r\\t\"}",
         V::object({{"k", arr({V::object({{"x", V::object()}})})}, {"e", str("\"\\/\b\f\n\r\t")}})},
    });
}

// One row per kind of fault: the tree it leaves, with the rest of the document as wrong or
// unknown text.
TEST(JSONParser, BrokenDocumentsKeepWhatWasReadAndCarryTheRest) {
    const JSONObjectKey wrongKey = JSONObjectKey::wrong();
    expectAll({
        // Nothing to read.
        {"", V::unknown("unexpectedEndOfFile")},
        {" \t\n\r ", V::unknown("unexpectedEndOfFile")},
        // Garbage after a complete top-level value.
        {"\"abc\" junk", V::string("abc", "junk")},
        {"true false", V::boolean(true, "false")},
        {"null,", V::null(",")},
        {"12 34", V::number("12", "34")},
        {"[1, 2] x", arr({num("1"), V::number("2", "x")})},
        {"[1, [2]] x", arr({num("1"), arr({num("2")})})},
        {"[] x", arr({})},
        {"{\"a\": 1} tail", V::object({{"a", num("1")}})},
        // A top-level value that does not start like JSON.
        {"hello", V::unknown("hello")},
        {"  @x", V::unknown("@x")},
        {"1x", V::unknown("x")},
        {"tru", V::unknown("tru")},
        {"nul", V::unknown("nul")},
        {"nulL", V::unknown("nulL")},
        // An array element followed by neither , nor ]: the innermost array is the result.
        {"[1, 2 x]", arr({num("1"), V::number("2", "x]")})},
        {"[1, [2, 3 x], 4]", arr({num("2"), V::number("3", "x], 4]")})},
        {"{\"a\": [true :]}", arr({V::boolean(true, ":]}")})},
        {"[[1] x]", arr({arr({num("1")})})},
        // An element that does not start like JSON: the whole document from that byte.
        {"[1, x]", V::unknown("x]")},
        {"[1.]", V::unknown("]")},
        {"[tru", V::unknown("[tru")},
        // Object key not starting with a quote: a wrong-key entry, reading goes on after it.
        {"{\"a\":1, b:2}", V::object({{"a", num("1")}, {wrongKey, V::unknown("b:2}")}})},
        {"{b}", V::object({{wrongKey, V::unknown("b}")}})},
        {"[{b}, 1]", arr({V::object({{wrongKey, V::unknown("b}, 1]")}})})},
        // Object key not followed by a colon: this object alone is the result.
        {"{\"a\" 1}", V::object({{"a", V::unknown("1}")}})},
        {"[{\"x\":{\"a\" 1}}]", V::object({{"a", V::unknown("1}}]")}})},
        // Object value not like JSON, malformed number or literal: from two bytes before.
        {"{\"a\": x}", V::object({{"a", V::unknown(": x}")}})},
        {"{\"a\":1x}", V::object({{"a", V::unknown(":1x}")}})},
        {"{\"a\": tru}", V::object({{"a", V::unknown(": tru}")}})},
        {"{\"a\": nulx}", V::object({{"a", V::unknown("\": nulx}")}})},
        {"{\"p\":{\"a\": [1, ?]}}", V::object({{"a", V::unknown(", ?]}}")}})},
        // Object member followed by neither , nor }: a wrong-key entry; this object is the
        // result, the enclosing ones are lost.
        {"{\"a\": 2 x}", V::object({{"a", num("2")}, {wrongKey, V::unknown("x}")}})},
        {"[1, {\"a\": 2 x}]", V::object({{"a", num("2")}, {wrongKey, V::unknown("x}]")}})},
        // Faults that cannot be recovered: the whole document becomes the error's text.
        {"[1, 2", V::unknown("unexpectedEndOfFile")},
        {"{\"a\":", V::unknown("unexpectedEndOfFile")},
        {"\"abc", V::unknown("unexpectedEndOfFile")},
        {"-", V::unknown("unexpectedEndOfFile")},
        {"1.", V::unknown("unexpectedEndOfFile")},
        {"01", V::unknown("numberWithLeadingZero(index: 1)")},
        {"[-012]", V::unknown("numberWithLeadingZero(index: 3)")},
    });
}

TEST(JSONParser, NumbersFollowTheJSONGrammar) {
    // Each of these stops at the given byte with nothing before it kept.
    expectAll({
        {"+1", V::unknown("+1")},
        {".5", V::unknown(".5")},
        {"1.e5", V::unknown("e5")},
        {"1e", V::unknown("unexpectedEndOfFile")},
        {"1e+", V::unknown("unexpectedEndOfFile")},
        {"1e+-2", V::unknown("-2")},
        {"1e5.3", V::unknown(".3")},
        {"1.2.3", V::unknown(".3")},
        {"-a", V::unknown("a")},
        {"[1e]", V::unknown("]")},
        {"0x10", V::unknown("x10")},
        {"1:", V::unknown(":")},
    });
    expectAll({
        {"[-0.0e-0, 1E+9, 10, 0]", arr({num("-0.0e-0"), num("1E+9"), num("10"), num("0")})},
        {"123456789012345678901234567890", num("123456789012345678901234567890")},
    });
}

TEST(JSONParser, StringFaultsGiveTheirErrorDescriptions) {
    expectAll({
        {"[\"a\\x\"]",
         V::unknown("unexpectedEscapedCharacter(ascii: 120, in: \"a\\\\x\", index: 4)")},
        {"\"a\nb\"",
         V::unknown("unescapedControlCharacterInString(ascii: 10, in: \"a\\n\", index: 2)")},
        {"\"\x01\"",
         V::unknown("unescapedControlCharacterInString(ascii: 1, in: \"\\u{1}\", index: 1)")},
        {"\"\\u12G4\"", V::unknown("invalidHexDigitSequence(\"12G4\", index: 3)")},
        {"\"\\u12", V::unknown("unexpectedEndOfFile")},
        {"\"\\", V::unknown("unexpectedEndOfFile")},
        // A lone low surrogate.
        {"\"\\uDE00\"",
         V::unknown("couldNotCreateUnicodeScalarFromUInt32(in: \"\\\\uDE00\", index: 7, "
                    "unicodeScalarValue: 56832)")},
        // A high surrogate followed by something other than an escape, or by another escape.
        {"\"\\uD83Dxx\"", V::unknown("expectedLowSurrogateUTF8SequenceAfterHighSurrogate(in: "
                                     "\"\\\\uD83Dxx\", index: 8)")},
        {"\"ab\\uD83D\\u0041\"",
         V::unknown("expectedLowSurrogateUTF8SequenceAfterHighSurrogate(in: "
                    "\"ab\\\\uD83D\\\\u0041\", index: 14)")},
        {"[\"\\uD83D\"]", V::unknown("expectedLowSurrogateUTF8SequenceAfterHighSurrogate(in: "
                                     "\"\\\\uD83D\\\"]\", index: 9)")},
        {"\"\\uD83D\"", V::unknown("unexpectedEndOfFile")},
        {"\"\\uD83D", V::unknown("unexpectedEndOfFile")},
        // An object key is read by the same reader.
        {"{\"k\\q\": 1}",
         V::unknown("unexpectedEscapedCharacter(ascii: 113, in: \"k\\\\q\", index: 4)")},
    });
}

TEST(JSONParser, EscapesDecodeToUTF8) {
    expectAll({
        {"\"\\uD83D\\uDE00\"", str("\xF0\x9F\x98\x80")},
        {"\"\\u00e9\\u20AC\\u0041\"", str("\xC3\xA9\xE2\x82\xAC"
                                          "A")},
        {"\"a\\u0000b\"", str(std::string_view("a\0b", 3))},
        {"\"\\uDBFF\\uDFFF\"", str("\xF4\x8F\xBF\xBF")},
    });
}

TEST(JSONParser, InvalidUTF8IsRepairedNotRejected) {
    const std::string fffd = "\xEF\xBF\xBD";
    expectAll({
        {"\"a\xFF"
         "b\"",
         str("a" + fffd + "b")},
        // A truncated sequence counts once; bytes that cannot start one count each.
        {"\"\xE2\x82\"", str(fffd)},
        {"\"\xE2\x82"
         "A\"",
         str(fffd + "A")},
        {"\"\x80\x80\"", str(fffd + fffd)},
        // Overlong forms and encoded surrogates are ill-formed.
        {"\"\xC0\xAF\"", str(fffd + fffd)},
        {"\"\xED\xA0\x80\"", str(fffd + fffd + fffd)},
        {"\"\xF4\x90\x80\x80\"", str(fffd + fffd + fffd + fffd)},
        // Well-formed multi-byte text passes unchanged.
        {"\"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\"", str("\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80")},
        // Keys, wrong texts and unknown text are repaired too.
        {"{\"k\xC3\":1}", V::object({{JSONObjectKey("k" + fffd), num("1")}})},
        {"1 \xC3(", V::number("1", fffd + "(")},
        {"\xC3(", V::unknown(fffd + "(")},
    });
}

TEST(JSONParser, NestingIsLimitedTo512OpenContainers) {
    const std::string deepest = std::string(512, '[') + std::string(512, ']');
    JSONValue v = parseJSON(deepest);
    int depth = 0;
    for (const JSONValue* p = &v; p->isArray() && depth < 1000; p = &p->asArray().front()) {
        ++depth;
        if (p->asArray().empty()) break;
    }
    EXPECT_EQ(depth, 512);

    EXPECT_EQ(parseJSON(std::string(513, '[') + std::string(513, ']')),
              V::unknown("tooManyNestedArraysOrDictionaries(characterIndex: 512)"));
    // Objects count alike, and a mix of both.
    std::string objects;
    for (int i = 0; i < 513; ++i) objects += i % 2 ? "{\"k\":" : "[";
    EXPECT_EQ(parseJSON(objects), V::unknown("tooManyNestedArraysOrDictionaries(characterIndex: " +
                                             std::to_string(objects.size() - 1) + ")"));
    // Far deeper input fails the same way without exhausting the stack.
    EXPECT_EQ(parseJSON(std::string(1'000'000, '[')),
              V::unknown("tooManyNestedArraysOrDictionaries(characterIndex: 512)"));
}

TEST(JSONParser, ErrorDescriptionsNameTheCaseAndItsLabelledValues) {
    EXPECT_EQ(JSONError::tooManyNestedArraysOrDictionaries(600).description(),
              "tooManyNestedArraysOrDictionaries(characterIndex: 600)");
    EXPECT_EQ(JSONError::unexpectedCharacter(std::nullopt, 120, 3).description(),
              "unexpectedCharacter(jsonValue: none, ascii: 120, characterIndex: 3)");
    EXPECT_EQ(JSONError::unexpectedCharacter(V::number("2"), 120, 3).description(),
              "unexpectedCharacter(jsonValue: number(\"2\"), ascii: 120, characterIndex: 3)");
    EXPECT_EQ(JSONError::numberIsNotRepresentable("1e999").description(),
              "numberIsNotRepresentable(parsed: \"1e999\")");
    EXPECT_EQ(JSONError::cannotConvertInputDataToUTF8().description(),
              "cannotConvertInputDataToUTF8");
    EXPECT_EQ(JSONError::singleFragmentFoundButNotAllowed().description(),
              "singleFragmentFoundButNotAllowed");
    EXPECT_EQ(JSONError::unexpectedEscapedCharacter('x', "q\"\\\t\r\x7F", 9).description(),
              "unexpectedEscapedCharacter(ascii: 120, in: \"q\\\"\\\\\\t\\r\\u{7F}\", index: 9)");
}

TEST(DocumentReader, CursorOperations) {
    const std::string doc = "  \t x";
    DocumentReader r(std::span(reinterpret_cast<const std::uint8_t*>(doc.data()), doc.size()));
    EXPECT_EQ(r.peek(4), std::optional<std::uint8_t>('x'));
    EXPECT_EQ(r.peek(5), std::nullopt);
    EXPECT_EQ(r.consumeWhitespace(), 'x');
    EXPECT_EQ(r.readerIndex(), 4);
    EXPECT_EQ(r.read(), std::optional<std::uint8_t>('x'));
    EXPECT_TRUE(r.isEOF());
    EXPECT_EQ(r.read(), std::nullopt);
    EXPECT_EQ(r.readerIndex(), 5);
    // Unknown text starts at most at the last byte.
    EXPECT_EQ(r.readUnknown(99), "x");
    EXPECT_EQ(r.readUnknown(2), "\t x");

    const std::string blank = "  ";
    DocumentReader w(std::span(reinterpret_cast<const std::uint8_t*>(blank.data()), blank.size()));
    EXPECT_THROW(w.consumeWhitespace(), JSONError);
    EXPECT_EQ(w.readerIndex(), 0);
    EXPECT_EQ(DocumentReader({}).readUnknown(0), "");
}

TEST(JSONValue, IsRightFollowsTheWrongParts) {
    using VT = V::ValueType;
    EXPECT_EQ(num("1").isRight(), VT::makeRight(false));
    EXPECT_EQ(V::null("x").isRight(), VT::makeWrong());
    EXPECT_EQ(arr({}).isRight(), VT::makeRight(true));
    // Only the last element of an array decides.
    EXPECT_EQ(arr({V::number("1", "x"), num("2")}).isRight(), VT::makeRight(true));
    EXPECT_EQ(arr({num("1"), V::number("2", "x")}).isRight(), VT::makeWrong());
    EXPECT_EQ(arr({arr({V::unknown("u")})}).isRight(), VT::makeWrong());
    // Any member of an object decides.
    EXPECT_EQ(V::object({{"a", num("1")}, {"b", arr({})}}).isRight(), VT::makeRight(true));
    EXPECT_EQ(
        V::object({{"a", V::object({{"b", V::boolean(true, "?")}})}, {"c", num("1")}}).isRight(),
        VT::makeWrong());
    EXPECT_EQ(V::unknown("x").isRight(), VT::makeWrong());
}

TEST(JSONValue, AppendWrongReplacesOnScalarsOnly) {
    EXPECT_EQ(V::string("s", "old").appendWrong("new"), V::string("s", "new"));
    EXPECT_EQ(V::boolean(false).appendWrong("w"), V::boolean(false, "w"));
    EXPECT_EQ(arr({num("1")}).appendWrong("w"), arr({num("1")}));
    EXPECT_EQ(V::unknown("u").appendWrong("w"), V::unknown("u"));
    EXPECT_EQ(V::object().appendWrong("w"), V::object());
}

TEST(JSONValue, EqualityIsStructural) {
    // Maps compare as maps, whatever the order of insertion.
    EXPECT_EQ(V::object({{"a", num("1")}, {"b", num("2")}}),
              V::object({{"b", num("2")}, {"a", num("1")}}));
    EXPECT_NE(V::object({{"a", num("1")}}), V::object({{"a", num("1")}, {"b", num("2")}}));
    // Numbers are their text; the wrong text is part of the value; cases differ.
    EXPECT_NE(num("1.0"), num("1"));
    EXPECT_NE(num("1"), V::number("1", ""));
    EXPECT_NE(str("1"), num("1"));
    EXPECT_NE(arr({num("1"), num("2")}), arr({num("2"), num("1")}));
    EXPECT_NE(JSONObjectKey("a"), JSONObjectKey("a", true));
    EXPECT_EQ(JSONObjectKey("", true), JSONObjectKey::wrong());

    // Copies are deep and moves leave null behind.
    JSONValue big = parseJSON("{\"k\":[1,{\"x\":\"y\"}],\"n\":null}");
    JSONValue copy = big;
    EXPECT_EQ(copy, big);
    JSONValue moved = std::move(copy);
    EXPECT_EQ(moved, big);
    // Assigning a value's own child to it.
    moved = JSONValue(moved.asObject().find("k")->asArray()[1]);
    EXPECT_EQ(moved, V::object({{"x", str("y")}}));
}

TEST(JSONObject, LargeMapsFindEveryKeyAndKeepTheLastDuplicate) {
    std::string doc = "{";
    for (int i = 0; i < 300; ++i)
        doc += "\"k" + std::to_string(i) + "\":" + std::to_string(i) + ",";
    doc += "\"k7\":\"again\"}";
    const JSONValue v = parseJSON(doc);
    ASSERT_TRUE(v.isObject());
    const JSONObject& o = v.asObject();
    EXPECT_EQ(o.size(), 300u);
    for (int i = 0; i < 300; ++i) {
        const JSONValue* found = o.find("k" + std::to_string(i));
        ASSERT_NE(found, nullptr) << i;
        EXPECT_EQ(*found, i == 7 ? str("again") : num(std::to_string(i)));
    }
    EXPECT_EQ(o.find("k300"), nullptr);
    EXPECT_EQ(o.find(JSONObjectKey("k1", true)), nullptr);
}

TEST(JSONObjectKey, CanonicallyEquivalentKeysAreOneKey) {
    const JSONObjectKey composed("caf\xC3\xA9");     // é as one scalar
    const JSONObjectKey decomposed("cafe\xCC\x81");  // e + combining acute accent
    EXPECT_EQ(composed, decomposed);
    EXPECT_EQ(composed.hash(), decomposed.hash());
    EXPECT_FALSE(composed < decomposed);
    EXPECT_FALSE(decomposed < composed);
    EXPECT_EQ(parseJSON("{\"caf\xC3\xA9\":1,\"cafe\xCC\x81\":2}").asObject().size(), 1u);
}

TEST(JSONObjectKey, OrderingPutsWrongKeysLast) {
    const JSONObjectKey a("a"), b("b"), w = JSONObjectKey::wrong();
    EXPECT_TRUE(a < b);
    EXPECT_FALSE(b < a);
    EXPECT_TRUE(b < w);
    EXPECT_FALSE(w < a);
    EXPECT_FALSE(w < w);
    // Scalar order, not byte-wise case folding: "Z" < "a" < "é".
    EXPECT_TRUE(JSONObjectKey("Z") < JSONObjectKey("a"));
    EXPECT_TRUE(JSONObjectKey("a") < JSONObjectKey("\xC3\xA9"));
}

TEST(JSONObject, RankingPutsTheUnknownValueLast) {
    EXPECT_TRUE(rankingUnknownKeyLast(JSONObject()).empty());
    const JSONObject o = {{"b", num("1")}, {JSONObjectKey::wrong(), V::null()}, {"a", num("2")}};
    EXPECT_EQ(rankingUnknownKeyLast(o),
              (std::vector<JSONObjectKey>{"a", "b", JSONObjectKey::wrong()}));
    // A key holding an unknown value goes after the wrong key that does not.
    const JSONValue parsed = parseJSON("{\"z\":1, \"m\" 2}");
    EXPECT_EQ(rankingUnknownKeyLast(parsed.asObject()), (std::vector<JSONObjectKey>{"z", "m"}));
    const JSONObject withUnknown = {
        {"z", V::unknown("rest")}, {"a", num("1")}, {JSONObjectKey::wrong(), num("2")}};
    EXPECT_EQ(rankingUnknownKeyLast(withUnknown),
              (std::vector<JSONObjectKey>{"a", JSONObjectKey::wrong(), "z"}));
    auto entries = rankedEntries(withUnknown);
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries.back()->value, V::unknown("rest"));
    // All-ASCII keys and keys beyond ASCII order alike: by scalar.
    EXPECT_EQ(rankingUnknownKeyLast(JSONObject{{"b", num("1")}, {"a", num("2")}, {"B", num("3")}}),
              (std::vector<JSONObjectKey>{"B", "a", "b"}));
    EXPECT_EQ(
        rankingUnknownKeyLast(JSONObject{{"\xC3\xA9", num("1")}, {"a", num("2")}, {"Z", num("3")}}),
        (std::vector<JSONObjectKey>{"Z", "a", "\xC3\xA9"}));
}

}  // namespace
}  // namespace kestro
